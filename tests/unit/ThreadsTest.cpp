// SPDX-License-Identifier: MIT

// Several discovery objects in several threads, over Avahi calls that do nothing. For the thread sanitizer.

#include <vd/AvahiServiceDiscovery.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

const int THREADS = 8;
const int ROUNDS = 200;

} // namespace

TEST(DiscoveryThreads, EachMayHaveAnObjectOfItsOwn)
{
    std::atomic<int> succeeded(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            vd::AvahiServiceDiscovery discovery;
            for (int round = 0; round < ROUNDS; ++round) {
                if (discovery.BrowseServices("_http._tcp") && discovery.StartQueryRecords("Cam", "_http._tcp", true)
                    && discovery.TerminateBrowsing() && !discovery.IsBrowsing())
                    ++succeeded;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(succeeded, THREADS * ROUNDS);
}

TEST(DiscoveryThreads, ObjectsAreMadeAndDestroyedWhileOthersBrowse)
{
    std::vector<std::thread> threads;
    std::atomic<int> browsing(0);
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < ROUNDS; ++round) {
                vd::AvahiServiceDiscovery discovery;
                browsing += discovery.BrowseServices("_http._tcp");
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(browsing, THREADS * ROUNDS);
}
