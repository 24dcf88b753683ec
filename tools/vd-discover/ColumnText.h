// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_COLUMNTEXT_H
#define VD_DISCOVER_COLUMNTEXT_H

#include <QtCore/QString>

namespace vd::discover {

/**
 * Free text from the network, safe to stand in a column: beyond what is never printable, everything is
 * escaped that could pass for the gap between columns, hide, or pile up over the lines above. Single blanks
 * between words stay, and as many combining marks as writing needs.
 */
QString columnText(const QString& text);

} // namespace vd::discover

#endif
