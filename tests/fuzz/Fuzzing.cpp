// SPDX-License-Identifier: MIT
#include "Fuzzing.h"

namespace vd::fuzz {

namespace {

const char32_t LAST_CODE_POINT = 0x10ffff;

// How many bytes a sequence has that begins with this one; 0 for none that may.
std::size_t lengthOfSequence(unsigned char first)
{
    if (first < 0x80)
        return 1;
    if (first < 0xc2)
        return 0;
    if (first < 0xe0)
        return 2;
    if (first < 0xf0)
        return 3;
    return first < 0xf5 ? 4 : 0;
}

bool isShortestForm(char32_t codePoint, std::size_t length)
{
    const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    return codePoint >= least[length];
}

bool isIn(char32_t codePoint, char32_t first, char32_t last)
{
    return codePoint >= first && codePoint <= last;
}

} // namespace

std::u32string decoded(const std::string& utf8)
{
    std::u32string text;
    for (std::size_t i = 0; i < utf8.size();) {
        const auto first = static_cast<unsigned char>(utf8[i]);
        const std::size_t length = lengthOfSequence(first);
        VD_EXPECT(length != 0 && i + length <= utf8.size());
        char32_t codePoint = length == 1 ? first : first & (0x7fu >> length);
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(utf8[i + k]);
            VD_EXPECT((next & 0xc0) == 0x80);
            codePoint = codePoint << 6 | (next & 0x3fu);
        }
        VD_EXPECT(isShortestForm(codePoint, length) && codePoint <= LAST_CODE_POINT);
        VD_EXPECT(!isIn(codePoint, 0xd800, 0xdfff));
        text += codePoint;
        i += length;
    }
    return text;
}

bool isHostile(char32_t codePoint)
{
    const bool isControl = codePoint < 0x20 || isIn(codePoint, 0x7f, 0x9f);
    const bool isSeparator = codePoint == 0x2028 || codePoint == 0x2029;
    const bool isBidirectional = codePoint == 0x061c || codePoint == 0x200e || codePoint == 0x200f
                                 || isIn(codePoint, 0x202a, 0x202e) || isIn(codePoint, 0x2066, 0x2069);
    return isControl || isSeparator || isBidirectional || codePoint == 0xfeff;
}

} // namespace vd::fuzz
