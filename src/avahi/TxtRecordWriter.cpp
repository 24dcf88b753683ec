// SPDX-License-Identifier: MIT
#include "avahi/TxtRecordWriter.h"

#include "avahi/TxtKeys.h"
#include "support/QtCompat.h"

#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QByteArray>
#include <QtCore/QChar>
#include <QtCore/QLatin1String>

#include <cstring>

namespace vd {

namespace {

const char USER_KEY[] = "USER." VD_VENDOR_TXT_DOMAIN;
const char PASSWORD_KEY[] = "PWD." VD_VENDOR_TXT_DOMAIN;

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

QString reason(const char* what, const char* key, size_t keySize)
{
    return QLatin1String(what) + textFromBytes(QByteArray(key, static_cast<int>(keySize)));
}

bool isExact(const QString& text)
{
    return textFromBytes(bytesFromText(text)) == text;
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
    txt = withText(txt, PASSWORD_KEY, bytesFromText(info.password).toBase64());
    txt = withAddress(txt, "NEWIP." VD_VENDOR_TXT_DOMAIN, info.newIp);
    txt = withAddress(txt, "MASK." VD_VENDOR_TXT_DOMAIN, info.netMask);
    txt = withText(txt, "SAVE." VD_VENDOR_TXT_DOMAIN, info.save ? "T" : "F");
    txtRecord = txt;
    return true;
}

QString reasonNotToPublish(const SReconfigInfo& info, AvahiStringList* txt)
{
    for (AvahiStringList* entry = txt; entry; entry = avahi_string_list_get_next(entry)) {
        const char* const text = reinterpret_cast<const char*>(avahi_string_list_get_text(entry));
        if (avahi_string_list_get_size(entry) > LONGEST_TXT_STRING)
            return reason("value too long for a TXT record: ", text, strcspn(text, "="));
    }
    // Readers of text stop there.
    if (info.userName.contains(QChar(0)))
        return reason("value holds a NUL: ", USER_KEY, strlen(USER_KEY));
    if (!isExact(info.userName))
        return reason("value holds what cannot be encoded: ", USER_KEY, strlen(USER_KEY));
    if (!isExact(info.password))
        return reason("value holds what cannot be encoded: ", PASSWORD_KEY, strlen(PASSWORD_KEY));
    return QString();
}

} // namespace vd
