// SPDX-License-Identifier: MIT

// The comparison itself: a library that differs is found out, and shown in few steps.

#include "model/Runner.h"
#include "model/Shrinker.h"

#include <vd/LogQt.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

Step stepOf(Step::Kind kind)
{
    Step step;
    step.kind = kind;
    return step;
}

/** A browser, and a service that appears. */
Sequence appearance()
{
    Sequence sequence;
    sequence.steps = {stepOf(Step::Browse), stepOf(Step::BrowseEvent)};
    return sequence;
}

/** A library that does one thing more for every service that appears or disappears. */
class FaultyDiscovery : public OpenDiscovery
{
public:
    typedef std::function<void(FaultyDiscovery&)> Fault;

    explicit FaultyDiscovery(const Fault& fault) : m_fault(fault) {}

    void ServiceBrowse(AvahiServiceBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                       const char* name, const char* type, const char* domain, AvahiLookupResultFlags flags,
                       void* userdata) override
    {
        OpenDiscovery::ServiceBrowse(browser, interface, protocol, event, name, type, domain, flags, userdata);
        m_fault(*this);
    }

private:
    Fault m_fault;
};

struct NamedFault
{
    const char* name;
    FaultyDiscovery::Fault fault;
    /** How the difference begins. */
    const char* difference;
};

std::vector<NamedFault> faults()
{
    typedef FaultyDiscovery Faulty;
    return {
        {"Table", [](Faulty& d) { d.services[QStringLiteral("x")]; }, "table, line 2"},
        {"Record", [](Faulty& d) { ++d.services[QStringLiteral("Cam")].port; }, "table, line 1"},
        {"Queue", [](Faulty& d) { d.recordQueue.append(qMakePair(QString(), QString())); }, "queue, line 1"},
        {"Signal", [](Faulty& d) { Q_EMIT d.serviceLost(vd::SServiceInfo()); }, "signals, line 1"},
        {"SignalByName", [](Faulty& d) { Q_EMIT d.serviceLost(QString()); }, "signals, line 1"},
        {"Log", [](Faulty&) { *vd::LogQt::getStream(4) << "time [4] more\n"; }, "log, line 3"},
        {"UnendedLog", [](Faulty&) { *vd::LogQt::getStream(4) << "more"; }, "log, line 3"},
        {"Call", [](Faulty& d) { avahi_client_errno(d.client); }, "calls of Avahi, line 2"},
        {"DeadHandle", [](Faulty& d) { avahi_service_resolver_free(d.longLiveResolver); },
         "Failed\nservice_resolver_free was called with a null handle"},
        {"Browsing", [](Faulty& d) { d.serviceBrowsers.append(nullptr); }, "number of browsers"},
        {"Timer", [](Faulty& d) { d.queryTimer.start(15000); }, "timer running"},
        {"Interval", [](Faulty& d) { d.queryTimer.setInterval(200); }, "timer interval"},
        {"Registration", [](Faulty& d) { d.registeredName = "x"; }, "registered name"},
        {"RegisteredType", [](Faulty& d) { d.registeredType = "x"; }, "registered type"},
        {"Client", [](Faulty& d) { d.client = nullptr; }, "presence of a client"},
        // Whatever is held, only whether there is something.
        {"HeldResolver", [](Faulty& d) { d.longLiveResolver = reinterpret_cast<AvahiServiceResolver*>(d.client); },
         "long-lived resolver held"},
        {"HeldRecordBrowser",
         [](Faulty& d) { d.longLiveRecordBrowser = reinterpret_cast<AvahiRecordBrowser*>(d.client); },
         "long-lived record browser held"},
        {"Group", [](Faulty& d) { d.entryGroup = reinterpret_cast<AvahiEntryGroup*>(d.client); },
         "IsRegistered()"},
        {"StoredTxtRecord", [](Faulty& d) { d.txtRecord = avahi_string_list_new("x", nullptr); },
         "stored TXT record, line 1"},
        {"MadeResolver",
         [](Faulty& d) {
             avahi_service_resolver_new(d.client, 0, 0, "", "", "", 0, AvahiLookupFlags(), nullptr, nullptr);
         },
         "calls of Avahi, line 2"},
    };
}

