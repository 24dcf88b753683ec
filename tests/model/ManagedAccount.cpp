// SPDX-License-Identifier: MIT
#include "model/ManagedAccount.h"

#include "model/ManagedHandles.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <tuple>

namespace {

/** Neither null nor a byte that discovery reads in a way of its own. */
bool isPlain(const char* text)
{
    return text && std::all_of(text, text + std::strlen(text), [](char c) {
               return static_cast<unsigned char>(c) < 0x80;
           });
}

bool isWeb(const char* type)
{
    return type && (std::strcmp(type, "_http._tcp") == 0 || std::strcmp(type, "_https._tcp") == 0);
}

bool tellsVendor(const Step& step)
{
    const std::string* const strings = vocabulary::txtStrings().data();
    const std::vector<const std::string*> txt = step.txt();
    return std::any_of(txt.begin(), txt.end(), [strings](const std::string* string) {
        const std::ptrdiff_t place = string - strings;
        return place >= 1 && place <= std::ptrdiff_t(vocabulary::SERIAL_STRINGS);
    });
}

/** An undefined event counts as an answer. */
bool isAnswer(const Step& step, bool hasHost)
{
    return step.event() != AVAHI_RESOLVER_FAILURE && step.address() && hasHost;
}

} // namespace

bool operator<(const Service& a, const Service& b)
{
    return std::tie(a.name, a.type, a.domain) < std::tie(b.name, b.type, b.domain);
}

bool operator==(const Service& a, const Service& b)
{
    return std::tie(a.name, a.type, a.domain) == std::tie(b.name, b.type, b.domain);
}

bool operator<(const Sighting& a, const Sighting& b)
{
    return std::tie(a.service, a.interface, a.protocol) < std::tie(b.service, b.interface, b.protocol);
}

void ManagedAccount::note(const std::string& flaw)
{
    if (m_flaw.empty())
        m_flaw = flaw;
}

bool ManagedAccount::isAnySeen(const std::function<bool(const Service&)>& isWanted) const
{
    for (const std::string& browser : liveOf(m_avahi, "browser")) {
        const auto seenBy = m_sightings.find(browser);
        if (seenBy != m_sightings.end()
            && std::any_of(seenBy->second.begin(), seenBy->second.end(),
                           [&isWanted](const Sighting& sighting) { return isWanted(sighting.service); }))
            return true;
    }
    return false;
}

bool ManagedAccount::isSeen(const Service& service) const
{
    return isAnySeen([&service](const Service& seen) { return seen == service; });
}

bool ManagedAccount::isNameSeen(const std::string& name) const
{
    return isAnySeen([&name](const Service& seen) { return seen.name == name; });
}

bool ManagedAccount::isDeviceSeen(const std::string& name) const
{
    return isAnySeen(
        [this, &name](const Service& seen) { return seen.name == name && m_devices.count(seen) > 0; });
}

std::string ManagedAccount::client() const
{
    const std::vector<std::string> clients = liveOf(m_avahi, "client");
    return clients.empty() ? std::string() : clients.back();
}

void ManagedAccount::resolverMade(const std::string& resolver, const Service& service)
{
    m_services[resolver] = service;
    if (isSeen(service))
        m_awaited.insert(resolver);
}

void ManagedAccount::browserTells(const std::string& browser, const Step& step)
{
    if (!isWeb(step.type()))
        return;
    // What overrides do first may be the end of it.
    if (!isPlain(step.name()) || !isPlain(step.domain()) || !step.inHandler.empty()) {
        m_unclear.insert(QString::fromUtf8(step.name()));
        return;
    }
    const Sighting sighting = {{step.name(), step.type(), step.domain()}, step.interface(), step.protocol()};
    if (step.event() == AVAHI_BROWSER_NEW)
        m_sightings[browser].insert(sighting);
    else if (step.event() == AVAHI_BROWSER_REMOVE)
        removed(browser, sighting);
}

void ManagedAccount::removed(const std::string& browser, const Sighting& sighting)
{
    if (m_sightings[browser].erase(sighting) > 0 && !isSeen(sighting.service))
        forgetUnseen(sighting.service);
}

// When it returns it is another one, and what its resolvers tell until they are freed is not heard.
void ManagedAccount::forgetUnseen(const Service& service)
{
    m_devices.erase(service);
    for (const std::string& resolver : liveOf(m_avahi, "resolver")) {
        if (serviceOf(resolver) == service)
            m_awaited.erase(resolver);
    }
}

void ManagedAccount::resolverTells(const std::string& resolver, const char* type, bool hasHost, const Step& step)
{
    const Service& service = serviceOf(resolver);
    const bool isAwaited = m_awaited.erase(resolver) > 0;
    const bool isOfOtherType = isAnswer(step, hasHost) && isWeb(service.type.c_str()) && !isWeb(type);
    // A daemon does not answer so, and what becomes of it is not to be told from here.
    if (isOfOtherType || !step.inHandler.empty())
        m_unclear.insert(QString::fromStdString(service.name));
    if (!isAnswer(step, hasHost))
        return;
    const auto device = m_devices.find(service);
    if (tellsVendor(step) && isAwaited && isSeen(service))
        m_devices[service] = client();
    else if (!tellsVendor(step) && device != m_devices.end() && device->second != client())
        // It may have been missing for too long after a restart, and be unknown since.
        m_devices.erase(device);
}

