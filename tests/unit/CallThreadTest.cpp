// SPDX-License-Identifier: MIT
#include "avahi/managed/CallThread.h"
#include "support/NoMoreThreads.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <pthread.h>
#include <signal.h>

class CallThreadTest : public testing::Test
{
protected:
    CallThreadTest()
    {
        QObject::connect(
            thread.get(), &vd::CallThread::returned, thread.get(),
            [this] {
                ++returns;
                slotThread = QThread::currentThread();
            },
            Qt::QueuedConnection);
    }

    bool runUntilReturned()
    {
        QElapsedTimer waited;
        waited.start();
        while (returns == 0 && waited.elapsed() < LONG_MS)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        return returns == 1;
    }

    static constexpr int LONG_MS = 5000;

    std::unique_ptr<vd::CallThread> thread = std::make_unique<vd::CallThread>(nullptr);
    int returns = 0;
    QThread* slotThread = nullptr;
    std::promise<void> mayReturn;
};

TEST_F(CallThreadTest, IsIdleAtFirst)
{
    EXPECT_FALSE(thread->isBusy());
    EXPECT_TRUE(thread->hasReturned());
}

TEST_F(CallThreadTest, CallIsMadeInAnotherThreadAndToldInThisOne)
{
    std::thread::id caller;
    ASSERT_TRUE(thread->begin([&] { caller = std::this_thread::get_id(); }));
    EXPECT_TRUE(thread->isBusy());
    ASSERT_TRUE(runUntilReturned());
    EXPECT_TRUE(thread->hasReturned());
    EXPECT_TRUE(thread->isBusy()) << "it was not waited for";
    thread->wait();
    EXPECT_FALSE(thread->isBusy());
    EXPECT_NE(caller, std::thread::id());
    EXPECT_NE(caller, std::this_thread::get_id());
    EXPECT_EQ(slotThread, QThread::currentThread());
}

TEST_F(CallThreadTest, EventLoopGoesOnDuringTheCall)
{
    ASSERT_TRUE(thread->begin([&] { mayReturn.get_future().wait(); }));
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    EXPECT_FALSE(thread->hasReturned());
    EXPECT_EQ(returns, 0);
    mayReturn.set_value();
    EXPECT_TRUE(runUntilReturned());
    thread->wait();
}

TEST_F(CallThreadTest, WaitingEndsWithTheCall)
{
    std::atomic<bool> isOver{false};
    ASSERT_TRUE(thread->begin([&] {
        QThread::msleep(20);
        isOver = true;
    }));
    thread->wait();
    EXPECT_TRUE(isOver);
    EXPECT_FALSE(thread->isBusy());
}

TEST_F(CallThreadTest, AllCallsAreMadeByTheOneThread)
{
    std::vector<std::thread::id> callers;
    for (int call = 0; call < 100; ++call) {
        ASSERT_TRUE(thread->begin([&] { callers.push_back(std::this_thread::get_id()); }));
        thread->wait();
    }
    EXPECT_EQ(callers, std::vector<std::thread::id>(100, callers.front()));
}

TEST_F(CallThreadTest, DestructionWaitsForTheCall)
{
    std::atomic<bool> isOver{false};
    ASSERT_TRUE(thread->begin([&] {
        QThread::msleep(20);
        isOver = true;
    }));
    thread.reset();
    EXPECT_TRUE(isOver);
    QCoreApplication::processEvents();
    EXPECT_EQ(returns, 0) << "a slot of what is gone was called";
}

TEST_F(CallThreadTest, SignalsAreForOtherThreads)
{
    sigset_t blocked = {};
    ASSERT_TRUE(thread->begin([&] { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); }));
    thread->wait();
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1})
        EXPECT_EQ(sigismember(&blocked, number), 1) << number;
}

TEST_F(CallThreadTest, SignalsOfTheStartingThreadStayAsTheyWere)
{
    sigset_t none = {};
    sigemptyset(&none);
    sigset_t before = {};
    pthread_sigmask(SIG_SETMASK, &none, &before);
    ASSERT_TRUE(thread->begin([] {}));
    thread->wait();
    sigset_t after = {};
    pthread_sigmask(SIG_SETMASK, &before, &after);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1})
        EXPECT_EQ(sigismember(&after, number), 0) << number;
}

TEST_F(CallThreadTest, ItsOwnFaultsAreNotBlocked)
{
    sigset_t blocked = {};
    ASSERT_TRUE(thread->begin([&] { pthread_sigmask(SIG_SETMASK, nullptr, &blocked); }));
    thread->wait();
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
        EXPECT_EQ(sigismember(&blocked, number), 0) << number;
}

TEST_F(CallThreadTest, NothingIsCalledWhenThereIsNoThreadToBeHad)
{
    bool isCalled = false;
    bool hasBegun = true;
    {
        const NoMoreThreads noMoreThreads;
        hasBegun = thread->begin([&] { isCalled = true; });
    }
    EXPECT_FALSE(hasBegun);
    EXPECT_FALSE(thread->isBusy());
    EXPECT_FALSE(isCalled);
    // There may be one later.
    ASSERT_TRUE(thread->begin([&] { isCalled = true; }));
    thread->wait();
    EXPECT_TRUE(isCalled);
}
