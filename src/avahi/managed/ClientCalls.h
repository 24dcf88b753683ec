// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_CLIENTCALLS_H
#define VD_AVAHI_MANAGED_CLIENTCALLS_H

#include "avahi/managed/TrackedService.h"

namespace vd {

/** A call of Avahi's client library that waits for the daemon, with all that it takes and gives. */
struct ClientCall
{
    enum What { MakeResolver, FreeResolver, MakeAddressBrowser, FreeAddressBrowser };

    explicit ClientCall(What kind = FreeResolver)
        : what(kind)
        , client(nullptr)
        , discovery(nullptr)
        , resolverCallback(nullptr)
        , addressCallback(nullptr)
        , resolverNumber(0)
        , resolver(nullptr)
        , addressBrowser(nullptr)
        , error(0)
        , isMade(false)
    {}

    bool isMaking() const { return what == MakeResolver || what == MakeAddressBrowser; }
    bool isOfAddresses() const { return what == MakeAddressBrowser || what == FreeAddressBrowser; }
    bool hasFailed() const { return error != 0; }

    void make();

    What what;
    AvahiClient* client;
    /** For the callbacks. */
    void* discovery;
    AvahiServiceResolverCallback resolverCallback;
    AvahiRecordBrowserCallback addressCallback;

    /** What an object is made for, or was, if it is an address browser. */
    ServiceKey key;
    Link link;
    // The same as Avahi takes it.
    QByteArray nameBytes;
    QByteArray typeBytes;
    QByteArray domainBytes;
    QByteArray hostBytes;
    qint64 resolverNumber;

    /** What is to be freed, or was made. */
    AvahiServiceResolver* resolver;
    AvahiRecordBrowser* addressBrowser;
    /** Avahi's, when an object was to be made and none was. */
    int error;
    bool isMade;
};

/** Calls to be made one after the other. */
class ClientCalls
{
public:
    bool isEmpty() const { return m_calls.isEmpty(); }
    int size() const { return static_cast<int>(m_calls.size()); }
    int count(ClientCall::What what) const;
    bool areAnyOfAddressesFor(const ServiceKey& key) const;
    /** How many of them make an object. */
    int makes() const { return count(ClientCall::MakeResolver) + count(ClientCall::MakeAddressBrowser); }
    /** How many objects that they free or make are open at a time, at the most, while they are made. */
    int mostOpen() const;

    void append(const ClientCall& call) { m_calls.append(call); }
    /** With what became of them. */
    QList<ClientCall> takeAll();

    /**
     * Makes the first one, and the next ones as long as none fails and not more than @p milliseconds have passed.
     * Whoever may use the client can do so, in any thread. Needs no memory but Avahi's own, and does not throw.
     */
    void make(int milliseconds);

private:
    QList<ClientCall> m_calls;
};

} // namespace vd

#endif
