// SPDX-License-Identifier: MIT
#include "model/RandomSequences.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

const std::uint64_t FIXED_SEED = 20260101;
// A few seconds' worth. A thorough run sets VD_MODEL_SEQUENCES to 100000.
const std::uint64_t DEFAULT_SEQUENCES = 4000;

/** 0 for what is no number. */
std::uint64_t setting(const char* name, std::uint64_t otherwise)
{
    const char* const text = std::getenv(name);
    if (!text || !*text)
        return otherwise;
    const bool isNumber = std::strspn(text, "0123456789") == std::strlen(text);
    return isNumber ? std::strtoull(text, nullptr, 10) : 0;
}

std::uint64_t seedOf(int share)
{
    static const std::uint64_t fresh = std::random_device()();
    return setting("VD_MODEL_SEED", share % 4 < 2 ? FIXED_SEED : fresh);
}

char running[100];

/** The sanitizers end the process with what they found, which needs to be told where. */
void tellWhatRan()
{
    std::cerr << "It happened in " << running << std::endl;
}

} // namespace

RandomSequences::RandomSequences(int share, std::uint64_t divisor)
    : m_share(static_cast<std::uint64_t>(share)), m_baseSeed(seedOf(share)),
      m_count(setting("VD_MODEL_SEQUENCES", DEFAULT_SEQUENCES) / SHARES / divisor)
{
    EXPECT_GT(m_count, 0u) << "Set VD_MODEL_SEQUENCES to a number of " << SHARES * divisor << " or more.";
    std::cout << "VD_MODEL_SEED=" << m_baseSeed << ", " << m_count << " sequences" << std::endl;
    if (__sanitizer_set_death_callback)
        __sanitizer_set_death_callback(&tellWhatRan);
}

bool RandomSequences::next()
{
    if (m_made == m_count)
        return false;
    // Whatever the number of sequences, the same one has the same number.
    const std::uint64_t number = m_made++ * SHARES + m_share;
    m_seed = m_baseSeed * 1000003 + number;
    SeededBytes bytes(m_seed);
    m_sequence = sequenceOf(bytes);
    std::snprintf(running, sizeof running, "VD_MODEL_SEED=%llu, sequence %llu",
                  static_cast<unsigned long long>(m_baseSeed), static_cast<unsigned long long>(number));
    return true;
}

const char* RandomSequences::origin() const
{
    return running;
}
