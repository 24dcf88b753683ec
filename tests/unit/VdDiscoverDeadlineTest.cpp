// SPDX-License-Identifier: MIT
#include "Deadline.h"

#include <gtest/gtest.h>

#include <atomic>

#include <sys/eventfd.h>
#include <unistd.h>

using vd::discover::Deadline;

namespace {

const std::chrono::milliseconds SHORT(20);
const std::chrono::milliseconds ENOUGH(500);
const std::chrono::milliseconds LONG(60000);

void sleepFor(std::chrono::milliseconds time)
{
    std::this_thread::sleep_for(time);
}

} // namespace

class VdDiscoverDeadline : public testing::Test
{
protected:
    VdDiscoverDeadline() : start(eventfd(0, EFD_CLOEXEC)) {}
    ~VdDiscoverDeadline() override { close(start); }

    const int start;
    std::atomic<int> misses{0};
    const Deadline::Action miss = [this] { ++misses; };
};

TEST_F(VdDiscoverDeadline, RunsItsActionOnceWhenItIsMissed)
{
    {
        const Deadline deadline(SHORT, miss);
        sleepFor(ENOUGH);
    }
    EXPECT_EQ(misses, 1);
}

TEST_F(VdDiscoverDeadline, RunsNothingAndEndsAtOnceWhenItIsMet)
{
    const auto begin = std::chrono::steady_clock::now();
    {
        const Deadline deadline(LONG, miss);
    }
    EXPECT_EQ(misses, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, LONG / 10);
}

TEST_F(VdDiscoverDeadline, CountsNoTimeBeforeItsStart)
{
    const Deadline deadline(start, SHORT, miss);
    sleepFor(ENOUGH);
    EXPECT_EQ(misses, 0);
}

TEST_F(VdDiscoverDeadline, CountsTimeFromItsStart)
{
    {
        const Deadline deadline(start, SHORT, miss);
        eventfd_write(start, 1);
        sleepFor(ENOUGH);
    }
    EXPECT_EQ(misses, 1);
}

TEST_F(VdDiscoverDeadline, WithoutADescriptorThereIsNone)
{
    {
        const Deadline deadline(-1, SHORT, miss);
        sleepFor(ENOUGH);
    }
    EXPECT_EQ(misses, 0);
}
