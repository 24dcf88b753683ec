// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_EVENTLINE_H
#define VD_DISCOVER_EVENTLINE_H

#include "DeviceEvent.h"

#include <QtCore/QByteArray>

namespace vd::discover {

/**
 * The event as one line for people, with its line feed: local time, what happened, the device's name, and
 * what is new of it.
 * @param before, after the device as it was known before the event and after it
 * @param width the cells of a line of the terminal: a longer line is cut, as one that wraps would look like
 * two. With 0 nothing is cut off.
 */
QByteArray eventLine(const DeviceEvent& event, const SServiceInfo& before, const SServiceInfo& after, int width);

} // namespace vd::discover

#endif
