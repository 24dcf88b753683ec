// SPDX-License-Identifier: MIT

// Browses until COUNT devices were found, as an application would, and prints what it took as one JSON line.

#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

const int TIMEOUT_MS = 60000;
const int HEARTBEAT_MS = 5;

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
            m_longestMs = std::max(m_longestMs, double(m_sinceLast.nsecsElapsed()) / 1e6 - HEARTBEAT_MS);
            m_sinceLast.restart();
            m_mostObjects = std::max(m_mostObjects, watched->openObjects());
        });
        m_sinceLast.start();
        m_timer.start(HEARTBEAT_MS);
    }

    double longestMs() const { return m_longestMs; }
    int mostObjects() const { return m_mostObjects; }

private:
    QTimer m_timer;
    QElapsedTimer m_sinceLast;
    double m_longestMs = 0;
    int m_mostObjects = 0;
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const bool managed = argc == 4 && std::strcmp(argv[1], "--managed") == 0;
    const int wanted = argc == 3 || managed ? std::atoi(argv[argc - 1]) : 0;
    if (wanted < 1) {
        std::fprintf(stderr, "usage: library-client [--managed] TYPE COUNT\n");
        return 2;
    }

    QElapsedTimer clock;
    clock.start();
    std::unique_ptr<vd::AvahiServiceDiscovery> discovery;
    if (managed)
        discovery.reset(new vd::ManagedServiceDiscovery);
    else
        discovery.reset(new vd::AvahiServiceDiscovery);
    const Heartbeat heartbeat(managed ? static_cast<vd::ManagedServiceDiscovery*>(discovery.get()) : nullptr);
    int found = 0;
    QObject::connect(discovery.get(), &vd::ServiceDiscovery::serviceFound, &application, [&](vd::SServiceInfo) {
        if (++found < wanted)
            return;
        const double foundMs = double(clock.nsecsElapsed()) / 1e6;
        std::printf("{\"found\": %d, \"lastFoundMs\": %.1f, \"lastAddressMs\": %.1f, \"cpuMs\": %.1f, "
                    "\"longestHoldMs\": %.1f, \"mostObjects\": %d, \"memoryKiB\": %ld}\n",
                    found, foundMs, foundMs, cpuMilliseconds(), heartbeat.longestMs(), heartbeat.mostObjects(),
                    peakMemoryKiB());
        application.quit();
    });
    if (!discovery->BrowseServices(argv[argc - 2])) {
        std::fprintf(stderr, "library-client: cannot browse; is avahi-daemon running?\n");
        return 3;
    }
    QTimer::singleShot(TIMEOUT_MS, &application, [&] {
        std::fprintf(stderr, "library-client: %d of %d devices after %d s\n", found, wanted, TIMEOUT_MS / 1000);
        application.exit(1);
    });
    return application.exec();
}
