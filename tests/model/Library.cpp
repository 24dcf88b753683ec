// SPDX-License-Identifier: MIT
#include "model/Library.h"

#include <QtCore/QMetaObject>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

/** Bytes of their own, which go with this object: what keeps pointing to them is found out. */
class Passing
{
public:
    explicit Passing(const char* text) : m_text(text ? strdup(text) : nullptr) {}
    ~Passing() { std::free(m_text); }
    Passing(const Passing&) = delete;
    Passing& operator=(const Passing&) = delete;

    operator const char*() const { return m_text; }

private:
    char* m_text;
};

/** No byte more than there is to read. */
std::unique_ptr<std::uint8_t[]> bytesOf(const vocabulary::Payload& payload)
{
    if (!payload.bytes)
        return nullptr;
    std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[payload.size]);
    std::copy_n(payload.bytes->begin(), payload.size, bytes.get());
    return bytes;
}

typedef std::unique_ptr<AvahiStringList, void (*)(AvahiStringList*)> StringList;

StringList listOf(const std::vector<const std::string*>& strings)
{
    AvahiStringList* list = nullptr;
    // They grow at their head.
    for (auto string = strings.rbegin(); string != strings.rend(); ++string) {
        list = avahi_string_list_add_arbitrary(list, reinterpret_cast<const std::uint8_t*>((*string)->data()),
                                               (*string)->size());
    }
    return StringList(list, &avahi_string_list_free);
}

AvahiAddress addressOf(const vocabulary::Address& address)
{
    AvahiAddress made = AvahiAddress();
    made.proto = address.protocol;
    std::memcpy(&made.data, address.bytes.data(), address.bytes.size());
    return made;
}

} // namespace

template <typename Discovery>
LibraryOf<Discovery>::LibraryOf(const Factory& factory, bool reusesAddresses)
    : m_factory(factory), m_logStream(&m_logText)
{
    if (reusesAddresses)
        m_avahi.reuseAddresses();
    vd::LogQt::setStream(&m_logStream);
    vd::LogQt::setLogLevel(1);
    m_avahi.duringClientNew([this](AvahiClient* client) { fireOnNewClient(client); });
    startAnew();
}

template <typename Discovery>
LibraryOf<Discovery>::~LibraryOf()
{
    m_discovery.reset();
    vd::LogQt::setStream(nullptr);
    vd::LogQt::setLogLevel(4);
}

template <typename Discovery>
void LibraryOf<Discovery>::startAnew()
{
    m_discovery = m_factory();
    typedef vd::ServiceDiscovery Source;
    const Discovery* d = m_discovery.get();
    QObject::connect(d, &Source::serviceFound, [this](vd::SServiceInfo info) { noteSignal("found", info); });
    QObject::connect(d, &Source::serviceAddress, [this](vd::SServiceInfo info) { noteSignal("address", info); });
    QObject::connect(d, &Source::serviceText, [this](vd::SServiceInfo info) { noteSignal("text", info); });
    QObject::connect(d, qOverload<vd::SServiceInfo>(&Source::serviceLost),
                     [this](vd::SServiceInfo info) { noteSignal("lost", info); });
    QObject::connect(d, qOverload<QString>(&Source::serviceLost),
                     [this](QString) { noteSignal("lost by name", vd::SServiceInfo()); });
}

template <typename Discovery>
void LibraryOf<Discovery>::noteSignal(const char* kind, const vd::SServiceInfo& info)
{
    collectCalls();
    const std::size_t lines = static_cast<std::size_t>(m_logText.count(QLatin1Char('\n')));
    seen.signalled.push_back(
        {kind, info, m_discovery->services, m_discovery->recordQueue, lines, seen.calls.size()});
    runInSlot();
}

template <typename Discovery>
void LibraryOf<Discovery>::collectCalls()
{
    for (std::string& call : m_avahi.takeCalls())
        seen.calls.push_back(std::move(call));
}

