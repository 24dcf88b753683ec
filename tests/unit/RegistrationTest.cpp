// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

#include <cstring>
#include <utility>

namespace {

const std::string PREFIX = "[1] AvahiServiceDiscovery::";
const std::string NO_GROUP = PREFIX + "RegisterService () -> could not register entry group!";
const std::string GROUP_RESET = PREFIX + "TerminateRegistration () -> performed entry group reset";

// The list as Avahi gets it: what was added last stands first.
const std::string PLAIN_TXT = "[SAVE.vandrel.com=F MASK.vandrel.com=\\x00\\x00\\x00\\x00 "
                              "NEWIP.vandrel.com=\\x00\\x00\\x00\\x00 PWD.vandrel.com= USER.vandrel.com= "
                              "ZEPH.vandrel.com=\\x00\\x00\\x00]";

std::string registering(const std::string& name, const std::string& type = "_reconf._tcp")
{
    return PREFIX + "RegisterService() -> registering service " + name + " type: " + type;
}

std::string adding(const std::string& group, const std::string& txt = PLAIN_TXT, const std::string& name = "Setup")
{
    return "entry_group_add_service_strlst(" + group + ", -1, -1, 320, \"" + name
           + "\", \"_reconf._tcp\", null, null, 80, " + txt + ")";
}

std::string failedToAdd(const std::string& name, const std::string& type, int error)
{
    return PREFIX + "RegisterService() -> failed to register service" + name + " type: " + type
           + " errorcode: " + std::to_string(error);
}

std::string failedUpdate(int error)
{
    return PREFIX + "UpdateTxtRecord () -> could not update text record; errorcode: " + std::to_string(error);
}

/** The published strings in their order of addition, which is that of the wire. */
Lines stringsOf(AvahiStringList* list)
{
    Lines strings;
    for (; list; list = avahi_string_list_get_next(list)) {
        strings.insert(strings.begin(),
                       std::string(reinterpret_cast<const char*>(avahi_string_list_get_text(list)),
                                   avahi_string_list_get_size(list)));
    }
    return strings;
}

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

class RegistrationTest : public DiscoveryTest
{
protected:
    bool registerService(const char* name = "Setup", const char* type = "_reconf._tcp")
    {
        return discovery().RegisterService(name, type, info);
    }

    void startRegistered()
    {
        startBrowsing();
        ASSERT_TRUE(registerService());
        forgetAll();
    }

    vd::SReconfigInfo info = vd::SReconfigInfo();
};

TEST_F(RegistrationTest, RegisteringMakesAGroupAddsTheServiceAndCommits)
{
    startBrowsing();
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_new(client1) = group1", adding("group1"), "entry_group_commit(group1)"}));
    EXPECT_EQ(takeLog(), Lines{registering("Setup")});
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().entryGroup, avahi.group());
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(discovery().registeredType, "_reconf._tcp");
    EXPECT_EQ(avahi.userData().back(), static_cast<vd::AvahiServiceDiscovery*>(&discovery()));
}

TEST_F(RegistrationTest, CameraRecordHoldsSixKeysInTheirOrder)
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

TEST_F(RegistrationTest, StorageRecordHoldsTheNameServersFirst)
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

TEST_F(RegistrationTest, EachNameServerIsWrittenOnlyWhenItIsSet)
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

TEST_F(RegistrationTest, NoKindButStorageGetsNameServers)
{
    info.dns1 = info.dns2 = info.dns3 = 1;
    for (const quint32 kind : {0u, 1u, 0x401u, 0xC00u}) {
        info.deviceKind = kind;
        discovery().CreateTxtRecord(info);
        EXPECT_EQ(keysOf(discovery().txtRecord).size(), 6u) << kind;
    }
}

TEST_F(RegistrationTest, ReservedMembersAreNotWritten)
{
    discovery().CreateTxtRecord(info);
    const Lines before = stringsOf(discovery().txtRecord);
    info.reservedFlag = 0xff;
    info.reservedWord = 0xffffffff;
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(stringsOf(discovery().txtRecord), before);
}

