// SPDX-License-Identifier: MIT
#include "support/ManagedFixture.h"
#include "support/OverridingDiscovery.h"
#include "support/RegistrationFixture.h"

#include <QtCore/QTimer>

const char SETUP_TYPE[] = "_reconf._tcp";
// One byte more than a label holds.
const char LONG_NAME[] = "0123456789012345678901234567890123456789012345678901234567890123";

class ManagedPublicationTest : public ManagedTest
{
protected:
    bool registerService(const char* name = "Setup", const char* type = SETUP_TYPE)
    {
        return discovery().RegisterService(name, type, info);
    }

    void runRegistered()
    {
        run();
        ASSERT_TRUE(registerService());
        takeCalls();
        takeLog();
    }

    /** Browses without a daemon. */
    void browseInVain()
    {
        daemonIsAway();
        avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
        ASSERT_TRUE(discovery().BrowseServices(HTTP));
        forgetAll();
    }

    void hostBecomes(AvahiClientState state, int client = 1)
    {
        avahi.fireClientState(state, client);
        turn();
    }

    /** The calls about entry groups since they were asked for last. */
    Lines groupCalls()
    {
        Lines calls;
        for (const std::string& call : takeCalls()) {
            if (call.rfind("entry_group", 0) == 0)
                calls.push_back(call);
        }
        return calls;
    }

    QTimer* timer() { return discovery().findChild<QTimer*>(QStringLiteral("publishTimer")); }
    int waitsMs() { return timer()->interval(); }
    bool waits() { return timer()->isActive(); }
    /** As when the time has come. */
    void nextAttempt()
    {
        timer()->stop();
        QMetaObject::invokeMethod(&discovery(), "publishWaiting");
    }

    static Lines publishing(int client, int group, const std::string& name = "Setup")
    {
        const std::string made = "group" + std::to_string(group);
        return {"entry_group_new(client" + std::to_string(client) + ") = " + made, adding(made, PLAIN_TXT, name),
                "entry_group_commit(" + made + ")"};
    }

    static Lines withdrawing(int group)
    {
        const std::string name = "group" + std::to_string(group);
        return {"entry_group_reset(" + name + ")", "entry_group_free(" + name + ")"};
    }

    vd::SReconfigInfo info = vd::SReconfigInfo();
};

Lines operator+(Lines first, const Lines& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

TEST_F(ManagedPublicationTest, ServiceIsPublishedAtOnceWhenTheDaemonIsThere)
{
    run();
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), publishing(1, 1));
    EXPECT_TRUE(discovery().IsRegistered());
    turn(20);
    EXPECT_EQ(takeCalls(), Lines());
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedPublicationTest, PublishedServiceCountsAsAnObject)
{
    runRegistered();
    EXPECT_EQ(discovery().openObjects(), 2);
    discovery().TerminateRegistration();
    EXPECT_EQ(discovery().openObjects(), 1);
}

TEST_F(ManagedPublicationTest, PublishedServiceIsPublishedAgainAfterARestart)
{
    runRegistered();
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
    EXPECT_TRUE(discovery().IsRegistered());
}

TEST_F(ManagedPublicationTest, ServiceRegisteredWithoutADaemonIsPublishedWhenItIsThere)
{
    browseInVain();
    EXPECT_TRUE(registerService());
    EXPECT_TRUE(discovery().IsRegistered());
    turn(20);
    EXPECT_EQ(takeCalls(), Lines());
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(groupCalls(), publishing(1, 1));
}

TEST_F(ManagedPublicationTest, ServiceRegisteredWithoutABusIsPublishedWhenThereIsOne)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    discovery().BrowseServices(HTTP);
    EXPECT_TRUE(registerService());
    daemonRuns();
    turn(400);
    EXPECT_EQ(groupCalls(), publishing(1, 1));
}

TEST_F(ManagedPublicationTest, ServiceIsPublishedThoughATypeCannotBeBrowsed)
{
    runRegistered();
    failClient();
    avahi.failNext("service_browser_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
}

TEST_F(ManagedPublicationTest, RegisteringWhileTheHostHasNoNameWaitsForIt)
{
    run();
    hostBecomes(AVAHI_CLIENT_S_REGISTERING);
    EXPECT_TRUE(registerService());
    turn(20);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_FALSE(waits());
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(takeCalls(), publishing(1, 1));
}

TEST_F(ManagedPublicationTest, RegisteringBetweenTheFailureAndTheNextClientWaitsForThat)
{
    run();
    failClient();
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), Lines());
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 1));
}

