// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include "avahi/TxtKeys.h"
#include "support/LogMessage.h"

#include <avahi-common/malloc.h>

#include <QtCore/QLatin1String>

#include <cstdlib>
#include <cstring>

namespace vd {

const char VENDOR_TXT_DOMAIN[] = VD_VENDOR_TXT_DOMAIN;

namespace {

// The bytes behind the first "=". Not strlen(): the value is binary.
size_t sizeOfValue(AvahiStringList* entry)
{
    const uint8_t* text = avahi_string_list_get_text(entry);
    const size_t size = avahi_string_list_get_size(entry);
    const void* separator = memchr(text, '=', size);
    if (!separator)
        return 0;
    return size - static_cast<size_t>(static_cast<const uint8_t*>(separator) + 1 - text);
}

// Three bytes, the first one highest; missing ones are zero.
quint32 serialFromBytes(const char* bytes, size_t size)
{
    quint32 serial = 0;
    for (size_t i = 0; i < 3; ++i)
        serial = serial << 8 | (i < size ? static_cast<quint8>(bytes[i]) : 0u);
    return serial;
}

// Avahi frees the key by itself when it has no memory for the value, and leaves the pointer as it is.
void readPair(AvahiStringList* entry, char** key, char** value)
{
    if (avahi_string_list_get_pair(entry, key, value, nullptr) != 0)
        *key = *value = nullptr;
}

void readSerialNumber(SServiceInfo& info, AvahiStringList* list, const char* key, const char* logLabel)
{
    AvahiStringList* entry = avahi_string_list_find(list, key);
    if (!entry)
        return;
    char* entryKey = nullptr;
    char* value = nullptr;
    readPair(entry, &entryKey, &value);
    if (value) {
        info.serialNumber = serialFromBytes(value, sizeOfValue(entry));
        logMessage(LOG_ORDINARY,
                   [=](QTextStream& out) { out << "\t\t" << logLabel << " " << printableText(value); });
    }
    free(value);
    free(entryKey);
}

} // namespace

QString AvahiServiceDiscovery::getAvahiStringListValue(AvahiStringList* list, const char* key)
{
    QString text = QLatin1String("");
    AvahiStringList* entry = avahi_string_list_find(list, key);
    if (!entry)
        return text;

    char* entryKey = nullptr;
    char* value = nullptr;
    readPair(entry, &entryKey, &value);
    if (!value) {
        logMessage(LOG_ORDINARY,
                   [=](QTextStream& out) { out << "TXTRecord ERROR parsing " << printableText(key); });
    } else {
        logMessage(LOG_ORDINARY, [=](QTextStream& out) {
            out << "TXTRecord parsed " << printableText(key) << ": " << printableText(value);
        });
        text = textFromBytes(value);
    }
    avahi_free(value);
    avahi_free(entryKey);
    return text;
}

void AvahiServiceDiscovery::GetVandrelTxtRecord(SServiceInfo& info, AvahiStringList* list)
{
    readSerialNumber(info, list, VANDREL_SERIAL_KEY, "ser_no_" VD_VENDOR_TXT_DOMAIN);
    info.modelName = getAvahiStringListValue(list, "full_name." VD_VENDOR_TXT_DOMAIN);
    info.softwareVersion = getAvahiStringListValue(list, "fs_vers." VD_VENDOR_TXT_DOMAIN);
    info.errorText = getAvahiStringListValue(list, "error." VD_VENDOR_TXT_DOMAIN);
    info.userdataOwner = getAvahiStringListValue(list, "userdata_owner." VD_VENDOR_TXT_DOMAIN);
    info.privacyMode = getAvahiStringListValue(list, "privacy_mode." VD_VENDOR_TXT_DOMAIN) == QLatin1String("T");
}

void AvahiServiceDiscovery::GetSnapServerTxtRecord(SServiceInfo& info, AvahiStringList* list)
{
    readSerialNumber(info, list, SNAP_SERVER_SERIAL_KEY, SNAP_SERVER_SERIAL_KEY);
    info.modelName = getAvahiStringListValue(list, "model.snapserver.com");
    info.softwareVersion = getAvahiStringListValue(list, "sw_version.snapserver.com");
    info.errorText = getAvahiStringListValue(list, "error.snapserver.com");
    info.totalCapacity = getAvahiStringListValue(list, "totalcapacity.snapserver.com");
    info.freeCapacity = getAvahiStringListValue(list, "freecapacity.snapserver.com");
}

void AvahiServiceDiscovery::GetAxisTxtRecord(SServiceInfo&, AvahiStringList*) {}

} // namespace vd
