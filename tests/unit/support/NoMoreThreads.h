// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>

#include <cstddef>

#include <pthread.h>

/** As long as it lives, no thread can be started: its stack would be larger than the address space. */
class NoMoreThreads
{
public:
    NoMoreThreads()
    {
        EXPECT_EQ(pthread_getattr_default_np(&m_before), 0);
        pthread_attr_t tooLarge;
        pthread_attr_init(&tooLarge);
        pthread_attr_setstacksize(&tooLarge, std::size_t(1) << 47);
        EXPECT_EQ(pthread_setattr_default_np(&tooLarge), 0);
        pthread_attr_destroy(&tooLarge);
    }
    ~NoMoreThreads()
    {
        EXPECT_EQ(pthread_setattr_default_np(&m_before), 0);
        pthread_attr_destroy(&m_before);
    }

private:
    pthread_attr_t m_before;
};
