// SPDX-License-Identifier: MIT
#include "avahi/managed/DaemonPing.h"

#include "support/BusStandIn.h"

#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include <unistd.h>

typedef std::vector<std::string> Lines;

class DaemonPingTest : public testing::Test
{
protected:
    DaemonPingTest()
    {
        QObject::connect(ping.get(), &vd::DaemonPing::answered, [this](bool isThere) {
            ++answers;
            wasThere = isThere;
            std::function<void()> action;
            action.swap(inNextSlot);
            if (action)
                action();
        });
    }
    // Before the bus, which tells of a connection that is left open.
    ~DaemonPingTest() override { ping.reset(); }

    /** Runs what waits for the event loop. */
    static void turn()
    {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }

    void ask()
    {
        ping->open();
        ping->ask();
    }

    BusStandIn bus;
    std::unique_ptr<vd::DaemonPing> ping = std::make_unique<vd::DaemonPing>();
    int answers = 0;
    bool wasThere = false;
    std::function<void()> inNextSlot;
};

// The connection.

TEST_F(DaemonPingTest, IsClosedAtFirst)
{
    EXPECT_FALSE(ping->isOpen());
    EXPECT_FALSE(ping->isAsked());
    EXPECT_EQ(bus.openConnections(), 0);
}

TEST_F(DaemonPingTest, OpensAConnectionOfItsOwn)
{
    ping->open();
    EXPECT_TRUE(ping->isOpen());
    EXPECT_FALSE(ping->isAsked());
    EXPECT_EQ(bus.openConnections(), 1);
}

TEST_F(DaemonPingTest, ProcessOutlivesTheBus)
{
    ping->open();
    EXPECT_FALSE(bus.endsProcessWithBus());
}

TEST_F(DaemonPingTest, StaysClosedWithoutABus)
{
    bus.failNext("bus_get_private");
    ping->open();
    EXPECT_FALSE(ping->isOpen());
    ping->open();
    EXPECT_TRUE(ping->isOpen());
}

TEST_F(DaemonPingTest, StaysClosedWhenTheConnectionCannotBeWatched)
{
    bus.failNext("connection_get_unix_fd");
    ping->open();
    EXPECT_FALSE(ping->isOpen());
    EXPECT_EQ(bus.openConnections(), 0);
}

TEST_F(DaemonPingTest, OpeningAgainLeavesTheOldConnectionAndItsQuestion)
{
    ask();
    bus.answer();
    ping->open();
    EXPECT_FALSE(ping->isAsked());
    EXPECT_EQ(bus.openConnections(), 1);
    turn();
    EXPECT_EQ(answers, 0);
}

TEST_F(DaemonPingTest, ClosingEndsTheConnection)
{
    ping->open();
    ping->close();
    EXPECT_FALSE(ping->isOpen());
    EXPECT_EQ(bus.openConnections(), 0);
    ping->close();
}

TEST_F(DaemonPingTest, DestructionEndsTheConnection)
{
    ask();
    ping.reset();
    EXPECT_EQ(bus.openConnections(), 0);
    EXPECT_EQ(answers, 0);
}

// The question.

TEST_F(DaemonPingTest, AsksTheDaemonThatRunsAndWaitsForNoAnswer)
{
    ask();
    EXPECT_TRUE(ping->isAsked());
    EXPECT_EQ(bus.takeQuestions(), Lines{"org.freedesktop.Avahi / org.freedesktop.DBus.Peer.Ping"});
    turn();
    EXPECT_TRUE(ping->isAsked());
    EXPECT_EQ(answers, 0);
    EXPECT_EQ(bus.takeQuestions(), Lines());
}

TEST_F(DaemonPingTest, QuestionThatCannotBeSentCloses)
{
    bus.failNext("connection_send");
    ask();
    EXPECT_FALSE(ping->isAsked());
    EXPECT_FALSE(ping->isOpen());
    EXPECT_EQ(bus.openConnections(), 0);
    turn();
    EXPECT_EQ(answers, 0);
}

TEST_F(DaemonPingTest, QuestionThatIsLostWithTheConnectionCloses)
{
    bus.loseConnectionInNextSend();
    ask();
    EXPECT_FALSE(ping->isAsked());
    EXPECT_FALSE(ping->isOpen());
    EXPECT_EQ(bus.openConnections(), 0);
    turn();
    EXPECT_EQ(answers, 0);
}

// The answer.

TEST_F(DaemonPingTest, AnswerIsToldOnce)
{
    ask();
    bus.answer();
    EXPECT_EQ(answers, 0);
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_TRUE(wasThere);
    EXPECT_FALSE(ping->isAsked());
    EXPECT_TRUE(ping->isOpen());
    bus.answer();
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(bus.untaken(), 0);
}

TEST_F(DaemonPingTest, ErrorOfTheBusIsAnAnswerThatTheDaemonIsGone)
{
    wasThere = true;
    ask();
    bus.answerWithError(DBUS_ERROR_NAME_HAS_NO_OWNER);
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_FALSE(wasThere);
    EXPECT_FALSE(ping->isAsked());
    EXPECT_TRUE(ping->isOpen());
}

