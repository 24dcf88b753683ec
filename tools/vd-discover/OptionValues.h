// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_OPTIONVALUES_H
#define VD_DISCOVER_OPTIONVALUES_H

#include <QtCore/QCommandLineOption>
#include <QtCore/QString>

#include <optional>

// What the commands' options have in common, and the values that they take. What can't be read is thrown as a
// UsageError, or nothing is returned.

namespace vd::discover {

enum class OutputFormat { Table, Json };

/** What is wrong with the command line, in one printable line that names the remedy. */
struct UsageError
{
    QString message;
};

/** An option without a value; with a letter it has a short form too. */
QCommandLineOption flag(const char* name, const char* letter = nullptr);

/** An option that takes a value. */
QCommandLineOption valued(const char* name, const char* value, const char* letter = nullptr);

/** What was typed, in quotes and safe to print. */
QString quoted(const QString& text);

/** Whether everything in @p text shows, so that it reads the same wherever it is printed. */
bool isPlainText(const QString& text);

/** Seconds, fractions allowed, as milliseconds above 0. */
int readTimeout(const QString& text);

OutputFormat readFormat(const QString& text);

/** A DNS-SD service type such as _http._tcp in lower case; nothing if @p text is none. */
std::optional<QString> serviceType(const QString& text);

/** What makes a service type one, to go behind an example of it. */
QString serviceTypeRule();

/** A.B.C.D as a number, A in its highest byte; nothing if @p text has any other form. */
std::optional<quint32> ipv4Address(const QString& text);

/** A decimal number without leading zeros, or a hexadecimal one behind 0x; nothing if it is above @p highest. */
std::optional<quint32> wholeNumber(const QString& text, quint32 highest);

} // namespace vd::discover

#endif
