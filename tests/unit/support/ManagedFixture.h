// SPDX-License-Identifier: MIT
#pragma once

#include "support/CallThreads.h"
#include "support/DiscoveryFixture.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <algorithm>

const std::string SERIAL = "ser_no.vandrel.com=\x01\x02\x03";
const char HTTP[] = "_http._tcp";
const char HTTPS[] = "_https._tcp";

// All members of a camera's record but its addresses and its text.
inline std::string camera(const std::string& name, const std::string& host, const std::string& rest,
                          const std::string& before = "")
{
    return "serviceType='_http._tcp' interfaceIndex=2 " + before + "deviceKind=1 serviceName='" + name + "' hostName='"
           + host + "' recordHostName='" + host + "' " + rest;
}

/** The managed ones of these tests run a second time with this in their environment. */
const char CALLS_IN_THREAD[] = "VD_TEST_CALLS_IN_THREAD";

class ManagedTest : public ManagedDiscoveryTest
{
protected:
    ManagedTest()
    {
        if (qEnvironmentVariableIsSet(CALLS_IN_THREAD))
            avahi.useEventLoop();
    }

    const Txt cameraTxt = {SERIAL};
    const std::string known
        = "serialNumber=66051 txtChecksum=" + std::to_string(crcOf(SERIAL));

    /** Runs what waits for the event loop, and the calls that follow from it. */
    void turn(int milliseconds = 0)
    {
        QElapsedTimer waited;
        waited.start();
        do {
            QCoreApplication::processEvents();
            QCoreApplication::processEvents();
            if (milliseconds || areCallsDue())
                QThread::msleep(1);
        } while (waited.elapsed() < milliseconds || areCallsDue() || areCallsMade());
    }

    /** Until a device is lost; on a busy machine the grace period lasts a step longer. */
    void awaitLoss()
    {
        QElapsedTimer waited;
        waited.start();
        int losses = 0;
        while (losses == 0 && waited.elapsed() < 5000) {
            turn(10);
            losses = count(takeSignals(), "lost serviceType");
        }
        EXPECT_EQ(losses, 1);
    }

    bool areCallsDue()
    {
        const QTimer* const timer = hasDiscovery() ? discovery().findChild<QTimer*>("callTimer") : nullptr;
        return timer && timer->isActive() && timer->interval() == 0;
    }

    /** Just now, in a thread of their own. */
    bool areCallsMade() { return hasDiscovery() && areCallsMadeFor(discovery()); }

    // What these events lead to is called when the event loop runs again.
    void resolved(int resolver, const char* name, const char* host, const char* address, AvahiStringList* txt,
                  const char* type = HTTP, uint16_t port = 80)
    {
        ManagedDiscoveryTest::resolved(resolver, name, host, address, txt, type, port);
        turn();
    }

    void record(int recordBrowser, AvahiBrowserEvent event, const char* host, const char* address)
    {
        ManagedDiscoveryTest::record(recordBrowser, event, host, address);
        turn();
    }

    void disappears(const char* name, const char* type = HTTP)
    {
        ManagedDiscoveryTest::disappears(name, type);
        turn();
    }

