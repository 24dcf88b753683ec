// SPDX-License-Identifier: MIT
#include "model/ManagedLibrary.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <tuple>

namespace {

// What is due is done in the order of time, as long as no more passes at once than this.
const int SLICE_MS = 50;
const int TICK_MS = 4000;

const char PROBE[] = "Probe";
const char PROBE_TYPE[] = "_http._tcp";
// Others may have their turns first, and wait for answers that do not come.
const int PROBE_TURN_MS = 600000;
const int PROBE_STEP_MS = 1000;
const int PROBE_TRIALS = 10;

std::unique_ptr<OpenManagedDiscovery> makeManaged(int objectLimit)
{
    auto discovery = std::make_unique<OpenManagedDiscovery>();
    discovery->setObjectLimit(objectLimit);
    return discovery;
}

const char* handleKind(Step::Kind kind)
{
    switch (kind) {
    case Step::ClientState:
        return "client";
    case Step::BrowseEvent:
        return "browser";
    case Step::ResolveEvent:
        return "resolver";
    case Step::RecordEvent:
        return "recordBrowser";
    default:
        return "group";
    }
}

bool isOfKind(const std::string& handle, const std::string& kind)
{
    return handle.rfind(kind, 0) == 0;
}

int numberOf(const std::string& handle)
{
    return std::stoi(handle.substr(handle.find_first_of("0123456789")));
}

/** As it stands in the calls of the stand-in. */
std::string serviceOf(const std::string& name, const std::string& type, const std::string& domain)
{
    return '"' + name + "\", \"" + type + "\", \"" + domain + '"';
}

/** Neither null nor a byte that discovery reads in a way of its own. */
bool isPlain(const char* text)
{
    return text && std::all_of(text, text + std::strlen(text), [](char c) { return c > 0; });
}

bool isWeb(const char* type)
{
    return type && (std::strcmp(type, "_http._tcp") == 0 || std::strcmp(type, "_https._tcp") == 0);
}

/** Well-formed ones, whatever else there is. */
bool hasSerialNumber(const Step& step)
{
    static const std::size_t wellFormed = 2;
    const std::vector<std::string>& strings = vocabulary::txtStrings();
    const std::vector<const std::string*> txt = step.txt();
    return std::any_of(txt.begin(), txt.end(), [&](const std::string* string) {
        const std::ptrdiff_t place = string - strings.data();
        return place >= 1 && place <= std::ptrdiff_t(wellFormed);
    });
}

} // namespace

ManagedLibrary::ManagedLibrary(const Surroundings& surroundings, bool reusesAddresses)
    : LibraryOf([limit = surroundings.objectLimit] { return makeManaged(limit); }, reusesAddresses),
      m_limit(surroundings.objectLimit)
{
    if (surroundings.hasBus)
        m_bus.emplace();
}

void ManagedLibrary::passTimeAfter(const Step& step)
{
    if (step.kind == Step::Tick)
        return passTime(TICK_MS);
    // From nothing at all to more than news are waited for.
    static const int pauses[] = {0, 5, 20, 150};
    passTime(pauses[(step[Step::Target] + step[Step::Name] + step[Step::Interface]) % std::size(pauses)]);
}

void ManagedLibrary::passTime(int milliseconds)
{
    int left = milliseconds;
    do {
        const int slice = std::min(left, SLICE_MS);
        VirtualClock::advance(slice);
        left -= slice;
        QCoreApplication::processEvents();
        if (m_bus && !m_bus->takeQuestions().empty() && m_bus->openConnections() > 0) {
            m_bus->answer();
            QCoreApplication::processEvents();
        }
    } while (left > 0);
}

void ManagedLibrary::endLooks()
{
    for (const std::string& browser : live("recordBrowser")) {
        if (m_ended.insert(browser).second)
            avahi().fireRecord(avahi().recordBrowser(numberOf(browser)), AVAHI_BROWSER_ALL_FOR_NOW, "cam.local",
                               nullptr, 0);
    }
    for (const std::string& resolver : live("resolver")) {
        if (!m_ended.insert(resolver).second)
            continue;
        avahi().setError(AVAHI_ERR_TIMEOUT);
        avahi().fireResolve(avahi().resolver(numberOf(resolver)), AVAHI_RESOLVER_FAILURE, 2, AVAHI_PROTO_INET, "Cam",
                            PROBE_TYPE, "local", nullptr, nullptr, 0, nullptr);
    }
}

