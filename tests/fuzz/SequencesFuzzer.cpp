// SPDX-License-Identifier: MIT
// What hosts and networks do, in the order that the fuzzer finds to lead somewhere new, on library and model.
#include "model/Runner.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    GivenBytes bytes(data, size);
    const Sequence sequence = sequenceOf(bytes);
    if (compare(sequence)) {
        std::fputs(report(sequence, "this input").c_str(), stderr);
        std::abort();
    }
    return 0;
}