TEST_F(RegistrationTest, TextIsWrittenInUtf8)
{
    info.userName = QString::fromUtf8("J\xc3\xbcrgen");
    info.password = QString::fromUtf8("\xe2\x82\xac");
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(1), "USER.vandrel.com=J\xc3\xbcrgen");
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(2), "PWD.vandrel.com=4oKs");
}

TEST_F(RegistrationTest, PasswordsAreEncodedWithPaddingAndInTheStandardAlphabet)
{
    const std::pair<const char*, const char*> passwords[]
        = {{"a", "YQ=="}, {"ab", "YWI="}, {"abc", "YWJj"}, {"\xc3\xbf\xc3\xbe", "w7/Dvg=="}, {"~~~>", "fn5+Pg=="}};
    for (const auto& [password, encoded] : passwords) {
        info.password = QString::fromUtf8(password);
        discovery().CreateTxtRecord(info);
        EXPECT_EQ(stringsOf(discovery().txtRecord).at(2), std::string("PWD.vandrel.com=") + encoded);
    }
}

TEST_F(RegistrationTest, PasswordWithANulIsEncodedWhole)
{
    info.password = QString::fromUtf8("a\0b", 3);
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(2), "PWD.vandrel.com=YQBi");
}

TEST_F(RegistrationTest, CreatingTheRecordAgainReplacesIt)
{
    discovery().CreateTxtRecord(info);
    info.save = true;
    discovery().CreateTxtRecord(info);
    EXPECT_EQ(keysOf(discovery().txtRecord).size(), 6u);
    EXPECT_EQ(stringsOf(discovery().txtRecord).back(), "SAVE.vandrel.com=T");
}

TEST_F(RegistrationTest, FailedGroupIsLoggedAndNothingIsRegistered)
{
    startBrowsing();
    avahi.failNext("entry_group_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeCalls(), Lines{"entry_group_new(client1) = null"});
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"), NO_GROUP}));
    EXPECT_FALSE(discovery().IsRegistered());
}

TEST_F(RegistrationTest, FailedAdditionIsLoggedAndTheGroupStays)
{
    startBrowsing();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_COLLISION);
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_new(client1) = group1", adding("group1")}));
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"), failedToAdd("Setup", "_reconf._tcp", AVAHI_ERR_COLLISION)}));
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().entryGroup, avahi.group());
}

TEST_F(RegistrationTest, FailedCommitIsLoggedAndTheGroupStays)
{
    startBrowsing();
    avahi.failNext("entry_group_commit", AVAHI_ERR_BAD_STATE);
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"),
                                PREFIX + "RegisterService() -> failed to commit entry group; errorcode: -2"}));
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(RegistrationTest, RegisteringAgainReusesTheGroup)
{
    startRegistered();
    EXPECT_TRUE(registerService("Other"));
    EXPECT_EQ(takeCalls(), (Lines{adding("group1", PLAIN_TXT, "Other"), "entry_group_commit(group1)"}));
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().registeredName, "Other");
}

TEST_F(RegistrationTest, RegisteringAfterAFailedAdditionReusesTheGroup)
{
    startBrowsing();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_INVALID_SERVICE_TYPE);
    registerService();
    takeCalls();
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), (Lines{adding("group1"), "entry_group_commit(group1)"}));
}

TEST_F(RegistrationTest, UpdateReplacesThePublishedRecordByOneString)
{
    startRegistered();
    EXPECT_TRUE(discovery().UpdateTxtRecord("state=busy"));
    EXPECT_EQ(takeCalls(), Lines{"entry_group_update_service_txt(group1, -1, -1, 256, \"Setup\", \"_reconf._tcp\", "
                                 "\"local\", [state=busy])"});
    EXPECT_EQ(takeLog(), Lines{PREFIX + "UpdateTxtRecord () -> updated txt record: state=busy"});
}