TEST_F(ManagedPublicationTest, RegisteringBetweenTheFailureOfABrowserAndTheNextClientWaitsForThat)
{
    run();
    avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_FAILURE, 2, 0, nullptr, nullptr, nullptr);
    takeCalls();
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeCalls(), Lines());
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 1));
}

TEST_F(ManagedPublicationTest, HostThatIsRenamedWithdrawsAndPublishesAnew)
{
    runRegistered();
    hostBecomes(AVAHI_CLIENT_S_COLLISION);
    EXPECT_EQ(takeCalls(), withdrawing(1));
    EXPECT_EQ(discovery().openObjects(), 1);
    EXPECT_TRUE(discovery().IsRegistered());
    hostBecomes(AVAHI_CLIENT_S_REGISTERING);
    turn(300);
    EXPECT_EQ(takeCalls(), Lines());
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(takeCalls(), publishing(1, 2));
}

TEST_F(ManagedPublicationTest, HostThatIsRenamedWithinATurnPublishesAnew)
{
    runRegistered();
    avahi.fireClientState(AVAHI_CLIENT_S_REGISTERING);
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(takeCalls(), withdrawing(1) + publishing(1, 2));
    turn(300);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedPublicationTest, WithdrawalForANewHostNameIsTriedAgainWhenItFails)
{
    runRegistered();
    avahi.failNext("entry_group_reset", AVAHI_ERR_DBUS_ERROR);
    hostBecomes(AVAHI_CLIENT_S_REGISTERING);
    EXPECT_EQ(takeCalls(), Lines{"entry_group_reset(group1)"});
    EXPECT_EQ(waitsMs(), 250);
    nextAttempt();
    EXPECT_EQ(takeCalls(), withdrawing(1));
}

TEST_F(ManagedPublicationTest, NothingIsWithdrawnFromAClientThatFailed)
{
    runRegistered();
    avahi.fireClientState(AVAHI_CLIENT_S_REGISTERING);
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
}

TEST_F(ManagedPublicationTest, NewHostNameAloneMakesNoService)
{
    run();
    hostBecomes(AVAHI_CLIENT_S_REGISTERING);
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedPublicationTest, PublicationThatTheDaemonGivesUpIsMadeAnew)
{
    runRegistered();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE);
    EXPECT_EQ(waitsMs(), 250);
    turn(50);
    EXPECT_EQ(takeCalls(), Lines());
    turn(400);
    EXPECT_EQ(takeCalls(), withdrawing(1) + publishing(1, 2));
}

TEST_F(ManagedPublicationTest, PublicationThatTheDaemonGivesUpAtOnceIsMadeAnew)
{
    run();
    turn();
    avahi.duringCall("entry_group_commit", [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE); });
    EXPECT_TRUE(registerService());
    EXPECT_TRUE(waits());
    EXPECT_EQ(waitsMs(), 250);
    takeCalls();
    avahi.duringCall("entry_group_commit", [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE, 2); });
    nextAttempt();
    EXPECT_EQ(takeCalls(), withdrawing(1) + publishing(1, 2));
    EXPECT_TRUE(waits());
    EXPECT_EQ(waitsMs(), 500);
    nextAttempt();
    EXPECT_EQ(takeCalls(), withdrawing(2) + publishing(1, 3));
    EXPECT_FALSE(waits());
}

TEST_F(ManagedPublicationTest, NameThatAnotherHostHasIsLeftToItUntilARestart)
{
    runRegistered();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION);
    EXPECT_EQ(takeLog(), Lines{PREFIX + "AvahiEntryGroupChanged() -> entry group collision"});
    turn(400);
    EXPECT_EQ(takeCalls(), Lines());
    EXPECT_TRUE(discovery().IsRegistered());
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
}

TEST_F(ManagedPublicationTest, PublicationThatFailsIsTriedAgainEverMoreSeldom)
{
    runRegistered();
    failClient();
    avahi.failNext("entry_group_new", AVAHI_ERR_BAD_STATE);
    turn();
    for (const int expected : {250, 500, 1000, 2000, 4000, 8000, 8000}) {
        EXPECT_EQ(waitsMs(), expected);
        EXPECT_TRUE(waits());
        avahi.failNext("entry_group_new", AVAHI_ERR_BAD_STATE);
        nextAttempt();
    }
    takeCalls();
    nextAttempt();
    EXPECT_EQ(takeCalls(), publishing(2, 2));
    EXPECT_FALSE(waits());
}

