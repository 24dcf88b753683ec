// SPDX-License-Identifier: MIT
#include "avahi/managed/BusSocketWatch.h"

#include "support/QtCompat.h"

#include <QtCore/QStringList>

#include <cstdlib>

namespace vd {

namespace {

const char DEFAULT_SOCKET[] = "/var/run/dbus/system_bus_socket";
const char PATH_PREFIX[] = "unix:path=";

// Of the first address that names a path, the folder; empty when there is none.
QString folderOfSocket()
{
    const char* const variable = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    QString path = QLatin1String(DEFAULT_SOCKET);
    if (variable && *variable) {
        path = textFromBytes(variable);
        const int begin = static_cast<int>(path.indexOf(QLatin1String(PATH_PREFIX)));
        if (begin < 0)
            return QString();
        path = path.mid(begin + static_cast<int>(sizeof PATH_PREFIX) - 1);
        path = path.left(path.indexOf(QLatin1Char(';'))).split(QLatin1Char(',')).first();
    }
    return path.left(path.lastIndexOf(QLatin1Char('/')));
}

} // namespace

BusSocketWatch::BusSocketWatch(QObject* receiver, const char* slot)
{
    QObject::connect(&m_watcher, SIGNAL(directoryChanged(QString)), receiver, slot);
}

void BusSocketWatch::turnOn()
{
    const QString folder = folderOfSocket();
    if (!folder.isEmpty() && m_watcher.directories().isEmpty())
        m_watcher.addPath(folder);
}

void BusSocketWatch::turnOff()
{
    if (!m_watcher.directories().isEmpty())
        m_watcher.removePaths(m_watcher.directories());
}

} // namespace vd