template <typename Discovery>
void LibraryOf<Discovery>::collectLog()
{
    int begin = 0;
    for (int end = 0; (end = int(m_logText.indexOf(QLatin1Char('\n'), begin))) >= 0; begin = end + 1) {
        const int level = int(m_logText.indexOf(QLatin1Char('['), begin));
        seen.log.push_back(m_logText.mid(level, end - level).toStdString());
    }
    if (begin < m_logText.size())
        seen.log.push_back("not ended: " + m_logText.mid(begin).toStdString());
    m_logText.clear();
}

template <typename Discovery>
void LibraryOf<Discovery>::collect()
{
    collectCalls();
    collectLog();
    targets.clear();
    m_target = 0;
}

template <typename Discovery>
State LibraryOf<Discovery>::state() const
{
    State state;
    Discovery& d = *m_discovery;
    state.services = d.services;
    state.recordQueue = d.recordQueue;
    state.isBrowsing = d.IsBrowsing();
    state.isRegistered = d.IsRegistered();
    state.browsers = static_cast<std::size_t>(d.serviceBrowsers.size());
    state.hasClient = d.client != nullptr;
    state.isTicking = d.queryTimer.isActive();
    state.interval = d.queryTimer.interval();
    state.holdsResolver = d.longLiveResolver != nullptr;
    state.holdsRecordBrowser = d.longLiveRecordBrowser != nullptr;
    state.registeredName = d.registeredName;
    state.registeredType = d.registeredType;
    for (AvahiStringList* list = d.txtRecord; list; list = avahi_string_list_get_next(list)) {
        state.txtRecord.emplace_back(reinterpret_cast<const char*>(avahi_string_list_get_text(list)),
                                     avahi_string_list_get_size(list));
    }
    return state;
}

template <typename Discovery>
void LibraryOf<Discovery>::runOperation(const Step& step)
{
    Discovery& d = *m_discovery;
    const auto returns = [this](bool result) { seen.results.push_back(result); };
    const Passing name(step.name());
    const Passing type(step.type());
    switch (step.kind) {
    case Step::Browse:
        return returns(d.BrowseServices(type));
    case Step::Terminate:
        return returns(d.TerminateBrowsing());
    case Step::Cleanup:
        return d.cleanupAvahiMembers();
    case Step::Resolve:
        return returns(
            d.ResolveService(static_cast<unsigned>(step.interface()), name, type, Passing(step.domain())));
    case Step::StartQuery:
        return returns(d.StartQueryRecords(name, type, step[Step::LongLived]));
    case Step::StopQuery:
        return d.StopQueryRecords(name, type);
    case Step::Register:
        return returns(d.RegisterService(name, type, vd::SReconfigInfo(step.reconfiguration())));
    case Step::TerminateRegistration:
        return returns(d.TerminateRegistration());
    case Step::Update:
        return returns(d.UpdateTxtRecord(Passing(vocabulary::updates()[step[Step::Data]])));
    case Step::Add:
        return returns(d.AddTxtRecord(Passing(vocabulary::updates()[step[Step::Data]])));
    case Step::StartAll:
        return d.StartQueryAllRecords();
    case Step::StopAll:
        return d.StopQueryAllRecords();
    case Step::Tick:
        QMetaObject::invokeMethod(&d, "queryNextRecord", Qt::DirectConnection);
        return;
    default:
        m_discovery.reset();
    }
}

template <typename Discovery>
int LibraryOf<Discovery>::targetOf(const Step&)
{
    return m_target < targets.size() ? targets[m_target++] : 0;
}

template <typename Discovery>
void LibraryOf<Discovery>::runEvent(const Step& step)
{
    const int target = targetOf(step);
    if (!target)
        return;
    prepareHandler(step);
    switch (step.kind) {
    case Step::ClientState:
        return m_avahi.fireClientState(static_cast<AvahiClientState>(step.event()), target);
    case Step::GroupState:
        return m_avahi.fireGroupState(static_cast<AvahiEntryGroupState>(step.event()), target);
    case Step::BrowseEvent:
        return m_avahi.fireBrowse(m_avahi.browser(target), static_cast<AvahiBrowserEvent>(step.event()),
                                  step.interface(), step.protocol(), Passing(step.name()), Passing(step.type()),
                                  Passing(step.domain()));
    case Step::ResolveEvent:
        return fireResolve(target, step);
    default:
        return m_avahi.fireRecord(m_avahi.recordBrowser(target), static_cast<AvahiBrowserEvent>(step.event()),
                                  Passing(step.host()), bytesOf(step.data()).get(), step.data().size,
                                  step.interface());
    }
}