std::vector<std::string> ManagedLibrary::live(const std::string& kind) const
{
    std::vector<std::string> handles = liveHandles();
    handles.erase(std::remove_if(handles.begin(), handles.end(),
                                 [&](const std::string& handle) { return !isOfKind(handle, kind); }),
                  handles.end());
    return handles;
}

// 0 is the newest, so that the plainest choice is the object that the steps before have made.
std::string ManagedLibrary::handleOf(const Step& step) const
{
    const std::vector<std::string> handles = live(handleKind(step.kind));
    return handles.empty() ? std::string() : handles[handles.size() - 1 - step[Step::Target] % handles.size()];
}

int ManagedLibrary::targetOf(const Step& step)
{
    const std::string target = handleOf(step);
    if (target.empty())
        return 0;
    if (step.kind == Step::BrowseEvent)
        noteSighting(target, step);
    else if (step.kind == Step::ResolveEvent)
        noteAnswer(target, step);
    return numberOf(target);
}

void ManagedLibrary::runEvent(const Step& step)
{
    if (step.kind != Step::BrowseEvent || step.event() != AVAHI_BROWSER_REMOVE || !disappears(step))
        LibraryOf::runEvent(step);
}

/** Hardly any step would by chance be of something that is seen. */
bool ManagedLibrary::disappears(const Step& step)
{
    const std::string browser = handleOf(step);
    std::set<Sighting>& seenBy = m_sightings[browser];
    if (seenBy.empty() || !step.inHandler.empty())
        return false;
    const Sighting gone = *std::next(seenBy.begin(), std::ptrdiff_t(step[Step::Name] % seenBy.size()));
    seenBy.erase(gone);
    avahi().fireBrowse(avahi().browser(numberOf(browser)), AVAHI_BROWSER_REMOVE, gone.interface, gone.protocol,
                       gone.name.c_str(), gone.type.c_str(), gone.domain.c_str());
    return true;
}

void ManagedLibrary::noteSighting(const std::string& browser, const Step& step)
{
    if (!isWeb(step.type()))
        return;
    // What overrides do first may be the end of it.
    if (!isPlain(step.name()) || !isPlain(step.domain()) || !step.inHandler.empty()) {
        m_unclear.insert(QString::fromUtf8(step.name()));
        return;
    }
    const Sighting sighting = {step.name(), step.type(), step.domain(), step.interface(), step.protocol()};
    if (step.event() == AVAHI_BROWSER_NEW)
        m_sightings[browser].insert(sighting);
    else if (step.event() == AVAHI_BROWSER_REMOVE)
        m_sightings[browser].erase(sighting);
}

void ManagedLibrary::noteAnswer(const std::string& resolver, const Step& step)
{
    noteCalls();
    const std::string service = m_services[resolver];
    // A daemon does not answer so, and what becomes of it is not to be told from here.
    if (!isWeb(step.type()) || !step.inHandler.empty())
        m_unclear.insert(QString::fromStdString(service.substr(1, service.find("\", ") - 1)));
    if (step.event() == AVAHI_RESOLVER_FOUND && step.address() && (step.host() || step[Step::HostIsName])
        && hasSerialNumber(step))
        m_devices.insert(service);
}

bool operator<(const ManagedLibrary::Sighting& a, const ManagedLibrary::Sighting& b)
{
    return std::tie(a.name, a.type, a.domain, a.interface, a.protocol)
           < std::tie(b.name, b.type, b.domain, b.interface, b.protocol);
}

