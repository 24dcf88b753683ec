// SPDX-License-Identifier: MIT

// Random sequences of what hosts and networks do, on the library and on its model.

#include "model/Runner.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

const std::uint64_t FIXED_SEED = 20260101;
const int SHARES = 16;
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

/** Half of the shares run the same sequences every time, the others new ones, unless the seed is given. */
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

class SequencesTest : public testing::TestWithParam<int>
{};

TEST_P(SequencesTest, LibraryAndModelAgreeAfterEveryStep)
{
    const std::uint64_t sequences = setting("VD_MODEL_SEQUENCES", DEFAULT_SEQUENCES) / SHARES;
    ASSERT_GT(sequences, 0u) << "Set VD_MODEL_SEQUENCES to a number of " << SHARES << " or more.";
    const std::uint64_t seed = seedOf(GetParam());
    std::cout << "VD_MODEL_SEED=" << seed << ", " << sequences << " sequences" << std::endl;
    if (__sanitizer_set_death_callback)
        __sanitizer_set_death_callback(&tellWhatRan);
    for (std::uint64_t i = 0; i < sequences; ++i) {
        // Whatever the number of sequences, the same one has the same number.
        const std::uint64_t number = i * SHARES + static_cast<std::uint64_t>(GetParam());
        SeededBytes bytes(seed * 1000003 + number);
        const Sequence sequence = sequenceOf(bytes);
        std::snprintf(running, sizeof running, "VD_MODEL_SEED=%llu, sequence %llu",
                      static_cast<unsigned long long>(seed), static_cast<unsigned long long>(number));
        if (compare(sequence))
            FAIL() << report(sequence, running);
    }
}

INSTANTIATE_TEST_SUITE_P(Each, SequencesTest, testing::Range(0, SHARES));
