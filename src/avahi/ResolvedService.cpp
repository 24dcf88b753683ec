// SPDX-License-Identifier: MIT
#include "avahi/ResolvedService.h"

#include "support/QtCompat.h"

namespace vd {

namespace {

const char HTTP_TYPE[] = "_http._tcp";
const char HTTPS_TYPE[] = "_https._tcp";

} // namespace

bool isWebService(const char* type)
{
    return qstrcmp(type, HTTP_TYPE) == 0 || qstrcmp(type, HTTPS_TYPE) == 0;
}

void readBasicMembers(SServiceInfo& info, int interface, const char* name, const char* type, const char* host,
                      unsigned short port)
{
    info.interfaceIndex = interface;
    info.serviceType = textFromBytes(type);
    info.serviceName = textFromBytes(name);
    info.hostName = textFromBytes(host);
    info.recordHostName = info.hostName;
    info.port = port;
    info.https = qstrcmp(type, HTTPS_TYPE) == 0;
}

QString textOfAddress(const AvahiAddress* address)
{
    char text[AVAHI_ADDRESS_STR_MAX] = "";
    avahi_address_snprint(text, sizeof text, address);
    return textFromBytes(text);
}

quint16 checksumOfHead(AvahiStringList* txt)
{
    if (!txt)
        return 0;
    return checksumOfBytes(reinterpret_cast<const char*>(avahi_string_list_get_text(txt)),
                           avahi_string_list_get_size(txt));
}

} // namespace vd
