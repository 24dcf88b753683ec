// SPDX-License-Identifier: MIT
#pragma once

#include <vd/ServiceDiscovery.h>

#include <QtCore/QObject>

/** Reports every signal of a discovery object, and the thread that it was received in. */
class SignalReporter : public QObject
{
    Q_OBJECT

public:
    /** The slot of the next signal of this name runs an event loop of its own for so long. */
    void runNestedLoopOnce(const QString& signal, int milliseconds);

    /** Connects by name, as hosts with Qt 4 do. */
    void connectTo(const vd::ServiceDiscovery* discovery, Qt::ConnectionType type);

private Q_SLOTS:
    void reportFound(vd::SServiceInfo info);
    void reportAddress(vd::SServiceInfo info);
    void reportText(vd::SServiceInfo info);
    void reportLostName(QString name);
    void reportLost(vd::SServiceInfo info);

private:
    void report(const char* signal, const QJsonValue& argument);
    void runNestedLoop();

    QString m_nestedLoopAt;
    int m_nestedLoopMs = 0;
};
