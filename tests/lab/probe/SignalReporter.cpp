// SPDX-License-Identifier: MIT
#include "SignalReporter.h"

#include "JsonLines.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <utility>

namespace {

QString currentThreadName()
{
    const bool isMain = QThread::currentThread() == QCoreApplication::instance()->thread();
    return isMain ? QStringLiteral("main") : QThread::currentThread()->objectName();
}

} // namespace

void SignalReporter::runNestedLoopOnce(const QString& signal, int milliseconds)
{
    m_nestedLoopAt = signal;
    m_nestedLoopMs = milliseconds;
}

void SignalReporter::connectTo(const vd::ServiceDiscovery* discovery, Qt::ConnectionType type)
{
    connect(discovery, SIGNAL(serviceFound(vd::SServiceInfo)), SLOT(reportFound(vd::SServiceInfo)), type);
    connect(discovery, SIGNAL(serviceAddress(vd::SServiceInfo)), SLOT(reportAddress(vd::SServiceInfo)), type);
    connect(discovery, SIGNAL(serviceText(vd::SServiceInfo)), SLOT(reportText(vd::SServiceInfo)), type);
    connect(discovery, SIGNAL(serviceLost(QString)), SLOT(reportLostName(QString)), type);
    connect(discovery, SIGNAL(serviceLost(vd::SServiceInfo)), SLOT(reportLost(vd::SServiceInfo)), type);
}

void SignalReporter::reportFound(vd::SServiceInfo info)
{
    report("serviceFound", jsonOf(info));
}

void SignalReporter::reportAddress(vd::SServiceInfo info)
{
    report("serviceAddress", jsonOf(info));
}

void SignalReporter::reportText(vd::SServiceInfo info)
{
    report("serviceText", jsonOf(info));
}

void SignalReporter::reportLostName(QString name)
{
    report("serviceLost(QString)", name);
}

void SignalReporter::reportLost(vd::SServiceInfo info)
{
    report("serviceLost", jsonOf(info));
}

void SignalReporter::report(const char* signal, const QJsonValue& argument)
{
    writeLine({
        {QStringLiteral("event"), QStringLiteral("signal")},
        {QStringLiteral("signal"), QLatin1String(signal)},
        {QStringLiteral("argument"), argument},
        {QStringLiteral("thread"), currentThreadName()},
    });
    if (m_nestedLoopMs > 0 && m_nestedLoopAt == QLatin1String(signal))
        runNestedLoop();
}

void SignalReporter::runNestedLoop()
{
    const int milliseconds = std::exchange(m_nestedLoopMs, 0);
    writeLine({{QStringLiteral("event"), QStringLiteral("nested-loop-begins")}});
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
    writeLine({{QStringLiteral("event"), QStringLiteral("nested-loop-ends")}});
}
