// SPDX-License-Identifier: MIT
#include "model/ManagedLibrary.h"

#include "model/ManagedProbe.h"
#include "model/VirtualClock.h"
#include "support/CallThreads.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <iterator>
#include <memory>

namespace {

// What is due is done in the order of time, as long as no more passes at once than this.
const int SLICE_MS = 50;
const int TICK_MS = 4000;
// Longer than the grace period, and than what follows a lost connection. Looks end at its begin and half way.
const int REST_MS = 40000;
// Longer than attempts to connect and to publish are apart.
const int READY_MS = 20000;

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

/** The handle that a call gave; empty when it failed or gives none. */
std::string givenBy(const std::string& call)
{
    const std::size_t place = call.rfind(") = ");
    const std::string given = place == std::string::npos ? std::string() : call.substr(place + 4);
    return given == "null" ? std::string() : given;
}

/** What stands in quotes in a call: a name, a type and a domain. */
Service serviceIn(const std::string& call)
{
    const std::string between = "\", \"";
    const std::size_t name = call.find('"') + 1;
    const std::size_t type = call.find(between, name) + between.size();
    const std::size_t domain = call.find(between, type) + between.size();
    return {call.substr(name, type - between.size() - name), call.substr(type, domain - between.size() - type),
            call.substr(domain, call.rfind('"') - domain)};
}

/** A real daemon always does. */
bool answersWhatWasAsked(const Step& step)
{
    return step[Step::Target] < 240;
}

} // namespace

ManagedLibrary::ManagedLibrary(const Surroundings& surroundings, bool reusesAddresses)
    : LibraryOf([limit = surroundings.objectLimit] { return makeManaged(limit); }, reusesAddresses)
    , m_account(avahi())
    , m_limit(surroundings.objectLimit)
{
    if (surroundings.hasBus)
        m_bus.emplace();
    if (surroundings.hasThread)
        avahi().useEventLoop();
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
        processEvents();
        if (m_bus && !m_bus->takeQuestions().empty() && m_bus->openConnections() > 0) {
            m_bus->answer();
            processEvents();
        }
    } while (left > 0);
    noteCalls();
}

/** Until no calls are on their way any more, as nothing is told meanwhile. */
void ManagedLibrary::processEvents()
{
    do {
        QCoreApplication::processEvents();
    } while (!isDestroyed() && areCallsMadeFor(discovery()));
}

/** Every object that Avahi owes the end of its first look is told of it, as real ones are. */
void ManagedLibrary::endLooks()
{
    noteCalls();
    for (const std::string& browser : live("recordBrowser")) {
        if (m_ended.insert(browser).second)
            avahi().fireRecord(avahi().recordBrowser(numberOf(browser)), AVAHI_BROWSER_ALL_FOR_NOW, "cam.local",
                               nullptr, 0);
    }
    for (const std::string& resolver : live("resolver")) {
        if (!m_ended.insert(resolver).second)
            continue;
        const Service& service = m_account.serviceOf(resolver);
        m_account.resolverTimesOut(resolver);
        avahi().setError(AVAHI_ERR_TIMEOUT);
        avahi().fireResolve(avahi().resolver(numberOf(resolver)), AVAHI_RESOLVER_FAILURE, 2, AVAHI_PROTO_INET,
                            service.name.c_str(), service.type.c_str(), service.domain.c_str(), nullptr, nullptr,
                            0, nullptr);
    }
}

// 0 is the newest, so that the plainest choice is the object that the steps before have made.
std::string ManagedLibrary::handleOf(const Step& step)
{
    const std::vector<std::string> handles = liveOf(avahi(), handleKind(step.kind));
    return handles.empty() ? std::string() : handles[handles.size() - 1 - step[Step::Target] % handles.size()];
}

int ManagedLibrary::targetOf(const Step& step)
{
    noteCalls();
    const std::string target = handleOf(step);
    if (target.empty())
        return 0;
    const int number = numberOf(target);
    if (step.kind == Step::BrowseEvent) {
        m_account.browserTells(target, step);
    } else if (step.kind == Step::ResolveEvent) {
        const ServiceTexts texts = answered(number, step);
        const bool hasHost = step[Step::HostIsName] ? texts.name != nullptr : step.host() != nullptr;
        m_account.resolverTells(target, texts.type, hasHost, step);
    }
    return number;
}

ManagedLibrary::ServiceTexts ManagedLibrary::answered(int resolver, const Step& step)
{
    if (!answersWhatWasAsked(step))
        return LibraryOf::answered(resolver, step);
    const Service& service = m_account.serviceOf("resolver" + std::to_string(resolver));
    return {service.name.c_str(), service.type.c_str(), service.domain.c_str()};
}

void ManagedLibrary::runEvent(const Step& step)
{
    noteCalls();
    if (step.kind == Step::ClientState)
        m_isDaemonThere = step.event() == AVAHI_CLIENT_S_RUNNING;
    if (step.kind != Step::BrowseEvent || step.event() != AVAHI_BROWSER_REMOVE || !disappears(step))
        LibraryOf::runEvent(step);
}

/** Hardly any step would by chance be of something that is seen. */
bool ManagedLibrary::disappears(const Step& step)
{
    const std::string browser = handleOf(step);
    const std::optional<Sighting> gone = m_account.sightingOn(browser, step[Step::Name]);
    if (!gone || !step.inHandler.empty())
        return false;
    const Service& service = gone->service;
    m_account.removed(browser, *gone);
    avahi().fireBrowse(avahi().browser(numberOf(browser)), AVAHI_BROWSER_REMOVE, gone->interface, gone->protocol,
                       service.name.c_str(), service.type.c_str(), service.domain.c_str());
    return true;
}

