// SPDX-License-Identifier: MIT
#ifndef VD_MANAGEDSERVICEDISCOVERY_H
#define VD_MANAGEDSERVICEDISCOVERY_H

#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QScopedPointer>

namespace vd {

/**
 * Discovery for applications that run for months: AvahiServiceDiscovery with the same operations and signals, which
 * gets over restarts of the daemon and the bus, and whose memory and open Avahi objects are bounded.
 *
 * @code
 * vd::ManagedServiceDiscovery discovery;
 * QObject::connect(&discovery, SIGNAL(serviceFound(vd::SServiceInfo)), list, SLOT(add(vd::SServiceInfo)));
 * QObject::connect(&discovery, SIGNAL(serviceLost(vd::SServiceInfo)), list, SLOT(remove(vd::SServiceInfo)));
 * discovery.BrowseServices("_http._tcp");
 * discovery.BrowseServices("_https._tcp");
 * return application.exec();
 * @endcode
 *
 * What differs from AvahiServiceDiscovery:
 *
 * - BrowseServices(), and RegisterService() after it, return true without a daemon too, and begin when there is one.
 *   BrowseServices() returns false when a handler or a slot ends browsing meanwhile.
 *   What cannot be browsed or published is refused then as ever. After a restart everything is taken up again. Devices
 *   that came back as they were cause no signal; changed ones cause serviceAddress or serviceText; those that are not
 *   seen again within gracePeriod() cause serviceLost.
 * - A published service is withdrawn and published anew when the host gets another name, and tried again when the
 *   daemon gives it up. After a collision, as another host has that name, it is published again only after a restart or
 *   under a new host name. It is published with what RegisterService() was given, not with what UpdateTxtRecord() made
 *   of it. A registration that fails leaves nothing behind, and TerminateBrowsing() ends IsRegistered().
 * - A device is lost when no interface, protocol, type or domain shows it any more.
 * - After the removal of an address the record holds the addresses that remain. The signal still carries the removed
 *   one alone. An address that a look-up does not show any more is looked for once more before it counts as removed.
 * - A web service without a maker's key is resolved again after 5 s, 10 s, and so on up to an hour, as it may get one;
 *   after a restart of the daemon from 5 s on again.
 * - Every string of the TXT record counts for serviceText, also when the address changes with it, and so do the port
 *   and the host. Of two web services of one name the record tells of the one that was answered last. Changes of either
 *   are signalled, and so is its turn to the one that is left, but no other.
 * - StartQueryAllRecords() queries every device in its turn.
 * - StopQueryRecords() ends the query of that service alone.
 * - Devices are resolved when the event loop runs again, a few at a time, on the interfaces that show them in turn,
 *   whichever is given, and by their IPv4 addresses: one that has none is not found before it gets one. A service that
 *   was asked for without being browsed is given up when it does not answer, unless the query is long-lived. One that
 *   answered stays known until a device of its name that was seen is lost, or browsing ends.
 * - Hosts are looked up on the link only, also those outside "local".
 * - serviceFound has the new txtChecksum already.
 * - services holds devices only, no entries for their hosts.
 *
 * A bus whose socket is a file is noticed at once when it returns, another (DBUS_SYSTEM_BUS_ADDRESS with
 * unix:abstract=, tcp:) at the next attempt, 1.5 s later at most. Attempts that fail while the bus is there are repeated
 * ever more seldom, every 8 s at last; a connection that is lost again within 2 s is taken up 1.5 s later at most.
 *
 * Thread: as AvahiServiceDiscovery. Avahi's calls wait for the daemon, so those that devices need are made in a thread
 * that the object starts for them, a few at a time, and the event loop goes on; handlers and slots are called in the
 * object's thread as ever. While many services stand in line, or were asked for lately, a second Avahi client, with a
 * thread of its own, takes part in the look-up of addresses, so that the daemon need not wait for the next call. The daemon
 * is asked first, without waiting, whether it is ready, on one more connection to the bus. One that hangs then delays
 * devices and holds up nothing but this: BrowseServices() of a new type, RegisterService(), UpdateTxtRecord(),
 * TerminateRegistration(), and connecting and publishing anew call the daemon at once. All of them, TerminateBrowsing() and
 * the destructor wait as well for those calls in a thread that are on their way. Connecting waits once: after a call or an
 * attempt that a daemon did not answer it is asked before the next. A bus that hangs is waited for in every attempt to
 * connect. To keep all of these from blocking a window too, make the object in the run() of a QThread and connect its
 * signals to the window by queued connections.
 *
 * All calls are made in the object's thread with the distribution's poll adapter (VD_USE_SYSTEM_AVAHI_QT). With the
 * library's own so are those on a client while a slot that one of its events has led to runs an event loop.
 *
 * The thread may be using @c client whenever the event loop has run. So a class that derives from this one makes calls on
 * it in two places only: inside a handler other than RecordBrowse(), whose browser may be of the second client, and right
 * after RegisterService() or UpdateTxtRecord() that returned true. avahi_client_get_state() is allowed in the object's thread
 * at any time.
 */
class Q_DECL_EXPORT ManagedServiceDiscovery : public AvahiServiceDiscovery
{
    Q_OBJECT
    Q_ENUMS(State)
    Q_PROPERTY(State state READ state NOTIFY stateChanged)

public:
    enum State {
        Unavailable, ///< Nothing is browsed, or there is no bus or no daemon; it is waited for.
        Connecting,  ///< The daemon is there, and not every type is browsed yet.
        Running      ///< Every type is browsed.
    };