TEST_F(ManagedPublicationTest, PublicationThatFailsIsTriedAgainByItself)
{
    runRegistered();
    failClient();
    avahi.failNext("entry_group_new", AVAHI_ERR_BAD_STATE);
    turn(600);
    EXPECT_EQ(groupCalls().back(), "entry_group_commit(group2)");
}

TEST_F(ManagedPublicationTest, EstablishedServiceThatFailsLaterIsTriedAgainSoon)
{
    runRegistered();
    for (int group = 1; group <= 3; ++group) {
        avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE, group);
        nextAttempt();
    }
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED, 4);
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE, 4);
    EXPECT_EQ(waitsMs(), 250);
}

TEST_F(ManagedPublicationTest, HalfMadePublicationIsTakenBackBeforeTheNext)
{
    runRegistered();
    failClient();
    avahi.failNext("entry_group_commit", AVAHI_ERR_BAD_STATE);
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2) + withdrawing(2));
    EXPECT_EQ(discovery().openObjects(), 1);
}

TEST_F(ManagedPublicationTest, RestartEndsTheWaitForTheNextAttempt)
{
    runRegistered();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE);
    daemonIsAway();
    avahi.failNext("service_browser_new", AVAHI_ERR_BAD_STATE);
    failClient();
    turn();
    EXPECT_FALSE(waits());
    avahi.fireClientState(AVAHI_CLIENT_S_RUNNING, 2);
    turn();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE, 2);
    EXPECT_EQ(waitsMs(), 250);
}

TEST_F(ManagedPublicationTest, RegisteringBeforeBrowsingFailsWithItsMessage)
{
    EXPECT_FALSE(registerService());
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(takeLog(), (Lines{registering("Setup"), NO_GROUP}));
}

/** What cannot be published, by what is wrong with it. */
class ManagedRefusalTest : public ManagedPublicationTest, public testing::WithParamInterface<const char*>
{
protected:
    bool registerWhatIsWrong()
    {
        const std::string wrong = GetParam();
        if (wrong == "PasswordTooLong")
            info.password = QString(400, QLatin1Char('x'));
        if (wrong == "UserNameWithNul")
            info.userName = QString(1, QChar(0));
        const char* const name = wrong == "NoName" ? nullptr
                                 : wrong == "EmptyName" ? ""
                                 : wrong == "NameTooLong" ? LONG_NAME
                                 : wrong == "NameNotUtf8" ? "\xff" : "Setup";
        const char* const type = wrong == "NoType" ? nullptr
                                 : wrong == "WrongType" ? "reconf"
                                 : wrong == "Subtype" ? "_large._sub._reconf._tcp"
                                 : wrong == "TypeNotUtf8" ? "_\xff._tcp" : SETUP_TYPE;
        return registerService(name, type);
    }
};

INSTANTIATE_TEST_SUITE_P(Every, ManagedRefusalTest,
                         testing::Values("PasswordTooLong", "UserNameWithNul", "NoName", "EmptyName", "NameTooLong",
                                         "NameNotUtf8", "NoType", "WrongType", "Subtype", "TypeNotUtf8"),
                         [](const testing::TestParamInfo<const char*>& wrong) { return std::string(wrong.param); });

TEST_P(ManagedRefusalTest, IsRefusedWithoutADaemonToo)
{
    browseInVain();
    // As libavahi-client answers while there is no daemon.
    avahi.failNext("entry_group_new", AVAHI_ERR_BAD_STATE);
    EXPECT_FALSE(registerWhatIsWrong());
    EXPECT_FALSE(discovery().IsRegistered());
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    for (const std::string& call : groupCalls())
        EXPECT_EQ(call.find("commit"), std::string::npos) << call;
}

TEST_F(ManagedPublicationTest, RefusalWithoutADaemonIsLoggedAsWithOne)
{
    const Lines refusal = {registering("Setup"),
                           PREFIX + "RegisterService() -> value too long for a TXT record: PWD.vandrel.com"};
    info.password = QString(400, QLatin1Char('x'));
    browseInVain();
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeLog(), refusal);
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    takeLog();
    EXPECT_FALSE(registerService());
    EXPECT_EQ(takeLog(), refusal);
}

TEST_F(ManagedPublicationTest, RegistrationThatFailsLeavesNothing)
{
    run();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_COLLISION);
    EXPECT_FALSE(registerService());
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(discovery().openObjects(), 1);
    EXPECT_EQ(liveCount("group"), 0);
    takeCalls();
    turn(400);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedPublicationTest, RegistrationThatCouldNotBeTakenBackIsStillThereToWithdraw)
{
    run();
    avahi.failNext("entry_group_commit", AVAHI_ERR_DBUS_ERROR);
    avahi.duringCall("entry_group_commit", [this] { avahi.failNext("entry_group_reset", AVAHI_ERR_DBUS_ERROR); });
    EXPECT_FALSE(registerService());
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_FALSE(discovery().IsRegistered());
}

