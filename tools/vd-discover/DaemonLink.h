// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_DAEMONLINK_H
#define VD_DISCOVER_DAEMONLINK_H

#include "WatchedDiscovery.h"

#include <QtCore/QStringList>
#include <QtCore/QTimer>

#include <atomic>

namespace vd::discover {

/**
 * Gets browsing going and keeps it going: waits for a bus or a daemon that is missing, and browses again
 * after the daemon was restarted. Or, without patience, says at once that it can't.
 */
class DaemonLink : public QObject
{
    Q_OBJECT

public:
    enum Patience { GiveUp, KeepTrying };

    DaemonLink(const QStringList& types, Patience patience);

    /** Where the devices are signalled. */
    WatchedDiscovery& discovery() { return m_discovery; }

    /** Begins. What comes of it is told by the signals, possibly before this returns. */
    void open();

    /** Ends everything. A daemon that hangs blocks this for long. */
    void close();

    /** Whether browsing ever began. */
    bool wasReached() const { return m_wasReached; }

    /**
     * Tells on standard error that the daemon hangs, unless that was the last trouble told. Any thread may
     * call this, as may wasReached(): the link's own is blocked then.
     */
    void tellOfHangAtEnd();

Q_SIGNALS:
    /** Browsing has begun, or begun again. */
    void browsing();

    /** Browsing has ended: what was known of devices is void. */
    void broken();

    /** One line for the user: a trouble, told once and with its remedy, or that it is over. */
    void notice(QString message);

    /** The link will do nothing more. */
    void gaveUp();

private:
    enum Trouble { NoTrouble, BusTrouble, DaemonTrouble, HangTrouble, OtherTrouble };

    void tryToBrowse();
    bool browseAllTypes();
    void fail();
    void giveUpOrRetry();
    void tell(Trouble trouble, const QString& message);
    void tellOfHang();
    void followState();

    const QStringList m_types;
    const Patience m_patience;
    std::atomic<bool> m_wasReached{false};
    bool m_isClosed = false;
    std::atomic<bool> m_didHang{false};
    std::atomic<Trouble> m_toldTrouble{NoTrouble};
    QTimer m_retry;
    WatchedDiscovery m_discovery;
};

} // namespace vd::discover

#endif
