// SPDX-License-Identifier: MIT
#pragma once

#include "model/Observation.h"
#include "model/Step.h"
#include "support/AvahiStandIn.h"

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>

struct Service
{
    std::string name;
    std::string type;
    std::string domain;
};

bool operator<(const Service& a, const Service& b);
bool operator==(const Service& a, const Service& b);

/** A service, and where it is seen. */
struct Sighting
{
    Service service;
    int interface;
    int protocol;
};

bool operator<(const Sighting& a, const Sighting& b);

/**
 * What browsers see and what a window that obeys the signals shows, and the rules that tie both together. Where it
 * cannot be told from here what discovery knows, the account says less rather than something wrong.
 */
class ManagedAccount
{
public:
    explicit ManagedAccount(const AvahiStandIn& avahi) : m_avahi(avahi) {}

    /** Only the first one counts, as others may follow from it. */
    void note(const std::string& flaw);
    /** Empty when every rule was kept. */
    const std::string& flaw() const { return m_flaw; }

    // Each is to be told of before discovery is.
    void resolverMade(const std::string& resolver, const Service& service);
    void browserTells(const std::string& browser, const Step& step);
    void removed(const std::string& browser, const Sighting& sighting);
    /** The answer tells a host when @p hasHost. */
    void resolverTells(const std::string& resolver, const char* type, bool hasHost, const Step& step);
    void resolverTimesOut(const std::string& resolver) { m_awaited.erase(resolver); }
    void hostAsksFor(const Step& step);
    /** Which ends without signals. */
    void browsingEnds();

    void signalled(const std::string& kind, const vd::SServiceInfo& info);

    /** What the resolver was made for. */
    const Service& serviceOf(const std::string& resolver) const { return m_services.at(resolver); }
    /** One of those on the browser, if there is any. */
    std::optional<Sighting> sightingOn(const std::string& browser, std::size_t choice) const;
    bool isShown(const QString& name) const { return m_shown.count(name) > 0; }

    void checkTable(const Table& table);
    void checkQueue(const Queue& queue, const Table& table);
    // What need not hold before there was time for it.
    void checkResolversAtRest();
    void checkSightingsAtRest();
    void checkQueueAtRest(const Queue& queue);

private:
    bool isSeen(const Service& service) const;
    bool isNameSeen(const std::string& name) const;
    bool isDeviceSeen(const std::string& name) const;
    bool isAnySeen(const std::function<bool(const Service&)>& isWanted) const;
    std::string client() const;
    void forgetUnseen(const Service& service);
    void lost(const vd::SServiceInfo& info);

    const AvahiStandIn& m_avahi;
    std::string m_flaw;
    /** Addresses by the names of devices. */
    std::map<QString, QStringList> m_shown;
    std::map<std::string, Service> m_services;
    std::map<std::string, std::set<Sighting>> m_sightings;
    /** Resolvers of seen services that were told nothing yet. Those that were may only wait to be freed. */
    std::set<std::string> m_awaited;
    /** Seen services that were answered with a vendor's key, and the client on which. */
    std::map<Service, std::string> m_devices;
    /** Names that may be known without being seen, as a host asked for them. */
    std::set<QString> m_asked;
    /** Names of which it cannot be told from here whether they are to be known. */
    std::set<QString> m_unclear;
};
