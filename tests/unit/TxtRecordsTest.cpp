// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

namespace {

/** A record in which every member that a reader may write holds something else. */
vd::SServiceInfo recordWithOldValues()
{
    vd::SServiceInfo info;
    info.serialNumber = 7;
    info.softwareVersion = QLatin1String("old version");
    info.modelName = QLatin1String("old model");
    info.errorText = QLatin1String("old error");
    info.userdataOwner = QLatin1String("old owner");
    info.privacyMode = true;
    info.totalCapacity = QLatin1String("old total");
    info.freeCapacity = QLatin1String("old free");
    info.serviceName = QLatin1String("untouched");
    info.port = 8080;
    return info;
}

} // namespace

class TxtRecordsTest : public DiscoveryTest
{
protected:
    vd::SServiceInfo vandrel(std::initializer_list<std::string> strings)
    {
        vd::SServiceInfo info = recordWithOldValues();
        discovery().GetVandrelTxtRecord(info, Txt(strings));
        return info;
    }

    vd::SServiceInfo snapServer(std::initializer_list<std::string> strings)
    {
        vd::SServiceInfo info = recordWithOldValues();
        discovery().GetSnapServerTxtRecord(info, Txt(strings));
        return info;
    }
};

TEST_F(TxtRecordsTest, VendorDomainIsTheConfiguredOne)
{
    EXPECT_STREQ(vd::VENDOR_TXT_DOMAIN, "vandrel.com");
}

TEST_F(TxtRecordsTest, ValueOfAKeyIsReturnedAndLogged)
{
    EXPECT_EQ(discovery().getAvahiStringListValue(Txt{"a=1", "b=two=2", "c=3"}, "b"), QLatin1String("two=2"));
    EXPECT_EQ(takeLog(), Lines{"[1] TXTRecord parsed b: two=2"});
}

