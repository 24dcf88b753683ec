// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_DAEMONLINK_H
#define VD_DISCOVER_DAEMONLINK_H

#include "Deadline.h"
#include "WatchedDiscovery.h"

#include <QtCore/QStringList>
#include <QtCore/QTimer>

#include <atomic>
#include <functional>
#include <memory>

namespace vd::discover {

/**
 * Gets browsing going and keeps it going: waits for a bus or a daemon that is missing, and browses again
 * after the daemon was restarted. Or, without patience, says at once that it can't. Managed discovery does the
 * waiting itself; there the link watches it and tells the user.
 */
class DaemonLink : public QObject
{
    Q_OBJECT

public:
    enum Patience { GiveUp, KeepTrying };

    /** @param purpose what the link is for, told once it is back: "browsing". */
    DaemonLink(WatchedDiscovery::Kind kind, const QStringList& types, Patience patience, const QString& purpose);

    /** Where the devices are signalled. */
    ServiceDiscovery& discovery() { return m_watched->operations(); }

    /** How it stands with the daemon. */
    const WatchedDiscovery& watched() const { return *m_watched; }

    /** Begins. What comes of it is told by the signals, possibly before this returns. */
    void open();

    /**
     * While @p isBusy says true, it is not the daemon that a call waits for, as the signals are handled inside
     * calls. Any thread calls it.
     */
    void setOtherWork(const std::function<bool()>& isBusy) { m_isBusyOtherwise = isBusy; }

    /** From now on. */
    void setPatience(Patience patience) { m_patience = patience; }

    /**
     * Makes @p call, which asks the daemon for something. If no answer comes, that is told while the call still
     * waits, and without patience the process ends.
     * @return what the call returned
     */
    bool ask(const std::function<bool()>& call);

    /** Ends everything. A daemon that hangs blocks this for long. */
    void close();

    /** Whether browsing ever began. */
    bool wasReached() const { return m_wasReached; }

    /** Whether it has begun, and the daemon was not lost since. Any thread may ask. */
    bool isBrowsing() const { return m_isBrowsing; }

    /**
     * Tells on standard error that the daemon hangs, unless that was the last trouble told. Any thread may
     * call this, as may wasReached(): the link's own is blocked then.
     */
    void tellOfHangAtEnd();

Q_SIGNALS:
    /** Browsing has begun, or begun again. */
    void browsing();

    /** Browsing has ended. Without managed discovery, what was known of devices is void. */
    void broken();

    /** One line for the user: a trouble, told once and with its remedy, or that it is over. */
    void notice(QString message);

    /** The link will do nothing more. */
    void gaveUp();

private:
    enum Trouble { NoTrouble, BusTrouble, DaemonTrouble, HangTrouble, OtherTrouble };

    void tryToBrowse();
    bool browseAllTypes();
    void begin();
    void fail();
    void lose();
    void giveUpOrRetry();
    void lookLater();
    void stopWaiting();
    void look();
    void tell(Trouble trouble, const QString& message);
    void tellOfHang();
    void tellOfRecovery();
    void followState();

    const WatchedDiscovery::Kind m_kind;
    const QStringList m_types;
    const QString m_purpose;
    std::function<bool()> m_isBusyOtherwise = [] { return false; };
    std::atomic<Patience> m_patience;
    std::atomic<bool> m_wasReached{false};
    std::atomic<bool> m_isBrowsing{false};
    bool m_isClosed = false;
    std::atomic<bool> m_didHang{false};
    std::atomic<Trouble> m_toldTrouble{NoTrouble};
    QTimer m_retry;
    const std::unique_ptr<WatchedDiscovery> m_watched;
    // Last, so that its thread does not run while the rest is destroyed.
    std::unique_ptr<Deadline> m_wait;
};

} // namespace vd::discover

#endif
