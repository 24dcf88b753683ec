// SPDX-License-Identifier: MIT
#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    vd::ManagedServiceDiscovery discovery;
    QObject::connect(&discovery, &vd::ServiceDiscovery::serviceFound, [](const vd::SServiceInfo& device) {
        qInfo() << "found" << device.serviceName << device.modelName << device.serialNumber << device.addresses;
    });
    QObject::connect(&discovery, qOverload<vd::SServiceInfo>(&vd::ServiceDiscovery::serviceLost),
                     [](const vd::SServiceInfo& device) { qInfo() << "lost" << device.serviceName; });
    discovery.BrowseServices("_http._tcp");
    discovery.BrowseServices("_https._tcp");
    if (discovery.state() != vd::ManagedServiceDiscovery::Running)
        qWarning("Waiting for the Avahi daemon. Does it run? Try: systemctl start avahi-daemon");
    return application.exec();
}
