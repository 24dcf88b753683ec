// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_BUSSOCKETWATCH_H
#define VD_AVAHI_MANAGED_BUSSOCKETWATCH_H

#include <QtCore/QFileSystemWatcher>

namespace vd {

/**
 * Tells when something changes in the folder of the system bus' socket: the bus may be back then.
 *
 * The address is read as libdbus does, from DBUS_SYSTEM_BUS_ADDRESS or else its default. A bus that listens elsewhere
 * than on a file is not watched.
 */
class BusSocketWatch
{
public:
    /** Calls @p slot of @p receiver on every change while the watch is on. */
    BusSocketWatch(QObject* receiver, const char* slot);

    void turnOn();
    void turnOff();

private:
    Q_DISABLE_COPY(BusSocketWatch)

    QFileSystemWatcher m_watcher;
};

} // namespace vd

#endif