/** On a browser that lives; as a device it was answered with a vendor's key. */
bool ManagedLibrary::isSeen(const QString& name, bool asDevice) const
{
    for (const std::string& browser : live("browser")) {
        const auto seenBy = m_sightings.find(browser);
        if (seenBy == m_sightings.end())
            continue;
        for (const Sighting& sighting : seenBy->second) {
            const bool isDevice = m_devices.count(serviceOf(sighting.name, sighting.type, sighting.domain)) > 0;
            if (sighting.name == name.toStdString() && (isDevice || !asDevice))
                return true;
        }
    }
    return false;
}

void ManagedLibrary::note(const std::string& flaw)
{
    if (m_flaw.empty())
        m_flaw = flaw;
}

void ManagedLibrary::noteSignal(const char* kind, const vd::SServiceInfo& info)
{
    const std::string what = kind;
    ++signalled[what];
    const auto shown = m_shown.find(info.serviceName);
    if (what == "lost by name")
        note("the signal of the other interface was sent");
    if ((what == "found") != (shown == m_shown.end()))
        note("\"" + what + "\" was signalled of a device that was shown " + (what == "found" ? "already" : "no more"));
    if (what == "lost" && !m_unclear.count(info.serviceName) && isSeen(info.serviceName, true))
        note(info.serviceName.toStdString() + " was lost and is still seen");
    if (what == "lost")
        m_shown.erase(info.serviceName);
    else if (what != "address" || !info.addressRemoved)
        m_shown[info.serviceName] = info.addresses;
    else if (info.addresses.size() != 1 || !m_shown[info.serviceName].removeOne(info.addresses.value(0)))
        note("an address was removed that was not shown");
    LibraryOf::noteSignal(kind, info);
}

// Browsing ends without signals.
void ManagedLibrary::noteEnd()
{
    m_isBrowsing = false;
    m_shown.clear();
    m_devices.clear();
    m_unclear.clear();
    if (isDestroyed())
        return;
    if (!discovery().services.isEmpty() || !discovery().recordQueue.isEmpty())
        note("the table or the queue is not empty at the end of browsing");
}

void ManagedLibrary::runOperation(const Step& step)
{
    switch (step.kind) {
    case Step::Tick:
        return;
    case Step::Cleanup:
    case Step::Terminate:
        discovery().TerminateBrowsing();
        return noteEnd();
    case Step::Destroy:
        destroy();
        return noteEnd();
    case Step::Resolve:
    case Step::StartQuery:
        // What a host asks for may be known without being seen.
        m_unclear.insert(QString::fromUtf8(step.name()));
        return LibraryOf::runOperation(step);
    default:
        LibraryOf::runOperation(step);
        if (step.kind == Step::Browse && seen.results.back())
            m_isBrowsing = true;
    }
}

void ManagedLibrary::checkHandles()
{
    const int open = static_cast<int>(liveHandles().size() - live("client").size());
    // Not in the middle of a step, as Avahi may be at work on them there.
    if (!m_isBrowsing && !liveHandles().empty())
        note(liveHandles().front() + " is left over at the end of browsing");
    if (discovery().openObjects() != open) {
        note("openObjects() tells " + std::to_string(discovery().openObjects()) + " of "
             + std::to_string(open) + " objects");
    }
    // A type or a published service may have come when all the room was taken.
    if (open > m_limit + static_cast<int>(live("browser").size() + live("group").size()))
        note(std::to_string(open) + " objects are open, of at most " + std::to_string(m_limit));
}

void ManagedLibrary::checkTable()
{
    const Table& table = discovery().services;
    if (static_cast<std::size_t>(table.size()) != m_shown.size())
        note(std::to_string(table.size()) + " devices are known, " + std::to_string(m_shown.size()) + " are shown");
    for (const auto& [name, addresses] : m_shown) {
        if (!table.contains(name))
            note(name.toStdString() + " is shown and not known");
        else if (table[name].addresses != addresses)
            note(name.toStdString() + " is shown with other addresses than it has");
    }
}

void ManagedLibrary::checkQueue()
{
    const Queue& queue = discovery().recordQueue;
    for (int i = 0; i < queue.size(); ++i) {
        if (queue.indexOf(queue.at(i)) != i)
            note(queue.at(i).first.toStdString() + " is queued twice");
        if (!discovery().services.contains(queue.at(i).first))
            note(queue.at(i).first.toStdString() + " is queued and not known");
    }
}

