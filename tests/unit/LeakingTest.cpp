// SPDX-License-Identifier: MIT

// Each test but the first leaves one thing behind, on purpose: LeakCheckTest runs them and is told of it.

#include <avahi-common/malloc.h>
#include <avahi-common/strlst.h>

#include <QtCore/QBuffer>
#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

#include <fcntl.h>

#include <chrono>
#include <thread>

TEST(LeakingTest, Nothing)
{
    const QBuffer buffer;
    avahi_string_list_free(avahi_string_list_new("a=b", nullptr));
    std::thread([] {}).join();
}

TEST(LeakingTest, Object)
{
    static const QBuffer* left = nullptr;
    left = new QBuffer;
    ASSERT_TRUE(left);
}

TEST(LeakingTest, Timer)
{
    const std::chrono::hours never(1);
    ASSERT_NE(QCoreApplication::instance()->startTimer(never), 0);
}

TEST(LeakingTest, StringList)
{
    ASSERT_TRUE(avahi_string_list_new("a=b", nullptr));
}

TEST(LeakingTest, AvahiText)
{
    ASSERT_TRUE(avahi_strdup("a"));
}

TEST(LeakingTest, AvahiClearedMemory)
{
    ASSERT_TRUE(avahi_malloc0(1));
}

TEST(LeakingTest, AvahiGrownMemory)
{
    ASSERT_TRUE(avahi_realloc(avahi_malloc(1), 1000));
}

TEST(LeakingTest, Descriptor)
{
    ASSERT_GE(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
}

TEST(LeakingTest, Thread)
{
    std::thread([] { std::this_thread::sleep_for(std::chrono::hours(1)); }).detach();
}
