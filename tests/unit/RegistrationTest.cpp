// SPDX-License-Identifier: MIT
#include "support/RegistrationFixture.h"

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

TEST_F(RegistrationTest, FailedGroupIsLoggedAndNothingIsRegistered)
{
    startBrowsing();
    avahi.failNext("entry_group_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeCalls(), Lines{"entry_group_new(client1) = null"});
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"), NO_GROUP}));
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(stringsOf(discovery().txtRecord).size(), 6u);
}

TEST_F(RegistrationTest, ClientWithoutBrowsersIsEnough)
{
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    ASSERT_FALSE(discovery().BrowseServices("_http._tcp"));
    EXPECT_TRUE(registerService());
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
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(discovery().registeredType, "_reconf._tcp");
}

TEST_F(RegistrationTest, FailedCommitIsLoggedAndTheGroupStays)
{
    startBrowsing();
    avahi.failNext("entry_group_commit", AVAHI_ERR_BAD_STATE);
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"),
                                PREFIX + "RegisterService() -> failed to commit entry group; errorcode: -2"}));
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(discovery().registeredType, "_reconf._tcp");
}

TEST_F(RegistrationTest, RegisteringAgainReusesTheGroup)
{
    startRegistered();
    EXPECT_TRUE(registerService("Other"));
    EXPECT_EQ(takeCalls(), (Lines{adding("group1", PLAIN_TXT, "Other"), "entry_group_commit(group1)"}));
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().registeredName, "Other");
}

TEST_F(RegistrationTest, NameOfTheLastRegistrationCanBeGivenBack)
{
    startRegistered();
    EXPECT_TRUE(registerService(discovery().registeredName.c_str(), discovery().registeredType.c_str()));
    EXPECT_EQ(takeCalls().front(), adding("group1"));
}

TEST_F(RegistrationTest, EmptyTextsAreLeftToTheDaemonToRefuse)
{
    startBrowsing();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_INVALID_SERVICE_NAME);
    EXPECT_FALSE(registerService(""));
    EXPECT_EQ(takeCalls().back(), adding("group1", PLAIN_TXT, ""));
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
    EXPECT_EQ(stringsOf(discovery().txtRecord).size(), 6u);
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(discovery().registeredType, "_reconf._tcp");
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

TEST_F(RegistrationTest, StatesOfAnyGroupAreLogged)
{
    startRegistered();
    discovery().AvahiEntryGroupChanged(nullptr, AVAHI_ENTRY_GROUP_FAILURE, nullptr);
    EXPECT_EQ(takeLog(), Lines{PREFIX + "AvahiEntryGroupChanged() -> entry group failure"});
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
    EXPECT_EQ(stringsOf(discovery().txtRecord).size(), 6u);
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(discovery().registeredType, "_reconf._tcp");
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
    EXPECT_EQ(takeCalls(), (Lines{"entry_group_reset(group1)", "entry_group_free(group1)"}));
    EXPECT_EQ(discovery().entryGroup, group);
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().registeredName, "Setup");
    EXPECT_EQ(discovery().registeredType, "_reconf._tcp");
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
