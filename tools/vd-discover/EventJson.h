// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_EVENTJSON_H
#define VD_DISCOVER_EVENTJSON_H

#include "DeviceEvent.h"

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>

namespace vd::discover {

/** The record, each member under its own name. */
QJsonObject jsonOf(const SServiceInfo& service);

/**
 * An event of @p service at @p time as one line of JSON in UTF-8, with its line feed. Nothing in it can steer a
 * terminal: control, format and separator characters stand as \uXXXX.
 */
QByteArray jsonLine(const char* event, const QDateTime& time, const QJsonObject& service);

/** The event of a device, likewise. */
QByteArray jsonLine(const DeviceEvent& event);

} // namespace vd::discover

#endif
