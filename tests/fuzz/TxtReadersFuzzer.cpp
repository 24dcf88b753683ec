// SPDX-License-Identifier: MIT
// What is read from a device's TXT record, compared with a reading of the strings without Avahi's help.
#include "Fuzzing.h"

#include <vd/AvahiServiceDiscovery.h>
#include <vd/LogQt.h>

#include <QtCore/QTextStream>

#include <strings.h>

#include <optional>
#include <utility>
#include <vector>

namespace {

using vd::fuzz::decoded;
using vd::fuzz::isHostile;
using Strings = std::vector<std::string>;

class Discovery : public vd::AvahiServiceDiscovery
{
public:
    using AvahiServiceDiscovery::GetAxisTxtRecord;
    using AvahiServiceDiscovery::getAvahiStringListValue;
    using AvahiServiceDiscovery::GetSnapServerTxtRecord;
    using AvahiServiceDiscovery::GetVandrelTxtRecord;
    using AvahiServiceDiscovery::readVendorTxtRecord;
};

/** The strings as Avahi hands them over. */
class Txt
{
public:
    explicit Txt(const Strings& strings)
    {
        for (auto string = strings.rbegin(); string != strings.rend(); ++string) {
            m_list = avahi_string_list_add_arbitrary(
                m_list, reinterpret_cast<const std::uint8_t*>(string->data()), string->size());
        }
    }
    Txt(const Txt&) = delete;
    Txt& operator=(const Txt&) = delete;
    ~Txt() { avahi_string_list_free(m_list); }

