// SPDX-License-Identifier: MIT
#include "DaemonLink.h"

#include "Deadline.h"
#include "ExitStatus.h"
#include "StandardStreams.h"

#include <QtCore/QByteArray>

#include <unistd.h>

namespace vd::discover {

namespace {

const int RETRY_MS = 500;
// Well within the two seconds in which a user is to be told. A daemon in health takes milliseconds.
const std::chrono::milliseconds PATIENCE_WITH_CALLS(1500);

QString busRemedy()
{
    return QStringLiteral("the D-Bus system bus cannot be reached; start it with "
                          "\"sudo systemctl start dbus\", or install it with \"sudo apt install dbus\"");
}

QString daemonRemedy()
{
    return QStringLiteral("the Avahi daemon is not running; start it with "
                          "\"sudo systemctl start avahi-daemon\", or install it with "
                          "\"sudo apt install avahi-daemon\"");
}

QString endRemedy()
{
    return QStringLiteral("the connection to the Avahi daemon has ended; if it does not come back by itself, "
                          "start it with \"sudo systemctl start avahi-daemon\"");
}

QString hangRemedy()
{
    return QStringLiteral("the Avahi daemon or the system bus does not answer; restart the daemon with "
                          "\"sudo systemctl restart avahi-daemon\"");
}

QString refusalRemedy()
{
    return QStringLiteral("the Avahi daemon refuses to browse; restart it with "
                          "\"sudo systemctl restart avahi-daemon\"");
}

} // namespace

DaemonLink::DaemonLink(const QStringList& types, Patience patience, const QString& purpose)
    : m_types(types), m_purpose(purpose), m_patience(patience)
{
    m_retry.setSingleShot(true);
    m_retry.setInterval(RETRY_MS);
    connect(&m_retry, &QTimer::timeout, this, &DaemonLink::tryToBrowse);
    // Queued, as browsing must not be ended from inside the client's own call.
    connect(&m_discovery, &WatchedDiscovery::stateChanged, this, &DaemonLink::followState, Qt::QueuedConnection);
}

void DaemonLink::open()
{
    tryToBrowse();
}

void DaemonLink::close()
{
    if (m_isClosed)
        return;
    m_isClosed = true;
    m_retry.stop();
    m_discovery.TerminateBrowsing();
}

void DaemonLink::tryToBrowse()
{
    if (!browseAllTypes()) {
        fail();
        return;
    }
    m_wasReached = true;
    tellOfRecovery();
    Q_EMIT browsing();
}

bool DaemonLink::browseAllTypes()
{
    return watched([this] {
        for (const QString& type : m_types) {
            if (!m_discovery.BrowseServices(type.toUtf8().constData()))
                return false;
        }
        return true;
    });
}

bool DaemonLink::watched(const std::function<bool()>& call)
{
    m_didHang = false;
    const Deadline deadline(PATIENCE_WITH_CALLS, [this] { tellOfHang(); });
    return call();
}

bool DaemonLink::ask(const std::function<bool()>& call)
{
    const bool isDone = watched(call);
    if (isDone)
        tellOfRecovery();
    else if (m_didHang)
        QMetaObject::invokeMethod(this, &DaemonLink::breakLink, Qt::QueuedConnection);
    return isDone;
}

void DaemonLink::fail()
{
    const WatchedDiscovery::State state = m_discovery.state();
    if (m_didHang)
        tell(HangTrouble, hangRemedy());
    else if (state == WatchedDiscovery::NoClient)
        tell(BusTrouble, busRemedy());
    else if (state == WatchedDiscovery::NoDaemon)
        tell(DaemonTrouble, daemonRemedy());
    else
        tell(OtherTrouble, refusalRemedy());

    // A patient link keeps a client that has no daemon yet: the client tells when one appears.
    if (m_patience == GiveUp || state != WatchedDiscovery::NoDaemon)
        giveUpOrRetry();
}

void DaemonLink::giveUpOrRetry()
{
    if (m_patience == GiveUp) {
        close();
        Q_EMIT gaveUp();
    } else {
        m_discovery.TerminateBrowsing();
        m_retry.start();
    }
}

void DaemonLink::tellOfRecovery()
{
    if (m_toldTrouble.exchange(NoTrouble) != NoTrouble)
        Q_EMIT notice(QStringLiteral("the Avahi daemon answers; ") + m_purpose);
}

void DaemonLink::tell(Trouble trouble, const QString& message)
{
    if (m_toldTrouble.exchange(trouble) == trouble)
        return;
    Q_EMIT notice(m_patience == GiveUp ? message : message + QStringLiteral("; waiting for it"));
}

// Runs in another thread, while this object's own is blocked.
void DaemonLink::tellOfHang()
{
    if (m_isBusyOtherwise())
        return;
    m_didHang = true;
    if (m_toldTrouble.exchange(HangTrouble) != HangTrouble)
        reportError(m_patience == GiveUp ? hangRemedy() : hangRemedy() + QStringLiteral("; waiting for it"));
    if (m_patience == GiveUp)
        _exit(EXIT_UNREACHABLE);
}

void DaemonLink::tellOfHangAtEnd()
{
    if (m_toldTrouble.exchange(HangTrouble) != HangTrouble)
        reportError(hangRemedy());
}

void DaemonLink::followState()
{
    if (m_isClosed)
        return;
    const WatchedDiscovery::State state = m_discovery.state();
    if (state == WatchedDiscovery::Ready && !m_discovery.IsBrowsing()) {
        tryToBrowse();
    } else if (state == WatchedDiscovery::Failed) {
        Q_EMIT broken();
        tell(DaemonTrouble, endRemedy());
        giveUpOrRetry();
    }
}

void DaemonLink::breakLink()
{
    if (m_isClosed || !m_discovery.IsBrowsing())
        return;
    Q_EMIT broken();
    giveUpOrRetry();
}

} // namespace vd::discover
