// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/TxtStrings.h"
#include "support/LogMessage.h"

#include <cstring>

namespace vd {

namespace {

const char USER_KEY[] = "USER." VD_VENDOR_TXT_DOMAIN;

AvahiStringList* withPair(AvahiStringList* list, const char* key, const void* value, size_t size)
{
    return avahi_string_list_add_pair_arbitrary(list, key, static_cast<const uint8_t*>(value), size);
}

AvahiStringList* withText(AvahiStringList* list, const char* key, const QByteArray& text)
{
    return withPair(list, key, text.constData(), static_cast<size_t>(text.size()));
}

// Its bytes as they lie in memory: hosts keep addresses in network order.
AvahiStringList* withAddress(AvahiStringList* list, const char* key, quint32 address)
{
    return withPair(list, key, &address, sizeof address);
}

AvahiStringList* withNameServer(AvahiStringList* list, const char* key, quint32 address)
{
    return address ? withAddress(list, key, address) : list;
}

void logNotPublishable(const char* reason, const QByteArray& key)
{
    logMessage(LOG_ORDINARY, [&](QTextStream& out) {
        out << "AvahiServiceDiscovery::RegisterService() -> " << reason << printableText(key.constData());
    });
}

QByteArray keyOf(AvahiStringList* entry)
{
    const char* const text = reinterpret_cast<const char*>(avahi_string_list_get_text(entry));
    return QByteArray(text, static_cast<int>(strcspn(text, "=")));
}

} // namespace

bool AvahiServiceDiscovery::CreateTxtRecord(const vd::SReconfigInfo& info)
{
    if (txtRecord) {
        avahi_string_list_free(txtRecord);
        txtRecord = nullptr;
    }
    AvahiStringList* txt = avahi_string_list_new(nullptr, nullptr);
    if (info.deviceKind == DEVICE_KIND_SNAP_SERVER) {
        txt = withNameServer(txt, "DNS1." VD_VENDOR_TXT_DOMAIN, info.dns1);
        txt = withNameServer(txt, "DNS2." VD_VENDOR_TXT_DOMAIN, info.dns2);
        txt = withNameServer(txt, "DNS3." VD_VENDOR_TXT_DOMAIN, info.dns3);
    }
    const quint8 zeph[] = {static_cast<quint8>(info.zephValue >> 16), static_cast<quint8>(info.zephValue >> 8),
                           static_cast<quint8>(info.zephValue)};
    txt = withPair(txt, "ZEPH." VD_VENDOR_TXT_DOMAIN, zeph, sizeof zeph);
    txt = withText(txt, USER_KEY, bytesFromText(info.userName));
    txt = withText(txt, "PWD." VD_VENDOR_TXT_DOMAIN, bytesFromText(info.password).toBase64());
    txt = withAddress(txt, "NEWIP." VD_VENDOR_TXT_DOMAIN, info.newIp);
    txt = withAddress(txt, "MASK." VD_VENDOR_TXT_DOMAIN, info.netMask);
    txt = withText(txt, "SAVE." VD_VENDOR_TXT_DOMAIN, info.save ? "T" : "F");
    txtRecord = txt;
    return true;
}

// Whether a device that reads the record finds every value as the caller gave it.
bool AvahiServiceDiscovery::isTxtRecordPublishable(const SReconfigInfo& info) const
{
    for (AvahiStringList* entry = txtRecord; entry; entry = avahi_string_list_get_next(entry)) {
        if (avahi_string_list_get_size(entry) > LONGEST_TXT_STRING) {
            logNotPublishable("value too long for a TXT record: ", keyOf(entry));
            return false;
        }
    }
    if (info.userName.contains(QChar(0))) {
        logNotPublishable("value holds a NUL, at which its reader would stop: ", USER_KEY);
        return false;
    }
    return true;
}

} // namespace vd
