// SPDX-License-Identifier: MIT
#include "OptionValues.h"

#include "support/PrintableText.h"

#include <QtCore/QChar>
#include <QtCore/QRegularExpression>

#include <avahi-common/domain.h>

#include <cmath>

namespace vd::discover {

namespace {

QStringList namesOf(const char* name, const char* letter)
{
    QStringList names;
    if (letter)
        names.append(QLatin1String(letter));
    names.append(QLatin1String(name));
    return names;
}

// As many milliseconds as a timer takes, rounded down to a number that reads well.
const double LONGEST_TIMEOUT_S = 2000000;

} // namespace

QCommandLineOption flag(const char* name, const char* letter)
{
    return QCommandLineOption(namesOf(name, letter));
}

QCommandLineOption valued(const char* name, const char* value, const char* letter)
{
    return QCommandLineOption(namesOf(name, letter), QString(), QLatin1String(value));
}

QString quoted(const QString& text)
{
    return QLatin1Char('"') + printableText(text) + QLatin1Char('"');
}

bool isPlainText(const QString& text)
{
    // What was not UTF-8 has become replacement characters.
    return printableText(text) == text && !text.contains(QChar(QChar::ReplacementCharacter));
}

int readTimeout(const QString& text)
{
    bool isNumber = false;
    const double seconds = text.toDouble(&isNumber);
    if (!isNumber || !std::isfinite(seconds) || seconds <= 0 || seconds > LONGEST_TIMEOUT_S) {
        throw UsageError{QStringLiteral("--timeout takes a number of seconds above 0 and up to 2000000, "
                                        "such as 5 or 0.5, not ")
                         + quoted(text)};
    }
    return static_cast<int>(std::ceil(seconds * 1000));
}

OutputFormat readFormat(const QString& text)
{
    if (text == QLatin1String("table"))
        return OutputFormat::Table;
    if (text == QLatin1String("json"))
        return OutputFormat::Json;
    throw UsageError{QStringLiteral("--format takes table or json, not ") + quoted(text)};
}

// Stricter than Avahi, which takes a trailing dot, blanks and control characters too.
std::optional<QString> serviceType(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("\\A_[a-z0-9_-]+\\._(tcp|udp)\\z"),
                                         QRegularExpression::CaseInsensitiveOption);
    if (!form.match(text).hasMatch() || !avahi_is_valid_service_type_strict(text.toUtf8().constData()))
        return std::nullopt;
    // DNS ignores case, but what is reported for a type is compared with care for it.
    return text.toLower();
}

QString serviceTypeRule()
{
    return QStringLiteral("which begins with _ and at least two characters behind it, and ends in ._tcp or ._udp");
}

// Stricter than the C library, which reads a leading zero as octal and takes fewer than four numbers.
std::optional<quint32> ipv4Address(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("\\A(?:(?:0|[1-9][0-9]{0,2})(?:\\.(?!\\z)|\\z)){4}\\z"));
    if (!form.match(text).hasMatch())
        return std::nullopt;
    quint32 address = 0;
    const QStringList numbers = text.split(QLatin1Char('.'));
    for (const QString& number : numbers) {
        if (number.toUInt() > 255)
            return std::nullopt;
        address = address << 8 | number.toUInt();
    }
    return address;
}

std::optional<quint32> wholeNumber(const QString& text, quint32 highest)
{
    static const QRegularExpression decimal(QStringLiteral("\\A(?:0|[1-9][0-9]{0,9})\\z"));
    static const QRegularExpression hexadecimal(QStringLiteral("\\A0[xX][0-9a-fA-F]{1,8}\\z"));
    quint64 number = 0;
    if (decimal.match(text).hasMatch())
        number = text.toULongLong();
    else if (hexadecimal.match(text).hasMatch())
        number = text.mid(2).toULongLong(nullptr, 16);
    else
        return std::nullopt;
    return number <= highest ? std::optional<quint32>(quint32(number)) : std::nullopt;
}

} // namespace vd::discover
