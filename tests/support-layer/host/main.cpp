// SPDX-License-Identifier: MIT
//
// Browses once with the log's threshold at the first argument, then prints what the log was given.
#include <vd/AvahiServiceDiscovery.h>
#include <vd/LogQt.h>

#include <QtCore/QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

class Discovery : public vd::AvahiServiceDiscovery
{
public:
    /** The one event that is told of at level 4. */
    void resolveWithoutAddress()
    {
        const std::string serial = std::string("ser_no.") + vd::VENDOR_TXT_DOMAIN + "=ABC";
        AvahiStringList* const txt = avahi_string_list_new(serial.c_str(), nullptr);
        ServiceResolve(nullptr, 1, 0, AVAHI_RESOLVER_FOUND, "Cam", "_http._tcp", "local", "cam.local", nullptr, 80,
                       txt, static_cast<AvahiLookupResultFlags>(0), nullptr);
        avahi_string_list_free(txt);
    }
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    vd::LogQt::threshold = argc > 1 ? std::atoi(argv[1]) : 1;

    vd::SServiceInfo info;
    info.macAddress.high = 7;
    const vd::SServiceInfo copy = info;
    std::printf("address copied: %d\n", copy.macAddress.high == 7 && copy.macAddress.low == 0);

    Discovery discovery;
    std::printf("browsing: %d\n", discovery.BrowseServices("_http._tcp"));
    discovery.resolveWithoutAddress();
    std::printf("prefixes: %d, without the lock: %d\n", vd::LogQt::prefixCount, vd::LogQt::unlockedCalls);
    std::printf("number flags restored: %d\n",
                vd::LogQt::getStream(1)->numberFlags() == QTextStream::NumberFlags());
    for (int level = 0; level < vd::LogQt::LEVEL_COUNT; ++level)
        std::printf("level %d:\n%s", level, qPrintable(vd::LogQt::logged[level]));
    return 0;
}