TEST_F(TxtRecordsTest, AbsentKeyGivesAnEmptyTextThatIsNotNullAndLogsNothing)
{
    const QString value = discovery().getAvahiStringListValue(Txt{"a=1"}, "b");
    EXPECT_TRUE(value.isEmpty());
    EXPECT_FALSE(value.isNull());
    EXPECT_TRUE(discovery().getAvahiStringListValue(nullptr, "b").isEmpty());
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(TxtRecordsTest, KeyWithoutAValueIsAnError)
{
    const QString value = discovery().getAvahiStringListValue(Txt{"b"}, "b");
    EXPECT_TRUE(value.isEmpty());
    EXPECT_FALSE(value.isNull());
    EXPECT_EQ(takeLog(), Lines{"[1] TXTRecord ERROR parsing b"});
}

TEST_F(TxtRecordsTest, EmptyValueIsParsed)
{
    EXPECT_TRUE(discovery().getAvahiStringListValue(Txt{"b="}, "b").isEmpty());
    EXPECT_EQ(takeLog(), Lines{"[1] TXTRecord parsed b: "});
}

TEST_F(TxtRecordsTest, FirstOfRepeatedKeysCountsWhateverItsCase)
{
    EXPECT_EQ(discovery().getAvahiStringListValue(Txt{"B=first", "b=second"}, "b"), QLatin1String("first"));
    EXPECT_EQ(takeLog(), Lines{"[1] TXTRecord parsed b: first"});
}

TEST_F(TxtRecordsTest, ValueIsReadAsUtf8UpToItsFirstNul)
{
    EXPECT_EQ(discovery().getAvahiStringListValue(Txt{"b=K\xc3\xbc" "che"}, "b"), QString::fromUtf8("K\xc3\xbc" "che"));
    EXPECT_EQ(discovery().getAvahiStringListValue(Txt{std::string("b=a\0b", 5)}, "b"), QLatin1String("a"));
}

TEST_F(TxtRecordsTest, HostileValueForgesNoLogLine)
{
    discovery().getAvahiStringListValue(Txt{"b=x\n[1] forged"}, "b");
    EXPECT_EQ(takeLog(), Lines{"[1] TXTRecord parsed b: x\\x0a[1] forged"});
}

TEST_F(TxtRecordsTest, NothingIsLoggedBelowTheThreshold)
{
    vd::LogQt::setLogLevel(2);
    vandrel({"ser_no.vandrel.com=ABC", "full_name.vandrel.com"});
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(TxtRecordsTest, VandrelKeysFillTheirMembersAndNoOther)
{
    const vd::SServiceInfo info = vandrel({"ser_no.vandrel.com=ABC", "full_name.vandrel.com=Model 7",
                                           "fs_vers.vandrel.com=4.2", "error.vandrel.com=fan",
                                           "userdata_owner.vandrel.com=owner", "privacy_mode.vandrel.com=T"});
    EXPECT_EQ(describe(info), "serviceName='untouched' port=8080 serialNumber=4276803 softwareVersion='4.2' "
                              "modelName='Model 7' errorText='fan' userdataOwner='owner' privacyMode=true "
                              "totalCapacity='old total' freeCapacity='old free'");
}

TEST_F(TxtRecordsTest, VandrelKeysAreReadInTheirOrder)
{
    vandrel({"privacy_mode.vandrel.com=T", "userdata_owner.vandrel.com=o", "error.vandrel.com=e",
             "fs_vers.vandrel.com=v", "full_name.vandrel.com=m", "ser_no.vandrel.com=ABC"});
    EXPECT_EQ(takeLog(),
              (Lines{"[1] \t\tser_no_vandrel.com ABC", "[1] TXTRecord parsed full_name.vandrel.com: m",
                     "[1] TXTRecord parsed fs_vers.vandrel.com: v", "[1] TXTRecord parsed error.vandrel.com: e",
                     "[1] TXTRecord parsed userdata_owner.vandrel.com: o",
                     "[1] TXTRecord parsed privacy_mode.vandrel.com: T"}));
}

TEST_F(TxtRecordsTest, MissingVandrelKeysEmptyTheirMembers)
{
    EXPECT_EQ(describe(vandrel({"ser_no.vandrel.com=ABC"})),
              "serviceName='untouched' port=8080 serialNumber=4276803 totalCapacity='old total' "
              "freeCapacity='old free'");
}

TEST_F(TxtRecordsTest, SnapServerKeysFillTheirMembersAndNoOther)
{
    const vd::SServiceInfo info
        = snapServer({"ser_no.snapserver.com=ABC", "model.snapserver.com=Box", "sw_version.snapserver.com=9",
                      "error.snapserver.com=disk", "totalcapacity.snapserver.com=8 TB",
                      "freecapacity.snapserver.com=1 TB"});
    EXPECT_EQ(describe(info), "serviceName='untouched' port=8080 serialNumber=4276803 softwareVersion='9' "
                              "modelName='Box' errorText='disk' userdataOwner='old owner' privacyMode=true "
                              "totalCapacity='8 TB' freeCapacity='1 TB'");
}

TEST_F(TxtRecordsTest, SnapServerKeysAreReadInTheirOrder)
{
    snapServer({"freecapacity.snapserver.com=f", "totalcapacity.snapserver.com=t", "error.snapserver.com=e",
                "sw_version.snapserver.com=v", "model.snapserver.com=m", "ser_no.snapserver.com=ABC"});
    EXPECT_EQ(takeLog(),
              (Lines{"[1] \t\tser_no.snapserver.com ABC", "[1] TXTRecord parsed model.snapserver.com: m",
                     "[1] TXTRecord parsed sw_version.snapserver.com: v",
                     "[1] TXTRecord parsed error.snapserver.com: e",
                     "[1] TXTRecord parsed totalcapacity.snapserver.com: t",
                     "[1] TXTRecord parsed freecapacity.snapserver.com: f"}));
}

TEST_F(TxtRecordsTest, MissingSnapServerKeysEmptyTheirMembers)
{
    EXPECT_EQ(describe(snapServer({"ser_no.snapserver.com=ABC"})),
              "serviceName='untouched' port=8080 serialNumber=4276803 userdataOwner='old owner' privacyMode=true");
}

TEST_F(TxtRecordsTest, EmptyModelIsLoggedAsParsed)
{
    const vd::SServiceInfo info = snapServer({"model.snapserver.com="});
    EXPECT_TRUE(info.modelName.isEmpty());
    EXPECT_EQ(takeLog(), Lines{"[1] TXTRecord parsed model.snapserver.com: "});
}

TEST_F(TxtRecordsTest, SerialIsThreeRawBytesTheFirstOneHighest)
{
    EXPECT_EQ(vandrel({"ser_no.vandrel.com=\x01\x02\x03"}).serialNumber, 0x010203u);
    EXPECT_EQ(snapServer({"ser_no.snapserver.com=\x01\x02\x03"}).serialNumber, 0x010203u);
}

TEST_F(TxtRecordsTest, SerialBytesAreUnsigned)
{
    EXPECT_EQ(vandrel({"ser_no.vandrel.com=\xff\xff\xff"}).serialNumber, 16777215u);
    EXPECT_EQ(vandrel({"ser_no.vandrel.com=\xc1\x80\xfe"}).serialNumber, 0xc180feu);
}

TEST_F(TxtRecordsTest, SerialMayHoldNulBytes)
{
    EXPECT_EQ(vandrel({std::string("ser_no.vandrel.com=\0\xc1\xff", 22)}).serialNumber, 0x00c1ffu);
    EXPECT_EQ(vandrel({std::string("ser_no.vandrel.com=\xc1\0\xff", 22)}).serialNumber, 0xc100ffu);
}

TEST_F(TxtRecordsTest, SerialIgnoresBytesBehindTheThird)
{
    EXPECT_EQ(vandrel({"ser_no.vandrel.com=\x01\x02\x03\x04"}).serialNumber, 0x010203u);
}

TEST_F(TxtRecordsTest, MissingSerialBytesAreZero)
{
    EXPECT_EQ(vandrel({"ser_no.vandrel.com="}).serialNumber, 0u);
    EXPECT_EQ(vandrel({"ser_no.vandrel.com=\x01"}).serialNumber, 0x010000u);
    EXPECT_EQ(vandrel({"ser_no.vandrel.com=\x01\x02"}).serialNumber, 0x010200u);
    EXPECT_EQ(snapServer({"ser_no.snapserver.com=\xff"}).serialNumber, 0xff0000u);
}

TEST_F(TxtRecordsTest, SerialBehindANulInTheKeyIsReadWithinItsEntry)
{
    // The key is compared up to its NUL, while the value begins behind the first "=".
    EXPECT_EQ(vandrel({std::string("ser_no.vandrel.com\0junk=\x01", 25)}).serialNumber, 0x010000u);
}

TEST_F(TxtRecordsTest, SerialWithoutAValueStaysAndLogsNothing)
{
    EXPECT_EQ(vandrel({"ser_no.vandrel.com"}).serialNumber, 7u);
    EXPECT_EQ(snapServer({"ser_no.snapserver.com"}).serialNumber, 7u);
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(TxtRecordsTest, AbsentSerialStaysAndLogsNothing)
{
    EXPECT_EQ(vandrel({"a=b"}).serialNumber, 7u);
    vd::SServiceInfo info = recordWithOldValues();
    discovery().GetSnapServerTxtRecord(info, nullptr);
    EXPECT_EQ(info.serialNumber, 7u);
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(TxtRecordsTest, HostileSerialForgesNoLogLine)
{
    vandrel({"ser_no.vandrel.com=\n[1"});
    EXPECT_EQ(takeLog(), Lines{"[1] \t\tser_no_vandrel.com \\x0a[1"});
}

TEST_F(TxtRecordsTest, PrivacyModeIsTheWholeTextTOnly)
{
    EXPECT_TRUE(vandrel({"privacy_mode.vandrel.com=T"}).privacyMode);
    for (const char* text : {"privacy_mode.vandrel.com=T ", "privacy_mode.vandrel.com=true",
                             "privacy_mode.vandrel.com=t", "privacy_mode.vandrel.com=F",
                             "privacy_mode.vandrel.com=", "privacy_mode.vandrel.com"})
        EXPECT_FALSE(vandrel({text}).privacyMode) << text;
}

TEST_F(TxtRecordsTest, AxisReaderChangesNothing)
{
    vd::SServiceInfo info = recordWithOldValues();
    const std::string before = describe(info);
    discovery().GetAxisTxtRecord(info, Txt{"ser_no.vandrel.com=ABC", "model.snapserver.com=Box"});
    EXPECT_EQ(describe(info), before);
    EXPECT_EQ(takeLog(), Lines());
}

TEST_F(TxtRecordsTest, SerialMayHoldAnEqualsSign)
{
    EXPECT_EQ(vandrel({"ser_no.vandrel.com=\x01=\x03"}).serialNumber, 0x013d03u);
}

TEST_F(TxtRecordsTest, ValueIsReturnedAsItIsWhateverItHolds)
{
    EXPECT_EQ(discovery().getAvahiStringListValue(Txt{"b= x\n\x1b[2J "}, "b"), QLatin1String(" x\n\x1b[2J "));
}
