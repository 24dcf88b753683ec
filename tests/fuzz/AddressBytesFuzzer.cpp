// SPDX-License-Identifier: MIT
// The address of a record, which has as many bytes as whoever sent it likes.
#include "Fuzzing.h"

#include <vd/AvahiServiceDiscovery.h>

#include <cstring>
#include <memory>

namespace {

class Discovery : public vd::AvahiServiceDiscovery
{
public:
    using AvahiServiceDiscovery::getQHostAddress;
};

QString dotted(const std::uint8_t* data)
{
    return QStringLiteral("%1.%2.%3.%4").arg(data[0]).arg(data[1]).arg(data[2]).arg(data[3]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static Discovery discovery;
    // Without a byte to spare, so that reading beyond the end is noticed.
    const std::unique_ptr<unsigned char[]> record(new unsigned char[size]);
    if (size > 0)
        std::memcpy(record.get(), data, size);

    const QHostAddress address = discovery.getQHostAddress(record.get(), size);

    VD_EXPECT(address.isNull() == (size < 4));
    if (size >= 4) {
        VD_EXPECT(address.protocol() == QAbstractSocket::IPv4Protocol);
        VD_EXPECT(address.toString() == dotted(data));
    }
    VD_EXPECT(discovery.getQHostAddress(nullptr, size).isNull());
    return 0;
}
