// SPDX-License-Identifier: MIT
#include "PublishCommand.h"

#include "ExitStatus.h"
#include "StandardStreams.h"

#include <avahi-common/error.h>

#include <QtCore/QDateTime>

#include <unistd.h>

namespace vd::discover {

PublishCommand::PublishCommand(const PublishOptions& options, int signalDescriptor)
    : m_options(options)
    // Only browsing makes the connection to the daemon that publishing uses.
    , m_link(WatchedDiscovery::Managed, QStringList(options.type), DaemonLink::GiveUp,
             QStringLiteral("publishing"))
    , m_end(signalDescriptor, [this] { endHungProcess(); })
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, [this] {
        m_isTimeUp = true;
        end();
    });
    connect(&m_output, &ResultOutput::readerLeft, this, &PublishCommand::end);
    m_link.setOtherWork([this] { return m_output.isBusy(); });
    connectLink();
}

void PublishCommand::start()
{
    if (m_options.verbose)
        writeWholeLog();
    m_output.watchReader();
    warn();
    if (m_options.timeoutMs > 0) {
        m_timeout.start(m_options.timeoutMs);
        m_end.expectAfter(std::chrono::milliseconds(m_options.timeoutMs));
    }
    m_link.open();
}

void PublishCommand::warn()
{
    const bool hasPassword = !m_options.info.password.isEmpty();
    reportError(QStringLiteral("warning: everyone on the local network can read the record")
                + (hasPassword ? QStringLiteral(", password included") : QString()));
    for (const QString& warning : m_options.warnings)
        reportError(QStringLiteral("warning: ") + warning);
}

void PublishCommand::connectLink()
{
    connect(&m_link, &DaemonLink::notice, this, &reportError);
    connect(&m_link, &DaemonLink::browsing, this, &PublishCommand::followDaemon);
    connect(&m_link, &DaemonLink::broken, this, &PublishCommand::lose);
    connect(&m_link, &DaemonLink::gaveUp, this, [this] {
        m_isUnreachable = true;
        end();
    });
    const WatchedDiscovery* watched = &m_link.watched();
    connect(watched, &WatchedDiscovery::publicationChanged, this, &PublishCommand::handle);
    connect(watched, &WatchedDiscovery::stateChanged, this, &PublishCommand::followDaemon, Qt::QueuedConnection);
}

void PublishCommand::followDaemon()
{
    if (m_isEnding || !m_link.isBrowsing())
        return;
    // A service leads to the host name of the moment in which it is published.
    const bool isHostNameSettled = m_link.watched().isHostNameSettled();
    if (isHostNameSettled && !m_isRequested) {
        publish();
    } else if (!isHostNameSettled && m_isPublished) {
        // It is withdrawn from the old host name now, and published under the new one.
        m_isPublished = false;
        tell(PublicationEvent::Withdrawn);
    }
}

void PublishCommand::publish()
{
    m_isRequested = true;
    m_isRegistered = true;
    const bool isAccepted = m_link.ask([this] {
        return m_link.discovery().RegisterService(m_options.name.toUtf8().constData(),
                                                  m_options.type.toUtf8().constData(), m_options.info);
    });
    if (isAccepted || m_isEnding)
        return;

    m_isRegistered = false;
    const int error = m_link.watched().lastError();
    if (error == AVAHI_ERR_COLLISION) {
        handle(AVAHI_ENTRY_GROUP_COLLISION);
    } else if (m_link.watched().state() == WatchedDiscovery::Ready) {
        fail(PublicationEvent::Failure,
             QStringLiteral("the Avahi daemon refuses to publish the service (%1); restart it with "
                            "\"sudo systemctl restart avahi-daemon\"")
                 .arg(QString::fromUtf8(avahi_strerror(error))));
    }
}

void PublishCommand::lose()
{
    m_isRegistered = false;
    const bool wasHere = m_isPublished;
    m_isPublished = false;
    if (wasHere)
        tell(PublicationEvent::Lost);
}