    ManagedServiceDiscovery();
    ~ManagedServiceDiscovery() override;

    /** What stateChanged() told last. */
    State state() const;

    /**
     * How long after Running a device known from before may take to be seen again, in milliseconds; default 15000.
     * What the event loop was held up for does not count, and the period does not end while the daemon hangs, or while
     * a slot runs an event loop and keeps the client from telling more (with the library's own poll adapter).
     */
    int gracePeriod() const;
    void setGracePeriod(int milliseconds);

    /**
     * How many Avahi objects may be open at a time: browsers, resolvers, address browsers, the published service;
     * default 512. The daemon's own limit is 1024 a client. What has no room waits in line, long-lived queries too, which
     * leave a quarter to others. Another type that is browsed, or a service that is published, may be over it until others
     * have made room; beside them there is always room for one service to be resolved.
     */
    int objectLimit() const;
    void setObjectLimit(int objects);
    /** How many are open now. */
    int openObjects() const;

    bool BrowseServices(const char* type) override;
    bool TerminateBrowsing() override;
    bool IsBrowsing() override;
    bool ResolveService(unsigned int interfaceIndex, const char* name, const char* type,
                        const char* domain) override;
    bool StartQueryRecords(const char* name, const char* type, bool longLiveQuery) override;
    void StopQueryRecords(const char* name, const char* type) override;
    bool RegisterService(const char* name, const char* type, const vd::SReconfigInfo& info) override;
    bool TerminateRegistration() override;
    bool IsRegistered() override;

Q_SIGNALS:
    /**
     * Emitted in the object's thread, by BrowseServices() and TerminateBrowsing() before they return, else from the event
     * loop. A slot may do what those of the other signals may.
     */
    void stateChanged(vd::ManagedServiceDiscovery::State state);

protected:
    void AvahiClientStateChanged(AvahiClient* client, AvahiClientState state, void* userdata) override;
    void ServiceBrowse(AvahiServiceBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                       const char* name, const char* type, const char* domain, AvahiLookupResultFlags flags,
                       void* userdata) override;
    void ServiceResolve(AvahiServiceResolver* resolver, int interface, int protocol, AvahiResolverEvent event,
                        const char* name, const char* type, const char* domain, const char* host_name,
                        const AvahiAddress* address, unsigned short port, AvahiStringList* txt,
                        AvahiLookupResultFlags flags, void* userdata) override;
    void RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                      const char* name, unsigned short clazz, unsigned short type, const void* rdata,
                      unsigned long size, AvahiLookupResultFlags flags, void* userdata) override;
    /** Logs the state, and publishes anew what the daemon gave up. A collision is left as it is. */
    void AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) override;

    /** As the base's, which it hides, after waiting for calls on the client that are on their way. */
    bool UpdateTxtRecord(const char* txt);
    /** The same. */
    bool AddTxtRecord(const char* txt);

private Q_SLOTS:
    void connectToDaemon();
    void connectSoon();
    void makeCalls();
    void daemonAnswered(bool isThere);
    void callsReturned();
    void retryWaiting();
    void publishWaiting();
    void passGrace();
    void queryNextInTurn();

private:
    Q_DISABLE_COPY(ManagedServiceDiscovery)

    class Private;
    QScopedPointer<Private> d;
};

} // namespace vd

#endif
