// SPDX-License-Identifier: MIT
#pragma once

#include <vd/ServiceDiscovery.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>

/** Writes one line to standard output, whole, from whichever thread. */
void writeLine(const QJsonObject& line);

/** All members of a record in their order, as pairs, since a JSON object has no order. */
QJsonArray jsonOf(const vd::SServiceInfo& info);
