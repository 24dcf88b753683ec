// SPDX-License-Identifier: MIT
#include "TerminalCells.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cwchar>

using vd::discover::cellsOf;
using vd::discover::cutToCells;
using vd::discover::paddedToCells;

TEST(VdDiscoverTerminalCells, OrdinaryCharactersTakeOneCell)
{
    EXPECT_EQ(cellsOf(QString()), 0);
    EXPECT_EQ(cellsOf(QStringLiteral("Gate camera")), 11);
    EXPECT_EQ(cellsOf(QStringLiteral("Tür – Süd…")), 10);
}

TEST(VdDiscoverTerminalCells, EastAsianCharactersAndEmojiTakeTwo)
{
    EXPECT_EQ(cellsOf(QStringLiteral("入口")), 4);
    EXPECT_EQ(cellsOf(QStringLiteral("（a）")), 5);
    EXPECT_EQ(cellsOf(QStringLiteral("😀")), 2);
}

TEST(VdDiscoverTerminalCells, CombiningCharactersTakeNone)
{
    EXPECT_EQ(cellsOf(QStringLiteral("e\u0301")), 1);
}

TEST(VdDiscoverTerminalCells, UnassignedCharactersTakeOne)
{
    EXPECT_EQ(cellsOf(QStringLiteral("\u0378")), 1);
}

TEST(VdDiscoverTerminalCells, TheProgramsLocaleMakesNoDifferenceAndStaysWhatItWas)
{
    const std::string before = std::setlocale(LC_CTYPE, nullptr);
    std::setlocale(LC_CTYPE, "C");
    EXPECT_EQ(cellsOf(QStringLiteral("入口")), 4);
    EXPECT_EQ(wcwidth(L'\u5165'), -1);
    std::setlocale(LC_CTYPE, before.c_str());
}

TEST(VdDiscoverTerminalCells, TextThatFitsIsNotCut)
{
    EXPECT_EQ(cutToCells(QStringLiteral("camera"), 6), QStringLiteral("camera"));
    EXPECT_EQ(cutToCells(QStringLiteral("入口"), 4), QStringLiteral("入口"));
}

TEST(VdDiscoverTerminalCells, TextThatDoesNotFitEndsInAnEllipsis)
{
    EXPECT_EQ(cutToCells(QStringLiteral("camera"), 5), QStringLiteral("came…"));
    EXPECT_EQ(cutToCells(QStringLiteral("camera"), 1), QStringLiteral("…"));
    EXPECT_EQ(cutToCells(QStringLiteral("camera"), 0), QString());
}

TEST(VdDiscoverTerminalCells, AWideCharacterIsNotCutInHalf)
{
    EXPECT_EQ(cutToCells(QStringLiteral("入口東"), 5), QStringLiteral("入口…"));
    EXPECT_EQ(cutToCells(QStringLiteral("入口東"), 4), QStringLiteral("入…"));
    EXPECT_EQ(cutToCells(QStringLiteral("😀😀😀"), 4), QStringLiteral("😀…"));
}

TEST(VdDiscoverTerminalCells, ACombiningCharacterStaysWithItsBase)
{
    EXPECT_EQ(cutToCells(QStringLiteral("e\u0301e\u0301e\u0301"), 2), QStringLiteral("e\u0301…"));
}

TEST(VdDiscoverTerminalCells, PaddingCountsCells)
{
    EXPECT_EQ(paddedToCells(QStringLiteral("入口"), 6), QStringLiteral("入口  "));
    EXPECT_EQ(paddedToCells(QStringLiteral("camera"), 3), QStringLiteral("camera"));
}