TEST_F(DaemonPingTest, AnswerToAnotherQuestionIsNone)
{
    ask();
    bus.answer(bus.lastSerial() + 1);
    bus.answer(bus.lastSerial() - 1);
    turn();
    EXPECT_EQ(answers, 0);
    EXPECT_TRUE(ping->isAsked());
    EXPECT_EQ(bus.untaken(), 0);
}

TEST_F(DaemonPingTest, WhatElseComesIsNoAnswer)
{
    ask();
    bus.tellSomethingElse();
    turn();
    EXPECT_EQ(answers, 0);
    EXPECT_TRUE(ping->isAsked());
    EXPECT_EQ(bus.untaken(), 0);
}

TEST_F(DaemonPingTest, WhatComesUnaskedIsTakenAndIgnored)
{
    ping->open();
    bus.tellSomethingElse();
    bus.answer(bus.lastSerial());
    turn();
    EXPECT_EQ(answers, 0);
    EXPECT_EQ(bus.untaken(), 0);
}

TEST_F(DaemonPingTest, AnswerAmongOtherMessagesIsToldOnceAndAllAreTaken)
{
    ask();
    bus.tellSomethingElse();
    bus.answer(bus.lastSerial() + 1);
    bus.answer();
    bus.answer();
    bus.tellSomethingElse();
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_EQ(bus.untaken(), 0);
}

TEST_F(DaemonPingTest, EachQuestionHasAnAnswerOfItsOwn)
{
    ask();
    const dbus_uint32_t first = bus.lastSerial();
    bus.answer();
    turn();
    ping->ask();
    bus.answer(first);
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_TRUE(ping->isAsked());
    bus.answer();
    turn();
    EXPECT_EQ(answers, 2);
    EXPECT_FALSE(ping->isAsked());
}

TEST_F(DaemonPingTest, ClosingForgetsTheQuestion)
{
    ask();
    bus.answer();
    ping->close();
    EXPECT_FALSE(ping->isAsked());
    turn();
    EXPECT_EQ(answers, 0);
}

TEST_F(DaemonPingTest, WhoeverGetsTheDescriptorAfterwardsIsLeftAlone)
{
    ask();
    ping->close();
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    turn();
    EXPECT_EQ(answers, 0);
    close(ends[0]);
    close(ends[1]);
}

// The bus that goes.

TEST_F(DaemonPingTest, LostConnectionIsAnAnswerSoThatNobodyWaitsForEver)
{
    ask();
    inNextSlot = [this] {
        EXPECT_FALSE(ping->isOpen());
        EXPECT_FALSE(ping->isAsked());
    };
    wasThere = true;
    bus.loseConnection();
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_FALSE(wasThere);
    EXPECT_FALSE(ping->isOpen());
    EXPECT_EQ(bus.openConnections(), 0);
}

TEST_F(DaemonPingTest, LostConnectionClosesInSilenceWhenNothingWasAsked)
{
    ping->open();
    bus.loseConnection();
    turn();
    EXPECT_FALSE(ping->isOpen());
    EXPECT_EQ(bus.openConnections(), 0);
    EXPECT_EQ(answers, 0);
}

TEST_F(DaemonPingTest, AnswerRightBeforeTheLossIsToldOnce)
{
    ask();
    bus.answer();
    bus.loseConnection();
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_TRUE(wasThere);
    EXPECT_FALSE(ping->isOpen());
}

TEST_F(DaemonPingTest, OpensAndAsksAgainAfterALoss)
{
    ask();
    bus.loseConnection();
    turn();
    ask();
    EXPECT_TRUE(ping->isAsked());
    bus.answer();
    turn();
    EXPECT_EQ(answers, 2);
    EXPECT_EQ(bus.openConnections(), 1);
}

/** What a slot may do, upon an answer and upon a loss. */
class DaemonPingSlotTest : public DaemonPingTest, public testing::WithParamInterface<bool>
{
protected:
    void causeAnswer(const std::function<void()>& action)
    {
        ask();
        inNextSlot = action;
        if (GetParam())
            bus.loseConnection();
        else
            bus.answer();
        turn();
        EXPECT_EQ(answers, 1);
    }
};

TEST_P(DaemonPingSlotTest, MayClose)
{
    causeAnswer([this] { ping->close(); });
    EXPECT_FALSE(ping->isOpen());
    EXPECT_EQ(bus.openConnections(), 0);
}

TEST_P(DaemonPingSlotTest, MayDeleteTheObject)
{
    causeAnswer([this] { ping.reset(); });
    EXPECT_EQ(bus.openConnections(), 0);
}

TEST_P(DaemonPingSlotTest, MayOpenAndAskAgain)
{
    causeAnswer([this] { ask(); });
    EXPECT_TRUE(ping->isAsked());
    EXPECT_EQ(bus.openConnections(), 1);
    bus.answer();
    turn();
    EXPECT_EQ(answers, 2);
}

INSTANTIATE_TEST_SUITE_P(UponAnswerAndLoss, DaemonPingSlotTest, testing::Bool());

TEST_F(DaemonPingTest, SlotMayAskAgain)
{
    ask();
    inNextSlot = [this] { ping->ask(); };
    bus.answer();
    turn();
    EXPECT_EQ(answers, 1);
    EXPECT_TRUE(ping->isAsked());
    bus.answer();
    turn();
    EXPECT_EQ(answers, 2);
    EXPECT_EQ(bus.takeQuestions().size(), 2u);
}
