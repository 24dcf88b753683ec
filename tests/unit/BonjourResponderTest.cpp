// SPDX-License-Identifier: MIT
#include <vd/BonjourResponder.h>

#include "support/ServiceControllerStandIn.h"

#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

typedef std::vector<std::string> Calls;

// What only a derived class reaches.
struct Responder : vd::BonjourResponder
{
    static vd::BonjourResponder*& threadObject() { return instance; }
    static QString serviceName() { return BONJOUR_RESPONDER_NAME; }
};

// What threads have told and are to do. Outlives them, as the thread sanitizer does not see that QThread::wait()
// comes after all they did.
struct ThreadLog
{
    std::atomic<int> runs{0};
    std::atomic<int> priority{-1};
    std::atomic<bool> mayEnd{false};
};

ThreadLog& threadLog()
{
    static ThreadLog log;
    return log;
}

struct ShortThread : vd::BonjourResponder
{
    void run() override
    {
        BonjourResponder::run();
        ++threadLog().runs;
        threadLog().priority = priority();
    }
};

// Runs until it is told to end.
struct LongThread : vd::BonjourResponder
{
    void run() override
    {
        ++threadLog().runs;
        while (!threadLog().mayEnd)
            msleep(1);
    }
};

class BonjourResponderTest : public testing::Test
{
protected:
    BonjourResponderTest() : machine(ServiceControllerStandIn::get()), log(threadLog())
    {
        ServiceControllerStandIn::reset();
        Responder::threadObject() = nullptr;
        log.runs = 0;
        log.priority = -1;
        log.mayEnd = false;
    }

    ~BonjourResponderTest() override
    {
        log.mayEnd = true;
        // The class itself never deletes it.
        if (Responder::threadObject())
            Responder::threadObject()->wait();
        delete Responder::threadObject();
        Responder::threadObject() = nullptr;
    }

    ServiceControllerStandIn& machine;
    ThreadLog& log;
};

} // namespace

TEST_F(BonjourResponderTest, TheServiceIsMdnsd)
{
    EXPECT_EQ(Responder::serviceName(), "mdnsd");
}

TEST_F(BonjourResponderTest, AServiceThatIsNotInstalledDoesNotRunAndIsAskedForNothingElse)
{
    machine.running = true;

    EXPECT_FALSE(vd::BonjourResponder::isServiceRunning());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd"}));
}

TEST_F(BonjourResponderTest, AnInstalledServiceThatIsStoppedDoesNotRun)
{
    machine.installed = true;

    EXPECT_FALSE(vd::BonjourResponder::isServiceRunning());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd", "isRunning mdnsd"}));
}

TEST_F(BonjourResponderTest, AnInstalledServiceThatRunsRuns)
{
    machine.installed = machine.running = true;

    EXPECT_TRUE(vd::BonjourResponder::isServiceRunning());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd", "isRunning mdnsd"}));
}

TEST_F(BonjourResponderTest, AServiceThatIsNotInstalledIsNotStarted)
{
    machine.running = machine.startSucceeds = true;

    EXPECT_FALSE(vd::BonjourResponder::startResponderService());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd"}));
}

TEST_F(BonjourResponderTest, AServiceThatRunsIsNotStartedAgain)
{
    machine.installed = machine.running = true;

    EXPECT_TRUE(vd::BonjourResponder::startResponderService());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd", "isRunning mdnsd"}));
}

TEST_F(BonjourResponderTest, AStoppedServiceIsStarted)
{
    machine.installed = machine.startSucceeds = true;

    EXPECT_TRUE(vd::BonjourResponder::startResponderService());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd", "isRunning mdnsd", "start mdnsd"}));
}

TEST_F(BonjourResponderTest, AServiceThatFailsToStartIsToldAsAFailure)
{
    machine.installed = true;

    EXPECT_FALSE(vd::BonjourResponder::startResponderService());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd", "isRunning mdnsd", "start mdnsd"}));
}

TEST_F(BonjourResponderTest, QuestionsAndStartsOfTheServiceMakeNoThreadObject)
{
    vd::BonjourResponder::isServiceRunning();
    vd::BonjourResponder::startResponderService();

    EXPECT_EQ(Responder::threadObject(), nullptr);
}

TEST_F(BonjourResponderTest, WithARunningServiceTheResponderIsThatService)
{
    machine.installed = machine.running = true;

    EXPECT_TRUE(vd::BonjourResponder::startResponder());
    EXPECT_EQ(Responder::threadObject(), nullptr);
}

TEST_F(BonjourResponderTest, WithAStoppedServiceTheResponderIsThatServiceOnceItHasStarted)
{
    machine.installed = machine.startSucceeds = true;

    EXPECT_TRUE(vd::BonjourResponder::startResponder());
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd", "isRunning mdnsd", "start mdnsd"}));
    EXPECT_EQ(Responder::threadObject(), nullptr);
}

TEST_F(BonjourResponderTest, WithAServiceThatFailsToStartTheResponderIsAThread)
{
    machine.installed = true;

    EXPECT_TRUE(vd::BonjourResponder::startResponder());
    ASSERT_NE(Responder::threadObject(), nullptr);
    EXPECT_TRUE(Responder::threadObject()->wait(5000));
}

TEST_F(BonjourResponderTest, WithoutAServiceTheResponderIsOneAndTheSameThreadEachTime)
{
    EXPECT_TRUE(vd::BonjourResponder::startResponder());
    vd::BonjourResponder* const thread = Responder::threadObject();
    EXPECT_TRUE(vd::BonjourResponder::startResponder());

    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(Responder::threadObject(), thread);
    EXPECT_EQ(machine.calls, (Calls{"isInstalled mdnsd", "isInstalled mdnsd"}));
}

