// SPDX-License-Identifier: MIT
// The record that is published for a device to obey: what a device would read is what the host has asked for.
#include "Fuzzing.h"

#include "avahi/TxtRecordWriter.h"

#include <vd/AvahiServiceDiscovery.h>

#include <cstring>
#include <vector>

namespace {

using Strings = std::vector<std::string>;

const std::size_t LONGEST_STRING = 255;

class Discovery : public vd::AvahiServiceDiscovery
{
public:
    using AvahiServiceDiscovery::CreateTxtRecord;
    using AvahiServiceDiscovery::txtRecord;
};

// Also halves of surrogate pairs, which a host may hand over and UTF-8 cannot hold.
QString takeUtf16(FuzzedDataProvider& input)
{
    QString text;
    const std::string bytes = vd::fuzz::takeBytes(input, 520);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        text += QChar(static_cast<ushort>(static_cast<unsigned char>(bytes[i]) << 8
                                          | static_cast<unsigned char>(bytes[i + 1])));
    }
    return text;
}

QString takeAnyText(FuzzedDataProvider& input)
{
    return input.ConsumeBool() ? vd::fuzz::takeText(input) : takeUtf16(input);
}

vd::SReconfigInfo takeInfo(FuzzedDataProvider& input)
{
    vd::SReconfigInfo info = vd::SReconfigInfo();
    const quint32 kinds[] = {0, vd::DEVICE_KIND_VANDREL, vd::DEVICE_KIND_SNAP_SERVER, 0xffffffff};
    info.deviceKind = input.PickValueInArray(kinds);
    info.save = input.ConsumeBool();
    for (quint32* member : {&info.zephValue, &info.newIp, &info.netMask, &info.dns1, &info.dns2, &info.dns3,
                            &info.reservedWord})
        *member = input.ConsumeBool() ? input.ConsumeIntegral<quint32>() : 0;
    info.userName = takeAnyText(input);
    info.password = takeAnyText(input);
    return info;
}

Strings stringsOf(AvahiStringList* list)
{
    Strings strings;
    for (; list; list = avahi_string_list_get_next(list)) {
        const char* const text = reinterpret_cast<const char*>(avahi_string_list_get_text(list));
        strings.emplace_back(text, avahi_string_list_get_size(list));
    }
    return strings;
}

std::string inMemory(quint32 value)
{
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    return std::string(bytes, sizeof bytes);
}

std::string base64(const std::string& bytes)
{
    const char* const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        unsigned bits = 0;
        for (std::size_t k = 0; k < 3; ++k)
            bits = bits << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k)
            text += i + k > bytes.size() ? '=' : alphabet[bits >> (18 - 6 * k) & 63];
    }
    return text;
}

Strings expectedStrings(const vd::SReconfigInfo& info)
{
    Strings strings;
    const auto add = [&strings](const char* label, const std::string& value) {
        strings.push_back(std::string(label) + ".vandrel.com=" + value);
    };
    const auto addServer = [&](const char* label, quint32 address) {
        if (info.deviceKind == vd::DEVICE_KIND_SNAP_SERVER && address != 0)
            add(label, inMemory(address));
    };
    addServer("DNS1", info.dns1);
    addServer("DNS2", info.dns2);
    addServer("DNS3", info.dns3);
    add("ZEPH", {static_cast<char>(info.zephValue >> 16), static_cast<char>(info.zephValue >> 8),
                 static_cast<char>(info.zephValue)});
    add("USER", info.userName.toUtf8().toStdString());
    add("PWD", base64(info.password.toUtf8().toStdString()));
    add("NEWIP", inMemory(info.newIp));
    add("MASK", inMemory(info.netMask));
    add("SAVE", info.save ? "T" : "F");
    return strings;
}

bool isUtf16(const QString& text)
{
    for (int i = 0; i < text.size(); ++i) {
        if (!text.at(i).isSurrogate())
            continue;
        if (!text.at(i).isHighSurrogate() || i + 1 == text.size() || !text.at(i + 1).isLowSurrogate())
            return false;
        ++i;
    }
    return true;
}

bool isPublishable(const vd::SReconfigInfo& info, const Strings& strings)
{
    for (const std::string& string : strings) {
        if (string.size() > LONGEST_STRING)
            return false;
    }
    return isUtf16(info.userName) && isUtf16(info.password) && !info.userName.contains(QChar(0));
}

// The bytes that go out, taken apart as at the other end.
Strings overTheWire(AvahiStringList* list)
{
    std::vector<char> wire(avahi_string_list_serialize(list, nullptr, 0));
    VD_EXPECT(avahi_string_list_serialize(list, wire.data(), wire.size()) == wire.size());
    AvahiStringList* received = nullptr;
    VD_EXPECT(avahi_string_list_parse(wire.data(), wire.size(), &received) == 0);
    const Strings strings = stringsOf(received);
    avahi_string_list_free(received);
    return strings;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Discovery discovery;
    FuzzedDataProvider input(data, size);
    const vd::SReconfigInfo info = takeInfo(input);

    VD_EXPECT(discovery.CreateTxtRecord(info));

    Strings strings = stringsOf(discovery.txtRecord);
    Strings wire = expectedStrings(info);
    // The list begins with what was added last.
    VD_EXPECT(strings == Strings(wire.rbegin(), wire.rend()));
    const QString obstacle = vd::reasonNotToPublish(info, discovery.txtRecord);
    VD_EXPECT(obstacle.isEmpty() == isPublishable(info, strings));
    if (obstacle.isEmpty())
        VD_EXPECT(overTheWire(discovery.txtRecord) == strings);
    return 0;
}