TEST_F(RegistrationTest, UpdateLeavesTheStoredRecord)
{
    startRegistered();
    AvahiStringList* const list = discovery().txtRecord;
    const Lines strings = stringsOf(list);
    discovery().UpdateTxtRecord("state=busy");
    EXPECT_EQ(discovery().txtRecord, list);
    EXPECT_EQ(stringsOf(list), strings);
}

TEST_F(RegistrationTest, FailedUpdateIsLogged)
{
    startRegistered();
    avahi.failNext("entry_group_update_service_txt", AVAHI_ERR_NOT_FOUND);
    EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
    EXPECT_EQ(takeLog(), Lines{failedUpdate(AVAHI_ERR_NOT_FOUND)});
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(RegistrationTest, AddingARecordIsUpdatingIt)
{
    startRegistered();
    EXPECT_TRUE(discovery().AddTxtRecord("state=busy"));
    EXPECT_EQ(takeCalls(), Lines{"entry_group_update_service_txt(group1, -1, -1, 256, \"Setup\", \"_reconf._tcp\", "
                                 "\"local\", [state=busy])"});
    EXPECT_EQ(takeLog(), Lines{PREFIX + "UpdateTxtRecord () -> updated txt record: state=busy"});
    avahi.failNext("entry_group_update_service_txt", AVAHI_ERR_NOT_FOUND);
    EXPECT_FALSE(discovery().AddTxtRecord("state=busy"));
}

TEST_F(RegistrationTest, EachStateOfTheGroupIsLogged)
{
    startRegistered();
    const char* const states[] = {"uncommitted", "registering", "established", "collision", "failure"};
    for (int state = 0; state <= 4; ++state) {
        avahi.fireGroupState(static_cast<AvahiEntryGroupState>(state));
        EXPECT_EQ(takeLog(), Lines{PREFIX + "AvahiEntryGroupChanged() -> entry group " + states[state]});
    }
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeSignals(), Lines());
}

TEST_F(RegistrationTest, OtherStatesOfTheGroupAreIgnored)
{
    startRegistered();
    for (const int state : {5, 7})
        avahi.fireGroupState(static_cast<AvahiEntryGroupState>(state));
    EXPECT_EQ(takeLog(), Lines());
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(RegistrationTest, CollisionChangesNothing)
{
    startRegistered();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().registeredName, "Setup");
}

TEST_F(RegistrationTest, TerminatingWithoutARegistrationDoesNothing)
{
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeLog(), Lines());
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(RegistrationTest, TerminatingResetsAndFreesTheGroup)
{
    startRegistered();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_reset(group1)", "entry_group_free(group1)"}));
    EXPECT_EQ(takeLog(), (Lines{GROUP_RESET, GROUP_RESET}));
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(discovery().entryGroup, nullptr);
}

TEST_F(RegistrationTest, TerminatingLeavesWhatWasRegistered)
{
    startRegistered();
    AvahiStringList* const list = discovery().txtRecord;
    discovery().TerminateRegistration();
    EXPECT_EQ(discovery().txtRecord, list);
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(discovery().registeredType, "_reconf._tcp");
    EXPECT_TRUE(discovery().IsBrowsing());
}

TEST_F(RegistrationTest, FailedResetIsLoggedAndTheGroupStays)
{
    startRegistered();
    avahi.failNext("entry_group_reset", AVAHI_ERR_DISCONNECTED);
    EXPECT_FALSE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls(), Lines{"entry_group_reset(group1)"});
    EXPECT_EQ(takeLog(), Lines{PREFIX + "TerminateRegistration() -> could not reset registration; errorcode: "
                               + std::to_string(AVAHI_ERR_DISCONNECTED)});
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_TRUE(discovery().TerminateRegistration());
}

