// SPDX-License-Identifier: MIT

// Several controllers in several threads. For the thread sanitizer. This program has no application object.

#include "responder/ServiceController.h"
#include "support/SystemBusStandIn.h"

#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {

using vd::ServiceController;

const int THREADS = 8;
const int ROUNDS = 10;

// How often the question was answered with yes, put in all threads at once.
int countOfYes(const std::function<bool()>& question)
{
    std::atomic<int> yes(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round)
                yes += question() ? 1 : 0;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    return yes;
}

} // namespace

TEST(ServiceControllerThreads, NeedNoApplicationObject)
{
    const SystemBusStandIn bus;

    ASSERT_EQ(QCoreApplication::instance(), nullptr);
    EXPECT_EQ(ServiceController("stopped").status(), ServiceController::Status::Stopped);
}

TEST(ServiceControllerThreads, MayAskAtOnce)
{
    const SystemBusStandIn bus;

    EXPECT_EQ(countOfYes([] {
                  const ServiceController running("running-always");
                  const ServiceController stopped("stopped");
                  return running.isInstalled() && running.isRunning() && stopped.isInstalled()
                      && !stopped.isRunning();
              }),
              THREADS * ROUNDS);
}

TEST(ServiceControllerThreads, MayStartAtOnce)
{
    const SystemBusStandIn bus;

    EXPECT_EQ(countOfYes([] { return ServiceController("stopped").start(); }), THREADS * ROUNDS);
}

TEST(ServiceControllerThreads, MayShareOneController)
{
    const SystemBusStandIn bus;
    const ServiceController controller("stopped");

    EXPECT_EQ(countOfYes([&] { return controller.isInstalled() && !controller.isRunning(); }), THREADS * ROUNDS);
}

TEST(ServiceControllerThreads, MayFailAtOnceWhereThereIsNoBus)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);

    EXPECT_EQ(countOfYes([] {
                  const ServiceController controller("any");
                  return controller.status() == ServiceController::Status::NoServiceManager && !controller.start();
              }),
              THREADS * ROUNDS);
}