TEST_F(ManagedPublicationTest, GroupThatWasFreedWithAnErrorIsNoObjectAnyMore)
{
    runRegistered();
    avahi.failNext("entry_group_free", AVAHI_ERR_DBUS_ERROR);
    EXPECT_FALSE(discovery().TerminateRegistration());
    EXPECT_EQ(liveCount("group"), 0);
    EXPECT_EQ(discovery().openObjects(), 1);
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_TRUE(registerService());
}

TEST_F(ManagedPublicationTest, RegistrationThatFailsAndIsFreedWithAnErrorLeavesNothing)
{
    run();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_DBUS_ERROR);
    avahi.failNext("entry_group_free", AVAHI_ERR_DBUS_ERROR);
    EXPECT_FALSE(registerService());
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(discovery().openObjects(), 1);
}

TEST_F(ManagedPublicationTest, SecondRegistrationThatIsRefusedChangesNothing)
{
    runRegistered();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_BAD_STATE);
    EXPECT_FALSE(registerService("Other"));
    EXPECT_EQ(takeCalls(), Lines{adding("group1", PLAIN_TXT, "Other")});
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().openObjects(), 2);
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
}

TEST_F(ManagedPublicationTest, SecondRegistrationThatTheDaemonTakesIsWhatIsPublishedAgain)
{
    runRegistered();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION);
    EXPECT_TRUE(registerService("Other"));
    takeCalls();
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2, "Other"));
}

TEST_F(ManagedPublicationTest, SecondRegistrationIsRefusedWithoutADaemonToo)
{
    browseInVain();
    EXPECT_TRUE(registerService());
    EXPECT_FALSE(registerService("Other"));
    EXPECT_EQ(takeLog(),
              Lines{"[1] ManagedServiceDiscovery::RegisterService() -> a service is registered already: Setup"});
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(groupCalls(), publishing(1, 1));
}

TEST_F(ManagedPublicationTest, WithdrawnServiceIsNotPublishedAgain)
{
    runRegistered();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_FALSE(discovery().IsRegistered());
    EXPECT_EQ(takeCalls(), withdrawing(1));
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), Lines());
}

TEST_F(ManagedPublicationTest, ServiceWithdrawnWithoutADaemonIsNotPublished)
{
    browseInVain();
    registerService();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_FALSE(discovery().IsRegistered());
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_EQ(groupCalls(), Lines());
}

TEST_F(ManagedPublicationTest, ServiceWithdrawnRightAfterAFailureIsNotPublishedAgain)
{
    runRegistered();
    failClient();
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_FALSE(discovery().IsRegistered());
    turn();
    EXPECT_EQ(groupCalls(), Lines());
}

TEST_F(ManagedPublicationTest, WithdrawalEndsTheWaitForTheNextAttempt)
{
    runRegistered();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE);
    EXPECT_TRUE(discovery().TerminateRegistration());
    EXPECT_FALSE(waits());
}

TEST_F(ManagedPublicationTest, WithdrawalThatFailsLeavesTheServiceRegistered)
{
    runRegistered();
    avahi.failNext("entry_group_reset", AVAHI_ERR_DBUS_ERROR);
    EXPECT_FALSE(discovery().TerminateRegistration());
    EXPECT_TRUE(discovery().IsRegistered());
    EXPECT_EQ(discovery().openObjects(), 2);
    takeCalls();
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
}

TEST_F(ManagedPublicationTest, ServiceIsForgottenWithTheBrowsing)
{
    runRegistered();
    discovery().TerminateBrowsing();
    EXPECT_FALSE(discovery().IsRegistered());
    discovery().BrowseServices(HTTP);
    turn();
    EXPECT_EQ(groupCalls(), Lines());
    EXPECT_TRUE(registerService());
    EXPECT_EQ(groupCalls(), publishing(2, 2));
}

TEST_F(ManagedPublicationTest, RegisteringAndWithdrawingInsideARegistrationAreRefused)
{
    run();
    avahi.duringCall("entry_group_commit", [this] {
        EXPECT_FALSE(discovery().TerminateRegistration());
        EXPECT_FALSE(registerService("Nested"));
    });
    EXPECT_TRUE(registerService());
    EXPECT_EQ(takeLog(),
              (Lines{registering("Setup"),
                     PREFIX + "TerminateRegistration() -> could not reset registration; errorcode: -2", NO_GROUP}));
    EXPECT_EQ(takeCalls(), publishing(1, 1));
    EXPECT_EQ(stringsOf(discovery().txtRecord).size(), 6u);
    failClient();
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
}