TEST_F(BonjourResponderTest, TheServiceIsAskedForAgainThoughTheThreadExists)
{
    vd::BonjourResponder::startResponder();
    vd::BonjourResponder* const thread = Responder::threadObject();
    thread->wait();
    machine.installed = machine.running = true;

    EXPECT_TRUE(vd::BonjourResponder::startResponder());
    EXPECT_EQ(Responder::threadObject(), thread);
    EXPECT_TRUE(thread->isFinished());
}

TEST_F(BonjourResponderTest, TheThreadIsStartedWithoutAnyQuestion)
{
    EXPECT_TRUE(vd::BonjourResponder::startResponderThread());
    EXPECT_EQ(machine.calls, Calls());
}

TEST_F(BonjourResponderTest, TheThreadIsNamedAndHasNoParent)
{
    vd::BonjourResponder::startResponderThread();

    ASSERT_NE(Responder::threadObject(), nullptr);
    EXPECT_EQ(Responder::threadObject()->objectName(), "BonjourResponderThread");
    EXPECT_EQ(Responder::threadObject()->parent(), nullptr);
}

TEST_F(BonjourResponderTest, TheThreadEndsByItself)
{
    vd::BonjourResponder::startResponderThread();

    EXPECT_TRUE(Responder::threadObject()->wait(5000));
    EXPECT_TRUE(Responder::threadObject()->isFinished());
    EXPECT_FALSE(Responder::threadObject()->isRunning());
}

TEST_F(BonjourResponderTest, AThreadThatHasEndedRunsAgain)
{
    ShortThread* const thread = new ShortThread;
    Responder::threadObject() = thread;

    EXPECT_TRUE(vd::BonjourResponder::startResponderThread());
    ASSERT_TRUE(thread->wait(5000));
    EXPECT_TRUE(vd::BonjourResponder::startResponderThread());
    ASSERT_TRUE(thread->wait(5000));

    EXPECT_EQ(log.runs, 2);
    EXPECT_EQ(Responder::threadObject(), thread);
}

TEST_F(BonjourResponderTest, AThreadThatExistsKeepsItsName)
{
    Responder::threadObject() = new ShortThread;
    Responder::threadObject()->setObjectName("other");

    vd::BonjourResponder::startResponderThread();
    ASSERT_TRUE(Responder::threadObject()->wait(5000));

    EXPECT_EQ(Responder::threadObject()->objectName(), "other");
}

TEST_F(BonjourResponderTest, AThreadThatStillRunsIsLeftAlone)
{
    LongThread* const thread = new LongThread;
    Responder::threadObject() = thread;

    EXPECT_TRUE(vd::BonjourResponder::startResponderThread());
    EXPECT_TRUE(vd::BonjourResponder::startResponderThread());
    EXPECT_TRUE(thread->isRunning());
    log.mayEnd = true;
    ASSERT_TRUE(thread->wait(5000));

    EXPECT_EQ(log.runs, 1);
}

TEST_F(BonjourResponderTest, TheThreadTakesThePriorityOfItsCaller)
{
    ShortThread* const thread = new ShortThread;
    Responder::threadObject() = thread;

    vd::BonjourResponder::startResponderThread();
    ASSERT_TRUE(thread->wait(5000));

    EXPECT_EQ(log.priority, QThread::InheritPriority);
}

TEST_F(BonjourResponderTest, StoppingWithoutAThreadDoesNothing)
{
    vd::BonjourResponder::stopResponderThread();

    EXPECT_EQ(Responder::threadObject(), nullptr);
    EXPECT_EQ(machine.calls, Calls());
}

TEST_F(BonjourResponderTest, StoppingLeavesTheThreadAndItsObjectAlone)
{
    LongThread* const thread = new LongThread;
    Responder::threadObject() = thread;
    vd::BonjourResponder::startResponderThread();

    vd::BonjourResponder::stopResponderThread();

    EXPECT_EQ(Responder::threadObject(), thread);
    EXPECT_TRUE(thread->isRunning());
    EXPECT_FALSE(thread->wait(50));
}

TEST_F(BonjourResponderTest, RunningItHereReturns)
{
    vd::BonjourResponder responder;
    responder.run();

    EXPECT_FALSE(responder.isRunning());
    EXPECT_EQ(Responder::threadObject(), nullptr);
}

TEST_F(BonjourResponderTest, AnObjectMayBeDestroyedAtOnceAfterItsStart)
{
    for (int i = 0; i < 100; ++i) {
        vd::BonjourResponder responder;
        responder.start();
    }
}

TEST_F(BonjourResponderTest, TheClassHasNoMetaObjectOfItsOwn)
{
    vd::BonjourResponder responder;

    EXPECT_EQ(responder.metaObject(), &QThread::staticMetaObject);
    EXPECT_EQ(&vd::BonjourResponder::staticMetaObject, &QThread::staticMetaObject);
}

TEST_F(BonjourResponderTest, TheObjectHoldsNothingButTheThread)
{
    EXPECT_EQ(sizeof(vd::BonjourResponder), sizeof(QThread));
    EXPECT_TRUE((std::is_base_of<QThread, vd::BonjourResponder>::value));
}

TEST_F(BonjourResponderTest, TenThreadsMayAskAtOnce)
{
    machine.installed = machine.running = true;
    std::atomic<int> yes(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 10; ++i) {
        threads.emplace_back([&yes] {
            if (vd::BonjourResponder::isServiceRunning() && vd::BonjourResponder::startResponderService()
                && vd::BonjourResponder::startResponder())
                ++yes;
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(yes, 10);
    EXPECT_EQ(machine.calls.size(), 60U);
    EXPECT_EQ(Responder::threadObject(), nullptr);
}