    operator AvahiStringList*() const { return m_list; }

private:
    AvahiStringList* m_list = nullptr;
};

/** Collects the log. */
class Log
{
public:
    Log()
    {
        vd::LogQt::setLogLevel(1);
        vd::LogQt::setStream(&m_stream);
    }
    ~Log() { vd::LogQt::setStream(nullptr); }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    QString take()
    {
        m_stream.flush();
        const QString text = m_text;
        m_text.clear();
        m_stream.seek(0);
        return text;
    }

private:
    QString m_text;
    QTextStream m_stream{&m_text, QIODevice::WriteOnly};
};

struct Found
{
    bool isThere = false;
    std::optional<std::string> value;
};

// The first string counts whose key is this one in any case. A key ends at a NUL, too.
Found find(const Strings& strings, const std::string& key)
{
    for (const std::string& string : strings) {
        const std::string text = string.substr(0, string.find('\0'));
        const bool isKeyAlone = strcasecmp(text.c_str(), key.c_str()) == 0;
        const bool isPair = strcasecmp(text.substr(0, key.size() + 1).c_str(), (key + '=').c_str()) == 0;
        if (!isKeyAlone && !isPair)
            continue;
        const std::size_t separator = string.find('=');
        if (separator == std::string::npos)
            return {true, std::nullopt};
        return {true, string.substr(separator + 1)};
    }
    return {};
}

QString textOf(const Found& found)
{
    return QString::fromUtf8(found.value.value_or(std::string()).c_str());
}

quint32 serialOf(const Found& found, quint32 before)
{
    if (!found.value)
        return before;
    const std::string bytes = *found.value + std::string(3, '\0');
    const auto byte = [&bytes](std::size_t i) { return quint32(static_cast<unsigned char>(bytes[i])); };
    return byte(0) << 16 | byte(1) << 8 | byte(2);
}

vd::SServiceInfo someRecord()
{
    vd::SServiceInfo info;
    info.serviceName = QStringLiteral("name");
    info.serialNumber = 7;
    info.userdataOwner = info.totalCapacity = info.freeCapacity = QStringLiteral("before");
    info.privacyMode = true;
    return info;
}

void expectText(const QString& text, const Found& found)
{
    VD_EXPECT(text == textOf(found));
    VD_EXPECT(!text.isNull());
}

void expectWholeLines(const QString& log, int lines)
{
    const std::string bytes = log.toStdString();
    int ends = 0;
    for (const char32_t codePoint : decoded(bytes)) {
        // Serial numbers are told behind two tabs.
        VD_EXPECT(codePoint == '\n' || codePoint == '\t' || !isHostile(codePoint));
        ends += codePoint == '\n' ? 1 : 0;
    }
    VD_EXPECT(ends == lines);
    VD_EXPECT(bytes.empty() || bytes.back() == '\n');
}

typedef QString vd::SServiceInfo::*Member;

/** A maker's reader, and what it reads of a record. */
struct Maker
{
    void (Discovery::*read)(vd::SServiceInfo& info, AvahiStringList* txt);
    std::string serialKey;
    std::vector<std::pair<std::string, Member>> texts;
};

// cppcheck-suppress constParameter ; the reader that it is called with is none of a const object
vd::SServiceInfo readBy(const Maker& maker, Discovery& discovery, const Strings& strings)
{
    vd::SServiceInfo info = someRecord();
    (discovery.*maker.read)(info, Txt(strings));
    VD_EXPECT(info.serialNumber == serialOf(find(strings, maker.serialKey), 7));
    for (const auto& [key, member] : maker.texts)
        expectText(info.*member, find(strings, key));
    VD_EXPECT(info.serviceName == QStringLiteral("name"));
    return info;
}

int linesLoggedBy(const Maker& maker, const Strings& strings)
{
    int lines = find(strings, maker.serialKey).value ? 1 : 0;
    for (const auto& text : maker.texts)
        lines += find(strings, text.first).isThere ? 1 : 0;
    return lines;
}

void readVandrel(Discovery& discovery, Log& log, const Strings& strings)
{
    static const Maker vandrel = {&Discovery::GetVandrelTxtRecord,
                                  "ser_no.vandrel.com",
                                  {{"full_name.vandrel.com", &vd::SServiceInfo::modelName},
                                   {"fs_vers.vandrel.com", &vd::SServiceInfo::softwareVersion},
                                   {"error.vandrel.com", &vd::SServiceInfo::errorText},
                                   {"userdata_owner.vandrel.com", &vd::SServiceInfo::userdataOwner}}};
    const Found privacyMode = find(strings, "privacy_mode.vandrel.com");
    const vd::SServiceInfo info = readBy(vandrel, discovery, strings);
    VD_EXPECT(info.privacyMode == (textOf(privacyMode) == QStringLiteral("T")));
    VD_EXPECT(info.totalCapacity == QStringLiteral("before"));
    expectWholeLines(log.take(), linesLoggedBy(vandrel, strings) + (privacyMode.isThere ? 1 : 0));
}

void readSnapServer(Discovery& discovery, Log& log, const Strings& strings)
{
    static const Maker snapServer = {&Discovery::GetSnapServerTxtRecord,
                                     "ser_no.snapserver.com",
                                     {{"model.snapserver.com", &vd::SServiceInfo::modelName},
                                      {"sw_version.snapserver.com", &vd::SServiceInfo::softwareVersion},
                                      {"error.snapserver.com", &vd::SServiceInfo::errorText},
                                      {"totalcapacity.snapserver.com", &vd::SServiceInfo::totalCapacity},
                                      {"freecapacity.snapserver.com", &vd::SServiceInfo::freeCapacity}}};
    const vd::SServiceInfo info = readBy(snapServer, discovery, strings);
    VD_EXPECT(info.privacyMode && info.userdataOwner == QStringLiteral("before"));
    expectWholeLines(log.take(), linesLoggedBy(snapServer, strings));
}

void recogniseVendor(Discovery& discovery, Log& log, const Strings& strings)
{
    const bool isVandrel = find(strings, "ser_no.vandrel.com").isThere;
    const bool isSnapServer = find(strings, "ser_no.snapserver.com").isThere;
    vd::SServiceInfo info;
    const bool isKnown = discovery.readVendorTxtRecord(info, "name", "_http._tcp", "local", Txt(strings));
    VD_EXPECT(isKnown == (isVandrel || isSnapServer));
    VD_EXPECT(!isKnown || info.deviceKind == (isVandrel ? vd::DEVICE_KIND_VANDREL : vd::DEVICE_KIND_SNAP_SERVER));
    for (const char32_t codePoint : decoded(log.take().toStdString()))
        VD_EXPECT(codePoint == '\n' || codePoint == '\t' || !isHostile(codePoint));
}

void readOneKey(Discovery& discovery, Log& log, const Strings& strings, const std::string& key)
{
    const Found found = find(strings, key);
    expectText(discovery.getAvahiStringListValue(Txt(strings), key.c_str()), found);
    expectWholeLines(log.take(), found.isThere ? 1 : 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Discovery discovery;
    Log log;
    // Each string follows its length, as in a TXT record; an empty one may stand among them.
    Strings strings;
    for (std::size_t i = 0; i < size;) {
        const std::size_t length = std::min<std::size_t>(data[i], size - i - 1);
        strings.emplace_back(reinterpret_cast<const char*>(data + i + 1), length);
        i += 1 + length;
    }
    readVandrel(discovery, log, strings);
    readSnapServer(discovery, log, strings);
    recogniseVendor(discovery, log, strings);
    readOneKey(discovery, log, strings, "a");
    readOneKey(discovery, log, strings, strings.empty() ? "" : strings.front().c_str());
    vd::SServiceInfo untouched = someRecord();
    discovery.GetAxisTxtRecord(untouched, Txt(strings));
    VD_EXPECT(untouched.serialNumber == 7 && log.take().isEmpty());
    return 0;
}
