// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_MANAGEDSERVICEDISCOVERYPRIVATE_H
#define VD_AVAHI_MANAGED_MANAGEDSERVICEDISCOVERYPRIVATE_H

#include "avahi/managed/Backoff.h"
#include "avahi/managed/BusSocketWatch.h"
#include "avahi/managed/DaemonPing.h"
#include "avahi/managed/SecondClient.h"
#include "avahi/managed/TrackedService.h"

#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QMap>
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
    void clientChanged(const AvahiClient* changed, AvahiClientState changedTo);
    void lostConnection();
    void reset();
    /** @return false if a slot has ended what the caller works on. */
    bool setState(State newState);
    /** There is a client to make calls on. */
    bool isAtWork() const { return hasBegun && !hasFailed && q->client; }

    // What may be missing for a while after a restart: ManagedGrace.cpp
    void startGrace();
    void passGrace();

    // The published service: ManagedPublication.cpp
    bool registerService(const char* name, const char* type, const SReconfigInfo& info);
    bool terminateRegistration();
    bool isRegistered() const;
    void publish();
    void hostChanged(AvahiClientState changedTo);
    void groupChanged(AvahiEntryGroupState changedTo);

    // What browsers see: ManagedBrowsing.cpp
    void serviceChanged(const ServiceKey& key, const Sighting& sighting, bool isThere);
    void lose(const ServiceKey& key);
    void drop(const ServiceKey& key);

    // Who is resolved next: ManagedLine.cpp
    void query(const ServiceKey& key, bool longLived);
    void stopQuery(const QString& name, const QString& type);
    void enqueue(const ServiceKey& key);
    void retryWaiting();

    // What is made and freed, a few at a time, in threads of their own: ManagedCalls.cpp
    void scheduleCalls(int milliseconds);
    void makeCalls();
    void daemonAnswered(bool isThere);
    void callsReturned();
    /**
     * Whoever else uses the object's client waits for calls on it.
     * @return false if the connection has failed, or a slot has ended what the caller works on.
     */
    bool finishCalls();
    /** Waits for all calls, and frees the second client. What was made of the first one goes with it. */
    void leaveCalls();
    int openObjects() const;

    // What resolvers tell: ManagedResolution.cpp
    void resolverFailed(const ServiceKey& key, int error);
    void notRecognised(const ServiceKey& key);
    void resolved(const ServiceKey& key, const SServiceInfo& info, const QString& address,
                  const QByteArray& answer);
    void forget(const ServiceKey& key);

    // Following addresses: ManagedAddresses.cpp
    void addressBrowserTells(AvahiRecordBrowser* browser);
    void addressAdded(const ServiceKey& key, const QString& address, const Link& link);
    void addressRemoved(const ServiceKey& key, const QString& address, const Link& link);
    void cacheRead(const ServiceKey& key);
    void addressesComplete(const ServiceKey& key);
    void addressBrowserFailed(const ServiceKey& key);

    /** Those that were seen of this name and type, in whichever domain, or else @p wanted. */
    QList<ServiceKey> trackedKeys(const ServiceKey& wanted) const;

    ManagedServiceDiscovery* const q;

    QList<QByteArray> types;
    State state;
    int gracePeriodMs;
    int objectLimit;

    /** A service is registered, be it published or to be so when there is a daemon. */
    bool publishes;
    bool isPublished;
    /** What is published names the host as it was called before, or the daemon gave it up. */
    bool isOutdated;
    /** Avahi is at work on it. */
    bool isPublishing;
    QByteArray publishedName;
    QByteArray publishedType;
    SReconfigInfo publishedInfo;

    TrackedServices tracked;
    // QHash would end the process, not throw, without memory for another entry.
    QMap<AvahiServiceResolver*, ServiceKey> resolvers;
    QMap<AvahiRecordBrowser*, ServiceKey> addressBrowsers;
    /** By their places. */
    QMap<qint64, ServiceKey> line;
    /** By the time when they are to stand in line again. */
    QMultiMap<qint64, ServiceKey> retries;
    /** Long-lived queries that found no room. */
    QList<ServiceKey> parked;
    /** Those that have it. */
    QList<ServiceKey> kept;

    QTimer connectTimer;
    QTimer publishTimer;
    QTimer graceTimer;
    QTimer callTimer;
    QTimer retryTimer;
    DaemonPing ping;
    /** On the object's own client, of all kinds. */
    ThreadedCalls ownCalls;
    /** For address browsers, when many are needed. */
    SecondClient second;
    BusSocketWatch busSocketWatch;

    /** Changes whenever what a running handler works on is gone. */
    int session;

