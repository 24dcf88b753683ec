// SPDX-License-Identifier: MIT
#pragma once

#include "support/AvahiStandIn.h"

#include <vd/ManagedServiceDiscovery.h>

#include <avahi-common/defs.h>
#include <avahi-common/error.h>

#include <vd/LogQt.h>

#include <QtCore/QTextStream>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

typedef std::vector<std::string> Lines;

/** The members of a record that differ from a default one, in their order: `port=8080 https=1`. */
std::string describe(const vd::SServiceInfo& info);

/** The CRC that txtChecksum holds, computed bit by bit. */
quint16 crcOf(const std::string& bytes);

/** A TXT record, its strings in the order of the wire. Freed with this object. */
class Txt
{
public:
    Txt(std::initializer_list<std::string> strings);
    ~Txt();
    Txt(const Txt&) = delete;
    Txt& operator=(const Txt&) = delete;

    operator AvahiStringList*() const { return m_list; }

private:
    AvahiStringList* m_list;
};

/** A discovery class whose protected side is open to the tests. */
template <typename Base>
class Open : public Base
{
public:
    using Base::AddTxtRecord;
    using Base::cleanupAvahiMembers;
    using Base::client;
    using Base::CreateTxtRecord;
    using Base::entryGroup;
    using Base::getAvahiStringListValue;
    using Base::GetAxisTxtRecord;
    using Base::GetSnapServerTxtRecord;
    using Base::GetVandrelTxtRecord;
    using Base::longLiveRecordBrowser;
    using Base::longLiveResolver;
    using Base::nameList;
    using Base::queryTimer;
    using Base::recordQueue;
    using Base::registeredName;
    using Base::registeredType;
    using Base::resolvers;
    using Base::serviceBrowsers;
    using Base::services;
    using Base::txtRecord;
    using Base::UpdateTxtRecord;

    /** Runs in the next handler that Avahi calls, before what it overrides. */
    std::function<void()> inNextHandler;

    void AvahiClientStateChanged(AvahiClient* changed, AvahiClientState state, void* userdata) override
    {
        runHook();
        Base::AvahiClientStateChanged(changed, state, userdata);
    }
    void ServiceBrowse(AvahiServiceBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                       const char* name, const char* type, const char* domain, AvahiLookupResultFlags flags,
                       void* userdata) override
    {
        runHook();
        Base::ServiceBrowse(browser, interface, protocol, event, name, type, domain, flags, userdata);
    }
    void ServiceResolve(AvahiServiceResolver* resolver, int interface, int protocol, AvahiResolverEvent event,
                        const char* name, const char* type, const char* domain, const char* host,
                        const AvahiAddress* address, unsigned short port, AvahiStringList* txt,
                        AvahiLookupResultFlags flags, void* userdata) override
    {
        runHook();
        Base::ServiceResolve(resolver, interface, protocol, event, name, type, domain, host, address,
                                              port, txt, flags, userdata);
    }
    void RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                      const char* name, unsigned short clazz, unsigned short type, const void* rdata,
                      unsigned long size, AvahiLookupResultFlags flags, void* userdata) override
    {
        runHook();
        Base::RecordBrowse(browser, interface, protocol, event, name, clazz, type, rdata, size, flags,
                                            userdata);
    }

    void AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) override
    {
        runHook();
        Base::AvahiEntryGroupChanged(group, state, userdata);
    }

private:
    void runHook()
    {
        std::function<void()> action;
        action.swap(inNextHandler);
        if (action)
            action();
    }
};

typedef Open<vd::AvahiServiceDiscovery> OpenDiscovery;
typedef Open<vd::ManagedServiceDiscovery> OpenManagedDiscovery;

/** A discovery object over the stand-in, with its log at level 1 and its signals written down. */
template <typename Discovery>
class DiscoveryFixture : public testing::Test
{
protected:
    DiscoveryFixture();
    ~DiscoveryFixture() override;

    Discovery& discovery() { return *m_discovery; }
    bool hasDiscovery() const { return m_discovery != nullptr; }
    void destroyDiscovery() { m_discovery.reset(); }
    /** Another owner will delete the object. */
    Discovery* releaseDiscovery() { return m_discovery.release(); }

    /** Browses one type and forgets the calls and messages that this took. */
    void startBrowsing(const char* type = "_http._tcp");

    // What was logged, signalled and called since the last time this was asked. Log lines begin with their level.
    Lines takeLog();
    Lines takeSignals();
    Lines takeCalls() { return avahi.takeCalls(); }
    void forgetAll();

    /** The service table, a line an entry: `"key": members`. */
    Lines table();
    /** The queue, a line an entry: `name, type`. */
    Lines queue();

    /** Runs inside the slot of the next signal of any kind. */
    void inNextSlot(std::function<void()> action) { m_inNextSlot = std::move(action); }

    /** Runs @p action inside the slot of the signal that @p event causes; fails the test when there is none. */
    void runInSlotOf(const std::function<void()>& event, const std::function<void()>& action);

    // Events that a device causes. The service is resolved by the resolver that was made last unless given.
    void appears(const char* name, const char* type = "_http._tcp", int interface = 2);
    void disappears(const char* name, const char* type = "_http._tcp");
    void resolved(int resolver, const char* name, const char* host, const char* address, AvahiStringList* txt,
                  const char* type = "_http._tcp", uint16_t port = 80);
    void resolveFails(int resolver, const char* name, int error, const char* type = "_http._tcp",
                      const char* host = nullptr);
    void record(int recordBrowser, AvahiBrowserEvent event, const char* host, const char* address);

    /** A camera found at @p address with resolver @p number, and all that was written down forgotten. */
    void cameraFound(const char* name, const char* host, const char* address, int number = 1);

    AvahiStandIn avahi;

private:
    void noteSignal(const std::string& line);

    std::unique_ptr<Discovery> m_discovery;
    QString m_logText;
    QTextStream m_logStream;
    Lines m_signals;
    std::function<void()> m_inNextSlot;
};

typedef DiscoveryFixture<OpenDiscovery> DiscoveryTest;
typedef DiscoveryFixture<OpenManagedDiscovery> ManagedDiscoveryTest;
