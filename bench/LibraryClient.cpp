// SPDX-License-Identifier: MIT

// Browses until COUNT devices were found, as an application would, and prints what it took as one JSON line.

#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>

namespace {

const int TIMEOUT_MS = 60000;

double cpuMilliseconds()
{
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e3
           + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e3;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const int wanted = argc == 3 ? std::atoi(argv[2]) : 0;
    if (wanted < 1) {
        std::fprintf(stderr, "usage: library-client TYPE COUNT\n");
        return 2;
    }

    QElapsedTimer clock;
    clock.start();
    vd::AvahiServiceDiscovery discovery;
    int found = 0;
    QObject::connect(&discovery, &vd::ServiceDiscovery::serviceFound, &application, [&](vd::SServiceInfo) {
        if (++found < wanted)
            return;
        std::printf("{\"found\": %d, \"lastFoundMs\": %.1f, \"cpuMs\": %.1f}\n", found,
                    double(clock.nsecsElapsed()) / 1e6, cpuMilliseconds());
        application.quit();
    });
    if (!discovery.BrowseServices(argv[1])) {
        std::fprintf(stderr, "library-client: cannot browse; is avahi-daemon running?\n");
        return 3;
    }
    QTimer::singleShot(TIMEOUT_MS, &application, [&] {
        std::fprintf(stderr, "library-client: %d of %d devices after %d s\n", found, wanted, TIMEOUT_MS / 1000);
        application.exit(1);
    });
    return application.exec();
}
