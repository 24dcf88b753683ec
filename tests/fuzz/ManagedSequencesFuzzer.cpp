// SPDX-License-Identifier: MIT
// Performs steps on managed discovery, which keeps some rules whatever happens. The first byte of an input tells the
// surroundings, the others are the sequence.
#include "model/ManagedRunner.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    GivenBytes bytes(data, size);
    const Surroundings surroundings = surroundingsOf(bytes.next());
    const Sequence sequence = sequenceOf(bytes);
    if (!flawIn(sequence, surroundings).empty()) {
        std::fputs(reportOfFlaw(sequence, surroundings, "this input").c_str(), stderr);
        std::abort();
    }
    return 0;
}
