// SPDX-License-Identifier: MIT
#pragma once

#include "support/ManagedFixture.h"

#include <atomic>
#include <future>
#include <thread>

/** Managed discovery over a client that has the event loop wait for something, so calls are made in another thread. */
class ManagedThreadTest : public ManagedTest
{
protected:
    ManagedThreadTest() { avahi.useEventLoop(); }

    /** The next call of @p function waits until it may return. */
    void holdUp(const std::string& function)
    {
        m_mayReturn = std::promise<void>();
        avahi.duringCall(function, [this] {
            m_caller = std::this_thread::get_id();
            m_isCalled = true;
            m_mayReturn.get_future().wait();
        });
    }

    void letReturn() { m_mayReturn.set_value(); }

    /** Runs the event loop until that call is on its way, which would take for ever in this thread. */
    void runUntilHeldUp()
    {
        m_isCalled = false;
        QElapsedTimer waited;
        waited.start();
        while (!m_isCalled && waited.elapsed() < LONG_MS)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
        ASSERT_TRUE(m_isCalled);
    }

    /** "Cam" is being resolved, and the call held up. */
    void holdUpResolver()
    {
        run();
        appears("Cam");
        holdUp("service_resolver_new");
        runUntilHeldUp();
    }

    /** "Cam" is refused as such and lost, once the call that is held up returns. */
    void holdUpRefusal(const char* name = "Cam")
    {
        avahi.failNext("service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
        discovery().StartQueryRecords(name, HTTP, false);
        holdUp("service_resolver_new");
        runUntilHeldUp();
    }

    /** Lets the call that is held up return while @p operation waits for it, which it must. */
    void returnsDuring(const std::function<void()>& operation)
    {
        std::atomic<bool> isOver{false};
        std::thread other([&] {
            QThread::msleep(20);
            EXPECT_FALSE(isOver) << "the operation did not wait";
            letReturn();
        });
        operation();
        isOver = true;
        other.join();
    }

    std::thread::id caller() const { return m_caller; }

    static constexpr int LONG_MS = 5000;

private:
    std::promise<void> m_mayReturn;
    std::atomic<bool> m_isCalled{false};
    std::thread::id m_caller;
};
