// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_DEVICETABLE_H
#define VD_DISCOVER_DEVICETABLE_H

#include <vd/ServiceDiscovery.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace vd::discover {

/**
 * A table for people, in UTF-8: a heading and the devices in the given order.
 * @param width the cells of a line of the terminal: no line is longer, and a device's further addresses
 * and its error stand below it. With 0 nothing is cut off and each device is one line.
 * @return nothing when there are no devices.
 */
QByteArray deviceTable(const QList<SServiceInfo>& devices, int width);

} // namespace vd::discover

#endif
