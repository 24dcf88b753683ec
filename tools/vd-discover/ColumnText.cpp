// SPDX-License-Identifier: MIT
#include "ColumnText.h"

#include "TerminalCells.h"
#include "support/PrintableText.h"

#include <QtCore/QChar>

namespace vd::discover {

namespace {

const uint BLANK = 0x20;
// Nothing below combines with what stands before it.
const uint FIRST_MARK = 0x300;
// Stacks of accents and vowel signs that are writing stay below.
const int MOST_MARKS = 4;

bool isIn(uint codePoint, uint first, uint last)
{
    return codePoint >= first && codePoint <= last;
}

// Fillers, blank letters and what Unicode lets fonts ignore: they show as nothing or as a blank.
bool isInvisible(uint codePoint)
{
    switch (codePoint) {
    case 0x034f:
    case 0x115f:
    case 0x1160:
    case 0x17b4:
    case 0x17b5:
    case 0x2065:
    case 0x2800:
    case 0x3164:
    case 0xffa0:
    case 0x1d159:
        return true;
    default:
        return isIn(codePoint, 0x180b, 0x180f) || isIn(codePoint, 0xfff0, 0xfff8)
               || isIn(codePoint, 0xe0000, 0xe0fff);
    }
}

bool isVariationSelector(uint codePoint)
{
    return isIn(codePoint, 0xfe00, 0xfe0f);
}

QString textOf(uint codePoint)
{
    if (codePoint < 0x10000)
        return QString(QChar(static_cast<ushort>(codePoint)));
    return QString(QChar(QChar::highSurrogate(codePoint))) + QChar(QChar::lowSurrogate(codePoint));
}

// Also a letter without a cell of its own, such as a Korean vowel: it is drawn onto the one before.
bool isMark(uint codePoint)
{
    if (codePoint < FIRST_MARK)
        return false;
    switch (QChar::category(codePoint)) {
    case QChar::Mark_NonSpacing:
    case QChar::Mark_SpacingCombining:
    case QChar::Mark_Enclosing:
        return true;
    default:
        return cellsOf(textOf(codePoint)) == 0;
    }
}

/** Escapes code point by code point, going by what was let through before. */
class Writer
{
public:
    void add(uint codePoint, bool isLast)
    {
        const bool keep = isHarmless(codePoint, isLast);
        m_text += keep ? textOf(codePoint) : escaped(codePoint);
        m_isBlankAllowed = !keep || codePoint != BLANK;
        if (!keep || codePoint == BLANK)
            m_marksLeft = 0;
        else
            m_marksLeft = isMark(codePoint) ? m_marksLeft - 1 : MOST_MARKS;
    }

    QString text() const { return m_text; }

private:
    bool isHarmless(uint codePoint, bool isLast) const
    {
        if (codePoint == BLANK)
            return m_isBlankAllowed && !isLast;
        if (isUnprintable(codePoint) || QChar::isSpace(codePoint) || isInvisible(codePoint))
            return false;
        if (isVariationSelector(codePoint))
            return m_marksLeft == MOST_MARKS;
        return !isMark(codePoint) || m_marksLeft > 0;
    }

    QString m_text;
    bool m_isBlankAllowed = false;
    int m_marksLeft = 0;
};

} // namespace

QString columnText(const QString& text)
{
    Writer writer;
    for (int i = 0; i < text.size(); ++i) {
        uint codePoint = text.at(i).unicode();
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            codePoint = QChar::surrogateToUcs4(text.at(i), text.at(i + 1));
            ++i;
        }
        writer.add(codePoint, i + 1 == text.size());
    }
    return writer.text();
}

} // namespace vd::discover
