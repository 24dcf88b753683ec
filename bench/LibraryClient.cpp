// SPDX-License-Identifier: MIT

// Browses until COUNT devices were found and an address record of each was seen, as an application would, and prints
// what it took as one JSON line.

#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QByteArray>
#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QSet>
#include <QtCore/QTimer>

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iostream>

namespace {

const int TIMEOUT_MS = 60000;
const int HEARTBEAT_MS = 5;

double millisecondsSince(const QElapsedTimer& clock)
{
    return double(clock.nsecsElapsed()) / 1e6;
}

double cpuMilliseconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3
           + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

long peakMemoryKiB()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

/** A timer in the application's thread: how late it is tells how long the event loop was held. */
class Heartbeat
{
public:
    /** Without an object to watch it does nothing, and costs nothing that is measured. */
    explicit Heartbeat(const vd::ManagedServiceDiscovery* watched)
    {
        if (!watched)
            return;
        m_timer.setTimerType(Qt::PreciseTimer);
        QObject::connect(&m_timer, &QTimer::timeout, [this, watched] {
            noteHold();
            m_sinceLast.restart();
            m_mostObjects = std::max(m_mostObjects, watched->openObjects());
        });
        m_clock.start();
        m_sinceLast.start();
        m_timer.start(HEARTBEAT_MS);
    }

    /** What the loop is held for right now counts too. */
    void noteHold()
    {
        if (!m_sinceLast.isValid() || millisecondsSince(m_sinceLast) - HEARTBEAT_MS <= m_longestMs)
            return;
        m_longestMs = millisecondsSince(m_sinceLast) - HEARTBEAT_MS;
        m_longestEndedAtMs = millisecondsSince(m_clock);
    }

    double longestMs() const { return m_longestMs; }
    double longestEndedAtMs() const { return m_longestEndedAtMs; }
    int mostObjects() const { return m_mostObjects; }

private:
    QTimer m_timer;
    QElapsedTimer m_clock;
    QElapsedTimer m_sinceLast;
    double m_longestMs = 0;
    double m_longestEndedAtMs = 0;
    int m_mostObjects = 0;
};

/** Discovery that also tells of each address record, which is what plain-client waits for. */
template <typename Discovery>
class WatchedDiscovery : public Discovery
{
public:
    std::function<void(const char* host)> onAddress;

protected:
    void RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                      const char* name, unsigned short clazz, unsigned short type, const void* rdata,
                      unsigned long size, AvahiLookupResultFlags flags, void* userdata) override
    {
        Discovery::RecordBrowse(browser, interface, protocol, event, name, clazz, type, rdata, size, flags,
                                userdata);
        if (event == AVAHI_BROWSER_NEW)
            onAddress(name);
    }
};

/** What has to be seen, and when the last of it was. Each device has a host of its own. */
struct Progress
{
    explicit Progress(int wantedDevices) : wanted(wantedDevices) { clock.start(); }

    void found()
    {
        if (++devices != wanted)
            return;
        foundMs = millisecondsSince(clock);
        foundCpuMs = cpuMilliseconds();
    }

    bool isComplete() const { return devices >= wanted && hosts.size() >= wanted; }

    const int wanted;
    QElapsedTimer clock;
    QSet<QByteArray> hosts;
    int devices = 0;
    bool isOver = false;
    double foundMs = 0;
    double foundCpuMs = 0;
};

void print(const Progress& progress, Heartbeat& heartbeat)
{
    heartbeat.noteHold();
    std::printf(
        "{\"found\": %d, \"lastFoundMs\": %.1f, \"lastAddressMs\": %.1f, \"cpuMs\": %.1f, "
        "\"longestHoldMs\": %.1f, \"longestHoldEndedAtMs\": %.1f, \"mostObjects\": %d, \"memoryKiB\": %ld}\n",
        progress.devices, progress.foundMs, millisecondsSince(progress.clock), progress.foundCpuMs,
        heartbeat.longestMs(), heartbeat.longestEndedAtMs(), heartbeat.mostObjects(), peakMemoryKiB());
}

template <typename Discovery>
int discover(QCoreApplication& application, const char* type, int wanted)
{
    Progress progress(wanted);
    WatchedDiscovery<Discovery> discovery;
    Heartbeat heartbeat(qobject_cast<vd::ManagedServiceDiscovery*>(&discovery));
    const auto endIfComplete = [&] {
        if (progress.isOver || !progress.isComplete())
            return;
        progress.isOver = true;
        print(progress, heartbeat);
        application.quit();
    };
    discovery.onAddress = [&](const char* host) {
        progress.hosts.insert(host);
        endIfComplete();
    };
    QObject::connect(&discovery, &vd::ServiceDiscovery::serviceFound, &application, [&](const vd::SServiceInfo&) {
        progress.found();
        endIfComplete();
    });
    if (!discovery.BrowseServices(type)) {
        std::cerr << "library-client: cannot browse; is avahi-daemon running?\n";
        return 3;
    }
    QTimer::singleShot(TIMEOUT_MS, &application, [&] {
        std::cerr << "library-client: " << progress.devices << " of " << wanted << " devices, addresses of "
                  << progress.hosts.size() << ", after " << TIMEOUT_MS / 1000 << " s\n";
        application.exit(1);
    });
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const bool managed = argc == 4 && std::strcmp(argv[1], "--managed") == 0;
    const int wanted = argc == 3 || managed ? QByteArray(argv[argc - 1]).toInt() : 0;
    if (wanted < 1) {
        std::cerr << "usage: library-client [--managed] TYPE COUNT\n";
        return 2;
    }
    const auto run = managed ? discover<vd::ManagedServiceDiscovery> : discover<vd::AvahiServiceDiscovery>;
    return run(application, argv[argc - 2], wanted);
}
