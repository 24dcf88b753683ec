// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_DEVICETEXT_H
#define VD_DISCOVER_DEVICETEXT_H

#include <vd/ServiceDiscovery.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

// A device's members in words, safe to print. A member that is empty reads "-".

namespace vd::discover {

QString nameText(const SServiceInfo& device);
QString kindText(const SServiceInfo& device);
QString portText(const SServiceInfo& device);
QString serialText(const SServiceInfo& device);
QStringList addressTexts(const QStringList& addresses);

/** Free text that a device sent. */
QString textOrDash(const QString& text);

/** What the device says beyond its name, model and version: "error: ...", "2 TB free of 8 TB", ... */
QStringList remarks(const SServiceInfo& device);

} // namespace vd::discover

#endif