TEST_F(RegistrationTest, FailedFreeIsLoggedAndTheGroupKeepsItsValue)
{
    startRegistered();
    AvahiEntryGroup* const group = discovery().entryGroup;
    avahi.failNext("entry_group_free", AVAHI_ERR_DBUS_ERROR);
    EXPECT_FALSE(discovery().TerminateRegistration());
    EXPECT_EQ(takeLog(),
              (Lines{GROUP_RESET, PREFIX + "TerminateRegistration() -> could not terminate registration; errorcode: "
                                      + std::to_string(AVAHI_ERR_DBUS_ERROR)}));
    EXPECT_EQ(discovery().entryGroup, group);
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(RegistrationTest, RegisteringAfterTerminatingMakesANewGroup)
{
    startRegistered();
    discovery().TerminateRegistration();
    forgetAll();
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_new(client1) = group2", adding("group2"), "entry_group_commit(group2)"}));
}

TEST_F(RegistrationTest, TerminatingBrowsingTakesTheRegistrationWithIt)
{
    startRegistered();
    AvahiEntryGroup* const group = discovery().entryGroup;
    discovery().TerminateBrowsing();
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(discovery().entryGroup, group);
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().txtRecord, nullptr);
}

// Text from elsewhere in the log.

TEST_F(RegistrationTest, TextCannotForgeALogLine)
{
    startBrowsing();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_COLLISION);
    registerService("a\nb", "c\x1b[2Jd");
    EXPECT_EQ(takeLog(), (Lines{registering("a\\x0ab", "c\\x1b[2Jd"),
                                failedToAdd("a\\x0ab", "c\\x1b[2Jd", AVAHI_ERR_COLLISION)}));
    registerService();
    takeLog();
    discovery().UpdateTxtRecord("a\rb");
    EXPECT_EQ(takeLog(), Lines{PREFIX + "UpdateTxtRecord () -> updated txt record: a\\x0db"});
}

TEST_F(RegistrationTest, ThePasswordIsNeverLogged)
{
    startBrowsing();
    info.password = QStringLiteral("correct horse");
    info.userName = QStringLiteral("staple");
    registerService();
    registerService("x\xff");
    info.password = QString(300, QLatin1Char('p'));
    registerService();
    std::string log;
    for (const std::string& line : takeLog())
        log += line;
    for (const char* secret : {"correct horse", "Y29ycmVjdCBob3JzZQ==", "staple", "cHBw", "ppp"})
        EXPECT_EQ(log.find(secret), std::string::npos) << secret;
}

// Orders of calls, and values, that must neither touch a dead group nor publish anything else than was meant.

class RegistrationGuardsTest : public RegistrationTest
{
protected:
    /** A registration whose group went with its client. */
    void startWithADeadGroup()
    {
        avahi.reuseAddresses();
        startRegistered();
        discovery().TerminateBrowsing();
        forgetAll();
    }

    void expectRefused(const std::string& message)
    {
        EXPECT_FALSE(registerService());
        EXPECT_EQ(takeCalls(), Lines());
        EXPECT_EQ(takeLog(), (Lines{registering("Setup"), PREFIX + "RegisterService() -> " + message}));
    }
};

TEST_F(RegistrationGuardsTest, RegisteringBeforeBrowsingFailsWithItsMessage)
{
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"), NO_GROUP}));
    EXPECT_FALSE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, UpdatingWithoutAGroupFailsWithItsMessage)
{
    EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
    startBrowsing();
    EXPECT_FALSE(discovery().AddTxtRecord("state=busy"));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), Lines{failedUpdate(AVAHI_ERR_BAD_STATE)});
}

TEST_F(RegistrationGuardsTest, RegisteringAfterTheClientIsGoneFailsAndTheAnswerStays)
{
    startWithADeadGroup();
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"), NO_GROUP}));
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, UpdatingAfterTheClientIsGoneFails)
{
    startWithADeadGroup();
    EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), Lines{failedUpdate(AVAHI_ERR_BAD_STATE)});
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, TerminatingAfterTheClientIsGoneOnlyForgetsTheGroup)
{
    startWithADeadGroup();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), Lines());
    EXPECT_FALSE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, RegisteringAfterBrowsingAgainMakesANewGroup)
{
    startWithADeadGroup();
    startBrowsing();
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_new(client2) = group2", adding("group2"), "entry_group_commit(group2)"}));
    // The new group has the address of the dead one, and is none the less alive.
    EXPECT_TRUE(discovery().UpdateTxtRecord("state=busy"));
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls().back(), "entry_group_free(group2)");
}

