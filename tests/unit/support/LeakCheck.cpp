// SPDX-License-Identifier: MIT
#include "LeakCheck.h"

#include "QtObjects.h"

#include <avahi-common/strlst.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory_resource>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>

// Not every program has Avahi.
#pragma weak avahi_set_allocator

namespace {

using Counts = std::map<std::string, int>;

// A thread that was waited for may take a moment to leave the table of the kernel.
constexpr std::chrono::seconds LONGEST_END{2};

constexpr std::size_t MOST_BLOCKS = 10000;

/** Avahi's memory that is in use. Its own is there from the start, as a test may refuse all other. */
class AvahiBlocks
{
public:
    /** Never destroyed, as some blocks are freed after all static objects. */
    static AvahiBlocks& instance()
    {
        static AvahiBlocks* const blocks = new AvahiBlocks;
        return *blocks;
    }

    void* add(void* block)
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (block != nullptr)
            m_blocks.insert(block);
        return block;
    }

    void remove(void* block)
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_blocks.erase(block);
    }

    int count() const
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        return static_cast<int>(m_blocks.size());
    }

private:
    AvahiBlocks() { m_blocks.reserve(MOST_BLOCKS); }

    mutable std::mutex m_mutex;
    std::array<std::byte, 100 * MOST_BLOCKS> m_memory;
    std::pmr::monotonic_buffer_resource m_buffer{m_memory.data(), m_memory.size(),
                                                 std::pmr::null_memory_resource()};
    std::pmr::unsynchronized_pool_resource m_pool{&m_buffer};
    std::pmr::unordered_set<void*> m_blocks{&m_pool};
};

void* avahiMalloc(size_t size)
{
    return AvahiBlocks::instance().add(std::malloc(size));
}

void* avahiCalloc(size_t number, size_t size)
{
    return AvahiBlocks::instance().add(std::calloc(number, size));
}

void avahiFree(void* block)
{
    AvahiBlocks::instance().remove(block);
    std::free(block);
}

void* avahiRealloc(void* block, size_t size)
{
    AvahiBlocks& blocks = AvahiBlocks::instance();
    blocks.remove(block);
    void* const moved = std::realloc(block, size);
    // The old one stays when there is no memory for another.
    blocks.add(moved != nullptr ? moved : block);
    return moved;
}

const AvahiAllocator countingAllocator = {avahiMalloc, avahiFree, avahiRealloc, avahiCalloc};

int entriesOf(const char* folder)
{
    int entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        entries += entry.exists() || entry.is_symlink() ? 1 : 0;
    return entries;
}

void deleteDeferred()
{
    if (QCoreApplication::instance() != nullptr)
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

Counts counts()
{
    Counts all = QtObjects::countByClass();
    // Qt's own, among them one for each thread that is not Qt's, and those of the log's stream are made when they are
    // needed first and kept. Threads themselves are counted below.
    for (const char* const kept : {"QFactoryLoader", "QThread", "QFile", "QDeviceClosedNotifier"})
        all.erase(kept);
    all["running timers"] = QAbstractEventDispatcher::instance() != nullptr ? QtObjects::activeTimers() : 0;
    all["blocks of Avahi's memory, string lists among them"] = AvahiBlocks::instance().count();
    all["threads"] = entriesOf("/proc/self/task");
    all["file descriptors"] = entriesOf("/proc/self/fd");
    return all;
}

bool isAnythingLeft(const Counts& before, const Counts& after)
{
    for (const auto& [what, count] : after) {
        const auto known = before.find(what);
        if (count > (known != before.end() ? known->second : 0))
            return true;
    }
    return false;
}

class Listener : public testing::EmptyTestEventListener
{
    void OnTestProgramStart(const testing::UnitTest&) override
    {
        // With the first thread the thread sanitizer starts one of its own.
        std::thread([] {}).join();
    }

    void OnTestStart(const testing::TestInfo&) override { m_before = counts(); }

    void OnTestEnd(const testing::TestInfo& test) override
    {
        deleteDeferred();
        Counts after = counts();
        const auto end = std::chrono::steady_clock::now() + LONGEST_END;
        while (isAnythingLeft(m_before, after) && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            after = counts();
        }
        // A failed assertion may have left anything.
        if (test.result()->Failed())
            return;
        for (const auto& [what, count] : after)
            EXPECT_LE(count, m_before[what]) << what << " left behind";
    }

    Counts m_before;
};

const bool isWatching = [] {
    if (&avahi_set_allocator != nullptr)
        avahi_set_allocator(&countingAllocator);
    if (!QtObjects::watch())
        std::abort();
    testing::UnitTest::GetInstance()->listeners().Append(new Listener);
    return true;
}();

} // namespace

const AvahiAllocator* LeakCheck::avahiAllocator()
{
    return &countingAllocator;
}

int LeakCheck::avahiBlocks()
{
    return AvahiBlocks::instance().count();
}

// The key and the value of a pair may be freed by free() as well as by avahi_free(), so they don't count.
extern "C" int avahi_string_list_get_pair(AvahiStringList* entry, char** key, char** value, size_t* size)
{
    static const auto real
        = reinterpret_cast<decltype(&avahi_string_list_get_pair)>(dlsym(RTLD_NEXT, "avahi_string_list_get_pair"));
    const int result = real(entry, key, value, size);
    if (result == 0) {
        for (char** const text : {key, value})
            AvahiBlocks::instance().remove(text != nullptr ? *text : nullptr);
    }
    return result;
}
