// SPDX-License-Identifier: MIT
#include "avahi/managed/BusSocketWatch.h"

#include "support/QtCompat.h"

#include <QtCore/QFile>
#include <QtCore/QStringList>

#include <sys/stat.h>

namespace vd {

namespace {

const char DEFAULT_ADDRESS[] = "unix:path=/var/run/dbus/system_bus_socket";
const char TRANSPORT[] = "unix:";
const char PATH_KEY[] = "path=";

// Empty when the address names no file.
QString pathOfAddress(const QByteArray& address)
{
    if (!address.startsWith(TRANSPORT))
        return QString();
    const QList<QByteArray> pairs = address.mid(static_cast<int>(sizeof TRANSPORT) - 1).split(',');
    for (int i = 0; i < pairs.size(); ++i) {
        if (!pairs.at(i).startsWith(PATH_KEY))
            continue;
        const QByteArray value = pairs.at(i).mid(static_cast<int>(sizeof PATH_KEY) - 1);
        return textFromBytes(QByteArray::fromPercentEncoding(value));
    }
    return QString();
}

// Of the first address that names one.
QString pathOfSocket()
{
    const QByteArray variable = qgetenv("DBUS_SYSTEM_BUS_ADDRESS");
    const QList<QByteArray> addresses = (variable.isEmpty() ? QByteArray(DEFAULT_ADDRESS) : variable).split(';');
    for (int i = 0; i < addresses.size(); ++i) {
        const QString path = pathOfAddress(addresses.at(i));
        if (path.startsWith(QLatin1Char('/')))
            return path;
    }
    return QString();
}

// The folder of the socket may come with the bus, and is awaited in the one above then.
QString nearestFolder(const QString& path)
{
    QString folder = path;
    do
        folder = folder.left(folder.lastIndexOf(QLatin1Char('/')));
    while (!folder.isEmpty() && !QFile::exists(folder));
    return folder.isEmpty() ? QString(QLatin1Char('/')) : folder;
}

// A bus that was killed leaves its socket behind, and the next one makes another, perhaps with the same number.
QByteArray identityOf(const QString& path)
{
    struct stat file;
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &file) != 0)
        return QByteArray();
    return QByteArray::number(static_cast<qulonglong>(file.st_ino)) + ' '
           + QByteArray::number(static_cast<qlonglong>(file.st_ctim.tv_sec)) + ' '
           + QByteArray::number(static_cast<qlonglong>(file.st_ctim.tv_nsec));
}

} // namespace

BusSocketWatch::BusSocketWatch() : m_isOn(false)
{
    connect(&m_watcher, SIGNAL(directoryChanged(QString)), this, SLOT(look()));
}

void BusSocketWatch::noteSocket()
{
    m_path = pathOfSocket();
    m_socket = identityOf(m_path);
}

bool BusSocketWatch::turnOn()
{
    m_isOn = !m_path.isEmpty() && watchFolder();
    return m_isOn;
}

void BusSocketWatch::turnOff()
{
    m_isOn = false;
    leaveFolder();
}

void BusSocketWatch::leaveFolder()
{
    if (!m_watcher.directories().isEmpty())
        m_watcher.removePaths(m_watcher.directories());
}

// A folder that is made between the choice and the watch would go unseen, so the choice is made again.
bool BusSocketWatch::watchFolder()
{
    QString folder = nearestFolder(m_path);
    while (m_watcher.directories() != QStringList(folder)) {
        leaveFolder();
        m_watcher.addPath(folder);
        if (m_watcher.directories().isEmpty())
            return false;
        folder = nearestFolder(m_path);
    }
    return true;
}

void BusSocketWatch::look()
{
    if (m_isOn)
        watchFolder();
    const QByteArray socket = identityOf(m_path);
    const bool isNew = !socket.isEmpty() && socket != m_socket;
    m_socket = socket;
    if (isNew)
        Q_EMIT appeared();
}

} // namespace vd