void ManagedLibrary::noteCalls()
{
    collect();
    for (const std::string& call : seen.calls) {
        if (!isOfKind(call, "service_resolver_new"))
            continue;
        const std::size_t begin = call.find('"');
        m_services[call.substr(call.rfind(' ') + 1)] = call.substr(begin, call.rfind('"') + 1 - begin);
    }
    seen.calls.clear();
}

void ManagedLibrary::checkResolvers()
{
    std::set<std::string> asked;
    for (const std::string& resolver : live("resolver")) {
        if (!asked.insert(m_services[resolver]).second)
            note(m_services[resolver] + " is resolved twice at a time");
    }
}

void ManagedLibrary::checkSightings()
{
    for (const auto& shown : m_shown) {
        if (!m_unclear.count(shown.first) && !isSeen(shown.first, false))
            note(shown.first.toStdString() + " is known and not seen any more");
    }
}

std::string ManagedLibrary::flaw()
{
    if (isDestroyed())
        startAnew();
    noteCalls();
    checkHandles();
    checkTable();
    checkQueue();
    if (discovery().IsBrowsing() != m_isBrowsing)
        note("IsBrowsing() is wrong");
    seen.clear();
    return m_flaw;
}

std::string ManagedLibrary::flawAtRest()
{
    flaw();
    checkResolvers();
    checkSightings();
    return m_flaw;
}

std::string ManagedLibrary::resolverOf(const std::string& service)
{
    noteCalls();
    for (const std::string& resolver : live("resolver")) {
        if (m_services[resolver] == service)
            return resolver;
    }
    return std::string();
}

bool ManagedLibrary::isProbeFound(const std::string& browser)
{
    avahi().fireBrowse(avahi().browser(numberOf(browser)), AVAHI_BROWSER_NEW, 2, AVAHI_PROTO_INET, PROBE, PROBE_TYPE,
                       "local");
    std::string resolver;
    for (int waited = 0; waited < PROBE_TURN_MS && resolver.empty(); waited += PROBE_STEP_MS) {
        endLooks();
        passTime(PROBE_STEP_MS);
        resolver = resolverOf(serviceOf(PROBE, PROBE_TYPE, "local"));
    }
    if (resolver.empty())
        return false;
    const Txt txt = {vocabulary::txtStrings()[1]};
    AvahiAddress address = AvahiAddress();
    address.proto = AVAHI_PROTO_INET;
    address.data.ipv4.address = 0x0909000a;
    avahi().fireResolve(avahi().resolver(numberOf(resolver)), AVAHI_RESOLVER_FOUND, 2, AVAHI_PROTO_INET, PROBE,
                        PROBE_TYPE, "local", "probe.local", &address, 80, txt);
    return m_shown.count(PROBE) > 0;
}

bool ManagedLibrary::isProbeLost(const std::string& browser)
{
    avahi().fireBrowse(avahi().browser(numberOf(browser)), AVAHI_BROWSER_REMOVE, 2, AVAHI_PROTO_INET, PROBE,
                       PROBE_TYPE, "local");
    return m_shown.count(PROBE) == 0;
}

// A call that is to fail may still be ahead, and with it another connection.
std::string ManagedLibrary::flawInLife()
{
    for (int trial = 0; trial < PROBE_TRIALS; ++trial) {
        m_isBrowsing = discovery().BrowseServices(PROBE_TYPE);
        passTime(PROBE_STEP_MS);
        const std::vector<std::string> browsers = live("browser");
        if (!browsers.empty() && isProbeFound(browsers.back()) && isProbeLost(browsers.back()))
            return flaw();
    }
    note("a device that appears is not found, or not lost when it disappears");
    return m_flaw;
}

std::string ManagedLibrary::flawAtEnd()
{
    destroy();
    if (!liveHandles().empty())
        note(liveHandles().front() + " outlived the object");
    return m_flaw;
}
