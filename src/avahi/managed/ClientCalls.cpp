// SPDX-License-Identifier: MIT
#include "avahi/managed/ClientCalls.h"

#include <avahi-client/client.h>
#include <avahi-common/defs.h>
#include <avahi-common/error.h>

#include <QtCore/QElapsedTimer>

namespace vd {

void ClientCall::make()
{
    switch (what) {
    case MakeResolver:
        resolver = avahi_service_resolver_new(client, link.first, link.second, nameBytes.constData(),
                                              typeBytes.constData(), domainBytes.constData(), AVAHI_PROTO_INET,
                                              AVAHI_LOOKUP_USE_MULTICAST, resolverCallback, discovery);
        break;
    case FreeResolver:
        avahi_service_resolver_free(resolver);
        break;
    case MakeAddressBrowser:
        // A device may name a host anywhere; the daemon is not to ask the machine's name server for it.
        addressBrowser = avahi_record_browser_new(client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                  hostBytes.constData(), AVAHI_DNS_CLASS_IN, AVAHI_DNS_TYPE_A,
                                                  AVAHI_LOOKUP_USE_MULTICAST, addressCallback, discovery);
        break;
    case FreeAddressBrowser:
        avahi_record_browser_free(addressBrowser);
        break;
    }
    isMade = true;
    if (resolver || addressBrowser)
        return;
    // The next call would write over it.
    error = avahi_client_errno(client);
    if (error == AVAHI_OK)
        error = AVAHI_ERR_FAILURE;
}

int ClientCalls::count(ClientCall::What what) const
{
    int found = 0;
    for (int i = 0; i < m_calls.size(); ++i)
        found += m_calls.at(i).what == what ? 1 : 0;
    return found;
}

bool ClientCalls::areAnyOfAddressesFor(const ServiceKey& key) const
{
    for (int i = 0; i < m_calls.size(); ++i) {
        if (m_calls.at(i).isOfAddresses() && m_calls.at(i).key == key)
            return true;
    }
    return false;
}

int ClientCalls::mostOpen() const
{
    int open = size() - makes();
    int most = open;
    for (int i = 0; i < m_calls.size(); ++i) {
        open += m_calls.at(i).isMaking() ? 1 : -1;
        most = qMax(most, open);
    }
    return most;
}

QList<ClientCall> ClientCalls::takeAll()
{
    QList<ClientCall> all;
    all.swap(m_calls);
    return all;
}

void ClientCalls::make(int milliseconds)
{
    QElapsedTimer spent;
    spent.start();
    for (int i = 0; i < m_calls.size(); ++i) {
        // An exception may have left it there.
        if (m_calls.at(i).isMade)
            continue;
        m_calls[i].make();
        if (m_calls.at(i).hasFailed() || spent.elapsed() >= milliseconds)
            return;
    }
}

} // namespace vd
