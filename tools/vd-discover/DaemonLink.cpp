// SPDX-License-Identifier: MIT
#include "DaemonLink.h"

#include "ExitStatus.h"
#include "StandardStreams.h"

#include <QtCore/QByteArray>

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>

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

QString descriptorRemedy()
{
    return QStringLiteral("this process may not open enough files to reach the Avahi daemon; "
                          "allow it more with \"ulimit -n 64\"");
}

/** Whether as many files can be opened as it takes to reach the daemon. */
bool areDescriptorsLeft()
{
    std::array<int, 8> opened = {};
    bool areLeft = true;
    for (int& descriptor : opened) {
        descriptor = eventfd(0, EFD_CLOEXEC);
        areLeft = areLeft && descriptor != -1;
    }
    for (const int descriptor : opened) {
        if (descriptor != -1)
            close(descriptor);
    }
    return areLeft;
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

DaemonLink::DaemonLink(WatchedDiscovery::Kind kind, const QStringList& types, Patience patience,
                       const QString& purpose)
    : m_kind(kind)
    , m_types(types)
    , m_purpose(purpose)
    , m_patience(patience)
    , m_watched(WatchedDiscovery::make(kind))
{
    m_retry.setSingleShot(true);
    m_retry.setInterval(RETRY_MS);
    connect(&m_retry, &QTimer::timeout, this, &DaemonLink::look);
    // Queued, as browsing must not be ended from inside the client's own call.
    connect(m_watched.get(), &WatchedDiscovery::stateChanged, this, &DaemonLink::followState,
            Qt::QueuedConnection);
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
    stopWaiting();
    discovery().TerminateBrowsing();
}

void DaemonLink::tryToBrowse()
{
    if (ask([this] { return browseAllTypes(); }))
        begin();
    else
        fail();
}

bool DaemonLink::browseAllTypes()
{
    for (const QString& type : m_types) {
        if (!discovery().BrowseServices(type.toUtf8().constData()))
            return false;
    }
    return m_watched->isBrowsing();
}

bool DaemonLink::ask(const std::function<bool()>& call)
{
    m_didHang = false;
    const Deadline deadline(PATIENCE_WITH_CALLS, [this] { tellOfHang(); });
    return call();
}

void DaemonLink::begin()
{
    stopWaiting();
    m_wasReached = true;
    m_isBrowsing = true;
    tellOfRecovery();
    Q_EMIT browsing();
}

void DaemonLink::fail()
{
    const WatchedDiscovery::State state = m_watched->state();
    if (m_didHang)
        tell(HangTrouble, hangRemedy());
    else if (state == WatchedDiscovery::NoClient)
        tell(BusTrouble, areDescriptorsLeft() ? busRemedy() : descriptorRemedy());
    else if (state == WatchedDiscovery::NoDaemon)
        tell(DaemonTrouble, daemonRemedy());
    else if (state == WatchedDiscovery::Failed)
        tell(DaemonTrouble, endRemedy());
    else
        tell(OtherTrouble, refusalRemedy());

    // A patient link keeps a client that has no daemon yet: the client tells when one appears.
    if (m_patience == GiveUp || state != WatchedDiscovery::NoDaemon)
        giveUpOrRetry();
}

void DaemonLink::lose()
{
    if (m_isBrowsing.exchange(false))
        Q_EMIT broken();
    tell(DaemonTrouble, endRemedy());
    giveUpOrRetry();
}

void DaemonLink::giveUpOrRetry()
{
    if (m_patience == GiveUp) {
        close();
        Q_EMIT gaveUp();
    } else {
        if (m_kind == WatchedDiscovery::Plain)
            discovery().TerminateBrowsing();
        lookLater();
    }
}

void DaemonLink::lookLater()
{
    stopWaiting();
    m_didHang = false;
    // Meanwhile managed discovery asks the daemon by itself, and nothing else tells that this takes long.
    if (m_kind == WatchedDiscovery::Managed)
        m_wait.reset(
            new Deadline(std::chrono::milliseconds(RETRY_MS) + PATIENCE_WITH_CALLS, [this] { tellOfHang(); }));
    m_retry.start();
}

void DaemonLink::stopWaiting()
{
    m_retry.stop();
    m_wait.reset();
}

void DaemonLink::look()
{
    stopWaiting();
    if (m_kind == WatchedDiscovery::Plain)
        tryToBrowse();
    else if (m_watched->isBrowsing())
        begin();
    else
        fail();
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
    const WatchedDiscovery::State state = m_watched->state();
    if (m_watched->isBrowsing()) {
        if (!m_isBrowsing)
            begin();
    } else if (m_isBrowsing || state == WatchedDiscovery::Failed) {
        lose();
    } else if (m_kind == WatchedDiscovery::Managed) {
        // It may be about to begin. If it does not, what is in its way is to be told.
        lookLater();
    } else if (state == WatchedDiscovery::Ready) {
        tryToBrowse();
    }
}

} // namespace vd::discover
