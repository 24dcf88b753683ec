// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_RESOLVEDSERVICE_H
#define VD_AVAHI_RESOLVEDSERVICE_H

#include <vd/ServiceDiscovery.h>

#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

namespace vd {

/** Whether services of this type are looked into; all others are ignored. */
bool isWebService(const char* type);

/** Fills the members that every resolved web service has. */
void readBasicMembers(SServiceInfo& info, int interface, const char* name, const char* type, const char* host,
                      unsigned short port);

/** As Avahi writes it, for IPv4 and IPv6. */
QString textOfAddress(const AvahiAddress* address);

/** The CRC-16 of the head of the list, 0 for an empty one. */
quint16 checksumOfHead(AvahiStringList* txt);

} // namespace vd

#endif