Factory factoryOf(const FaultyDiscovery::Fault& fault)
{
    return [fault] { return std::make_unique<FaultyDiscovery>(fault); };
}

/** A library that ignores addresses that disappear. */
class ForgetfulDiscovery : public OpenDiscovery
{
public:
    void RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                      const char* name, unsigned short clazz, unsigned short type, const void* rdata,
                      unsigned long size, AvahiLookupResultFlags flags, void* userdata) override
    {
        if (event != AVAHI_BROWSER_REMOVE) {
            OpenDiscovery::RecordBrowse(browser, interface, protocol, event, name, clazz, type, rdata, size, flags,
                                        userdata);
        }
    }
};

/** A library that takes no notice of a service without a TXT record. */
class RecordlessDiscovery : public OpenDiscovery
{
public:
    void ServiceResolve(AvahiServiceResolver* resolver, int interface, int protocol, AvahiResolverEvent event,
                        const char* name, const char* type, const char* domain, const char* host,
                        const AvahiAddress* address, unsigned short port, AvahiStringList* txt,
                        AvahiLookupResultFlags flags, void* userdata) override
    {
        if (txt || event != AVAHI_RESOLVER_FOUND) {
            OpenDiscovery::ServiceResolve(resolver, interface, protocol, event, name, type, domain, host, address,
                                          port, txt, flags, userdata);
        }
    }
};

/** One that hands what it is told of other characters than those of ASCII to the log as it came. */
class TrustingDiscovery : public OpenDiscovery
{
public:
    void ServiceBrowse(AvahiServiceBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                       const char* name, const char* type, const char* domain, AvahiLookupResultFlags flags,
                       void* userdata) override
    {
        OpenDiscovery::ServiceBrowse(browser, interface, protocol, event, name, type, domain, flags, userdata);
        QString* const log = vd::LogQt::getStream(4)->string();
        for (const ushort character : m_characters)
            log->replace(QStringLiteral("\\u%1").arg(character, 4, 16, QLatin1Char('0')),
                         QString(QChar(character)));
    }

private:
    const std::vector<ushort> m_characters = {0x2028, 0x202e};
};

bool hasKindsInOrder(const Sequence& sequence, Step::Kind first, Step::Kind second)
{
    const auto is = [](Step::Kind kind) { return [kind](const Step& step) { return step.kind == kind; }; };
    const auto found = std::find_if(sequence.steps.begin(), sequence.steps.end(), is(first));
    return std::any_of(found, sequence.steps.end(), is(second));
}

Sequence randomSequence(std::uint64_t seed)
{
    SeededBytes bytes(seed);
    return sequenceOf(bytes);
}

void forEachStep(const std::vector<Step>& steps, const std::function<void(const Step&)>& action)
{
    for (const Step& step : steps) {
        action(step);
        forEachStep(step.inSlots, action);
        forEachStep(step.inHandler, action);
    }
}

void addKinds(const std::vector<Step>& steps, std::set<int>& kinds)
{
    forEachStep(steps, [&kinds](const Step& step) { kinds.insert(step.kind); });
}

/** With a failure Avahi passes no host, no address, no port and no TXT record. */
bool isEmptyHanded(const Step& step)
{
    return !step[Step::HostIsName] && !step.host() && !step.address() && step.port() == 0 && step.txt().empty();
}

/** Of the resolve events in so many sequences as are tried at least, what share is like this. */
double shareOfResolveEvents(const std::function<bool(const Step&)>& isCounted,
                            const std::function<bool(const Step&)>& isLikeThis)
{
    int all = 0;
    int some = 0;
    for (std::uint64_t seed = 0; seed < 1000; ++seed) {
        forEachStep(randomSequence(seed).steps, [&](const Step& step) {
            const bool isOne = step.kind == Step::ResolveEvent && isCounted(step);
            all += isOne ? 1 : 0;
            some += isOne && isLikeThis(step) ? 1 : 0;
        });
    }
    return double(some) / all;
}

bool isAnswer(const Step& step)
{
    return step.event() == AVAHI_RESOLVER_FOUND;
}

bool isFailure(const Step& step)
{
    return step.event() == AVAHI_RESOLVER_FAILURE;
}

