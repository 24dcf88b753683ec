// SPDX-License-Identifier: MIT

// Several discovery objects in several threads, over Avahi calls that do nothing. For the thread sanitizer.

#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

const int THREADS = 8;
const int ROUNDS = 200;
const int MANAGED_ROUNDS = 20;
const int PATIENCE_MS = 30000;

/** Tells itself what a daemon would tell. */
class ToldDiscovery : public vd::ManagedServiceDiscovery
{
public:
    void deviceAppears()
    {
        ServiceBrowse(nullptr, 2, AVAHI_PROTO_INET, AVAHI_BROWSER_NEW, "Cam", "_http._tcp", "local",
                      AVAHI_LOOKUP_RESULT_MULTICAST, this);
    }
    void deviceIsResolved()
    {
        AvahiAddress address;
        avahi_address_parse("10.0.0.1", AVAHI_PROTO_INET, &address);
        AvahiStringList* const txt = avahi_string_list_add(nullptr, "ser_no." VD_VENDOR_TXT_DOMAIN "=abc");
        // The one handle that all calls give.
        AvahiServiceResolver* const resolver
            = avahi_service_resolver_new(nullptr, 0, 0, "", "", "", 0, {}, nullptr, nullptr);
        ServiceResolve(resolver, 2, AVAHI_PROTO_INET, AVAHI_RESOLVER_FOUND, "Cam", "_http._tcp", "local",
                       "cam.local", &address, 80, txt, AVAHI_LOOKUP_RESULT_MULTICAST, this);
        avahi_string_list_free(txt);
    }
};

/** Finds a device, ends and begins anew, in a thread of its own, and tells the main thread of it. */
class DiscoveryThread : public QThread
{
public:
    explicit DiscoveryThread(QObject* window) : m_window(window) {}

    /** What the sanitizer sees of the end: it does not see how Qt synchronises itself. */
    std::atomic<bool> isOver{false};

    // Of the main thread.
    int states = 0;
    QStringList found;

protected:
    void run() override
    {
        for (int round = 0; round < MANAGED_ROUNDS; ++round)
            browse();
        isOver = true;
    }

private:
    void browse()
    {
        ToldDiscovery discovery;
        connect(&discovery, &vd::ManagedServiceDiscovery::stateChanged, m_window, [this] { ++states; });
        connect(&discovery, &vd::ServiceDiscovery::serviceFound, m_window,
                [this](const vd::SServiceInfo& device) { found += device.serviceName; });
        discovery.BrowseServices("_http._tcp");
        discovery.StartQueryAllRecords();
        discovery.deviceAppears();
        // Others may appear, so it is not resolved at once.
        while (discovery.openObjects() < 2)
            turn();
        discovery.deviceIsResolved();
        discovery.TerminateBrowsing();
        discovery.BrowseServices("_http._tcp");
        turn();
    }

    static void turn()
    {
        for (int i = 0; i < 3; ++i)
            QCoreApplication::processEvents();
        msleep(1);
    }

    QObject* const m_window;
};

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

TEST(DiscoveryThreads, ManagedObjectsTellTheMainThreadWhileOthersEndAndBegin)
{
    QObject window;
    std::vector<std::unique_ptr<DiscoveryThread>> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.push_back(std::make_unique<DiscoveryThread>(&window));
        threads.back()->start();
    }
    for (const std::unique_ptr<DiscoveryThread>& thread : threads) {
        ASSERT_TRUE(thread->wait(PATIENCE_MS));
        ASSERT_TRUE(thread->isOver);
    }
    // What was signalled waited for this loop.
    QCoreApplication::processEvents();
    for (const std::unique_ptr<DiscoveryThread>& thread : threads) {
        // Connecting, Running, Unavailable, Connecting, Running.
        EXPECT_EQ(thread->states, 5 * MANAGED_ROUNDS);
        EXPECT_EQ(thread->found.size(), MANAGED_ROUNDS);
        EXPECT_EQ(thread->found.count(QStringLiteral("Cam")), MANAGED_ROUNDS);
    }
}
