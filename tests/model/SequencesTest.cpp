// SPDX-License-Identifier: MIT

// Random sequences of what hosts and networks do, on the library and on its model.

#include "model/RandomSequences.h"
#include "model/Runner.h"

#include <gtest/gtest.h>

class SequencesTest : public testing::TestWithParam<int>
{};

TEST_P(SequencesTest, LibraryAndModelAgreeAfterEveryStep)
{
    RandomSequences random(GetParam());
    while (random.next()) {
        if (compare(random.sequence()))
            FAIL() << report(random.sequence(), random.origin());
    }
}

INSTANTIATE_TEST_SUITE_P(Each, SequencesTest, testing::Range(0, RandomSequences::SHARES));
