// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_TERMINALCELLS_H
#define VD_DISCOVER_TERMINALCELLS_H

#include <QtCore/QString>

// Text measured as a terminal shows it: East Asian characters take two cells, combining ones none.

namespace vd::discover {

/** How many cells @p text takes. */
int cellsOf(const QString& text);

/** @p text, cut to @p cells with an ellipsis at its end if it takes more. */
QString cutToCells(const QString& text, int cells);

/** @p text, followed by as many blanks as fill @p cells. */
QString paddedToCells(const QString& text, int cells);

} // namespace vd::discover

#endif
