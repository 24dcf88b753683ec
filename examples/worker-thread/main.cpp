// SPDX-License-Identifier: MIT
//
// Discovery in a thread of its own: a daemon that hangs holds up that thread for 25 s a call, and never the window,
// for which the main thread's event loop stands here. Nor does it hold up the end: nothing waits for the thread before
// the window is closed, and nothing for long afterwards.
#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDebug>
#include <QtCore/QThread>

#include <cstdlib>

class DiscoveryThread : public QThread
{
public:
    explicit DiscoveryThread(QObject* window) : m_window(window) {}

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
    const unsigned long LONGEST_END_MS = 1000;
    QCoreApplication window(argc, argv);
    DiscoveryThread discovery(&window);
    discovery.start();
    const int result = QCoreApplication::exec();

    // The window is closed by now. A thread that waits for a daemon that hangs cannot be ended, and must not be destroyed
    // either, so the process leaves without tidying up; the daemon does that when the connection closes.
    discovery.quit();
    if (!discovery.wait(LONGEST_END_MS))
        std::_Exit(result);
    return result;
}
