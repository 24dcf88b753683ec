// SPDX-License-Identifier: MIT

// Orders of calls, and values, that must neither touch a dead group nor publish anything else than was meant.

#include "support/RegistrationFixture.h"

#include <cstring>
#include <utility>

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
    EXPECT_EQ(takeLog(), Lines{failedUpdate(AVAHI_ERR_BAD_STATE)});
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
        = {{nullptr, ""}, {"C\xe4m", "C\xef\xbf\xbdm"}, {"\xc3", "\xef\xbf\xbd"}};
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
    const std::pair<const char*, const char*> types[] = {{nullptr, ""}, {"_re\xff._tcp", "_re\xef\xbf\xbd._tcp"}};
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

TEST_F(RegistrationGuardsTest, UserNameMayBeginWithAZeroWidthNoBreakSpace)
{
    startBrowsing();
    info.userName = QChar(0xfeff) + QLatin1String("root");
    EXPECT_TRUE(registerService());
    EXPECT_EQ(stringsOf(discovery().txtRecord).at(1), "USER.vandrel.com=\xef\xbb\xbfroot");
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
    for (const char* name : {"root\0", "ro\0ot", "\0root"}) {
        info.userName = QString::fromUtf8(name, 5);
        expectRefused("value holds a NUL: USER.vandrel.com");
    }
}

TEST_F(RegistrationGuardsTest, ValuesThatCannotBeEncodedAreRefused)
{
    startBrowsing();
    info.password = QString(QChar(0xd800));
    expectRefused("value holds what cannot be encoded: PWD.vandrel.com");
    info.userName = info.password;
    expectRefused("value holds what cannot be encoded: USER.vandrel.com");
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
    avahi.duringCall("entry_group_commit", [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_REGISTERING); });
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
    avahi.duringCall("entry_group_commit", [&] { terminated = discovery().TerminateRegistration(); });
    EXPECT_TRUE(registerService());
    EXPECT_FALSE(terminated);
    EXPECT_EQ(takeLog().back(),
              PREFIX + "TerminateRegistration() -> could not reset registration; errorcode: -2");
    EXPECT_EQ(takeCalls().back(), "entry_group_commit(group1)");
    EXPECT_TRUE(discovery().TerminateRegistration());
}

TEST_F(RegistrationGuardsTest, RegisteringInsideTheCreationOfTheClientIsRefused)
{
    bool registered = true;
    discovery().inNextHandler = [&] { registered = registerService(); };
    avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING); });
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
    EXPECT_FALSE(registered);
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
}

TEST_F(RegistrationGuardsTest, EventsWhileTheClientIsFreedAfterwardsDoNothing)
{
    const Txt camera = {"ser_no.vandrel.com=abc"};
    startBrowsing();
    appears("Cam");
    avahi.duringClientFree([&] { resolved(1, "Cam", "cam.local", "10.0.0.1", camera); });
    avahi.duringGroupNew([this](AvahiEntryGroup*) { discovery().TerminateBrowsing(); });
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines());
    avahi.duringClientFree(nullptr);
    EXPECT_TRUE(discovery().BrowseServices("_http._tcp"));
    avahi.fireBrowse(avahi.browser(2), AVAHI_BROWSER_NEW, 2, 0, "Cam", "_http._tcp", "local");
    resolved(2, "Cam", "cam.local", "10.0.0.1", camera);
    EXPECT_EQ(takeSignals().size(), 1u);
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

/** The calls of Avahi's about groups, each with the operation that makes it. */
class GroupCallGuardsTest : public RegistrationGuardsTest, public testing::WithParamInterface<const char*>
{
protected:
    bool operate()
    {
        if (isCall("update_service_txt"))
            return discovery().UpdateTxtRecord("state=busy");
        if (isCall("reset") || isCall("free"))
            return discovery().TerminateRegistration();
        return registerService();
    }

    std::string failureMessage() const
    {
        const std::string code = "errorcode: " + std::to_string(AVAHI_ERR_BAD_STATE);
        if (isCall("new"))
            return NO_GROUP;
        if (isCall("add_service_strlst"))
            return failedToAdd("Setup", "_reconf._tcp", AVAHI_ERR_BAD_STATE);
        if (isCall("commit"))
            return PREFIX + "RegisterService() -> failed to commit entry group; " + code;
        if (isCall("update_service_txt"))
            return failedUpdate(AVAHI_ERR_BAD_STATE);
        return PREFIX + "TerminateRegistration() -> could not " + (isCall("reset") ? "reset" : "terminate")
               + " registration; " + code;
    }

    bool isCall(const std::string& name) const { return GetParam() == name; }

    void startOperating(const std::function<void()>& inside)
    {
        const auto noted = [this, inside] {
            m_ran = true;
            inside();
        };
        startBrowsing();
        if (isCall("new")) {
            avahi.duringGroupNew([noted](AvahiEntryGroup*) { noted(); });
            return;
        }
        ASSERT_TRUE(registerService());
        forgetAll();
        avahi.duringCall(std::string("entry_group_") + GetParam(), noted);
    }

    void TearDown() override { EXPECT_TRUE(m_ran); }

private:
    bool m_ran = false;
};

INSTANTIATE_TEST_SUITE_P(EveryCall, GroupCallGuardsTest,
                         testing::Values("new", "add_service_strlst", "commit", "update_service_txt", "reset", "free"),
                         [](const auto& parameter) { return std::string(parameter.param); });

TEST_P(GroupCallGuardsTest, EndingDiscoveryInsideFreesTheClientAfterwards)
{
    startOperating([this] {
        discovery().TerminateBrowsing();
        EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "group1"}));
    });
    EXPECT_FALSE(operate());
    EXPECT_EQ(takeLog().back(), failureMessage());
    EXPECT_EQ(avahi.liveHandles(), Lines());
    forgetAll();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_P(GroupCallGuardsTest, DeletingInsideIsSurvived)
{
    startOperating([this] { destroyDiscovery(); });
    EXPECT_FALSE(operate());
    EXPECT_EQ(takeLog().back(), failureMessage());
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(GroupCallGuardsTest, EveryOperationInsideIsRefusedWithItsMessage)
{
    startOperating([this] {
        forgetAll();
        EXPECT_FALSE(registerService());
        EXPECT_FALSE(discovery().UpdateTxtRecord("state=busy"));
        EXPECT_FALSE(discovery().TerminateRegistration());
        EXPECT_EQ(takeLog(),
                  (Lines{NO_GROUP, failedUpdate(AVAHI_ERR_BAD_STATE),
                         PREFIX + "TerminateRegistration() -> could not reset registration; errorcode: -2"}));
        EXPECT_EQ(takeCalls(), Lines());
    });
    EXPECT_TRUE(operate());
}

TEST_P(GroupCallGuardsTest, RefusedWithdrawalLeavesTheGroup)
{
    bool wasRegistered = false;
    startOperating([&] {
        discovery().TerminateRegistration();
        wasRegistered = discovery().IsRegistered();
    });
    EXPECT_TRUE(operate());
    EXPECT_EQ(wasRegistered, !isCall("new"));
}
