// SPDX-License-Identifier: MIT
#include "avahi/managed/CallTiming.h"

#include <gtest/gtest.h>

#include <initializer_list>

class CallTimingTest : public testing::Test
{
protected:
    /** For how long calls are to wait at a time that counts from the begin of the test. */
    int pauseAt(qint64 time, int services = MANY) const { return timing.pauseMs(BEGIN + time, services); }

    void appearAt(std::initializer_list<qint64> times)
    {
        for (const qint64 time : times)
            timing.newsCame(BEGIN + time);
    }

    int floodPauseAt(qint64 time, int services = 0) const
    {
        return timing.floodPauseMs(BEGIN + time, services, true);
    }

    int floodPauseWithMoreToAskAt(qint64 time) const { return timing.floodPauseMs(BEGIN + time, 0, false); }

    void browse(qint64 made, qint64 read)
    {
        timing.browserMade(BEGIN + made);
        timing.cacheRead(m_browsers++, BEGIN + read);
    }

    /** After so long without a service a flow has ended. */
    static constexpr int QUIET = 15;
    static constexpr int MANY = 250;
    static constexpr qint64 BEGIN = 1000000;
    vd::CallTiming timing;

private:
    int m_browsers = 0;
};

TEST_F(CallTimingTest, NothingIsWaitedForAtFirst)
{
    EXPECT_EQ(pauseAt(0), 0);
    EXPECT_EQ(timing.pauseMs(0, 0), 0);
}

// Services that appear.

TEST_F(CallTimingTest, FirstServiceMayBeTheBeginOfAFlow)
{
    appearAt({0});
    EXPECT_EQ(pauseAt(0), QUIET);
    EXPECT_EQ(pauseAt(QUIET - 1), 1);
    EXPECT_EQ(pauseAt(QUIET), 0);
}

TEST_F(CallTimingTest, FewServicesAreNoFlow)
{
    appearAt({0, 7, QUIET - 1});
    EXPECT_EQ(pauseAt(QUIET - 1), 1);
    EXPECT_EQ(pauseAt(QUIET), 0);
}

TEST_F(CallTimingTest, FlowEndsWhenNoneHasAppearedForAWhile)
{
    appearAt({0, 1, 2, QUIET - 1});
    EXPECT_EQ(pauseAt(QUIET - 1), QUIET);
    EXPECT_EQ(pauseAt(2 * QUIET - 2), 1);
    EXPECT_EQ(pauseAt(2 * QUIET - 1), 0);
}

TEST_F(CallTimingTest, ServicesThatAppearMoreSlowlyAreNoFlow)
{
    appearAt({0, 1, 2, QUIET});
    EXPECT_EQ(pauseAt(QUIET), 0);
    timing.reset();
    appearAt({0, QUIET / 3, 2 * QUIET / 3, QUIET - 1, 4 * QUIET / 3});
    EXPECT_EQ(pauseAt(4 * QUIET / 3), 0);
}

TEST_F(CallTimingTest, FlowGoesOnAsLongAsServicesAppear)
{
    for (qint64 time = 0; time <= 1000; time += 4)
        appearAt({time});
    EXPECT_EQ(pauseAt(1000), QUIET);
    EXPECT_EQ(pauseAt(1000 + QUIET - 1), 1);
    EXPECT_EQ(pauseAt(1000 + QUIET), 0);
}

TEST_F(CallTimingTest, FlowThatGoesOnAndOnIsNotWaitedFor)
{
    for (qint64 time = 0; time <= 2999; ++time)
        appearAt({time});
    EXPECT_EQ(pauseAt(3000 - QUIET), QUIET);
    EXPECT_EQ(pauseAt(2999), 1);
    appearAt({3000, 3001, 3002, 3003});
    EXPECT_EQ(pauseAt(3000), 0);
    EXPECT_EQ(pauseAt(3003), 0);
}

TEST_F(CallTimingTest, ServiceThatAppearsAfterAWhileMayBeTheBeginOfAnother)
{
    appearAt({0, QUIET - 1});
    EXPECT_EQ(pauseAt(QUIET), 0);
    appearAt({2 * QUIET - 1});
    EXPECT_EQ(pauseAt(2 * QUIET - 1), QUIET);
}

TEST_F(CallTimingTest, ServiceThatAppearsSoonerIsNoBegin)
{
    appearAt({0, QUIET - 1, 2 * QUIET - 2});
    EXPECT_EQ(pauseAt(2 * QUIET - 2), 0);
}

TEST_F(CallTimingTest, FlowIsWaitedForHoweverFewAreKnown)
{
    appearAt({0});
    EXPECT_EQ(pauseAt(0, 0), QUIET);
}

// Questions for all that is known.

TEST_F(CallTimingTest, QuestionIsWaitedForAMomentAfterTheBrowserWasMade)
{
    browse(0, 50);
    EXPECT_EQ(pauseAt(89), 0);
    EXPECT_EQ(pauseAt(90), 80);
    EXPECT_EQ(pauseAt(169), 1);
    EXPECT_EQ(pauseAt(170), 0);
}

TEST_F(CallTimingTest, QuestionIsShortBeforeTheBrowserHasToldAnything)
{
    timing.browserMade(BEGIN);
    EXPECT_EQ(pauseAt(89), 0);
    EXPECT_EQ(pauseAt(90), 30);
    EXPECT_EQ(pauseAt(119), 1);
    EXPECT_EQ(pauseAt(120), 0);
}

