// SPDX-License-Identifier: MIT
#include "ColumnText.h"
#include "DeviceText.h"
#include "TerminalCells.h"

#include <gtest/gtest.h>

namespace {

std::string column(const QString& text)
{
    return vd::discover::columnText(text).toStdString();
}

QString characterBeyondTheBasicPlane(uint codePoint)
{
    return QString(QChar(QChar::highSurrogate(codePoint))) + QChar(QChar::lowSurrogate(codePoint));
}

} // namespace

TEST(VdDiscoverColumnText, LeavesOrdinaryTextOfAnyScript)
{
    for (const char* text : {"", "Lobby camera 7", "Küche", "Tu\u0308r", "摄像机 入口", "한국어", "हिन्दी",
                             "ไม่ที่", "📷", "back\\slash", "می\u200cخواهم", "👩\u200d💻", "❤\ufe0f",
                             "\u1112\u1161\u11ab"})
        EXPECT_EQ(column(QString::fromUtf8(text)), text);
}

TEST(VdDiscoverColumnText, EscapesWhatIsNeverPrintable)
{
    EXPECT_EQ(column(QStringLiteral("a\n\x1b[2J\u202e") + characterBeyondTheBasicPlane(0xe0041)),
              "a\\x0a\\x1b[2J\\u202e\\U000e0041");
    EXPECT_EQ(column(QString(QChar(0xd800))), "\\ud800");
}

TEST(VdDiscoverColumnText, EscapesBlanksThatLeadOrTrail)
{
    EXPECT_EQ(column(QStringLiteral(" a ")), "\\x20a\\x20");
    EXPECT_EQ(column(QStringLiteral(" ")), "\\x20");
}

TEST(VdDiscoverColumnText, EscapesABlankThatFollowsABlank)
{
    EXPECT_EQ(column(QStringLiteral("a  b")), "a \\x20b");
    EXPECT_EQ(column(QStringLiteral("a   b c")), "a \\x20 b c");
}

TEST(VdDiscoverColumnText, EscapesEveryOtherBlank)
{
    EXPECT_EQ(column(QStringLiteral("a\u00a0b\u2003c\u3000d\u1680")), "a\\xa0b\\u2003c\\u3000d\\u1680");
}

TEST(VdDiscoverColumnText, EscapesLettersThatShowNothing)
{
    EXPECT_EQ(column(QStringLiteral("a\u115fa\u1160a\u17b4a\u17b5a\u2800a\u3164a\uffa0a\u034fa")),
              "a\\u115fa\\u1160a\\u17b4a\\u17b5a\\u2800a\\u3164a\\uffa0a\\u034fa");
    EXPECT_EQ(column(QStringLiteral("a") + characterBeyondTheBasicPlane(0xe0100)
                     + characterBeyondTheBasicPlane(0xe01ef)),
              "a\\U000e0100\\U000e01ef");
}

TEST(VdDiscoverColumnText, EscapesAVariationSelectorThatFollowsNoBaseCharacter)
{
    EXPECT_EQ(column(QStringLiteral("\ufe0fa\ufe0e\ufe00 \ufe01")), "\\ufe0fa\ufe0e\\ufe00 \\ufe01");
}

TEST(VdDiscoverColumnText, EscapesAMarkThatWouldCombineWithWhatIsNotOfTheText)
{
    EXPECT_EQ(column(QStringLiteral("\u0301a")), "\\u0301a");
    EXPECT_EQ(column(QStringLiteral("\n\u0301a")), "\\x0a\\u0301a");
}

TEST(VdDiscoverColumnText, EscapesTheMarksAfterTheFourth)
{
    EXPECT_EQ(column(QStringLiteral("a\u0301\u0302\u0303\u0304\u0305\u0306b\u0301")),
              "a\u0301\u0302\u0303\u0304\\u0305\\u0306b\u0301");
}

TEST(VdDiscoverColumnText, CountsLettersWithoutACellAndJoinersAsMarks)
{
    EXPECT_EQ(column(QStringLiteral("\u1112\u1161\u1161\u1161\u1161\u1161")),
              "\u1112\u1161\u1161\u1161\u1161\\u1161");
    EXPECT_EQ(column(QStringLiteral("a\u200d\u200d\u200d\u200d\u200d")), "a\u200d\u200d\u200d\u200d\\u200d");
}

TEST(VdDiscoverColumnText, NoTwoAdjacentCellsAreBlankWhateverCharacterIsRepeated)
{
    for (uint codePoint = 0x20; codePoint < 0xd800; ++codePoint) {
        const QString text = vd::discover::columnText(QString(3, QChar(static_cast<ushort>(codePoint))));
        EXPECT_FALSE(text.contains(QStringLiteral("  "))) << codePoint;
        EXPECT_NE(vd::discover::cellsOf(text), 0) << codePoint;
    }
}

TEST(VdDiscoverDeviceText, NoMemberAndNoRemarkCarriesAGap)
{
    vd::SServiceInfo hostile;
    hostile.serviceName = hostile.errorText = hostile.userdataOwner = QStringLiteral("a  b");
    hostile.freeCapacity = hostile.totalCapacity = QStringLiteral("1  TB");
    hostile.addresses = QStringList(QStringLiteral("10.0.0.1  80"));
    const QStringList texts = vd::discover::remarks(hostile) + vd::discover::addressTexts(hostile.addresses)
                              + QStringList(vd::discover::nameText(hostile));
    EXPECT_EQ(texts.join(QLatin1Char('|')).toStdString(),
              "error: a \\x20b|user data of a \\x20b|1 \\x20TB free of 1 \\x20TB|10.0.0.1 \\x2080|a \\x20b");
}