TEST_F(RegistrationGuardsTest, FailedNewGroupAfterADeadOneLeavesNothingRegistered)
{
    startWithADeadGroup();
    startBrowsing();
    avahi.failNext("entry_group_new", AVAHI_ERR_BAD_STATE);
    EXPECT_FALSE(registerService());
    EXPECT_FALSE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, GroupThatFailedToBeFreedIsNotUsedAgain)
{
    startRegistered();
    avahi.failNext("entry_group_free", AVAHI_ERR_DBUS_ERROR);
    discovery().TerminateRegistration();
    forgetAll();
    EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_new(client1) = group2", adding("group2"), "entry_group_commit(group2)"}));
}

TEST_F(RegistrationGuardsTest, GroupThatFailedToBeFreedIsNotFreedAgain)
{
    startRegistered();
    avahi.failNext("entry_group_free", AVAHI_ERR_DBUS_ERROR);
    discovery().TerminateRegistration();
    forgetAll();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_FALSE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, NamesThatAvahiWouldAbortOnAreRefused)
{
    startBrowsing();
    const std::pair<const char*, const char*> names[]
        = {{nullptr, ""}, {"", ""}, {"C\xe4m", "C\xef\xbf\xbdm"}, {"\xc3", "\xef\xbf\xbd"}};
    for (const auto& [name, logged] : names) {
        EXPECT_FALSE(registerService(name));
        EXPECT_EQ(takeLog(), (Lines{registering(logged),
                                    failedToAdd(logged, "_reconf._tcp", AVAHI_ERR_INVALID_SERVICE_NAME)}));
    }
    EXPECT_EQ(takeCalls(), Lines{"entry_group_new(client1) = group1"});
}

TEST_F(RegistrationGuardsTest, TypesThatAvahiWouldAbortOnAreRefused)
{
    startBrowsing();
    const std::pair<const char*, const char*> types[] = {{nullptr, ""}, {"", ""}, {"_re\xff._tcp", "_re\xef\xbf\xbd._tcp"}};
    for (const auto& [type, logged] : types) {
        EXPECT_FALSE(registerService("Setup", type));
        EXPECT_EQ(takeLog(), (Lines{registering("Setup", logged),
                                    failedToAdd("Setup", logged, AVAHI_ERR_INVALID_SERVICE_TYPE)}));
    }
    EXPECT_EQ(takeCalls(), Lines{"entry_group_new(client1) = group1"});
}

TEST_F(RegistrationGuardsTest, MissingNameOrTypeIsNotTakenFromTheLastRegistration)
{
    startRegistered();
    EXPECT_FALSE(registerService(nullptr));
    EXPECT_EQ(takeLog().back(), failedToAdd("", "_reconf._tcp", AVAHI_ERR_INVALID_SERVICE_NAME));
    EXPECT_FALSE(registerService("Setup", nullptr));
    EXPECT_EQ(takeLog().back(), failedToAdd("Setup", "", AVAHI_ERR_INVALID_SERVICE_TYPE));
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(RegistrationGuardsTest, UpdatingAfterARefusedNameFails)
{
    startRegistered();
    registerService("C\xe4m");
    forgetAll();
    EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), Lines{failedUpdate(AVAHI_ERR_INVALID_SERVICE_NAME)});
}

TEST_F(RegistrationGuardsTest, UpdateTakesAnyStringThatFits)
{
    startRegistered();
    EXPECT_TRUE(discovery().UpdateTxtRecord(std::string(255, 'x').c_str()));
    EXPECT_TRUE(discovery().UpdateTxtRecord("\xff\x80"));
    EXPECT_EQ(takeCalls().back(), "entry_group_update_service_txt(group1, -1, -1, 256, \"Setup\", \"_reconf._tcp\", "
                                  "\"local\", [\\xff\\x80])");
}