TEST_F(ManagedPublicationTest, NothingIsPublishedByATurnInsideAPublication)
{
    runRegistered();
    failClient();
    avahi.duringCall("entry_group_commit", [this] { nextAttempt(); });
    turn();
    EXPECT_EQ(groupCalls(), publishing(2, 2));
    EXPECT_FALSE(waits());
}

/** What a handler may do while Avahi is at work on the service, for each of Avahi's calls. */
class ManagedGroupHandlerTest : public ManagedPublicationTest, public testing::WithParamInterface<const char*>
{
protected:
    ManagedGroupHandlerTest() : host(new OverridingDiscovery)
    {
        daemonRuns();
        host->BrowseServices(HTTP);
    }
    ~ManagedGroupHandlerTest() override
    {
        host.reset();
        EXPECT_EQ(avahi.liveHandles(), Lines());
    }

    /** Lets the handler do @p action inside the call under test. */
    void act(const std::function<void()>& action)
    {
        host->onGroupState = [this, action](AvahiEntryGroupState) {
            ran = true;
            action();
        };
        const auto report = [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_UNCOMMITED, reportedGroup); };
        if (std::string(GetParam()) == "entry_group_new")
            avahi.duringGroupNew([report](AvahiEntryGroup*) { report(); });
        else
            avahi.duringCall(GetParam(), report);
    }

    static bool isWithdrawing()
    {
        return GetParam() == std::string("entry_group_reset") || GetParam() == std::string("entry_group_free");
    }

    std::unique_ptr<OverridingDiscovery> host;
    int reportedGroup = 1;
    bool ran = false;
};

INSTANTIATE_TEST_SUITE_P(EveryCall, ManagedGroupHandlerTest,
                         testing::Values("entry_group_new", "entry_group_add_service_strlst", "entry_group_commit",
                                         "entry_group_reset", "entry_group_free"),
                         [](const testing::TestParamInfo<const char*>& call) { return std::string(call.param); });

TEST_P(ManagedGroupHandlerTest, EndingInARegistrationOrWithdrawalLeavesNothing)
{
    act([this] { host->TerminateBrowsing(); });
    host->RegisterService("Setup", SETUP_TYPE, info);
    host->TerminateRegistration();
    EXPECT_TRUE(ran);
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_FALSE(host->IsRegistered());
}

TEST_P(ManagedGroupHandlerTest, DeletingInARegistrationOrWithdrawalIsSurvived)
{
    act([this] { host.reset(); });
    const bool isRegistered = host->RegisterService("Setup", SETUP_TYPE, info);
    EXPECT_EQ(isRegistered, host != nullptr);
    if (host) {
        EXPECT_FALSE(host->TerminateRegistration());
    }
    EXPECT_TRUE(ran);
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(ManagedGroupHandlerTest, EndingInARenewalLeavesNothing)
{
    host->RegisterService("Setup", SETUP_TYPE, info);
    reportedGroup = isWithdrawing() ? 1 : 2;
    act([this] { host->TerminateBrowsing(); });
    avahi.fireClientState(AVAHI_CLIENT_S_REGISTERING);
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_TRUE(ran);
    turn(20);
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(ManagedGroupHandlerTest, DeletingInARenewalIsSurvived)
{
    host->RegisterService("Setup", SETUP_TYPE, info);
    reportedGroup = isWithdrawing() ? 1 : 2;
    act([this] { host.reset(); });
    avahi.fireClientState(AVAHI_CLIENT_S_REGISTERING);
    hostBecomes(AVAHI_CLIENT_S_RUNNING);
    EXPECT_TRUE(ran);
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(ManagedGroupHandlerTest, BeginningAnewKeepsWhatTheHandlerRegistered)
{
    act([this] {
        host->TerminateBrowsing();
        host->BrowseServices(HTTPS);
        EXPECT_TRUE(host->RegisterService("New", SETUP_TYPE, info));
    });
    host->RegisterService("Setup", SETUP_TYPE, info);
    if (!ran)
        host->TerminateRegistration();
    EXPECT_TRUE(ran);
    EXPECT_TRUE(host->IsRegistered());
    turn(20);
    takeCalls();
    failClient(2);
    turn();
    EXPECT_EQ(groupCalls(), publishing(3, 3, "New"));
}
