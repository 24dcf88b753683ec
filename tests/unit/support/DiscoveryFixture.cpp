// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

#include <vd/LogQt.h>

#include <sstream>

namespace {

class Description
{
public:
    template <typename Value>
    void add(const char* member, const Value& value, const Value& defaultValue)
    {
        if (value == defaultValue)
            return;
        m_out << (m_out.tellp() > 0 ? " " : "") << member << '=' << textOf(value);
    }

    std::string text() const { return m_out.str(); }

private:
    static std::string textOf(const QString& value) { return '\'' + value.toStdString() + '\''; }
    static std::string textOf(const QStringList& value) { return '[' + value.join(QLatin1String(",")).toStdString() + ']'; }
    static std::string textOf(bool value) { return value ? "true" : "false"; }
    static std::string textOf(qint64 value) { return std::to_string(value); }
    static std::string textOf(qint32 value) { return std::to_string(value); }
    static std::string textOf(quint32 value) { return std::to_string(value); }
    static std::string textOf(quint16 value) { return std::to_string(value); }

    std::ostringstream m_out;
};

} // namespace

std::string describe(const vd::SServiceInfo& info)
{
    const vd::SServiceInfo none;
    Description description;
    description.add("serviceType", info.serviceType, none.serviceType);
    description.add("interfaceIndex", info.interfaceIndex, none.interfaceIndex);
    description.add("addressRemoved", info.addressRemoved, none.addressRemoved);
    description.add("longLiveQuery", info.longLiveQuery, none.longLiveQuery);
    description.add("deviceKind", info.deviceKind, none.deviceKind);
    description.add("serviceName", info.serviceName, none.serviceName);
    description.add("hostName", info.hostName, none.hostName);
    description.add("recordHostName", info.recordHostName, none.recordHostName);
    description.add("addresses", info.addresses, none.addresses);
    description.add("port", info.port, none.port);
    description.add("https", info.https, none.https);
    description.add("macAddress", info.macAddress.toString(), none.macAddress.toString());
    description.add("serialNumber", info.serialNumber, none.serialNumber);
    description.add("softwareVersion", info.softwareVersion, none.softwareVersion);
    description.add("modelName", info.modelName, none.modelName);
    description.add("errorText", info.errorText, none.errorText);
    description.add("userdataOwner", info.userdataOwner, none.userdataOwner);
    description.add("privacyMode", info.privacyMode, none.privacyMode);
    description.add("totalCapacity", info.totalCapacity, none.totalCapacity);
    description.add("freeCapacity", info.freeCapacity, none.freeCapacity);
    description.add("txtChecksum", info.txtChecksum, none.txtChecksum);
    return description.text();
}

quint16 crcOf(const std::string& bytes)
{
    quint16 crc = 0xffff;
    for (const char byte : bytes) {
        crc = quint16(crc ^ quint8(byte));
        for (int bit = 0; bit < 8; ++bit)
            crc = quint16(crc & 1 ? (crc >> 1) ^ 0x8408 : crc >> 1);
    }
    return quint16(~crc);
}

Txt::Txt(std::initializer_list<std::string> strings) : m_list(nullptr)
{
    for (auto string = std::rbegin(strings); string != std::rend(strings); ++string) {
        m_list = avahi_string_list_add_arbitrary(m_list, reinterpret_cast<const uint8_t*>(string->data()),
                                                 string->size());
    }
}

Txt::~Txt()
{
    avahi_string_list_free(m_list);
}

template <typename Discovery>
DiscoveryFixture<Discovery>::DiscoveryFixture() : m_discovery(new Discovery), m_logStream(&m_logText)
{
    vd::LogQt::setStream(&m_logStream);
    vd::LogQt::setLogLevel(1);

    Discovery* d = m_discovery.get();
    typedef vd::ServiceDiscovery Signals;
    QObject::connect(d, &Signals::serviceFound, [this](vd::SServiceInfo info) { noteSignal("found " + describe(info)); });
    QObject::connect(d, &Signals::serviceAddress,
                     [this](vd::SServiceInfo info) { noteSignal("address " + describe(info)); });
    QObject::connect(d, &Signals::serviceText, [this](vd::SServiceInfo info) { noteSignal("text " + describe(info)); });
    QObject::connect(d, qOverload<QString>(&Signals::serviceLost),
                     [this](QString name) { noteSignal("lost by name " + name.toStdString()); });
    QObject::connect(d, qOverload<vd::SServiceInfo>(&Signals::serviceLost),
                     [this](vd::SServiceInfo info) { noteSignal("lost " + describe(info)); });
}

