// SPDX-License-Identifier: MIT
#pragma once

#include "model/Library.h"
#include "model/VirtualClock.h"
#include "support/BusStandIn.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

/** Where a sequence is to be performed. */
struct Surroundings
{
    /** Whether the daemon can be asked if it is ready. */
    bool hasBus = false;
    int objectLimit = 512;
};

/** Managed discovery over the stand-in for Avahi, with the time in hand, and the rules that it always keeps. */
class ManagedLibrary : public LibraryOf<OpenManagedDiscovery>
{
public:
    ManagedLibrary(const Surroundings& surroundings, bool reusesAddresses);

    /** How often, by kind. */
    std::map<std::string, int> signalled;

    /** Lets the time pass that comes after the step. */
    void passTimeAfter(const Step& step);
    void passTime(int milliseconds);

    /** Collects what the step did, and tells what does not hold after it; empty when all does. */
    std::string flaw();
    /** Every object that Avahi owes the end of its first look is told of it, as real ones are. */
    void endLooks();
    /** The same when nothing has happened for a while. */
    std::string flawAtRest();
    /** Whether a device that appears now is still found and lost. */
    std::string flawInLife();
    /** Deletes the object. */
    std::string flawAtEnd();

private:
    /** A service, and where it is seen. */
    struct Sighting
    {
        std::string name;
        std::string type;
        std::string domain;
        int interface;
        int protocol;
    };
    friend bool operator<(const Sighting& a, const Sighting& b);

    int targetOf(const Step& step) override;
    /** The daemon is there. */
    void newClient(int number) override { avahi().fireClientState(AVAHI_CLIENT_S_RUNNING, number); }
    void noteSignal(const char* kind, const vd::SServiceInfo& info) override;
    void runOperation(const Step& step) override;
    void runEvent(const Step& step) override;

    bool disappears(const Step& step);
    std::string handleOf(const Step& step) const;
    void note(const std::string& flaw);
    void noteEnd();
    void noteCalls();
    void noteSighting(const std::string& browser, const Step& step);
    void noteAnswer(const std::string& resolver, const Step& step);
    void checkHandles();
    void checkTable();
    void checkQueue();
    void checkResolvers();
    void checkSightings();
    bool isSeen(const QString& name, bool asDevice) const;
    std::string resolverOf(const std::string& service);
    bool isProbeFound(const std::string& browser);
    bool isProbeLost(const std::string& browser);
    std::vector<std::string> live(const std::string& kind) const;

    std::optional<BusStandIn> m_bus;
    /** What a window that obeys the signals shows: addresses by the names of devices. */
    std::map<QString, QStringList> m_shown;
    /** What each resolver was made for. */
    std::map<std::string, std::string> m_services;
    /** What each browser sees. */
    std::map<std::string, std::set<Sighting>> m_sightings;
    /** Objects that were told of the end of their first look. */
    std::set<std::string> m_ended;
    /** Services that were answered with a vendor's key. */
    std::set<std::string> m_devices;
    /** Names of which it cannot be told from here whether they are to be known. */
    std::set<QString> m_unclear;
    bool m_isBrowsing = false;
    int m_limit;
    std::string m_flaw;
};
