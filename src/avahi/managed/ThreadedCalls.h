// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_THREADEDCALLS_H
#define VD_AVAHI_MANAGED_THREADEDCALLS_H

#include "avahi/WatchGroup.h"
#include "avahi/managed/CallThread.h"
#include "avahi/managed/ClientCalls.h"

namespace vd {

/**
 * Calls on one client, made in a thread while the event loop waits for nothing of the client's. All is to be used in the
 * thread of the parent.
 */
class ThreadedCalls
{
public:
    explicit ThreadedCalls(QObject* parent);
    /** Waits for calls that are on their way. */
    virtual ~ThreadedCalls();

    /** Tells when calls have returned. */
    CallThread thread;
    /** What the client has the event loop wait for. */
    WatchGroup watchGroup;
    /** Those that are planned or on their way, and what became of them. */
    ClientCalls planned;
    /** To be planned. */
    QList<ClientCall> addressBrowsersToFree;

    /** Calls are on their way, or have returned and were not waited for. */
    bool isBusy() const { return thread.isBusy(); }
    void freeAddressBrowser(AvahiRecordBrowser* browser, const ServiceKey& key);
    /** One of these calls makes or frees an address browser of this service. */
    bool areAnyOfAddressesFor(const ServiceKey& key) const;
    /** How many objects are to be freed, or are on their way to it. */
    int frees() const;
    bool haveReturned() const { return isBusy() && thread.hasReturned(); }
    /**
     * Makes what is planned in the thread, for about @p milliseconds.
     * @return false if nothing can be paused, as the client is at work or its watches are another adapter's, or if there
     * is no thread to be had; nothing is called then.
     */
    bool begin(int milliseconds);
    /** Waits for calls that are on their way, of which there must be some. */
    virtual void wait();

protected:
    /** @p call takes no memory to be copied, so that nothing can fail while the watches are paused. */
    bool beginInThread(const std::function<void()>& call);

private:
    Q_DISABLE_COPY(ThreadedCalls)
};

} // namespace vd

#endif