// Called from inside Avahi's calls: nothing may be withdrawn or freed here.
void PublishCommand::handle(AvahiEntryGroupState state)
{
    if (m_isEnding)
        return;
    if (state == AVAHI_ENTRY_GROUP_REGISTERING) {
        m_isRegistered = true;
    } else if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
        // It is established anew whenever the machine gets another interface or address.
        if (m_isPublished)
            return;
        m_isPublished = true;
        m_wasPublished = true;
        m_link.setPatience(DaemonLink::KeepTrying);
        tell(PublicationEvent::Established);
    } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
        fail(PublicationEvent::Collision,
             QStringLiteral("another service on the network has the name %1; choose another NAME")
                 .arg(quoted(m_options.name)));
    } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
        fail(PublicationEvent::Failure,
             QStringLiteral("the Avahi daemon could not publish the service; see why with "
                            "\"journalctl -u avahi-daemon\""));
    }
}

void PublishCommand::fail(PublicationEvent event, const QString& message)
{
    m_isPublished = false;
    m_hasFailed = true;
    tell(event);
    reportError(message);
    end();
}

void PublishCommand::tell(PublicationEvent event)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    m_output.write(m_options.format == OutputFormat::Json ? publicationJson(event, now, m_options)
                                                          : publicationLine(event, now, m_options));
    if (m_output.isClosed())
        end();
}

void PublishCommand::end()
{
    if (m_isEnding)
        return;
    m_isEnding = true;
    m_timeout.stop();
    m_output.stopWatching();
    m_end.expectNow();
    // Queued, as this may be called from inside Avahi's calls.
    QMetaObject::invokeMethod(this, &PublishCommand::finish, Qt::QueuedConnection);
}

void PublishCommand::finish()
{
    m_end.begin();
    withdrawAndClose();
    if (m_isPublished) {
        // What the terminal shows of Ctrl-C.
        if (isRedrawable(STDOUT_FILENO))
            writeAll(STDOUT_FILENO, ERASE_LINE);
        tell(PublicationEvent::Withdrawn);
    }
    if (m_output.hasFailed())
        reportError(m_output.failureText());
    else if (exitStatus() == EXIT_NOT_PUBLISHED && !m_hasFailed)
        sayThatItEndedTooEarly();
    Q_EMIT finished(exitStatus());
}

/** Afterwards a service that is published still is one whose withdrawal is to be told. */
void PublishCommand::withdrawAndClose()
{
    const auto work = [this] {
        // Before browsing ends, as that would free the service without the goodbye being confirmed.
        if (!m_link.discovery().TerminateRegistration()) {
            sayWhatRemains();
            m_isPublished = false;
        }
        m_isRegistered = false;
        m_link.close();
    };
    TimelyEnd::hurry(work, [this] {
        m_link.tellOfHangAtEnd();
        sayWhatRemains();
        _exit(exitStatus());
    });
}

void PublishCommand::sayThatItEndedTooEarly() const
{
    reportError(m_isTimeUp
                    ? QStringLiteral("the service is not established yet; try a longer --timeout")
                    : QStringLiteral("the service was not published, as the run ended before it was established"));
}

/** Any thread may call this. */
void PublishCommand::sayWhatRemains()
{
    // What has failed was not readable.
    if (!m_isRegistered || m_hasFailed)
        return;
    reportError(QStringLiteral("the Avahi daemon did not confirm the withdrawal, so the record may still be "
                               "readable; restart it with \"sudo systemctl restart avahi-daemon\""));
}

// Runs in another thread, while the object's own is blocked in a call to the daemon.
void PublishCommand::endHungProcess()
{
    // Who waits for a slow reader of the output does not hang.
    if (m_output.isBusy() || !m_end.take())
        return;
    m_link.tellOfHangAtEnd();
    sayWhatRemains();
    _exit(exitStatus());
}

int PublishCommand::exitStatus() const
{
    if (m_isUnreachable || !m_link.wasReached())
        return EXIT_UNREACHABLE;
    if (m_hasFailed || m_output.hasFailed())
        return EXIT_NOT_PUBLISHED;
    return m_wasPublished ? EXIT_PUBLISHED : EXIT_NOT_PUBLISHED;
}

} // namespace vd::discover
