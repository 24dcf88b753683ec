// SPDX-License-Identifier: MIT
// What hosts and networks do, in the order that the fuzzer finds to lead somewhere new, on library and model.
#include "model/Runner.h"

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // Never destroyed, as libFuzzer ends the process from elsewhere.
    static QCoreApplication* const application = new QCoreApplication(*argc, *argv);
    return application ? 0 : 1;
}

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