/** Whether one of the first sequences tells the faulty library from the model. */
bool isFoundOut(const Factory& factory, std::uint64_t sequences)
{
    for (std::uint64_t seed = 0; seed < sequences; ++seed) {
        if (compare(randomSequence(seed), factory))
            return true;
    }
    return false;
}

} // namespace

TEST(RunnerTest, LibraryWithoutAFaultAgrees)
{
    EXPECT_FALSE(compare(appearance()).has_value());
}

class FaultsTest : public testing::TestWithParam<NamedFault>
{};

INSTANTIATE_TEST_SUITE_P(EveryFault, FaultsTest, testing::ValuesIn(faults()),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(FaultsTest, IsNoticedInItsStep)
{
    const std::optional<Mismatch> mismatch = compare(appearance(), factoryOf(GetParam().fault));
    ASSERT_TRUE(mismatch.has_value());
    EXPECT_EQ(mismatch->step, 2u);
    EXPECT_EQ(mismatch->difference.substr(0, std::string(GetParam().difference).size()), GetParam().difference)
        << mismatch->difference;
}

TEST(RunnerTest, FalseResultIsNoticed)
{
    class Doubting : public OpenDiscovery
    {
    public:
        bool TerminateBrowsing() override { return !OpenDiscovery::TerminateBrowsing(); }
    };
    Sequence sequence;
    sequence.steps = {stepOf(Step::Terminate)};
    const auto mismatch = compare(sequence, [] { return std::make_unique<Doubting>(); });
    ASSERT_TRUE(mismatch.has_value());
    EXPECT_EQ(mismatch->difference, "results, line 1\n  expected: true\n  seen:     false");
}

TEST(RunnerTest, AvahiObjectThatOutlivesTheDiscoveryIsNoticed)
{
    class Hoarding : public OpenDiscovery
    {
    public:
        ~Hoarding() override { client = nullptr; }
    };
    Sequence sequence;
    sequence.steps = {stepOf(Step::Browse)};
    const auto mismatch = compare(sequence, [] { return std::make_unique<Hoarding>(); });
    ASSERT_TRUE(mismatch.has_value());
    EXPECT_EQ(mismatch->step, 2u);
}

TEST(RunnerTest, FaultIsShownInItsShortestForm)
{
    const Factory factory = [] { return std::make_unique<ForgetfulDiscovery>(); };
    Sequence sequence;
    for (const Step::Kind kind :
         {Step::StartAll, Step::Browse, Step::BrowseEvent, Step::LogLevel, Step::ResolveEvent, Step::StopAll,
          Step::Register, Step::RecordEvent, Step::Tick, Step::Terminate})
        sequence.steps.push_back(stepOf(kind));
    Step& resolved = sequence.steps[4];
    resolved[Step::Port] = 2;
    resolved[Step::Txt2] = 1;
    resolved.inSlots = {stepOf(Step::Tick)};
    sequence.steps[7][Step::Event] = AVAHI_BROWSER_REMOVE;
    EXPECT_EQ(
        report(sequence, "here", factory),
        "here: library and model part at step 4 of\n"
        "1. BrowseServices: type \"_http._tcp\"\n"
        "2. browse event: target 0, event 0, interface 2, protocol 0, name \"Cam\", type \"_http._tcp\", domain "
        "\"local\"\n"
        "3. resolve event: target 0, event 0, interface 2, protocol 0, name \"Cam\", type \"_http._tcp\", domain "
        "\"local\", host \"cam.local\", address protocol 0 10.0.0.1, port 80, txt \"ser_no." VD_VENDOR_TXT_DOMAIN
        "=\\x01\\x02\\x03\"\n"
        "4. record event: target 0, event 1, host \"cam.local\", data 10.0.0.1 of size 4, interface 2\n"
        "signals, line 1\n"
        "  expected: address serviceType='_http._tcp' interfaceIndex=2 addressRemoved=true deviceKind=1 "
        "serviceName='Cam' hostName='cam.local' recordHostName='cam.local' addresses=[10.0.0.1] "
        "serialNumber=66051 txtChecksum=4010\n"
        "  seen:     nothing more\n");
}

TEST(ShrinkerTest, LeavesOutWhatDoesNotMatter)
{
    const auto fails = [](const Sequence& tried) { return hasKindsInOrder(tried, Step::Register, Step::Tick); };
    std::uint64_t seed = 0;
    while (!fails(randomSequence(seed)) || randomSequence(seed).steps.size() < 100)
        ++seed;
    EXPECT_EQ(describe(shrunk(randomSequence(seed), fails)),
              "1. RegisterService: name \"Cam\", type \"_http._tcp\", record 0\n2. queryNextRecord\n");
}

namespace {

/** A signal in whose slot, the second one at that, discovery ends; and an override that does something, too. */
Sequence endInASlot()
{
    Sequence sequence = appearance();
    Step outer = stepOf(Step::ResolveEvent);
    outer[Step::Name] = 5;
    outer.inSlots = {stepOf(Step::Tick), stepOf(Step::Terminate)};
    outer.inHandler = {stepOf(Step::StopAll)};
    sequence.steps.push_back(outer);
    return sequence;
}

} // namespace

TEST(ShrinkerTest, KeepsTheInnerStepThatMatters)
{
    const auto fails = [](const Sequence& tried) {
        return std::any_of(tried.steps.begin(), tried.steps.end(), [](const Step& step) {
            return !step.inSlots.empty() && step.inSlots.back().kind == Step::Terminate;
        });
    };
    const Sequence shortest = shrunk(endInASlot(), fails);
    ASSERT_EQ(shortest.steps.size(), 1u);
    EXPECT_TRUE(shortest.steps[0].inHandler.empty());
    EXPECT_EQ(shortest.steps[0].inSlots.size(), 1u);
    EXPECT_EQ(shortest.steps[0][Step::Name], 0);
}

TEST(ShrinkerTest, MovesOutTheInnerStepThatNeedNotBeInside)
{
    const auto fails = [](const Sequence& tried) {
        std::set<int> kinds;
        addKinds(tried.steps, kinds);
        return kinds.count(Step::Terminate) > 0;
    };
    EXPECT_EQ(describe(shrunk(endInASlot(), fails)), "1. TerminateBrowsing\n");
}

TEST(SequenceTest, DependsOnNothingButItsSeed)
{
    EXPECT_EQ(describe(randomSequence(5)), describe(randomSequence(5)));
    EXPECT_NE(describe(randomSequence(5)), describe(randomSequence(6)));
}

TEST(SequenceTest, HasUpTo200StepsOfEveryKind)
{
    std::set<int> kinds;
    std::size_t longest = 0;
    for (std::uint64_t seed = 0; seed < 2000; ++seed) {
        const Sequence sequence = randomSequence(seed);
        longest = std::max(longest, sequence.steps.size());
        addKinds(sequence.steps, kinds);
    }
    EXPECT_EQ(longest, 200u);
    EXPECT_EQ(kinds.size(), static_cast<std::size_t>(Step::KindCount));
}

TEST(SequenceTest, AnswersComeWithoutATxtRecordAndWithShortOnes)
{
    for (const std::size_t strings : {0U, 1U, 2U, 3U, 4U}) {
        SCOPED_TRACE(std::to_string(strings) + " strings");
        const auto hasThem = [strings](const Step& step) { return step.txt().size() == strings; };
        EXPECT_GT(shareOfResolveEvents(isAnswer, hasThem), 0.05);
    }
}

TEST(SequenceTest, FailuresComeAsAvahiSendsThemAndOtherwise)
{
    const double share = shareOfResolveEvents(isFailure, isEmptyHanded);
    EXPECT_GT(share, 0.5);
    EXPECT_LT(share, 0.9);
}

TEST(SequenceTest, FindsALibraryThatStumblesOverAMissingTxtRecord)
{
    EXPECT_TRUE(isFoundOut([] { return std::make_unique<RecordlessDiscovery>(); }, 100));
}

TEST(SequenceTest, FindsALibraryThatLogsWhatReordersText)
{
    EXPECT_TRUE(isFoundOut([] { return std::make_unique<TrustingDiscovery>(); }, 100));
}

TEST(SequenceTest, EndsWithTheBytes)
{
    const std::uint8_t bytes[] = {255, 255};
    GivenBytes given(bytes, sizeof bytes);
    EXPECT_EQ(describe(sequenceOf(given)),
              "Addresses of freed Avahi objects are used again.\n1. BrowseServices: type \"_http._tcp\"\n");
}
