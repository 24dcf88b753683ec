// SPDX-License-Identifier: MIT
#include "support/PrintableText.h"

#include <gtest/gtest.h>

namespace {

std::string printable(const char* text)
{
    return vd::printableText(text).toStdString();
}

} // namespace

TEST(PrintableText, LeavesOrdinaryTextOfAnyScript)
{
    for (const char* text : {"", "Lobby camera 7", "K\xc3\xbc" "che", "\xe6\x91\x84\xe5\x83\x8f\xe6\x9c\xba",
                             "\xf0\x9f\x93\xb7", "back\\slash", "a\xcc\x81"})
        EXPECT_EQ(printable(text), text);
}

TEST(PrintableText, IsEmptyForNull)
{
    EXPECT_EQ(printable(nullptr), "");
}

TEST(PrintableText, EscapesControlCharacters)
{
    EXPECT_EQ(printable("\x01\t\n\r\x1b[2J\x7f"), "\\x01\\x09\\x0a\\x0d\\x1b[2J\\x7f");
}

TEST(PrintableText, EscapesTheUpperControlCharacters)
{
    EXPECT_EQ(printable("\xc2\x80\xc2\x9b" "31m\xc2\x9f"), "\\x80\\x9b" "31m\\x9f");
}

TEST(PrintableText, EscapesNulInsideText)
{
    EXPECT_EQ(vd::printableText(QString(QChar(0)) + QLatin1Char('a')).toStdString(), "\\x00a");
}

TEST(PrintableText, EscapesLineAndParagraphSeparators)
{
    EXPECT_EQ(printable("a\xe2\x80\xa8" "b\xe2\x80\xa9" "c"), "a\\u2028b\\u2029c");
}

TEST(PrintableText, EscapesWhatReordersOrHidesText)
{
    EXPECT_EQ(printable("\xe2\x80\xae" "abc\xe2\x81\xa6\xe2\x80\x8b\xef\xbb\xbf" "x"), "\\u202eabc\\u2066\\u200b\\ufeffx");
}

TEST(PrintableText, EscapesFormatCharactersBeyondTheBasicPlane)
{
    EXPECT_EQ(printable("a\xf3\xa0\x80\x81"), "a\\U000e0001");
}

TEST(PrintableText, TellsACodePointBeyondTheBasicPlaneFromAShorterOneAndADigit)
{
    EXPECT_EQ(printable("\xf3\xa0\x81\x81"), "\\U000e0041");
    EXPECT_EQ(printable("\xd8\x9c" "1"), "\\u061c1");
}

TEST(PrintableText, EscapesALoneSurrogate)
{
    EXPECT_EQ(vd::printableText(QString(QChar(0xd800)) + QLatin1Char('a')).toStdString(), "\\ud800a");
    EXPECT_EQ(vd::printableText(QString(QChar(0xdc00))).toStdString(), "\\udc00");
}

TEST(PrintableText, LeavesTheJoinersOfScriptsAndEmoji)
{
    EXPECT_EQ(printable("a\xe2\x80\x8c" "b\xe2\x80\x8d" "c"), "a\xe2\x80\x8c" "b\xe2\x80\x8d" "c");
}

TEST(PrintableText, ReplacesBytesThatAreNotUtf8)
{
    EXPECT_EQ(printable("a\xff" "b"), "a\xef\xbf\xbd" "b");
}

TEST(PrintableText, WritesSmallCodePointsWithFourDigits)
{
    EXPECT_EQ(printable("a\xd8\x9c"
                        "b"),
              "a\\u061cb");
}

TEST(PrintableText, LeavesPrivateUseCharacters)
{
    EXPECT_EQ(printable("a\xee\x80\x80"), "a\xee\x80\x80");
}

TEST(PrintableText, EscapesAHighSurrogateAtTheEnd)
{
    EXPECT_EQ(vd::printableText(QString(QChar(0xd800))).toStdString(), "\\ud800");
}