    /** A running daemon, as libavahi-client tells of it. */
    void daemonRuns()
    {
        avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_S_RUNNING, ++m_clients); });
    }

    void daemonIsAway()
    {
        avahi.duringClientNew([this](AvahiClient*) { avahi.fireClientState(AVAHI_CLIENT_CONNECTING, ++m_clients); });
    }

    void run(const char* type = HTTP)
    {
        daemonRuns();
        startBrowsing(type);
    }

    void appearsOn(const char* name, int interface, int protocol = AVAHI_PROTO_INET, const char* type = HTTP,
                   int browser = 1)
    {
        avahi.fireBrowse(avahi.browser(browser), AVAHI_BROWSER_NEW, interface, protocol, name, type, "local");
    }

    void disappearsOn(const char* name, int interface, int protocol = AVAHI_PROTO_INET, const char* type = HTTP,
                      int browser = 1)
    {
        avahi.fireBrowse(avahi.browser(browser), AVAHI_BROWSER_REMOVE, interface, protocol, name, type, "local");
    }

    void fireInDomain(AvahiBrowserEvent event, const char* domain)
    {
        avahi.fireBrowse(avahi.browser(), event, 2, AVAHI_PROTO_INET, "Cam", HTTP, domain);
    }

    /** A camera found, its addresses complete, and all that was written down forgotten. */
    void found(const char* name = "Cam", const char* host = "cam.local", const char* address = "10.0.0.1", int number = 1)
    {
        appears(name);
        turn();
        resolved(number, name, host, address, cameraTxt);
        record(number, AVAHI_BROWSER_NEW, host, address);
        record(number, AVAHI_BROWSER_ALL_FOR_NOW, host, nullptr);
        forgetAll();
    }

    /** A camera found by its web service and seen with a secure one, which resolver 2 asks for. */
    void foundAndSeenSecure()
    {
        run();
        discovery().BrowseServices(HTTPS);
        found();
        appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTPS, 2);
        turn();
    }

    /** A camera that was asked for and answered resolver 1, and a service of its name that is none. */
    void askedForBesideATwinThatIsNoDevice()
    {
        run();
        discovery().ResolveService(2, "Cam", HTTP, "local");
        turn();
        resolved(1, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        fireInDomain(AVAHI_BROWSER_NEW, "example.net");
        turn();
        resolved(2, "Cam", "cam.local", "10.0.0.1", Txt{"a=b"});
    }

    /** A camera found, and seen after a restart, where resolver 2 asks for it. */
    void seenAgainAfterARestart()
    {
        run();
        found();
        failClient();
        turn();
        appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
        turn();
    }

    /** All that address browser @p number has to tell of "Cam". */
    void onlyAnswerIs(int number, const char* address)
    {
        record(number, AVAHI_BROWSER_NEW, "cam.local", address);
        record(number, AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
    }

    void askAndResolve(int number, const char* address)
    {
        discovery().StartQueryRecords("Cam", HTTP, false);
        turn();
        resolved(number, "Cam", "cam.local", address, cameraTxt);
    }

    void queryAgain(int number, const char* address)
    {
        askAndResolve(number, address);
        onlyAnswerIs(number, address);
    }

    /** A call for a service that is seen. */
    static std::string newResolver(const std::string& name, int number, const char* type = HTTP, int interface = 2,
                                   int protocol = AVAHI_PROTO_INET)
    {
        return resolverCall(1, interface, protocol, name, type) + std::to_string(number);
    }

    /** A call for a service that nobody browses for. */
    static std::string newResolverAnywhere(const std::string& name, int number, const char* type = HTTP, int client = 1)
    {
        return resolverCall(client, -1, AVAHI_PROTO_INET, name, type) + std::to_string(number);
    }

    static std::string resolverCall(int client, int interface, int protocol, const std::string& name,
                                    const std::string& type)
    {
        return "service_resolver_new(client" + std::to_string(client) + ", " + std::to_string(interface) + ", "
               + std::to_string(protocol) + ", \"" + name + "\", \"" + type + "\", \"local\", 0, 2) = resolver";
    }

    static std::string camName(int number) { return "Cam" + std::to_string(number); }

    /** Answers every resolver that was made since the calls were asked for last; returns the names of its services. */
    Lines answerResolvers()
    {
        Lines names;
        for (const std::string& call : takeCalls()) {
            if (call.rfind("service_resolver_new", 0) != 0)
                continue;
            const size_t begin = call.find('"') + 1;
            names.push_back(call.substr(begin, call.find('"', begin) - begin));
            resolved(std::stoi(call.substr(call.rfind("resolver") + 8)), names.back().c_str(), "cam.local", "10.0.0.1",
                     cameraTxt);
            const Lines live = avahi.liveHandles();
            for (const std::string& handle : live) {
                if (handle.rfind("recordBrowser", 0) == 0)
                    record(std::stoi(handle.substr(13)), AVAHI_BROWSER_ALL_FOR_NOW, "cam.local", nullptr);
            }
        }
        return names;
    }

    int liveCount(const std::string& kind) const
    {
        int live = 0;
        for (const std::string& handle : avahi.liveHandles())
            live += handle.rfind(kind, 0) == 0 ? 1 : 0;
        return live;
    }

    static int count(const Lines& lines, const std::string& begin)
    {
        return static_cast<int>(std::count_if(lines.begin(), lines.end(),
                                              [&](const std::string& line) { return line.rfind(begin, 0) == 0; }));
    }

    int liveClient() const { return std::stoi(avahi.liveHandles().front().substr(6)); }

    void failClient(int number = 1) { avahi.fireClientState(AVAHI_CLIENT_FAILURE, number); }

    Lines signalsOf(const std::function<void()>& action)
    {
        takeSignals();
        action();
        return takeSignals();
    }

private:
    int m_clients = 0;
};
