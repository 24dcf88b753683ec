// SPDX-License-Identifier: MIT

// Random sequences of what hosts and networks do, on managed discovery, which keeps some rules whatever happens.

#include "model/ManagedRunner.h"
#include "model/RandomSequences.h"

#include <gtest/gtest.h>

#include <iostream>

namespace {

// They take longer than those of the model, as time passes in them.
const std::uint64_t DIVISOR = 10;

} // namespace

class RandomManagedSequencesTest : public testing::TestWithParam<int>
{};

TEST_P(RandomManagedSequencesTest, WhatMustHoldDoesAfterEveryStep)
{
    RandomSequences random(GetParam(), DIVISOR);
    while (random.next()) {
        const Surroundings surroundings = surroundingsOf(random.seed());
        if (!flawIn(random.sequence(), surroundings).empty())
            FAIL() << reportOfFlaw(random.sequence(), surroundings, random.origin());
    }
}

TEST(ManagedSequencesTest, DevicesAreFoundChangedAndLostInThem)
{
    SignalCounts signalled;
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        SeededBytes bytes(seed);
        EXPECT_EQ(flawIn(sequenceOf(bytes), surroundingsOf(seed), &signalled), "") << "of seed " << seed;
    }
    for (const char* const kind : {"found", "address", "text", "lost"}) {
        std::cout << kind << ": " << signalled[kind] << std::endl;
        EXPECT_GT(signalled[kind], 5) << kind;
    }
}

INSTANTIATE_TEST_SUITE_P(Each, RandomManagedSequencesTest, testing::Range(0, RandomSequences::SHARES));
