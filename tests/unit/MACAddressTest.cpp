// SPDX-License-Identifier: MIT
#include <vd/MACAddress.h>

#include <gtest/gtest.h>

TEST(MACAddress, IsSixZeroBytesWhenNew)
{
    EXPECT_EQ(vd::MACAddress().toString(), QLatin1String("00:00:00:00:00:00"));
}

TEST(MACAddress, KeepsItsBytesInTheirOrder)
{
    const quint8 bytes[vd::MACAddress::BYTE_COUNT] = {0x00, 0x1b, 0x44, 0x11, 0x3a, 0xff};
    const vd::MACAddress address(bytes);
    vd::MACAddress copy;
    copy = address;
    EXPECT_EQ(copy.toString(), QLatin1String("00:1b:44:11:3a:ff"));
}
