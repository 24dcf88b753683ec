// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_MANAGEDSERVICEDISCOVERYPRIVATE_H
#define VD_AVAHI_MANAGED_MANAGEDSERVICEDISCOVERYPRIVATE_H

#include "avahi/managed/BusSocketWatch.h"
#include "avahi/managed/TrackedService.h"

#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

namespace vd {

class ManagedServiceDiscovery::Private
{
public:
    typedef QMap<ServiceKey, TrackedService> TrackedServices;

    explicit Private(ManagedServiceDiscovery* discovery);

    // The connection: ManagedConnection.cpp
    void connectToDaemon();
    void connectSoon();
    void clientChanged(AvahiClientState state);
    void lostConnection();
    void endGrace();
    void publish();
    void reset();
    void setState(State newState);

    // What browsers see: ManagedBrowsing.cpp
    void appeared(const ServiceKey& key, const Link& link);
    void disappeared(const ServiceKey& key, const Link& link);
    void lose(const ServiceKey& key);

    // Resolving, a few services at a time: ManagedResolution.cpp
    void query(const ServiceKey& key, bool longLived);
    void stopQuery(const QString& name, const QString& type);
    void enqueue(const ServiceKey& key);
    void resolveWaiting();
    void resolveFailed();
    void resolverFailed(const ServiceKey& key, int error);
    void notRecognised(const ServiceKey& key);
    void resolved(const ServiceKey& key, const SServiceInfo& info, const QString& address, const QByteArray& txt);
    void forget(const ServiceKey& key);

    // Following addresses: ManagedAddresses.cpp
    void openAddressBrowser(const ServiceKey& key, const QString& host);
    void addressAdded(const ServiceKey& key, const QString& address, const Link& link);
    void addressRemoved(const ServiceKey& key, const QString& address, const Link& link);
    void cacheRead(const ServiceKey& key);
    void addressesComplete(const ServiceKey& key);
    void addressBrowserFailed(const ServiceKey& key);

    ServiceKey trackedKey(const QString& name, const QString& type, const QString& domain) const;
    void retryResolving(const ServiceKey& key, int error);
    void scheduleResolving(int milliseconds);
    void closeResolver(TrackedService& service);
    void closeAddressBrowser(TrackedService& service);
    int openObjects() const;

    ManagedServiceDiscovery* const q;

    QList<QByteArray> types;
    State state;
    int gracePeriodMs;
    int objectLimit;

    bool publishes;
    bool isPublished;
    QByteArray publishedName;
    QByteArray publishedType;
    SReconfigInfo publishedInfo;

    TrackedServices tracked;
    QHash<AvahiServiceResolver*, ServiceKey> resolvers;
    QHash<AvahiRecordBrowser*, ServiceKey> addressBrowsers;
    QList<ServiceKey> line;
    /** Long-lived queries that found no room. */
    QList<ServiceKey> parked;
    /** Those that the daemon failed to resolve, to be tried again. */
    QList<ServiceKey> failed;

    QTimer connectTimer;
    QTimer graceTimer;
    QTimer resolveTimer;
    QTimer failedTimer;
    BusSocketWatch busSocketWatch;

    /** Changes whenever what a running handler works on is gone. */
    int session;

private:
    Q_DISABLE_COPY(Private)

    bool browseWantedTypes();
    bool browse(const QByteArray& type);
    void dropClient();
    void endSession();
    void growBackoff();
    void retryLater();
    void begin();
    QList<ServiceKey> unseenServices() const;
    void askAgain();

    void removeFromQueue(const ServiceKey& key);
    void forgetName(const QString& name);
    bool hasOtherService(const ServiceKey& key, ServiceKey* other) const;

    void endKeeping(TrackedService& service);
    void wakeParked();
    void coolDown();
    int awaitedAddressBrowsers() const;
    bool startResolver(const ServiceKey& key);
    int youngResolvers(qint64 now);
    bool makeRoom(int objects, qint64 now);
    bool hasRoomToKeep(const TrackedService& service) const;
    void removeAddress(const QString& name, const QString& address);

    AvahiClientState clientState;
    bool isConnecting;
    bool hasFailed;
    bool hasBegun;
    int backoffMs;
    /** By the clock of resolving. */
    qint64 begunAt;
    QElapsedTimer attempt;
    QElapsedTimer clock;
    /** The resolvers in order of creation. */
    QList<AvahiServiceResolver*> oldestFirst;
    qint64 pausedUntil;
    /** What the daemon turned out to allow. */
    int daemonLimit;
    qint64 limitedUntil;
    /** How long a resolver counts as one that the daemon can answer at once. */
    int youngMs;
};

/** Whether what a handler works on is still there after a signal, whose slots may have done anything. */
class ManagedSession
{
public:
    template <typename Private>
    explicit ManagedSession(Private* discovery)
        : m_object(discovery->q), m_current(&discovery->session), m_session(discovery->session)
    {}

    bool ended() const { return objectIsGone() || *m_current != m_session; }
    bool objectIsGone() const { return m_object.isNull(); }

private:
    QPointer<QObject> m_object;
    const int* m_current;
    int m_session;
};

} // namespace vd

#endif