template <typename Discovery>
void LibraryOf<Discovery>::fireResolve(int resolver, const Step& step)
{
    const ServiceTexts service = answered(resolver, step);
    const Passing name(service.name);
    const Passing host(step.host());
    AvahiAddress address = AvahiAddress();
    if (step.address())
        address = addressOf(*step.address());
    m_avahi.fireResolve(m_avahi.resolver(resolver), static_cast<AvahiResolverEvent>(step.event()),
                        step.interface(), step.protocol(), name, Passing(service.type), Passing(service.domain),
                        step[Step::HostIsName] ? name : host, step.address() ? &address : nullptr, step.port(),
                        listOf(step.txt()).get());
}

template <typename Discovery>
typename LibraryOf<Discovery>::ServiceTexts LibraryOf<Discovery>::answered(int, const Step& step)
{
    return {step.name(), step.type(), step.domain()};
}

template <typename Discovery>
void LibraryOf<Discovery>::forgetWhatIsToCome()
{
    m_avahi.forgetFailures();
    m_insideClientNew = nullptr;
}

template <typename Discovery>
void LibraryOf<Discovery>::runSetting(const Step& step)
{
    switch (step.kind) {
    case Step::FailNext:
        return m_avahi.failNext(step.function(), step.error());
    case Step::SetError:
        return m_avahi.setError(step.error());
    case Step::LogLevel:
        return vd::LogQt::setLogLevel(step.event());
    default:
        return fireInsideNextCall(step);
    }
}

template <typename Discovery>
void LibraryOf<Discovery>::prepareHandler(const Step& step)
{
    if (step.inHandler.empty())
        return;
    m_discovery->inNextHandler = [this, &step] {
        for (const Step& inner : step.inHandler)
            perform(inner);
    };
}

template <typename Discovery>
void LibraryOf<Discovery>::fireInsideNextCall(const Step& step)
{
    const std::string function = step.function();
    if (function == "client_new")
        m_insideClientNew = &step;
    else if (function == "entry_group_new")
        m_avahi.duringGroupNew([this, &step](AvahiEntryGroup* group) { fireOnGroup(group, step); });
    else if (function.rfind("entry_group", 0) == 0)
        m_avahi.duringCall(function, [this, &step] { fireOnGroup(m_discovery->entryGroup, step); });
}

template <typename Discovery>
void LibraryOf<Discovery>::fireOnGroup(const AvahiEntryGroup* group, const Step& step)
{
    const AvahiStandIn::Handle* const handle = m_avahi.checked(group, AvahiStandIn::Group, "group state inside");
    if (!handle)
        return;
    prepareHandler(step);
    m_avahi.fireGroupState(static_cast<AvahiEntryGroupState>(step.event()), handle->number);
}

template <typename Discovery>
void LibraryOf<Discovery>::fireOnNewClient(const AvahiClient* client)
{
    const AvahiStandIn::Handle* const handle
        = m_avahi.checked(client, AvahiStandIn::Client, "client state inside");
    const Step* const step = m_insideClientNew;
    m_insideClientNew = nullptr;
    if (!handle)
        return;
    if (!step)
        return clientIsMade(handle->number);
    prepareHandler(*step);
    const bool fails = step->event() == AVAHI_ENTRY_GROUP_FAILURE;
    m_avahi.fireClientState(fails ? AVAHI_CLIENT_FAILURE : AVAHI_CLIENT_S_RUNNING, handle->number);
}

template class LibraryOf<OpenDiscovery>;
template class LibraryOf<OpenManagedDiscovery>;