void ManagedAccount::hostAsksFor(const Step& step)
{
    const auto isWanted = [&step](const Service& seen) {
        return seen.name == step.name() && seen.type == step.type()
               && (step.kind == Step::StartQuery || seen.domain == (step.domain() ? step.domain() : "local"));
    };
    if (!isPlain(step.name()) || !isPlain(step.type()) || !isAnySeen(isWanted))
        m_asked.insert(QString::fromUtf8(step.name()));
}

void ManagedAccount::browsingEnds()
{
    m_shown.clear();
    m_devices.clear();
    m_awaited.clear();
    m_asked.clear();
    m_unclear.clear();
}

void ManagedAccount::signalled(const std::string& kind, const vd::SServiceInfo& info)
{
    const bool isFound = kind == "found";
    if (kind == "lost by name")
        return note("serviceLost(QString) was emitted, which is none of Avahi's");
    if (isFound == isShown(info.serviceName))
        note("\"" + kind + "\" was signalled of a device that was shown " + (isFound ? "already" : "no more"));
    if (kind == "lost")
        lost(info);
    else if (kind != "address" || !info.addressRemoved)
        m_shown[info.serviceName] = info.addresses;
    else if (info.addresses.size() != 1 || !m_shown[info.serviceName].removeOne(info.addresses.value(0)))
        note("an address was removed that was not shown");
}

void ManagedAccount::lost(const vd::SServiceInfo& info)
{
    const std::string name = info.serviceName.toStdString();
    if (!m_unclear.count(info.serviceName) && isDeviceSeen(name))
        note(name + " was lost and is still seen");
    m_shown.erase(info.serviceName);
    // What was asked for ends with the device.
    m_asked.erase(info.serviceName);
    for (auto device = m_devices.begin(); device != m_devices.end();)
        device = device->first.name == name ? m_devices.erase(device) : std::next(device);
}

std::optional<Sighting> ManagedAccount::sightingOn(const std::string& browser, std::size_t choice) const
{
    const auto seenBy = m_sightings.find(browser);
    if (seenBy == m_sightings.end() || seenBy->second.empty())
        return std::nullopt;
    return *std::next(seenBy->second.begin(), std::ptrdiff_t(choice % seenBy->second.size()));
}

void ManagedAccount::checkTable(const Table& table)
{
    if (static_cast<std::size_t>(table.size()) != m_shown.size())
        note(std::to_string(table.size()) + " devices are known, " + std::to_string(m_shown.size())
             + " are shown");
    for (const auto& [name, addresses] : m_shown) {
        if (!table.contains(name))
            note(name.toStdString() + " is shown and not known");
        else if (table[name].addresses != addresses)
            note(name.toStdString() + " is shown with other addresses than it has");
    }
}

void ManagedAccount::checkQueue(const Queue& queue, const Table& table)
{
    for (int i = 0; i < queue.size(); ++i) {
        if (queue.indexOf(queue.at(i)) != i)
            note(queue.at(i).first.toStdString() + " is queued twice");
        if (!table.contains(queue.at(i).first))
            note(queue.at(i).first.toStdString() + " is queued and not known");
    }
}

void ManagedAccount::checkQueueAtRest(const Queue& queue)
{
    std::set<QString> queued;
    for (int i = 0; i < queue.size(); ++i)
        queued.insert(queue.at(i).first);
    for (const auto& shown : m_shown) {
        if (!m_unclear.count(shown.first) && !queued.count(shown.first))
            note(shown.first.toStdString() + " is known and not queued");
    }
    for (const auto& [service, client] : m_devices) {
        const QString name = QString::fromStdString(service.name);
        if (client == this->client() && !m_unclear.count(name)
            && !queue.contains(qMakePair(name, QString::fromStdString(service.type))))
            note(service.name + " is seen as " + service.type + " and not queued as that");
    }
}

void ManagedAccount::checkResolversAtRest()
{
    std::set<Service> asked;
    for (const std::string& resolver : liveOf(m_avahi, "resolver")) {
        if (!asked.insert(serviceOf(resolver)).second)
            note(serviceOf(resolver).name + " is resolved twice at a time");
    }
}

void ManagedAccount::checkSightingsAtRest()
{
    for (const auto& shown : m_shown) {
        const bool isTold = !m_unclear.count(shown.first) && !m_asked.count(shown.first);
        if (isTold && !isNameSeen(shown.first.toStdString()))
            note(shown.first.toStdString() + " is known and not seen any more");
    }
}
