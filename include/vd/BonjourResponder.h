// SPDX-License-Identifier: MIT
#ifndef VD_BONJOURRESPONDER_H
#define VD_BONJOURRESPONDER_H

#include <QtCore/QString>
#include <QtCore/QThread>

namespace vd {

/**
 * Makes sure that the system's mDNS responder service, "mdnsd", runs.
 *
 * Typically called once, before discovery begins:
 *
 * @code
 * #include <vd/BonjourResponder.h>
 *
 * bool prepareDiscovery()
 * {
 *     vd::BonjourResponder::startResponder();
 *     return vd::BonjourResponder::isServiceRunning();
 * }
 * @endcode
 *
 * The service is looked up and started through the system's service manager. A question takes a few milliseconds
 * as a rule and 2 s at most, a start as long as the service needs and 10 s at most, also when the service manager
 * or its bus hangs. An operation puts up to two questions, whether the service is installed and whether it runs. A
 * started service is looked at for 0.2 s, as it may end at once. Whoever starts it needs the right to start system
 * services, and is never asked for a password; a service that runs already needs none.
 *
 * These times are kept with systemd. A library that was built on QtService takes as long as QtService does.
 *
 * Where the service cannot be had, a thread is started in its place. That thread does no responder work: it ends
 * at once. Whoever needs to know asks isServiceRunning().
 *
 * Nothing is logged and nothing is thrown; every failure is a false.
 *
 * Thread: the static operations may be called from any thread, without an application object and without an event
 * loop. Only startResponderThread(), and startResponder() which may call it, belong to one and the same thread
 * (normally the main one), as first calls at the same time could each make a thread object.
 *
 * Ownership: the one thread object is made on first use and lives until the process ends. It is never deleted.
 */
class Q_DECL_EXPORT BonjourResponder : public QThread
{
public:
    /** Makes an idle thread object, which is not the one that startResponderThread() uses. */
    BonjourResponder();
    /** Waits for the thread, which ends by itself. */
    ~BonjourResponder() override;

    /** The body of the thread: returns at once. */
    void run() override;

    /** Whether the service is installed and running. Blocks 4 s at most. */
    static bool isServiceRunning();

    /**
     * Starts the service unless it is running already; true when it is running afterwards.
     * False when it is not installed, may not be started by this user, or fails to start. Blocks 14 s at most.
     */
    static bool startResponderService();

    /**
     * Makes the thread object, named "BonjourResponderThread", on first use, and starts it with the priority of
     * the calling thread. A thread that has ended runs again. Always true.
     */
    static bool startResponderThread();

    /** Does nothing: the thread is neither stopped nor waited for. */
    static void stopResponderThread();

    /**
     * Starts the service if possible, as startResponderService() does, and otherwise the thread.
     * Always true, also when there is no responder afterwards.
     */
    static bool startResponder();

protected:
    /** The one thread object; null before the first startResponderThread(). */
    static BonjourResponder* instance;
    /** The name of the service, "mdnsd". Exists from the loading of the library to the end of the process. */
    static const QString BONJOUR_RESPONDER_NAME;

private:
    Q_DISABLE_COPY(BonjourResponder)
};

} // namespace vd

#endif