void ManagedLibrary::noteSignal(const char* kind, const vd::SServiceInfo& info)
{
    ++signalled[kind];
    m_account.signalled(kind, info);
    LibraryOf::noteSignal(kind, info);
}

void ManagedLibrary::browsingHasEnded()
{
    m_isBrowsing = false;
    m_isRegistered = false;
    m_account.browsingEnds();
    if (!isDestroyed() && !(discovery().services.isEmpty() && discovery().recordQueue.isEmpty()))
        m_account.note("the table or the queue is not empty at the end of browsing");
}

void ManagedLibrary::runOperation(const Step& step)
{
    switch (step.kind) {
    case Step::Tick:
        return;
    case Step::Cleanup:
        // It is how managed discovery itself leaves a client. Called by others it would free what discovery still
        // has on its lists, so a host that wants to end all has TerminateBrowsing().
    case Step::Terminate:
        discovery().TerminateBrowsing();
        return browsingHasEnded();
    case Step::Destroy:
        destroy();
        return browsingHasEnded();
    case Step::Resolve:
    case Step::StartQuery:
        m_account.hostAsksFor(step);
        return LibraryOf::runOperation(step);
    default:
        LibraryOf::runOperation(step);
        noteResult(step.kind);
    }
}

void ManagedLibrary::noteResult(Step::Kind kind)
{
    const bool isDone = !seen.results.empty() && seen.results.back();
    if (kind == Step::Browse && isDone)
        m_isBrowsing = true;
    else if (kind == Step::Register && isDone)
        m_isRegistered = true;
    else if (kind == Step::TerminateRegistration)
        // One that fails has gone part of the way.
        m_isRegistered = false;
}

void ManagedLibrary::checkHandles()
{
    const int open = static_cast<int>(liveHandles().size() - live("client").size());
    // Not in the middle of a step, as Avahi may be at work on them there.
    if (!m_isBrowsing && !liveHandles().empty())
        m_account.note(liveHandles().front() + " is left over at the end of browsing");
    if (discovery().openObjects() != open) {
        m_account.note("openObjects() tells " + std::to_string(discovery().openObjects()) + " of "
                       + std::to_string(open) + " objects");
    }
    const int most = m_limit + m_privileged;
    if (open > most)
        m_account.note(std::to_string(open) + " objects are open, of at most " + std::to_string(most));
    // Each resolver may be in for an address browser.
    if (open + static_cast<int>(live("resolver").size()) <= m_limit)
        m_privileged = 0;
}

void ManagedLibrary::noteCalls()
{
    collect();
    for (const std::string& call : seen.calls) {
        const std::string given = givenBy(call);
        if (isOfKind(given, "resolver"))
            m_account.resolverMade(given, serviceIn(call));
        m_isDaemonThere = m_isDaemonThere || isOfKind(given, "client");
        m_privileged += isOfKind(given, "browser") || isOfKind(given, "group") ? 1 : 0;
    }
    seen.calls.clear();
}

void ManagedLibrary::checkStep()
{
    if (isDestroyed())
        startAnew();
    noteCalls();
    checkHandles();
    m_account.checkTable(discovery().services);
    m_account.checkQueue(discovery().recordQueue, discovery().services);
    if (discovery().IsBrowsing() != m_isBrowsing)
        m_account.note("IsBrowsing() is wrong");
    seen.clear();
}

std::string ManagedLibrary::flawOf(const Step& step)
{
    performWith(step, [this, &step] {
        checkStep();
        passTimeAfter(step);
    });
    checkStep();
    return m_account.flaw();
}

std::string ManagedLibrary::flawAtRest()
{
    // What follows from the first answers looks again.
    for (int half = 0; half < 2; ++half) {
        endLooks();
        passTime(REST_MS / 2);
    }
    checkStep();
    m_account.checkResolversAtRest();
    m_account.checkSightingsAtRest();
    m_account.checkQueueAtRest(discovery().recordQueue);
    return m_account.flaw();
}

/** Nothing fails any more, and the daemon is there. */
void ManagedLibrary::becomeReady()
{
    forgetWhatIsToCome();
    for (const std::string& client : live("client")) {
        // To one that knows it this would be a reason to try again.
        if (!m_isDaemonThere)
            avahi().fireClientState(AVAHI_CLIENT_S_RUNNING, numberOf(client));
    }
    passTime(READY_MS);
}

void ManagedLibrary::checkRunning()
{
    if (m_isBrowsing && discovery().state() != vd::ManagedServiceDiscovery::Running)
        m_account.note("the daemon is there, and not every type is browsed");
    if (m_isRegistered && live("group").empty())
        m_account.note("the daemon is there, and the service is not published");
}

std::string ManagedLibrary::flawInLife()
{
    becomeReady();
    checkRunning();
    m_isBrowsing = discovery().BrowseServices(ManagedProbe::TYPE);
    passTime(READY_MS);
    checkRunning();
    const std::vector<std::string> browsers = live("browser");
    if (browsers.empty())
        m_account.note("nothing is browsed");
    ManagedProbe probe(avahi(), m_account, [this](int milliseconds) {
        endLooks();
        passTime(milliseconds);
    });
    if (m_account.flaw().empty())
        m_account.note(probe.flawOn(browsers.back()));
    checkStep();
    return m_account.flaw();
}

std::string ManagedLibrary::flawAtEnd()
{
    destroy();
    if (!liveHandles().empty())
        m_account.note(liveHandles().front() + " outlived the object");
    if (m_bus && m_bus->openConnections() > 0)
        m_account.note("a connection to the bus outlived the object");
    return m_account.flaw();
}
