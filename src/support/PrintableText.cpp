// SPDX-License-Identifier: MIT
#include "support/PrintableText.h"

#include "support/QtCompat.h"

#include <QtCore/QChar>
#include <QtCore/QLatin1Char>
#include <QtCore/QLatin1String>

namespace vd {

namespace {

const uint ZERO_WIDTH_NON_JOINER = 0x200c;
const uint ZERO_WIDTH_JOINER = 0x200d;

QString withDigits(const char* prefix, uint codePoint, int digits)
{
    return QLatin1String(prefix) + QString::number(codePoint, 16).rightJustified(digits, QLatin1Char('0'));
}

} // namespace

QString escaped(uint codePoint)
{
    if (codePoint < 0x100)
        return withDigits("\\x", codePoint, 2);
    return codePoint < 0x10000 ? withDigits("\\u", codePoint, 4) : withDigits("\\U", codePoint, 8);
}

bool isUnprintable(uint codePoint)
{
    switch (QChar::category(codePoint)) {
    case QChar::Other_Control:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
    case QChar::Other_Surrogate:
        return true;
    case QChar::Other_Format:
        return codePoint != ZERO_WIDTH_NON_JOINER && codePoint != ZERO_WIDTH_JOINER;
    default:
        return false;
    }
}

QString printableText(const QString& text)
{
    QString printable;
    printable.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        uint codePoint = text.at(i).unicode();
        int units = 1;
        if (text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            codePoint = QChar::surrogateToUcs4(text.at(i), text.at(i + 1));
            units = 2;
        }
        if (isUnprintable(codePoint))
            printable += escaped(codePoint);
        else
            printable += text.mid(i, units);
        i += units - 1;
    }
    return printable;
}

QString printableText(const char* bytes)
{
    return printableText(textFromBytes(bytes));
}

} // namespace vd
