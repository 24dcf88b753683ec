// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_BUSSOCKETWATCH_H
#define VD_AVAHI_MANAGED_BUSSOCKETWATCH_H

#include <QtCore/QByteArray>
#include <QtCore/QFileSystemWatcher>
#include <QtCore/QObject>
#include <QtCore/QString>

namespace vd {

/**
 * Tells when there is a new socket of the system bus: the bus may be back then.
 *
 * The address is read as libdbus does, from DBUS_SYSTEM_BUS_ADDRESS or else its default. A bus that listens
 * elsewhere than on a file is not watched. What else happens in the folder of the socket is no news.
 */
class BusSocketWatch : public QObject
{
    Q_OBJECT

public:
    BusSocketWatch();

    /** Takes the socket that is there now for the old one. */
    void noteSocket();
    /** @return false for a bus that cannot be watched. */
    bool turnOn();
    void turnOff();

public Q_SLOTS:
    /** Emits appeared() if the socket is another one than when it was looked at last. */
    void look();

Q_SIGNALS:
    void appeared();

private:
    bool watchFolder();
    void leaveFolder();

    QString m_path;
    /** What tells the socket from its successors; empty without one. */
    QByteArray m_socket;
    bool m_isOn;
    QFileSystemWatcher m_watcher;
};

} // namespace vd

#endif
