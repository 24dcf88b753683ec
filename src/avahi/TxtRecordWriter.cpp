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

/** Adds the pairs of a record. When there is no memory for one of them, none is left. */
class PairWriter
{
public:
    explicit PairWriter(AvahiStringList*& list) : m_list(list), m_isWhole(true) {}

    void add(const char* key, const void* value, size_t size)
    {
        if (!m_isWhole)
            return;
        AvahiStringList* const longer
            = avahi_string_list_add_pair_arbitrary(m_list, key, static_cast<const uint8_t*>(value), size);
        m_isWhole = longer != nullptr;
        // Avahi leaves the shorter one alone then.
        if (!m_isWhole)
            avahi_string_list_free(m_list);
        m_list = longer;
    }

    void addText(const char* key, const QByteArray& text)
    {
        add(key, text.constData(), static_cast<size_t>(text.size()));
    }

    // Its bytes as they lie in memory: hosts keep addresses in network order.
    void addAddress(const char* key, quint32 address) { add(key, &address, sizeof address); }

    void addNameServer(const char* key, quint32 address)
    {
        if (address)
            addAddress(key, address);
    }

private:
    Q_DISABLE_COPY(PairWriter)

    AvahiStringList*& m_list;
    bool m_isWhole;
};

QString reason(const char* what, const char* key, size_t keySize)
{
    return QLatin1String(what) + textFromBytes(QByteArray(key, static_cast<int>(keySize)));
}

bool isExact(const QString& text)
{
    // The leading letter keeps the decoder from taking a zero-width no-break space for a byte order mark.
    const QString marked = QLatin1Char('x') + text;
    return textFromBytes(bytesFromText(marked)) == marked;
}

} // namespace

bool AvahiServiceDiscovery::CreateTxtRecord(const vd::SReconfigInfo& info)
{
    if (txtRecord) {
        avahi_string_list_free(txtRecord);
        txtRecord = nullptr;
    }
    txtRecord = avahi_string_list_new(nullptr, nullptr);
    PairWriter record(txtRecord);
    if (info.deviceKind == DEVICE_KIND_SNAP_SERVER) {
        record.addNameServer("DNS1." VD_VENDOR_TXT_DOMAIN, info.dns1);
        record.addNameServer("DNS2." VD_VENDOR_TXT_DOMAIN, info.dns2);
        record.addNameServer("DNS3." VD_VENDOR_TXT_DOMAIN, info.dns3);
    }
    const quint8 zeph[] = {static_cast<quint8>(info.zephValue >> 16), static_cast<quint8>(info.zephValue >> 8),
                           static_cast<quint8>(info.zephValue)};
    record.add("ZEPH." VD_VENDOR_TXT_DOMAIN, zeph, sizeof zeph);
    record.addText(USER_KEY, bytesFromText(info.userName));
    record.addText(PASSWORD_KEY, bytesFromText(info.password).toBase64());
    record.addAddress("NEWIP." VD_VENDOR_TXT_DOMAIN, info.newIp);
    record.addAddress("MASK." VD_VENDOR_TXT_DOMAIN, info.netMask);
    record.addText("SAVE." VD_VENDOR_TXT_DOMAIN, info.save ? "T" : "F");
    return true;
}

QString reasonNotToPublish(const SReconfigInfo& info, AvahiStringList* txt)
{
    if (!txt)
        return QLatin1String("no memory for the TXT record");
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
