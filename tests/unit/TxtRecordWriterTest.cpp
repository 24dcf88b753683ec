// SPDX-License-Identifier: MIT
#include "support/RegistrationFixture.h"

#include <cstring>
#include <utility>

namespace {

Lines keysOf(AvahiStringList* list)
{
    Lines keys;
    for (const std::string& string : stringsOf(list))
        keys.push_back(string.substr(0, string.find('=')));
    return keys;
}

/** A value that a host stores so that @p bytes lie in memory. */
quint32 inMemory(const char (&bytes)[5])
{
    quint32 value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

std::string bytes(const char* data, size_t size)
{
    return std::string(data, size);
}

} // namespace

class TxtRecordWriterTest : public RegistrationTest
{};

TEST_F(TxtRecordWriterTest, CameraRecordHoldsSixKeysInTheirOrder)
{
    info.deviceKind = vd::DEVICE_KIND_VANDREL;
    info.dns1 = info.dns2 = info.dns3 = 1;
    info.userName = QStringLiteral("admin");
    info.password = QStringLiteral("secret");
    info.zephValue = 0xAB123456;
    info.newIp = inMemory("\xc0\xa8\x01\x0a");
    info.netMask = inMemory("\xff\xff\xff\x00");
    info.save = true;
    EXPECT_TRUE(discovery().CreateTxtRecord(info));
    EXPECT_EQ(stringsOf(discovery().txtRecord),
              (Lines{"ZEPH.vandrel.com=\x12\x34\x56", "USER.vandrel.com=admin", "PWD.vandrel.com=c2VjcmV0",
                     "NEWIP.vandrel.com=\xc0\xa8\x01\x0a", bytes("MASK.vandrel.com=\xff\xff\xff\x00", 21),
                     "SAVE.vandrel.com=T"}));
}

TEST_F(TxtRecordWriterTest, StorageRecordHoldsTheNameServersFirst)
{
    info.deviceKind = vd::DEVICE_KIND_SNAP_SERVER;
    info.dns1 = inMemory("\x0a\x00\x00\x01");
    info.dns2 = inMemory("\x0a\x00\x00\x02");
    info.dns3 = inMemory("\x00\x00\x00\xff");
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(stringsOf(discovery().txtRecord),
              (Lines{bytes("DNS1.vandrel.com=\x0a\x00\x00\x01", 21), bytes("DNS2.vandrel.com=\x0a\x00\x00\x02", 21),
                     bytes("DNS3.vandrel.com=\x00\x00\x00\xff", 21), bytes("ZEPH.vandrel.com=\0\0\0", 20),
                     "USER.vandrel.com=", "PWD.vandrel.com=", bytes("NEWIP.vandrel.com=\0\0\0\0", 22),
                     bytes("MASK.vandrel.com=\0\0\0\0", 21), "SAVE.vandrel.com=F"}));
}

TEST_F(TxtRecordWriterTest, EachNameServerIsWrittenOnlyWhenItIsSet)
{
    info.deviceKind = 0x400;
    info.dns3 = 1;
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(keysOf(discovery().txtRecord).front(), "DNS3.vandrel.com");
    EXPECT_EQ(keysOf(discovery().txtRecord).size(), 7u);
    info.dns1 = 1;
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(keysOf(discovery().txtRecord),
              (Lines{"DNS1.vandrel.com", "DNS3.vandrel.com", "ZEPH.vandrel.com", "USER.vandrel.com", "PWD.vandrel.com",
                     "NEWIP.vandrel.com", "MASK.vandrel.com", "SAVE.vandrel.com"}));
}

TEST_F(TxtRecordWriterTest, NoKindButStorageGetsNameServers)
{
    info.dns1 = info.dns2 = info.dns3 = 1;
    for (const quint32 kind : {0u, 1u, 0x401u, 0xC00u}) {
        info.deviceKind = kind;
        discovery().CreateTxtRecord(info);
        EXPECT_EQ(keysOf(discovery().txtRecord).size(), 6u) << kind;
    }
}

TEST_F(TxtRecordWriterTest, ReservedMembersAreNotWritten)
{
    discovery().CreateTxtRecord(info);
    const Lines before = stringsOf(discovery().txtRecord);
    info.reservedFlag = 0xff;
    info.reservedWord = 0xffffffff;
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(stringsOf(discovery().txtRecord), before);
}

TEST_F(TxtRecordWriterTest, TextIsWrittenInUtf8)
{
    info.userName = QString::fromUtf8("J\xc3\xbcrgen");
    info.password = QString::fromUtf8("\xe2\x82\xac");
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(1), "USER.vandrel.com=J\xc3\xbcrgen");
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(2), "PWD.vandrel.com=4oKs");
}

TEST_F(TxtRecordWriterTest, PasswordsAreEncodedWithPaddingAndInTheStandardAlphabet)
{
    const std::pair<const char*, const char*> passwords[]
        = {{"a", "YQ=="}, {"ab", "YWI="}, {"abc", "YWJj"}, {"\xc3\xbf\xc3\xbe", "w7/Dvg=="}, {"~~~>", "fn5+Pg=="}};
    for (const auto& [password, encoded] : passwords) {
        info.password = QString::fromUtf8(password);
        discovery().CreateTxtRecord(info);
        EXPECT_EQ(stringsOf(discovery().txtRecord).at(2), std::string("PWD.vandrel.com=") + encoded);
    }
}

TEST_F(TxtRecordWriterTest, PasswordWithANulIsEncodedWhole)
{
    info.password = QString::fromUtf8("a\0b", 3);
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(2), "PWD.vandrel.com=YQBi");
}

TEST_F(TxtRecordWriterTest, CreatingTheRecordAgainReplacesIt)
{
    discovery().CreateTxtRecord(info);
    info.save = true;
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(keysOf(discovery().txtRecord).size(), 6u);
    EXPECT_EQ(stringsOf(discovery().txtRecord).back(), "SAVE.vandrel.com=T");
}
