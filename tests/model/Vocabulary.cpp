// SPDX-License-Identifier: MIT
#include "model/Vocabulary.h"

#include <avahi-client/client.h>
#include <avahi-common/address.h>
#include <avahi-common/error.h>

namespace vocabulary {

namespace {

std::string vendor(const char* label, const std::string& rest)
{
    return std::string(label) + "." VD_VENDOR_TXT_DOMAIN + rest;
}

std::string snap(const char* label, const std::string& rest)
{
    return std::string(label) + ".snapserver.com" + rest;
}

vd::SReconfigInfo reconfiguration(const QString& user, const QString& password, quint32 kind, bool save)
{
    vd::SReconfigInfo info = vd::SReconfigInfo();
    info.userName = user;
    info.password = password;
    info.zephValue = 0xfe123456;
    info.newIp = 0x0a01a8c0;
    info.netMask = 0x00ffffff;
    info.reservedFlag = 7;
    info.save = save;
    info.deviceKind = kind;
    info.reservedWord = 7;
    info.dns1 = 0x08080808;
    info.dns3 = 0x01010101;
    return info;
}

QString longText(int length)
{
    return QString(length, QLatin1Char('x'));
}

} // namespace

const Texts& names()
{
    static const Texts texts = {"Cam", "Cam", "Cam", "Cam", "Cam", "Store", "Store", "Store", "Lobby", "Lobby",
                                "cam.local", "", "C\xe4m", nullptr, "New\n[1] Line",
                                "K\xc3\xbc"
                                "che",
                                // What a terminal may obey, take for the end of a line, or show in another order.
                                "Cam\xc2\x9b"
                                "2J\xc2\x85\xe2\x80\xa8\xe2\x80\xa9",
                                "\xe2\x80\xaemaC\xe2\x81\xa6\xf3\xa0\x81\x81",
                                // A joiner, and a character behind the first 65536, which stay.
                                "a\xe2\x80\x8d\xf0\x9f\x93\xb7"};
    return texts;
}

const Texts& hosts()
{
    // All of them UTF-8, as they only come from Avahi, and D-Bus hands over nothing else.
    static const Texts texts = {"cam.local",
                                "cam.local",
                                "cam.local",
                                "cam.local",
                                "store.local",
                                "store.local",
                                "store.local",
                                "Cam",
                                "CAM.local",
                                "",
                                "h\xc3\xa4.local",
                                nullptr,
                                "\xe2\x80\xaelacol.mac\xc2\x9b"};
    return texts;
}

const Texts& types()
{
    static const Texts texts = {"_http._tcp",  "_http._tcp",       "_http._tcp",  "_http._tcp",
                                "_http._tcp",  "_http._tcp",       "_https._tcp", "_https._tcp",
                                "_https._tcp", "_HTTP._tcp",       "_http._tcp.", "_axis-video._tcp",
                                "_rtsp._tcp",  "_ht\xfftp\x1b[2J", nullptr,       ""};
    return texts;
}

const Texts& domains()
{
    static const Texts texts = {"local", "local",   "local",
                                "local", "local",   "example.org",
                                nullptr, "l\xe4\n", "\xe2\x80\xa8[1]\xc2\x85"};
    return texts;
}

const Texts& updates()
{
    static const std::string longest(255, 'y');
    static const std::string tooLong(256, 'y');
    static const Texts texts = {"state=busy",    "",
                                nullptr,         "\xff\x80",
                                "a\n[1] b",      "a\xe2\x80\xa9\xc2\x9b\xe2\x80\xaf\xe2\x80\xae",
                                longest.c_str(), tooLong.c_str()};
    return texts;
}

const std::vector<std::string>& txtStrings()
{
    static const std::vector<std::string> strings = {
        "",
        vendor("ser_no", "=\x01\x02\x03"),
        vendor("ser_no", "=\xff\xfe\xfd"),
        vendor("ser_no", "=\x01\x02\x03\x04"),
        vendor("ser_no", "=abc"),
        vendor("ser_no", "=\x7f"),
        vendor("ser_no", "="),
        vendor("ser_no", ""),
        vendor("SER_NO", "=xyz"),
        vendor("ser_no", std::string("=\0\x80", 3)),
        vendor("ser_no", std::string("\0junk=\x05", 7)),
        snap("ser_no", "=\x01\x02\x03"),
        snap("ser_no", "=\xff"),
        snap("Ser_No", "=ab"),
        snap("ser_no", ""),
        vendor("full_name", "=Dome"),
        vendor("full_name", "=K\xc3\xbc"
                            "che"),
        vendor("full_name", "=\xe2\x80\xae"
                            "fed\xe2\x80\xa8\xc2\x9b"
                            "31m\xc2\xad"),
        vendor("full_name", ""),
        vendor("FULL_NAME", "=Other"),
        vendor("fs_vers", "=1.2\n[1] forged"),
        vendor("fs_vers", "=3=4"),
        vendor("error", "="),
        vendor("error", "=hot"),
        vendor("userdata_owner", std::string("=bob\0x", 6)),
        vendor("privacy_mode", "=T"),
        vendor("privacy_mode", "=t"),
        vendor("privacy_mode", "=T "),
        vendor("privacy_mode", ""),
        snap("model", "=Box"),
        snap("model", "="),
        snap("sw_version", "=9"),
        snap("error", "=\xe4"),
        snap("totalcapacity", "=4 TB"),
        snap("FreeCapacity", "=1 TB"),
        snap("freecapacity", ""),
        "a=b",
        "=",
        "ser_no=1",
        vendor("ser_no", "x=1"),
        std::string("\0", 1),
        std::string(255, 'z'),
    };
    return strings;
}

const std::vector<const Address*>& addresses()
{
    static const Address one = {AVAHI_PROTO_INET, {10, 0, 0, 1}};
    static const Address two = {AVAHI_PROTO_INET, {10, 0, 0, 2}};
    static const Address three = {AVAHI_PROTO_INET, {10, 0, 0, 3}};
    static const Address broadcast = {AVAHI_PROTO_INET, {255, 255, 255, 255}};
    static const Address linkLocal = {AVAHI_PROTO_INET6, {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}};
    static const Address longest = {AVAHI_PROTO_INET6, std::vector<std::uint8_t>(16, 0xee)};
    static const Address ofNoFamily = {AVAHI_PROTO_UNSPEC, std::vector<std::uint8_t>(16, 0xee)};
    static const std::vector<const Address*> all
        = {&one,   &one,       &one,       &one,     &two,        &two,    &two,
           &three, &broadcast, &linkLocal, &longest, &ofNoFamily, nullptr, nullptr};
    return all;
}

const std::vector<Payload>& payloads()
{
    static const std::vector<std::uint8_t> one = {10, 0, 0, 1};
    static const std::vector<std::uint8_t> two = {10, 0, 0, 2};
    static const std::vector<std::uint8_t> three = {10, 0, 0, 3};
    static const std::vector<std::uint8_t> high = {192, 168, 255, 254};
    static const std::vector<std::uint8_t> longer(20, 0x80);
    static const std::vector<Payload> all
        = {{&one, 4},    {&one, 4},    {&one, 4},     {&two, 4},     {&two, 4},     {&three, 4},  {&high, 4},
           {nullptr, 0}, {&one, 0},    {&one, 1},     {&one, 2},     {&one, 3},     {nullptr, 3}, {nullptr, 4},
           {&longer, 5}, {&longer, 8}, {&longer, 15}, {&longer, 16}, {&longer, 20}, {nullptr, 20}};
    return all;
}

const std::vector<std::uint16_t>& ports()
{
    static const std::vector<std::uint16_t> all = {80, 443, 8080, 0, 65535};
    return all;
}

const std::vector<int>& interfaces()
{
    static const std::vector<int> all = {2, 3, -1, 0, 2147483647};
    return all;
}

const std::vector<int>& protocols()
{
    static const std::vector<int> all = {AVAHI_PROTO_INET, AVAHI_PROTO_INET6, AVAHI_PROTO_UNSPEC};
    return all;
}

const std::vector<int>& errors()
{
    static const std::vector<int> all = {AVAHI_ERR_FAILURE,
                                         AVAHI_ERR_TIMEOUT,
                                         AVAHI_ERR_TIMEOUT,
                                         AVAHI_ERR_BAD_STATE,
                                         AVAHI_ERR_TOO_MANY_OBJECTS,
                                         AVAHI_ERR_DISCONNECTED,
                                         -1000};
    return all;
}

const std::vector<int>& logLevels()
{
    static const std::vector<int> all = {1, 1, 1, 1, 2, 4, 5};
    return all;
}

const std::vector<int>& clientStates()
{
    static const std::vector<int> all
        = {AVAHI_CLIENT_FAILURE,     AVAHI_CLIENT_S_RUNNING,  AVAHI_CLIENT_S_REGISTERING,
           AVAHI_CLIENT_S_COLLISION, AVAHI_CLIENT_CONNECTING, 77};
    return all;
}

const Texts& functions()
{
    static const Texts texts = {"service_resolver_new", "record_browser_new",
                                "service_browser_new",  "client_new",
                                "entry_group_new",      "entry_group_add_service_strlst",
                                "entry_group_commit",   "entry_group_update_service_txt",
                                "entry_group_reset",    "entry_group_free"};
    return texts;
}

const std::vector<vd::SReconfigInfo>& reconfigurations()
{
    static const std::vector<vd::SReconfigInfo> all = {
        vd::SReconfigInfo(),
        reconfiguration(QStringLiteral("root"), QStringLiteral("pass"), vd::DEVICE_KIND_SNAP_SERVER, true),
        reconfiguration(QString(QChar(0xfc)), QStringLiteral("p"), vd::DEVICE_KIND_VANDREL, false),
        reconfiguration(QString(), QStringLiteral("pa"), 0, true),
        reconfiguration(longText(int(255 - vendor("USER", "=").size())), QString(), 0, false),
        reconfiguration(longText(int(256 - vendor("USER", "=").size())), QString(), 0, false),
        reconfiguration(QString(), longText(int(255 - vendor("PWD", "=").size()) / 4 * 3), 0, false),
        reconfiguration(QString(), longText(int(255 - vendor("PWD", "=").size()) / 4 * 3 + 1), 0, false),
        reconfiguration(QString(3, QChar(0)), QString(), 0, false),
        reconfiguration(QString(), QString(2, QChar(0)), 0, false),
        reconfiguration(QString(QChar(0xd800)), QString(), 0, false),
        reconfiguration(QString(), QString(QChar(0xd800)), 0, false),
    };
    return all;
}

} // namespace vocabulary
