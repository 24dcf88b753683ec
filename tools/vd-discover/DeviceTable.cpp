// SPDX-License-Identifier: MIT
#include "DeviceTable.h"

#include "DeviceText.h"
#include "TerminalCells.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <vector>

namespace vd::discover {

namespace {

const int GAP_CELLS = 2;
const char INDENT[] = "  ";

enum class Layout { OneLineEach, Terminal, NarrowTerminal };

struct Column
{
    QString heading;
    /** A cell for each device, as lines. */
    QList<QStringList> cells;
    /** The width below which this column is not cut while another one can be. */
    int comfortableWidth;
    /** The width below which it is not cut as long as the table could fit. */
    int leastWidth;
    int width = 0;
};

using Columns = std::vector<Column>;

// For columns that are never cut while another can be: half an address or serial number is of no use.
const int UNCUT = std::numeric_limits<int>::max();

template <typename TextOf>
Column columnOf(const QString& heading, int comfortableWidth, int leastWidth, const QList<SServiceInfo>& devices,
                TextOf textOf)
{
    Column column{heading, {}, comfortableWidth, leastWidth, 0};
    for (const SServiceInfo& device : devices)
        column.cells.append(QStringList(textOf(device)));
    return column;
}

bool hasError(const SServiceInfo& device)
{
    return !device.errorText.isEmpty();
}

// Where there is no room for all words, one whole word is better than the beginnings of two.
QString shortKindText(const SServiceInfo& device)
{
    return kindText(device).section(QLatin1Char(' '), -1);
}

Columns columnsOf(const QList<SServiceInfo>& devices, Layout layout)
{
    const auto addresses = [layout](const SServiceInfo& device) {
        const QStringList texts = addressTexts(device.addresses);
        return layout == Layout::OneLineEach ? QStringList(texts.join(QLatin1Char(','))) : texts;
    };
    const auto version = [](const SServiceInfo& device) { return textOrDash(device.softwareVersion); };
    const auto model = [](const SServiceInfo& device) { return textOrDash(device.modelName); };
    const auto error = [](const SServiceInfo& device) { return textOrDash(device.errorText); };
    const auto kind = layout == Layout::NarrowTerminal ? shortKindText : kindText;

    Columns columns = {
        columnOf(QStringLiteral("NAME"), 16, 8, devices, nameText),
        columnOf(QStringLiteral("KIND"), 19, 6, devices, kind),
        columnOf(QStringLiteral("ADDRESS"), UNCUT, UNCUT, devices, addresses),
        columnOf(QStringLiteral("PORT"), UNCUT, UNCUT, devices, portText),
        columnOf(QStringLiteral("MODEL"), 12, 6, devices, model),
        columnOf(QStringLiteral("VERSION"), 8, 6, devices, version),
        columnOf(QStringLiteral("SERIAL"), UNCUT, UNCUT, devices, serialText),
    };
    if (layout == Layout::OneLineEach && std::any_of(devices.begin(), devices.end(), hasError))
        columns.push_back(columnOf(QStringLiteral("ERROR"), UNCUT, UNCUT, devices, error));
    return columns;
}

void measure(Columns& columns)
{
    for (Column& column : columns) {
        column.width = cellsOf(column.heading);
        for (const QStringList& lines : column.cells) {
            for (const QString& line : lines)
                column.width = std::max(column.width, cellsOf(line));
        }
    }
}

int totalWidth(const Columns& columns)
{
    const int gaps = GAP_CELLS * (static_cast<int>(columns.size()) - 1);
    return std::accumulate(columns.begin(), columns.end(), gaps,
                           [](int sum, const Column& column) { return sum + column.width; });
}

// Takes from the widest column first, so that what is short stays whole.
void shrinkTo(Columns& columns, int width, int Column::*floor)
{
    while (totalWidth(columns) > width) {
        Column* widest = nullptr;
        for (Column& column : columns) {
            if (column.width > column.*floor && (!widest || column.width > widest->width))
                widest = &column;
        }
        if (!widest)
            return;
        --widest->width;
    }
}

QString lineOf(const Columns& columns, const QStringList& texts)
{
    QString line;
    for (size_t i = 0; i < columns.size(); ++i) {
        const QString text = cutToCells(texts.at(static_cast<int>(i)), columns[i].width);
        line += paddedToCells(text, columns[i].width) + QString(GAP_CELLS, QLatin1Char(' '));
    }
    while (line.endsWith(QLatin1Char(' ')))
        line.chop(1);
    return line;
}

QString headingOf(const Columns& columns)
{
    QStringList texts;
    for (const Column& column : columns)
        texts.append(column.heading);
    return lineOf(columns, texts);
}

QStringList linesOfDevice(const Columns& columns, int device)
{
    QStringList lines;
    int height = 1;
    for (int row = 0; row < height; ++row) {
        QStringList texts;
        for (const Column& column : columns) {
            const QStringList& cell = column.cells.at(device);
            height = std::max(height, static_cast<int>(cell.size()));
            texts.append(cell.value(row));
        }
        lines.append(lineOf(columns, texts));
    }
    return lines;
}

Columns columnsFittedTo(int width, const QList<SServiceInfo>& devices)
{
    Columns columns = columnsOf(devices, Layout::Terminal);
    measure(columns);
    shrinkTo(columns, width, &Column::comfortableWidth);
    if (totalWidth(columns) <= width)
        return columns;

    columns = columnsOf(devices, Layout::NarrowTerminal);
    measure(columns);
    shrinkTo(columns, width, &Column::comfortableWidth);
    shrinkTo(columns, width, &Column::leastWidth);
    return columns;
}

QStringList linesOfTable(const QList<SServiceInfo>& devices)
{
    Columns columns = columnsOf(devices, Layout::OneLineEach);
    measure(columns);
    QStringList lines(headingOf(columns));
    for (int i = 0; i < static_cast<int>(devices.size()); ++i)
        lines += linesOfDevice(columns, i);
    return lines;
}

QStringList linesOfFittedTable(const QList<SServiceInfo>& devices, int width)
{
    const Columns columns = columnsFittedTo(width, devices);
    QStringList lines(headingOf(columns));
    for (int i = 0; i < static_cast<int>(devices.size()); ++i) {
        lines += linesOfDevice(columns, i);
        if (hasError(devices.at(i)))
            lines += QLatin1String(INDENT) + QStringLiteral("error: ") + textOrDash(devices.at(i).errorText);
    }
    for (QString& line : lines)
        line = cutToCells(line, width);
    return lines;
}

} // namespace

QByteArray deviceTable(const QList<SServiceInfo>& devices, int width)
{
    if (devices.isEmpty())
        return QByteArray();
    const QStringList lines = width > 0 ? linesOfFittedTable(devices, width) : linesOfTable(devices);
    return lines.join(QLatin1Char('\n')).toUtf8() + '\n';
}

} // namespace vd::discover
