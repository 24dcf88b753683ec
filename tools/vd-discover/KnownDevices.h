// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_KNOWNDEVICES_H
#define VD_DISCOVER_KNOWNDEVICES_H

#include "DeviceEvent.h"

#include <QtCore/QList>
#include <QtCore/QMap>

namespace vd::discover {

/**
 * The devices as the events so far describe them.
 *
 * Unlike the record of an event, a device here keeps its remaining addresses when one is removed.
 */
class KnownDevices
{
public:
    /**
     * Takes the event in.
     * @return false when it is not about a device: the discovery object also tells of the end of services
     * that it never announced, and of addresses that outlive their service.
     */
    bool apply(const DeviceEvent& event);

    /** The device of that name, or an empty record. */
    SServiceInfo device(const QString& serviceName) const { return m_devices.value(serviceName); }

    bool contains(const QString& serviceName) const { return m_devices.contains(serviceName); }

    /** Sorted by name, capital letters or not. */
    QList<SServiceInfo> devices() const;

    int count() const { return static_cast<int>(m_devices.size()); }

    void clear() { m_devices.clear(); }

private:
    QMap<QString, SServiceInfo> m_devices;
};

} // namespace vd::discover

#endif