TEST_F(RegistrationGuardsTest, UpdateRefusesWhatDoesNotFit)
{
    startRegistered();
    EXPECT_FALSE(discovery().UpdateTxtRecord(nullptr));
    EXPECT_FALSE(discovery().UpdateTxtRecord(std::string(256, 'x').c_str()));
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_EQ(takeLog(), Lines(2, failedUpdate(AVAHI_ERR_INVALID_ARGUMENT)));
}

TEST_F(RegistrationGuardsTest, LongestUserNameIsPublishedWhole)
{
    startBrowsing();
    info.userName = QString(255 - int(strlen("USER.vandrel.com=")), QLatin1Char('u'));
    EXPECT_TRUE(registerService());
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(1).size(), 255u);
}

TEST_F(RegistrationGuardsTest, LongerUserNameIsRefusedAndNothingPublished)
{
    startBrowsing();
    info.userName = QString(256 - int(strlen("USER.vandrel.com=")), QLatin1Char('u'));
    expectRefused("value too long for a TXT record: USER.vandrel.com");
    EXPECT_FALSE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, LongestPasswordIsPublishedWhole)
{
    startBrowsing();
    // Base64 turns 3 bytes into 4: 236 of the 239 that are left behind the key.
    info.password = QString(177, QLatin1Char('p'));
    EXPECT_TRUE(registerService());
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(2).size(), strlen("PWD.vandrel.com=") + 236);
}

TEST_F(RegistrationGuardsTest, LongerPasswordIsRefusedAndNothingPublished)
{
    startBrowsing();
    info.password = QString(178, QLatin1Char('p'));
    expectRefused("value too long for a TXT record: PWD.vandrel.com");
}

TEST_F(RegistrationGuardsTest, UserNameWithANulIsRefused)
{
    startBrowsing();
    info.userName = QString::fromUtf8("root\0", 5);
    expectRefused("value holds a NUL, at which its reader would stop: USER.vandrel.com");
}

TEST_F(RegistrationGuardsTest, RefusedValuesLeaveWhatIsPublished)
{
    startRegistered();
    info.password = QString(178, QLatin1Char('p'));
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(RegistrationGuardsTest, StatesThatArriveInsideAvahisCallsAreLogged)
{
    startBrowsing();
    avahi.duringGroupNew([this](AvahiEntryGroup*) { avahi.fireGroupState(AVAHI_ENTRY_GROUP_UNCOMMITED); });
    avahi.duringGroupCall("entry_group_commit", [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_REGISTERING); });
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeLog(),
              (Lines{registering("Setup"), PREFIX + "AvahiEntryGroupChanged() -> entry group uncommitted",
                     PREFIX + "AvahiEntryGroupChanged() -> entry group registering"}));
}

TEST_F(RegistrationGuardsTest, RegisteringInsideTheCreationOfTheGroupIsRefused)
{
    startBrowsing();
    bool nested = true;
    discovery().inNextHandler = [&] { nested = registerService("Nested"); };
    avahi.duringGroupNew([this](AvahiEntryGroup*) { avahi.fireGroupState(AVAHI_ENTRY_GROUP_UNCOMMITED); });
    EXPECT_TRUE(registerService());
    EXPECT_FALSE(nested);
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_new(client1) = group1", adding("group1"), "entry_group_commit(group1)"}));
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(takeLog().at(1), NO_GROUP);
}

TEST_F(RegistrationGuardsTest, TerminatingInsideTheCommitIsRefused)
{
    startBrowsing();
    bool terminated = true;
    avahi.duringGroupCall("entry_group_commit", [&] { terminated = discovery().TerminateRegistration(); });
    EXPECT_TRUE(registerService());
    EXPECT_FALSE(terminated);
    EXPECT_EQ(takeLog().back(),
              PREFIX + "TerminateRegistration() -> could not reset registration; errorcode: -2");
    EXPECT_EQ(takeCalls().back(), "entry_group_commit(group1)");
    EXPECT_TRUE(discovery().TerminateRegistration());
}

