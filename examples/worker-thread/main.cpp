// SPDX-License-Identifier: MIT
//
// Discovery in a thread of its own: a daemon that hangs holds up that thread for 25 s a call, and never the window,
// for which the main thread's event loop stands here.
#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QThread>

class DiscoveryThread : public QThread
{
public:
    explicit DiscoveryThread(QObject* window) : m_window(window) {}
    ~DiscoveryThread() override
    {
        quit();
        wait();
    }

protected:
    void run() override
    {
        // Made here, so that the object and its timers belong to this thread. As the window belongs to another, its slots
        // are called there, from its event loop.
        vd::ManagedServiceDiscovery discovery;
        connect(&discovery, &vd::ServiceDiscovery::serviceFound, m_window, [](const vd::SServiceInfo& device) {
            qInfo() << "found" << device.serviceName << device.addresses;
        });
        connect(&discovery, qOverload<vd::SServiceInfo>(&vd::ServiceDiscovery::serviceLost), m_window,
                [](const vd::SServiceInfo& device) { qInfo() << "lost" << device.serviceName; });
        discovery.BrowseServices("_http._tcp");
        discovery.BrowseServices("_https._tcp");
        exec();
    }

private:
    QObject* const m_window;
};

int main(int argc, char** argv)
{
    QCoreApplication window(argc, argv);
    DiscoveryThread discovery(&window);
    discovery.start();
    return QCoreApplication::exec();
}