private:
    Q_DISABLE_COPY(Private)

    class ConnectingScope;

    bool browseWantedTypes();
    bool browseNextType();
    void retryLater(int longestMs);
    bool asksBeforeConnecting();
    bool leaveClient();
    void attemptFailed();
    void noteHang();
    void dropClient();
    void endSession();
    void begin();
    void askAgain();

    void nextGraceStep(int milliseconds);
    void finishGraceIfDaemonAnswers();
    void finishGrace(bool isDaemonThere);
    QList<ServiceKey> unseenServices() const;
    void endGrace();

    bool isDaemonReady() const;
    bool isPublishable(const char* name, const char* type, const SReconfigInfo& info);
    bool needsRenewal() const;
    bool isToBePublished() const;
    bool accept(const char* name, const char* type, const SReconfigInfo& info);
    bool replace(const char* name, const char* type, const SReconfigInfo& info);
    bool add(const char* name, const char* type, const SReconfigInfo& info);
    bool withdraw();
    void publishLater();
    void endPublication();

    void appeared(const ServiceKey& key, const Sighting& sighting);
    void disappeared(const ServiceKey& key, const Sighting& sighting);
    void removeFromQueue(const ServiceKey& key);
    void loseDevice(const QString& name);
    void dropIfAllIgnored(const QString& name);
    void forgetAsked(const QString& name);
    bool hasOtherService(const QString& name, ServiceKey* other) const;
    bool hasAskedDevice(const QString& name, ServiceKey* device) const;
    void handOver(const ServiceKey& lost, const TrackedService& left, const ServiceKey& heir);
    bool isQueued(const QString& name) const;
    void putInQueue(const ServiceKey& key);

    void enqueueFirst(const ServiceKey& key);
    void leaveLine(TrackedService& service);
    void retryIn(int milliseconds, const ServiceKey& key);
    void retryFailed(const ServiceKey& key, int error);
    void forgetRetry(const ServiceKey& key, TrackedService& service);
    void endKeeping(const ServiceKey& key, TrackedService& service);
    void closeAnswered(TrackedService& service);
    void keepIfThereIsRoom(const ServiceKey& key, TrackedService& service);
    void keep(const ServiceKey& key, TrackedService& service);
    void unkeep(const ServiceKey& key, TrackedService& service);
    int mostKept() const;
    void balanceKept();
    void park(const ServiceKey& key);
    void yieldRoom(const ServiceKey& key, TrackedService& service);
    void ignore(const ServiceKey& key, TrackedService& service);
    int reservedObjects() const;
    int openReservedObjects() const;
    bool hasRoomToKeep() const;
    bool isAnyLongLived(const QString& name) const;

    bool hasCallsToMake() const;
    bool askDaemon();
    void awaitRoom();
    bool hasCallsToMake(const ThreadedCalls& calls) const;
    bool isToFollow(const ThreadedCalls& calls) const;
    int placeOfNextToFollow(const ThreadedCalls& calls) const;
    bool isKept(const ServiceKey& key) const;
    bool isRoomToCome() const;
    void endSecondClientIfIdle();
    bool isAnyFollowedBySecond() const;
    bool areManyInLine() const;
    void makeSomeCalls();
    bool gathersAddressEvents();
    bool makeSomeCalls(ThreadedCalls& calls, bool mayUseThread);
    bool awaitCalls(ThreadedCalls& calls);
    bool noteCalls(ThreadedCalls& calls);
    void planCalls(ThreadedCalls& calls);
    void planToFreeResolver();
    void planToFreeAddressBrowser(ThreadedCalls& calls);
    void planAddressBrowser(const ServiceKey& key, ThreadedCalls& calls);
    bool planResolver();
    bool isSettled(qint64 now);
    void resolverMade(const ClientCall& call);
    void resolverRefused(const ServiceKey& key, int error);
    bool takePlanToFollow(const ClientCall& call);
    void addressBrowserMade(const ClientCall& call, ThreadedCalls& calls);
    void addressBrowserRefused(const ServiceKey& key, int error);
    void callFailed();
    void putBack(const ClientCall& call, ThreadedCalls& calls);
    bool hasRoomFor(int objects);
    void makeRoom(int excess);
    void giveWay(const ServiceKey& key);
    int openForServices() const;
    int objectsAllowed() const;
    int awaitedAddressBrowsers() const;
    /** After a call of the object's own client that failed. @return whether it was for the number of objects. */
    bool noteRefusal();
    void coolDown();
    void closeResolver(TrackedService& service);
    void closeAddressBrowser(TrackedService& service);
    void forgetCalls();

    void follow(const ServiceKey& key, const QString& host);
    void followAnew(const ServiceKey& key, TrackedService& service);
    void noteMissing(const ServiceKey& key, const QStringList& missing);
    void removeAddress(const ServiceKey& key, const QString& address);
    void takeFromUnfollowed(const ServiceKey& key, const QString& address);
    void takeFromRecord(const QString& name, const QString& address);
    void takeOver(const QStringList& addresses, const ServiceKey& heir);
    void takeFromUnresolved(const ServiceKey& key);
    void timedOut(const ServiceKey& key, TrackedService& service);
    void askAgainLater(const ServiceKey& key, TrackedService& service);
    void noteAnswer(const ServiceKey& key, TrackedService& service, const QByteArray& answer);

    AvahiClientState clientState;
    bool isConnecting;
    bool hasFailed;
    bool hasBegun;
    /** The daemon is to be asked before the client is left or made. */
    bool mayHang;
    Backoff backoff;
    /** How long to wait after the connection was lost. */
    int pauseMs;
    /** By the clock of calls. */
    qint64 begunAt;
    QElapsedTimer attempt;
    Backoff publishBackoff;
    int graceLeftMs;
    /** How often the grace period was prolonged. */
    int graceExtensions;
    /** When the step began, what the daemon told was not read. */
    bool isGraceStepHeldUp;
    /** The period has passed, if the daemon answers in time. */
    bool isGraceOver;
    QElapsedTimer graceStep;
    QElapsedTimer clock;

    qint64 lastPlace;
    qint64 firstPlace;
    /** Those in order of creation that are not answered yet, by their numbers. */
    QMap<qint64, ServiceKey> unanswered;
    qint64 lastResolver;
    /** The daemon has had the time for all resolvers up to this one. */
    qint64 settledResolver;
    qint64 lastResolverMadeAt;
    /** When the daemon last answered anything; -1 if it never did. */
    qint64 lastAnswerAt;
    QList<AvahiServiceResolver*> closedResolvers;
    QList<ServiceKey> toFollow;
    /** Address browsers that have told nothing yet. */
    QList<AvahiRecordBrowser*> unreadAddressBrowsers;
    /** An address browser has told something since calls were planned last. */
    bool hasAddressEvent;
    /** When the first of those did that came one after the other; -1 for none. */
    qint64 addressEventsSince;
    qint64 pausedUntil;
    /** What the daemon turned out to allow. */
    int daemonLimit;
    qint64 limitedUntil;
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
