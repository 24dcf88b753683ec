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
 * - BrowseServices() and RegisterService() return true without a daemon too, and begin when there is one. After a
 *   restart everything is taken up again. Devices that came back as they were cause no signal; changed ones cause
 *   serviceAddress or serviceText; those that are not seen again within gracePeriod() cause serviceLost.
 * - A device is lost when no interface, protocol, type or domain shows it any more.
 * - After the removal of an address the record holds the addresses that remain. The signal still carries the removed
 *   one alone.
 * - Every string of the TXT record counts for serviceText, also when the address changes with it.
 * - StartQueryAllRecords() queries every device in its turn.
 * - StopQueryRecords() ends the query of that service alone.
 * - Resolves are made when the event loop runs again, a few at a time: the operations return before.
 * - services holds devices only, no entries for their hosts.
 *
 * Thread: as AvahiServiceDiscovery. To keep a daemon that hangs from blocking a window, make the object in the run()
 * of a QThread and connect its signals to the window by queued connections.
 */
class Q_DECL_EXPORT ManagedServiceDiscovery : public AvahiServiceDiscovery
{
    Q_OBJECT
    Q_ENUMS(State)
    Q_PROPERTY(State state READ state NOTIFY stateChanged)

public:
    enum State {
        Unavailable, ///< Nothing is browsed, or there is no bus or no daemon; it is waited for.
        Connecting,  ///< The daemon is there, and browsing is about to begin.
        Running      ///< Every type is browsed.
    };

    ManagedServiceDiscovery();
    ~ManagedServiceDiscovery() override;

    State state() const;

    /** How long after Running a device known from before may take to be seen again; default 15000. */
    int gracePeriod() const;
    void setGracePeriod(int milliseconds);

    /**
     * How many Avahi objects may be open at a time: browsers, resolvers, address browsers, the published service;
     * default 512. The daemon's own limit is 1024 a client. What has no room waits in line.
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

private Q_SLOTS:
    void connectToDaemon();
    void connectSoon();
    void resolveWaiting();
    void resolveFailed();
    void endGrace();
    void queryNextInTurn();

private:
    Q_DISABLE_COPY(ManagedServiceDiscovery)

    class Private;
    QScopedPointer<Private> d;
};

} // namespace vd

#endif
