// SPDX-License-Identifier: MIT
#include "TerminalCells.h"

#include <QtCore/QVector>

#include <clocale>
#include <cwchar>

namespace vd::discover {

namespace {

// wcwidth() goes by the locale of the thread, which may know ASCII only.
class Utf8Locale
{
public:
    Utf8Locale() : m_outer(uselocale(static_cast<locale_t>(nullptr)))
    {
        static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        if (utf8)
            uselocale(utf8);
    }
    ~Utf8Locale() { uselocale(m_outer); }

    int cellsOf(uint codePoint) const
    {
        const int cells = wcwidth(static_cast<wchar_t>(codePoint));
        // Unassigned characters show as a replacement glyph.
        return cells < 0 ? 1 : cells;
    }

private:
    Q_DISABLE_COPY(Utf8Locale)

    locale_t m_outer;
};

} // namespace

int cellsOf(const QString& text)
{
    const Utf8Locale locale;
    int cells = 0;
    const auto codePoints = text.toUcs4();
    for (const uint codePoint : codePoints)
        cells += locale.cellsOf(codePoint);
    return cells;
}

QString cutToCells(const QString& text, int cells)
{
    if (cellsOf(text) <= cells)
        return text;

    const Utf8Locale locale;
    const int room = cells - 1;
    QString cut;
    int used = 0;
    for (int i = 0; i < text.size(); ++i) {
        const bool isPair = text.at(i).isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate();
        const QString character = text.mid(i, isPair ? 2 : 1);
        used += locale.cellsOf(isPair ? QChar::surrogateToUcs4(character.at(0), character.at(1))
                                      : character.at(0).unicode());
        if (used > room)
            break;
        cut += character;
        i += isPair ? 1 : 0;
    }
    return cells > 0 ? cut + QChar(0x2026) : QString();
}

QString paddedToCells(const QString& text, int cells)
{
    return text + QString(qMax(0, cells - cellsOf(text)), QLatin1Char(' '));
}

} // namespace vd::discover
