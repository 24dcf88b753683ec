// SPDX-License-Identifier: MIT
#include "support/ManagedFixture.h"

/** What a slot may do, for each signal. */
enum Signal { Found, AddressByResolve, Text, Lost, LostAfterGrace, AddressAdded, AddressRemoved, AddressOutdated };

class ManagedSlotTest : public ManagedTest, public testing::WithParamInterface<Signal>
{
protected:
    void cause(const std::function<void()>& action)
    {
        discovery().setGracePeriod(0);
        run();
        if (GetParam() != Found)
            found();
        switch (GetParam()) {
        case Found:
            appears("Cam");
            break;
        case AddressByResolve:
        case Text:
        case AddressAdded:
        case AddressRemoved:
        case AddressOutdated:
            discovery().StartQueryRecords("Cam", HTTP, false);
            break;
        case LostAfterGrace:
            failClient();
            break;
        case Lost:
            break;
        }
        if (GetParam() != LostAfterGrace)
            turn();
        if (GetParam() == AddressAdded || GetParam() == AddressRemoved)
            resolved(2, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        if (GetParam() == AddressRemoved)
            record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.1");
        if (GetParam() == AddressOutdated) {
            resolved(2, "Cam", "cam.local", "10.0.0.2", cameraTxt);
            onlyAnswerIs(2, "10.0.0.2");
            askAndResolve(3, "10.0.0.2");
        }
        runInSlotOf([this] { fire(); }, action);
    }

private:
    void fire()
    {
        switch (GetParam()) {
        case Found:
            resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
            break;
        case AddressByResolve:
            resolved(2, "Cam", "cam.local", "10.0.0.2", Txt{SERIAL, "error.vandrel.com=hot"});
            break;
        case Text:
            resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{SERIAL, "error.vandrel.com=hot"});
            break;
        case Lost:
            disappears("Cam");
            break;
        case LostAfterGrace:
            turn(20);
            break;
        case AddressAdded:
            record(2, AVAHI_BROWSER_NEW, "cam.local", "10.0.0.9");
            break;
        case AddressRemoved:
            record(2, AVAHI_BROWSER_REMOVE, "cam.local", "10.0.0.1");
            break;
        case AddressOutdated:
            onlyAnswerIs(3, "10.0.0.2");
            break;
        }
    }
};

std::string signalName(const testing::TestParamInfo<Signal>& info)
{
    static const char* const names[] = {"Found", "AddressByResolve", "Text",           "Lost",
                                        "LostAfterGrace", "AddressAdded", "AddressRemoved", "AddressOutdated"};
    return names[info.param];
}

INSTANTIATE_TEST_SUITE_P(EverySignal, ManagedSlotTest,
                         testing::Values(Found, AddressByResolve, Text, Lost, LostAfterGrace, AddressAdded,
                                         AddressRemoved, AddressOutdated),
                         signalName);

TEST_P(ManagedSlotTest, TerminatingLeavesNothing)
{
    cause([this] { discovery().TerminateBrowsing(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(queue(), Lines());
}

TEST_P(ManagedSlotTest, DeletingAtOnceIsSurvived)
{
    cause([this] { destroyDiscovery(); });
    EXPECT_EQ(avahi.liveHandles(), Lines());
}

TEST_P(ManagedSlotTest, StartingAnewTouchesNothingOfTheNewSession)
{
    avahi.reuseAddresses();
    cause([this] {
        discovery().TerminateBrowsing();
        discovery().BrowseServices(HTTP);
        discovery().StartQueryRecords("Cam", HTTP, true);
    });
    EXPECT_EQ(table(), Lines());
    EXPECT_EQ(takeSignals().size(), 1u);
    turn();
    EXPECT_EQ(avahi.liveHandles().size(), 3u);
}

TEST_P(ManagedSlotTest, QueryingInTheSlotIsFine)
{
    cause([this] { EXPECT_TRUE(discovery().StartQueryRecords("Cam", HTTP, true)); });
    turn();
    discovery().StopQueryRecords("Cam", HTTP);
}

TEST_P(ManagedSlotTest, StoppingAQueryInTheSlotIsFine)
{
    cause([this] {
        discovery().StartQueryRecords("Cam", HTTP, true);
        discovery().StopQueryRecords("Cam", HTTP);
    });
    turn();
    for (const std::string& entry : table())
        EXPECT_EQ(entry.find("longLiveQuery"), std::string::npos) << entry;
}