template <typename Discovery>
DiscoveryFixture<Discovery>::~DiscoveryFixture()
{
    m_discovery.reset();
    EXPECT_EQ(avahi.liveHandles(), Lines()) << "these Avahi objects outlived the discovery object";
    vd::LogQt::setStream(nullptr);
    vd::LogQt::setLogLevel(4);
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::noteSignal(const std::string& line)
{
    m_signals.push_back(line);
    std::function<void()> action;
    action.swap(m_inNextSlot);
    if (action)
        action();
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::startBrowsing(const char* type)
{
    ASSERT_TRUE(discovery().BrowseServices(type));
    forgetAll();
}

template <typename Discovery>
Lines DiscoveryFixture<Discovery>::takeLog()
{
    Lines lines;
    const QStringList text = m_logText.split(QLatin1Char('\n'));
    // Each line is "time [level] message"; what stands behind the last line end is none.
    for (int i = 0; i + 1 < text.size(); ++i)
        lines.push_back(text.at(i).mid(text.at(i).indexOf(QLatin1Char('['))).toStdString());
    EXPECT_TRUE(text.last().isEmpty()) << "the last line was not ended: " << text.last().toStdString();
    m_logText.clear();
    return lines;
}

template <typename Discovery>
Lines DiscoveryFixture<Discovery>::takeSignals()
{
    Lines lines;
    lines.swap(m_signals);
    return lines;
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::forgetAll()
{
    takeLog();
    takeSignals();
    takeCalls();
}

template <typename Discovery>
Lines DiscoveryFixture<Discovery>::table()
{
    Lines lines;
    for (auto entry = discovery().services.constBegin(); entry != discovery().services.constEnd(); ++entry)
        lines.push_back('"' + entry.key().toStdString() + "\": " + describe(entry.value()));
    return lines;
}

template <typename Discovery>
Lines DiscoveryFixture<Discovery>::queue()
{
    Lines lines;
    for (const QPair<QString, QString>& entry : discovery().recordQueue)
        lines.push_back(entry.first.toStdString() + ", " + entry.second.toStdString());
    return lines;
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::runInSlotOf(const std::function<void()>& event, const std::function<void()>& action)
{
    forgetAll();
    bool ran = false;
    inNextSlot([&] {
        ran = true;
        action();
    });
    event();
    EXPECT_TRUE(ran);
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::appears(const char* name, const char* type, int interface)
{
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_NEW, interface, AVAHI_PROTO_INET, name, type, "local");
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::disappears(const char* name, const char* type)
{
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_REMOVE, 2, AVAHI_PROTO_INET, name, type, "local");
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::resolved(int resolver, const char* name, const char* host, const char* address,
                             AvahiStringList* txt, const char* type, uint16_t port)
{
    AvahiAddress parsed;
    if (address) {
        ASSERT_TRUE(avahi_address_parse(address, AVAHI_PROTO_UNSPEC, &parsed));
    }
    avahi.fireResolve(avahi.resolver(resolver), AVAHI_RESOLVER_FOUND, 2, AVAHI_PROTO_INET, name, type, "local", host,
                      address ? &parsed : nullptr, port, txt);
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::resolveFails(int resolver, const char* name, int error, const char* type, const char* host)
{
    avahi.setError(error);
    avahi.fireResolve(avahi.resolver(resolver), AVAHI_RESOLVER_FAILURE, 2, AVAHI_PROTO_INET, name, type, "local", host,
                      nullptr, 0, nullptr);
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::record(int recordBrowser, AvahiBrowserEvent event, const char* host, const char* address)
{
    AvahiAddress parsed;
    if (address) {
        ASSERT_TRUE(avahi_address_parse(address, AVAHI_PROTO_INET, &parsed));
    }
    avahi.fireRecord(avahi.recordBrowser(recordBrowser), event, host, address ? &parsed.data.ipv4.address : nullptr,
                     address ? sizeof parsed.data.ipv4.address : 0);
}

template <typename Discovery>
void DiscoveryFixture<Discovery>::cameraFound(const char* name, const char* host, const char* address, int number)
{
    const Txt txt = {"ser_no.vandrel.com=\x01\x02\x03"};
    appears(name);
    resolved(number, name, host, address, txt);
    forgetAll();
}

template class DiscoveryFixture<OpenDiscovery>;
template class DiscoveryFixture<OpenManagedDiscovery>;
