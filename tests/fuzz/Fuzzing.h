// SPDX-License-Identifier: MIT
#ifndef VD_TESTS_FUZZ_FUZZING_H
#define VD_TESTS_FUZZ_FUZZING_H

#include <QtCore/QString>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vd::fuzz {

/** Ends the process, which the fuzzer reports with the input that led here. */
inline void fail(const char* expectation, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, expectation);
    std::abort();
}

/** At most @p most of the bytes that are left, or those before the next backslash; two stand for one. */
inline std::string takeBytes(FuzzedDataProvider& input, std::size_t most = 300)
{
    return input.ConsumeRandomLengthString(most);
}

/** Text as it comes out of bytes from the network. */
inline QString takeText(FuzzedDataProvider& input, std::size_t most = 300)
{
    const std::string bytes = takeBytes(input, most);
    return QString::fromUtf8(bytes.data(), static_cast<int>(bytes.size()));
}

/** The code points of strict UTF-8; ends the process for anything else. */
std::u32string decoded(const std::string& utf8);

/** Whether the code point can forge a line, steer a terminal or turn around what is shown. */
bool isHostile(char32_t codePoint);

} // namespace vd::fuzz

#define VD_EXPECT(condition) ((condition) ? void() : vd::fuzz::fail(#condition, __FILE__, __LINE__))

#endif
