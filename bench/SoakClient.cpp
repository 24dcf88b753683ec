// SPDX-License-Identifier: MIT
//
// soak-client [--queries N] [--interval MILLISECONDS] [--verbose]
//
// An application that runs for long: it browses, queries all devices in turn, and keeps N long-lived queries. Each
// interval it prints what it holds as one JSON line. It takes the commands of the lab tests' probe, of which "dump"
// shows the table, and ends with its input. --verbose: the library's log goes to standard error.
#include "AvahiObjects.h"
#include "QtObjects.h"

#include "CallThreads.h"
#include "CommandReader.h"
#include "JsonLines.h"
#include "ProbeDiscovery.h"

#include <vd/LogQt.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QSet>
#include <QtCore/QTimer>

#include <unistd.h>

#include <iostream>

namespace {

const int CANNOT_WATCH = 1;
const int LOG_EVERYTHING = 1;

qint64 memoryKiB()
{
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> pages = file.readAll().split(' ');
    return pages.value(1).toLongLong() * sysconf(_SC_PAGESIZE) / 1024;
}

int openDescriptors()
{
    const QDir folder(QStringLiteral("/proc/self/fd"));
    const auto all = folder.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
    // The folder itself is open while it is read.
    return static_cast<int>(all) - 1;
}

/** Keeps as many long-lived queries as are wanted: one that ended with its device is replaced. */
class SoakDiscovery : public ProbeDiscovery<vd::ManagedServiceDiscovery>
{
public:
    explicit SoakDiscovery(int wantedQueries) : m_wantedQueries(wantedQueries)
    {
        connect(this, &SoakDiscovery::serviceFound, this, &SoakDiscovery::countFound);
        connect(this, qOverload<vd::SServiceInfo>(&SoakDiscovery::serviceLost), this, &SoakDiscovery::countLost);
        connect(this, &SoakDiscovery::serviceAddress, this, [this] { ++m_changed; });
        connect(this, &SoakDiscovery::serviceText, this, [this] { ++m_changed; });
        m_clock.start();
    }

    QJsonObject sample() const
    {
        return {
            {QStringLiteral("event"), QStringLiteral("sample")},
            {QStringLiteral("seconds"), double(m_clock.elapsed()) / 1e3},
            {QStringLiteral("rssKiB"), memoryKiB()},
            {QStringLiteral("queue"), int(recordQueue.size())},
            {QStringLiteral("objects"), AvahiObjects::open()},
            {QStringLiteral("objectsTold"), openObjects()},
            {QStringLiteral("callsAreMade"), areCallsMadeFor(*this)},
            {QStringLiteral("descriptors"), openDescriptors()},
            {QStringLiteral("timers"), QtObjects::activeTimers()},
            {QStringLiteral("qtObjects"), QtObjects::count()},
            {QStringLiteral("queries"), int(m_queried.size())},
            {QStringLiteral("devices"), int(services.size())},
            {QStringLiteral("found"), m_found},
            {QStringLiteral("lost"), m_lost},
            {QStringLiteral("changed"), m_changed},
            {QStringLiteral("state"), int(state())},
        };
    }

    /** What the probe shows, and the Avahi objects. */
    QJsonObject dump() const override
    {
        QJsonObject members = ProbeDiscovery<vd::ManagedServiceDiscovery>::dump();
        QJsonArray objects;
        for (const std::string& description : AvahiObjects::descriptions())
            objects.append(QString::fromStdString(description));
        members[QStringLiteral("avahiObjects")] = objects;
        members[QStringLiteral("queries")] = QJsonArray::fromStringList(m_queried.values());
        return members;
    }

private:
    void countFound(const vd::SServiceInfo& info)
    {
        ++m_found;
        if (m_queried.size() < m_wantedQueries)
            startQuery(info);
    }

    void countLost(const vd::SServiceInfo& lost)
    {
        ++m_lost;
        if (!m_queried.remove(lost.serviceName))
            return;
        for (const vd::SServiceInfo& info : services) {
            if (info.serviceName != lost.serviceName && !m_queried.contains(info.serviceName)) {
                startQuery(info);
                return;
            }
        }
    }

    void startQuery(const vd::SServiceInfo& info)
    {
        if (StartQueryRecords(info.serviceName.toUtf8().constData(), info.serviceType.toUtf8().constData(), true))
            m_queried.insert(info.serviceName);
    }

    const int m_wantedQueries;
    QSet<QString> m_queried;
    QElapsedTimer m_clock;
    int m_found = 0;
    int m_lost = 0;
    int m_changed = 0;
};

} // namespace

int main(int argc, char** argv)
{
    if (!QtObjects::watch()) {
        std::cerr << "soak-client: this Qt has other hooks than those known here; use Qt 5.15 or 6.4\n";
        return CANNOT_WATCH;
    }
    QCoreApplication application(argc, argv);
    const QCommandLineOption queries(QStringLiteral("queries"), QString(), QStringLiteral("N"),
                                     QStringLiteral("20"));
    const QCommandLineOption interval(QStringLiteral("interval"), QString(), QStringLiteral("MILLISECONDS"),
                                      QStringLiteral("1000"));
    QCommandLineParser parser;
    const QCommandLineOption verbose(QStringLiteral("verbose"));
    parser.addOptions({queries, interval, verbose});
    parser.process(application);
    if (parser.isSet(verbose))
        vd::LogQt::setLogLevel(LOG_EVERYTHING);

    SoakDiscovery discovery(parser.value(queries).toInt());
    CommandReader commands(&discovery);
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &discovery, [&] { writeLine(discovery.sample()); });
    timer.start(parser.value(interval).toInt());

    writeLine({{QStringLiteral("event"), QStringLiteral("ready")}});
    discovery.BrowseServices("_http._tcp");
    discovery.BrowseServices("_https._tcp");
    discovery.StartQueryAllRecords();
    return QCoreApplication::exec();
}
