// SPDX-License-Identifier: MIT
#pragma once

#include "model/Sequence.h"

#include <cstdint>

/**
 * One of the shares in which random sequences are tried, a test each. VD_MODEL_SEQUENCES tells how many there are in
 * all shares; half of these are the same every time, the others new ones, unless VD_MODEL_SEED is given.
 */
class RandomSequences
{
public:
    static const int SHARES = 16;

    /** Of one sequence in @p divisor. Fails the test when the share is empty. */
    explicit RandomSequences(int share, std::uint64_t divisor = 1);

    /** Makes the next one; false when there is none. */
    bool next();
    const Sequence& sequence() const { return m_sequence; }
    /** What to set to have this sequence again. */
    const char* origin() const;
    /** Depends on nothing but the seed and the number of the sequence, as itself. */
    std::uint64_t seed() const { return m_seed; }

private:
    const std::uint64_t m_share;
    const std::uint64_t m_baseSeed;
    const std::uint64_t m_count;
    std::uint64_t m_made = 0;
    std::uint64_t m_seed = 0;
    Sequence m_sequence;
};
