// SPDX-License-Identifier: MIT
#ifndef FOREIGN_VD_MACADDRESS_H
#define FOREIGN_VD_MACADDRESS_H

namespace vd {

/** All that the library asks for, and of another size than the library's own. */
struct MACAddress
{
    MACAddress() : low(0), high(0) {}
    MACAddress(const MACAddress& other) : low(other.low), high(other.high) {}
    MACAddress& operator=(const MACAddress& other)
    {
        low = other.low;
        high = other.high;
        return *this;
    }

    unsigned long long low;
    unsigned long long high;
};

} // namespace vd

#endif
