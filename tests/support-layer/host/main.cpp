// SPDX-License-Identifier: MIT
//
// Browses once with the log's threshold at the first argument, then prints what the log was given.
#include <vd/AvahiServiceDiscovery.h>
#include <vd/LogQt.h>

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    vd::LogQt::threshold = argc > 1 ? std::atoi(argv[1]) : 1;

    vd::SServiceInfo info;
    info.macAddress.high = 7;
    const vd::SServiceInfo copy = info;
    std::printf("address copied: %d\n", copy.macAddress.high == 7 && copy.macAddress.low == 0);

    vd::AvahiServiceDiscovery discovery;
    std::printf("browsing: %d\n", discovery.BrowseServices("_http._tcp"));
    std::printf("prefixes: %d, without the lock: %d\n", vd::LogQt::prefixCount, vd::LogQt::unlockedCalls);
    for (int level = 0; level < vd::LogQt::LEVEL_COUNT; ++level)
        std::printf("level %d:\n%s", level, qPrintable(vd::LogQt::logged[level]));
    return 0;
}
