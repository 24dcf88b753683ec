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
    , m_link(QStringList(options.type), DaemonLink::GiveUp, QStringLiteral("publishing"))
    , m_end(signalDescriptor, [this] { endHungProcess(); })
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, &PublishCommand::endUnpublished);
    connect(&m_output, &ResultOutput::readerLeft, this, &PublishCommand::end);
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
}

void PublishCommand::connectLink()
{
    connect(&m_link, &DaemonLink::notice, this, &reportError);
    connect(&m_link, &DaemonLink::browsing, this, &PublishCommand::followDaemon);
    connect(&m_link, &DaemonLink::broken, this, [this] {
        m_isRegistered = false;
        m_isPublished = false;
    });
    connect(&m_link, &DaemonLink::gaveUp, this, [this] {
        m_isUnreachable = true;
        end();
    });
    const WatchedDiscovery* discovery = &m_link.discovery();
    connect(discovery, &WatchedDiscovery::publicationChanged, this, &PublishCommand::handle);
    connect(discovery, &WatchedDiscovery::stateChanged, this, &PublishCommand::followDaemon, Qt::QueuedConnection);
}

void PublishCommand::followDaemon()
{
    const WatchedDiscovery& discovery = m_link.discovery();
    if (m_isEnding || !m_link.discovery().IsBrowsing() || discovery.state() != WatchedDiscovery::Ready)
        return;
    // A service leads to the host name of the moment in which it is published.
    if (discovery.isHostNameSettled() && !m_isRegistered)
        publish();
    else if (!discovery.isHostNameSettled() && m_isRegistered)
        withdrawFromOldHostName();
}

void PublishCommand::publish()
{
    m_isRegistered = true;
    const bool isAccepted = m_link.ask([this] {
        return m_link.discovery().RegisterService(m_options.name.toUtf8().constData(),
                                                  m_options.type.toUtf8().constData(), m_options.info);
    });
    if (isAccepted || m_isEnding)
        return;

    m_isRegistered = false;
    const int error = m_link.discovery().lastError();
    if (error == AVAHI_ERR_COLLISION) {
        handle(AVAHI_ENTRY_GROUP_COLLISION);
    } else if (!m_link.didHang() && m_link.discovery().state() == WatchedDiscovery::Ready) {
        fail(PublicationEvent::Failure,
             QStringLiteral("the Avahi daemon refuses to publish the service (%1); restart it with "
                            "\"sudo systemctl restart avahi-daemon\"")
                 .arg(QString::fromUtf8(avahi_strerror(error))));
    }
}

void PublishCommand::withdrawFromOldHostName()
{
    m_isRegistered = false;
    m_link.ask([this] { return m_link.discovery().TerminateRegistration(); });
    if (m_isPublished)
        tell(PublicationEvent::Withdrawn);
    m_isPublished = false;
}

// Called from inside Avahi's calls: nothing may be withdrawn or freed here.
void PublishCommand::handle(AvahiEntryGroupState state)
{
    if (m_isEnding)
        return;
    if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
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

void PublishCommand::endUnpublished()
{
    if (!m_wasPublished && !m_isEnding)
        reportError(QStringLiteral("the service is not established yet; try a longer --timeout"));
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
    const bool isWithdrawn = withdrawAndClose(exitStatus());
    if (isWithdrawn) {
        // What the terminal shows of Ctrl-C.
        if (isRedrawable(STDOUT_FILENO))
            writeAll(STDOUT_FILENO, ERASE_LINE);
        tell(PublicationEvent::Withdrawn);
    }
    if (m_output.hasFailed())
        reportError(m_output.failureText());
    Q_EMIT finished(exitStatus());
}

/** Whether a service that was published is not any more. */
bool PublishCommand::withdrawAndClose(int status)
{
    bool isWithdrawn = false;
    const auto withdraw = [this, &isWithdrawn] {
        // Before browsing ends, as that would free the service without the goodbye being confirmed.
        isWithdrawn = m_link.discovery().TerminateRegistration() && m_isPublished;
        m_link.close();
    };
    TimelyEnd::hurry(withdraw, [this, status] {
        m_link.tellOfHangAtEnd();
        _exit(status);
    });
    return isWithdrawn;
}

// Runs in another thread, while the object's own is blocked in a call to the daemon.
void PublishCommand::endHungProcess()
{
    // Who waits for a slow reader of the output does not hang.
    if (m_output.isBusy() || !m_end.take())
        return;
    m_link.tellOfHangAtEnd();
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