TEST_F(RegistrationGuardsTest, UpdatingInsideTheCommitIsRefused)
{
    startBrowsing();
    bool updated = true;
    avahi.duringGroupCall("entry_group_commit", [&] { updated = discovery().UpdateTxtRecord("state=busy"); });
    EXPECT_TRUE(registerService());
    EXPECT_FALSE(updated);
    EXPECT_TRUE(discovery().UpdateTxtRecord("state=busy"));
}

TEST_F(RegistrationGuardsTest, EndingDiscoveryInsideTheCreationOfTheGroupFreesTheClientAfterwards)
{
    startBrowsing();
    avahi.duringGroupNew([this](AvahiEntryGroup*) { discovery().TerminateBrowsing(); });
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_new(client1) = group1", "service_browser_free(browser1)",
                                  "client_free(client1)"}));
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(takeLog().back(), NO_GROUP);
}

TEST_F(RegistrationGuardsTest, StartingAnewInsideTheCreationOfTheGroupTouchesNothingOfTheNewSession)
{
    startBrowsing();
    avahi.duringGroupNew([this](AvahiEntryGroup*) {
        discovery().TerminateBrowsing();
        discovery().BrowseServices("_http._tcp");
        EXPECT_TRUE(registerService("Anew"));
    });
    EXPECT_FALSE(registerService());
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2", "group2"}));
    EXPECT_EQ(discovery().entryGroup, avahi.group(2));
    EXPECT_EQ(discovery().registeredName, "Anew");
}

TEST_F(RegistrationGuardsTest, DeadGroupIsForgottenWhenDiscoveryEndsInsideTheCreationOfAnother)
{
    startWithADeadGroup();
    startBrowsing();
    avahi.duringGroupNew([this](AvahiEntryGroup*) { discovery().TerminateBrowsing(); });
    EXPECT_FALSE(registerService());
    forgetAll();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls(), Lines());
}

/** The calls on a group, each with the operation that makes it. */
class GroupCallGuardsTest : public RegistrationGuardsTest, public testing::WithParamInterface<const char*>
{
protected:
    bool operate()
    {
        const std::string function = GetParam();
        if (function == "entry_group_update_service_txt")
            return discovery().UpdateTxtRecord("state=busy");
        if (function == "entry_group_reset" || function == "entry_group_free")
            return discovery().TerminateRegistration();
        return registerService();
    }

    void startOperating(const std::function<void()>& inside)
    {
        startRegistered();
        avahi.duringGroupCall(GetParam(), inside);
    }
};

INSTANTIATE_TEST_SUITE_P(EveryCall, GroupCallGuardsTest,
                         testing::Values("entry_group_add_service_strlst", "entry_group_commit",
                                         "entry_group_update_service_txt", "entry_group_reset", "entry_group_free"),
                         [](const auto& parameter) { return parameter.param + strlen("entry_group_"); });

TEST_P(GroupCallGuardsTest, EndingDiscoveryInsideFreesTheClientAfterwards)
{
    startOperating([this] {
        discovery().TerminateBrowsing();
        EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "group1"}));
    });
    EXPECT_FALSE(operate());
    EXPECT_EQ(avahi.liveHandles(), Lines());
    forgetAll();
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_P(GroupCallGuardsTest, DeletingInsideIsSurvived)
{
    startOperating([this] { destroyDiscovery(); });
    EXPECT_FALSE(operate());
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(GroupCallGuardsTest, EveryOperationInsideIsRefused)
{
    startOperating([this] {
        takeCalls();
        EXPECT_FALSE(registerService());
        EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
        EXPECT_EQ(takeCalls(), Lines());
    });
    EXPECT_TRUE(operate());
}