TEST_F(CallTimingTest, QuestionWithFewServicesIsNotWaitedFor)
{
    browse(0, 50);
    EXPECT_EQ(pauseAt(100, 249), 0);
    EXPECT_EQ(pauseAt(100, 250), 70);
}

TEST_F(CallTimingTest, QuestionIsRepeatedAfterTwiceTheTimeEachTime)
{
    browse(0, 50);
    for (const qint64 repetition : {1000, 3000, 7000, 15000, 31000}) {
        EXPECT_EQ(pauseAt(repetition + 89), 0) << repetition;
        EXPECT_EQ(pauseAt(repetition + 90), 80) << repetition;
        EXPECT_EQ(pauseAt(repetition + 169), 1) << repetition;
        EXPECT_EQ(pauseAt(repetition + 170), 0) << repetition;
    }
    EXPECT_EQ(pauseAt(2100), 0);
    EXPECT_EQ(pauseAt(63100), 0);
}

TEST_F(CallTimingTest, QuestionsOfEveryBrowserAreWaitedFor)
{
    browse(0, 0);
    browse(500, 550);
    EXPECT_EQ(pauseAt(119), 1);
    EXPECT_EQ(pauseAt(120), 0);
    EXPECT_EQ(pauseAt(589), 0);
    EXPECT_EQ(pauseAt(590), 80);
    EXPECT_EQ(pauseAt(670), 0);
}

TEST_F(CallTimingTest, QuestionThatLastsLongerIsWaitedFor)
{
    browse(0, 10);
    browse(5, 60);
    browse(7, 20);
    EXPECT_EQ(pauseAt(100), 80);
}

TEST_F(CallTimingTest, WhatWasToldMuchLaterWasHeldUpOnThisSide)
{
    browse(0, 999);
    EXPECT_EQ(pauseAt(32118), 1);
    EXPECT_EQ(pauseAt(32119), 0);
    timing.cacheRead(0, BEGIN + 60000);
    EXPECT_EQ(pauseAt(32119), 1);
    EXPECT_EQ(pauseAt(32120), 0);
}

TEST_F(CallTimingTest, BrowsersThatAreNotKnownTellNothing)
{
    browse(0, 50);
    timing.cacheRead(-1, BEGIN + 80);
    timing.cacheRead(1, BEGIN + 80);
    EXPECT_EQ(pauseAt(169), 1);
    EXPECT_EQ(pauseAt(170), 0);
}

// Both.

TEST_F(CallTimingTest, LongerOfBothIsWaitedFor)
{
    browse(0, 50);
    appearAt({100});
    EXPECT_EQ(pauseAt(100), 70);
    timing.reset();
    timing.browserMade(BEGIN);
    appearAt({115});
    EXPECT_EQ(pauseAt(115), QUIET);
}

TEST_F(CallTimingTest, ResetForgetsEverything)
{
    browse(0, 50);
    appearAt({95, 96, 97, 98});
    timing.reset();
    EXPECT_EQ(pauseAt(100), 0);
    appearAt({1095});
    EXPECT_EQ(pauseAt(1095), QUIET);
    timing.cacheRead(0, BEGIN + 1096);
    EXPECT_EQ(pauseAt(1095 + QUIET), 0);
}

// Many answers awaited.

TEST_F(CallTimingTest, NoAnswersAreWaitedForAtFirst)
{
    EXPECT_EQ(floodPauseAt(0), 0);
    EXPECT_EQ(timing.floodPauseMs(0, MANY, true), 0);
}

TEST_F(CallTimingTest, MoreAnswersMayComeForAWhile)
{
    appearAt({0, 99});
    EXPECT_EQ(floodPauseAt(99), 100);
    EXPECT_EQ(floodPauseAt(198), 1);
    EXPECT_EQ(floodPauseAt(199), 0);
}

TEST_F(CallTimingTest, WhoHasMoreToAskWaitsLess)
{
    appearAt({0, 99});
    EXPECT_EQ(floodPauseWithMoreToAskAt(99), 60);
    EXPECT_EQ(floodPauseWithMoreToAskAt(158), 1);
    EXPECT_EQ(floodPauseWithMoreToAskAt(159), 0);
}

TEST_F(CallTimingTest, AnswersThatComeOnAndOnAreNotWaitedFor)
{
    for (qint64 time = 0; time <= 3000; time += 50)
        appearAt({time});
    EXPECT_EQ(floodPauseAt(2999), 16);
    EXPECT_EQ(floodPauseAt(3000), 15) << "the last service may be the begin of a flow";
    EXPECT_EQ(floodPauseAt(3015), 0);
    appearAt({3100});
    EXPECT_EQ(floodPauseAt(3100), 100);
}

TEST_F(CallTimingTest, QuestionsMayGoOutWithOthersAtOnce)
{
    browse(0, 10);
    EXPECT_EQ(floodPauseAt(989, MANY), 0);
    EXPECT_EQ(floodPauseAt(990, MANY), 140);
    EXPECT_EQ(floodPauseAt(1129, MANY), 1);
    EXPECT_EQ(floodPauseAt(1130, MANY), 0);
    EXPECT_EQ(floodPauseAt(1000, MANY - 1), 0);
}
