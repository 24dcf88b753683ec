// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    vd::AvahiServiceDiscovery discovery;
    QObject::connect(&discovery, &vd::ServiceDiscovery::serviceFound, [](const vd::SServiceInfo& device) {
        qInfo() << "found" << device.serviceName << device.modelName << device.serialNumber << device.addresses;
    });
    QObject::connect(&discovery, qOverload<vd::SServiceInfo>(&vd::ServiceDiscovery::serviceLost),
                     [](const vd::SServiceInfo& device) { qInfo() << "lost" << device.serviceName; });
    if (!discovery.BrowseServices("_http._tcp")) {
        qCritical("Cannot look for devices. Is avahi-daemon running? Try: systemctl start avahi-daemon");
        return 1;
    }
    return application.exec();
}
