// SPDX-License-Identifier: MIT

// Memory that the process does not get: each operation, with each of its allocations refused in turn.
//
// An operation, or what is done in the event loop because of it, either does without or lets std::bad_alloc pass. Then
// the object can end, begin anew, find a device, publish a service and free everything. Not so where memory runs out in
// the making of the object, or in what Qt makes when it is used first, as Qt itself crashes then; nor in a handler that
// Avahi calls while it makes the client, which is lost when an exception passes through Avahi.
//
// Each attempt has a process of its own.

#include "support/CountedAvahi.h"
#include "support/TestMain.h"

#include <vd/LogQt.h>
#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTextStream>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <map>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace {

// Which allocation is refused, counted from 1; none when it is 0.
int refused = 0;
int allocations = 0;

bool isRefused()
{
    return refused != 0 && ++allocations == refused;
}

/** What the tests add to the system's clock. */
long addedMs = 0;

/** In the event loop. */
int exceptions = 0;

/** Qt leaves it to the application to catch what passes through an event's handler; its event loops do not. */
class CatchingApplication : public QCoreApplication
{
public:
    using QCoreApplication::QCoreApplication;

    bool notify(QObject* receiver, QEvent* event) override
    {
        try {
            return QCoreApplication::notify(receiver, event);
        } catch (const std::bad_alloc&) {
            ++exceptions;
            return false;
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    // GLib's event loop ends the process when it gets no memory.
    qputenv("QT_NO_GLIB", "1");
    return runTests<CatchingApplication>(argc, argv);
}

/** Found before the C library's, by Qt too, so that the tests need not wait. */
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
    if (result == 0 && clock == CLOCK_MONOTONIC) {
        now->tv_nsec += addedMs % 1000 * 1000000;
        now->tv_sec += addedMs / 1000 + now->tv_nsec / 1000000000;
        now->tv_nsec %= 1000000000;
    }
    return result;
}

// The sanitizers have an allocator of their own, from which only what C++ asks for is taken here.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

const bool REFUSES_ALL_MEMORY = false;

void* operator new(size_t size)
{
    void* const block = isRefused() ? nullptr : std::malloc(size);
    if (!block)
        throw std::bad_alloc();
    return block;
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, size_t) noexcept
{
    std::free(block);
}

#else

const bool REFUSES_ALL_MEMORY = true;

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t number, size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size)
{
    if (!isRefused())
        return __libc_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

void* calloc(size_t number, size_t size)
{
    if (!isRefused())
        return __libc_calloc(number, size);
    errno = ENOMEM;
    return nullptr;
}

void* realloc(void* block, size_t size)
{
    if (!isRefused())
        return __libc_realloc(block, size);
    errno = ENOMEM;
    return nullptr;
}

} // extern "C"

#endif

namespace {

using CountedAvahi::ADDRESS;
using CountedAvahi::CAMERA;
using CountedAvahi::HOST;
using CountedAvahi::HTTP;
using CountedAvahi::SETUP;

const int SIDE_BY_SIDE = 16;

enum Outcome { Done, LetPass, Terminated, Unusable, NeverRefused, OUTCOMES };

AvahiStringList* const cameraText
    = avahi_string_list_new("full_name.vandrel.com=Dome 4", "ser_no.vandrel.com=\x01\x02\x03", nullptr);

void turn()
{
    for (int turns = 0; turns < 20; ++turns) {
        QCoreApplication::processEvents();
        addedMs += 5;
    }
}

/** Opens what is protected. */
struct Protected : vd::AvahiServiceDiscovery
{
    static constexpr auto update = &Protected::UpdateTxtRecord;
};

/** An object, and what is done with it. */
class Subject
{
public:
    explicit Subject(bool isManaged) : m_isManaged(isManaged) {}

    void make()
    {
        m_discovery.reset(m_isManaged ? new vd::ManagedServiceDiscovery : new vd::AvahiServiceDiscovery);
    }
    void destroy() { m_discovery.reset(); }
    void browse() { m_discovery->BrowseServices(HTTP); }
    void appear() { CountedAvahi::browsed(AVAHI_BROWSER_NEW, CAMERA); }
    void disappear() { CountedAvahi::browsed(AVAHI_BROWSER_REMOVE, CAMERA); }
    void resolve() { m_discovery->ResolveService(2, CAMERA, HTTP, "local"); }
    void keep() { m_discovery->StartQueryRecords(CAMERA, HTTP, true); }
    void stopKeeping() { m_discovery->StopQueryRecords(CAMERA, HTTP); }
    void queryOnce() { m_discovery->StartQueryRecords(CAMERA, HTTP, false); }
    void queryAll() { m_discovery->StartQueryAllRecords(); }
    void tick()
    {
        QMetaObject::invokeMethod(m_discovery.get(), m_isManaged ? "queryNextInTurn" : "queryNextRecord");
    }
    void answer() { CountedAvahi::resolved(CAMERA, HOST, ADDRESS, cameraText); }
    void addAddress() { CountedAvahi::recordSeen(AVAHI_BROWSER_NEW, HOST, "10.0.0.2"); }
    void removeAddress() { CountedAvahi::recordSeen(AVAHI_BROWSER_REMOVE, HOST, ADDRESS); }
    void publish() { m_discovery->RegisterService("Setup", SETUP, vd::SReconfigInfo()); }
    void update() { (m_discovery.get()->*Protected::update)("state=busy"); }
    void establish() { CountedAvahi::groupIs(AVAHI_ENTRY_GROUP_ESTABLISHED); }
    void breakGroup() { CountedAvahi::groupIs(AVAHI_ENTRY_GROUP_FAILURE); }
    void withdraw() { m_discovery->TerminateRegistration(); }
    void fail() { CountedAvahi::clientIs(AVAHI_CLIENT_FAILURE); }
    void run() { CountedAvahi::clientIs(AVAHI_CLIENT_S_RUNNING); }
    void refuseFollowing() { CountedAvahi::refuse(CountedAvahi::RecordBrowser); }
    void allowFollowing() { CountedAvahi::refuse(CountedAvahi::KINDS); }
    /** Longer than any timer that these steps start. */
    void passTime() { addedMs += 20000; }
    void wait() { turn(); }
    void end() { m_discovery->TerminateBrowsing(); }

    /** Whether it can end, begin anew, find a device and free everything. */
    bool isUsable()
    {
        if (!m_discovery)
            make();
        QObject::connect(m_discovery.get(), &vd::ServiceDiscovery::serviceFound, [this] { ++m_found; });
        m_discovery->StopQueryAllRecords();
        withdraw();
        end();
        m_found = 0;
        const bool browses = m_discovery->BrowseServices(HTTP);
        turn();
        appear();
        turn();
        if (CountedAvahi::open(CountedAvahi::Resolver) != 1)
            return false;
        answer();
        turn();
        const bool isFound = m_found == 1;
        const bool publishes = m_discovery->RegisterService("Setup", SETUP, vd::SReconfigInfo());
        destroy();
        return browses && isFound && publishes && CountedAvahi::open() == 0;
    }

private:
    const bool m_isManaged;
    std::unique_ptr<vd::AvahiServiceDiscovery> m_discovery;
    int m_found = 0;
};

typedef void (Subject::*Step)();

struct Operation
{
    const char* name;
    std::vector<Step> before;
    Step step;
    /** What of Avahi's is made in the step, if it is one of the event loop. */
    CountedAvahi::Kind made = CountedAvahi::KINDS;
    bool needsMemory = true;
};

// GoogleTest would print its bytes, padding included.
void PrintTo(const Operation& operation, std::ostream* out)
{
    *out << operation.name;
}

std::vector<Step> after(const std::vector<Step>& steps, std::initializer_list<Step> more)
{
    std::vector<Step> all = steps;
    all.insert(all.end(), more);
    return all;
}

const std::vector<Step> begun = {&Subject::make, &Subject::browse};
const std::vector<Step> browsed = after(begun, {&Subject::run, &Subject::wait});
const std::vector<Step> appeared = after(browsed, {&Subject::appear, &Subject::wait});
const std::vector<Step> found = after(appeared, {&Subject::answer, &Subject::wait});
const std::vector<Step> kept = after(found, {&Subject::keep, &Subject::wait});
const std::vector<Step> published = after(browsed, {&Subject::publish});

std::vector<Operation> operations()
{
    return {
        {"Browse", {&Subject::make}, &Subject::browse},
        {"Resolve", browsed, &Subject::resolve},
        {"ServiceAppears", browsed, &Subject::appear},
        {"ServiceIsAnswered", appeared, &Subject::answer},
        {"AddressIsAdded", found, &Subject::addAddress},
        {"AddressIsRemoved", found, &Subject::removeAddress},
        {"ServiceDisappears", found, &Subject::disappear},
        {"Keep", found, &Subject::keep},
        {"StopKeeping", kept, &Subject::stopKeeping},
        {"QueryOnce", found, &Subject::queryOnce},
        {"QueryAll", found, &Subject::queryAll},
        {"Tick", found, &Subject::tick},
        {"Publish", browsed, &Subject::publish},
        {"Update", published, &Subject::update},
        {"ServiceIsEstablished", published, &Subject::establish},
        {"Withdraw", published, &Subject::withdraw},
        {"ClientFails", found, &Subject::fail},
        {"End", found, &Subject::end},
        // Managed discovery makes do without, and with Qt 5 the plain class does.
        {"Destroy", found, &Subject::destroy, CountedAvahi::KINDS, false},
    };
}

/** What the plain class needs no memory for. */
std::vector<Operation> managedOperations()
{
    return {
        {"DaemonRuns", begun, &Subject::run},
        {"ItBegins", after(begun, {&Subject::run}), &Subject::wait},
        {"ItBeginsAnew", after(found, {&Subject::fail, &Subject::wait, &Subject::run}), &Subject::wait},
    };
}

/** What managed discovery leaves to the event loop, each with what it makes there. */
std::vector<Operation> turnsOfTheEventLoop()
{
    const std::vector<Step> unfollowed
        = after(appeared, {&Subject::refuseFollowing, &Subject::answer, &Subject::wait, &Subject::allowFollowing});
    const auto turnAfter = [](const std::vector<Step>& steps, std::initializer_list<Step> last, const char* name,
                              CountedAvahi::Kind made) {
        return Operation{name, after(steps, last), &Subject::wait, made};
    };
    using namespace CountedAvahi;
    typedef Subject S;
    return {
        turnAfter(browsed, {&S::appear}, "ServiceIsResolved", Resolver),
        turnAfter(appeared, {&S::answer}, "AddressesAreFollowed", RecordBrowser),
        turnAfter(unfollowed, {&S::passTime}, "AddressesAreTriedAgain", Resolver),
        turnAfter(found, {&S::keep}, "KeptServiceIsResolved", Resolver),
        turnAfter(found, {&S::queryOnce}, "QueriedServiceIsResolved", Resolver),
        turnAfter(found, {&S::queryAll, &S::passTime}, "QueryTimerTicks", Resolver),
        turnAfter(begun, {&S::publish, &S::run}, "ServiceIsPublished", Group),
        turnAfter(published, {&S::breakGroup, &S::passTime}, "ServiceIsPublishedAgain", Group),
        turnAfter(found, {&S::fail}, "LostConnectionIsMadeAnew", Client),
    };
}

/** In a process of its own: its @p number-th allocation is refused. */
[[noreturn]] void attempt(const Operation& operation, bool isManaged, int number)
{
    Subject subject(isManaged);
    for (const Step step : operation.before)
        (subject.*step)();
    std::set_terminate([] { _exit(Terminated); });
    Outcome outcome = Done;
    allocations = 0;
    refused = number;
    try {
        (subject.*operation.step)();
    } catch (const std::bad_alloc&) {
        outcome = LetPass;
    }
    refused = 0;
    if (allocations < number)
        outcome = NeverRefused;
    else if (exceptions > 0)
        outcome = LetPass;
    _exit(subject.isUsable() ? outcome : Unusable);
}

/** What came of it, or OUTCOMES for a process that crashed. */
Outcome outcomeOf(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) < OUTCOMES ? static_cast<Outcome>(WEXITSTATUS(status))
                                                               : OUTCOMES;
}

/** The outcomes of some attempts side by side, as each waits most of its time; from the @p first allocation on. */
std::vector<Outcome> outcomesOf(const Operation& operation, bool isManaged, int first)
{
    std::vector<pid_t> children;
    for (int number = first; number < first + SIDE_BY_SIDE; ++number) {
        children.push_back(fork());
        if (children.back() == 0)
            attempt(operation, isManaged, number);
    }
    std::vector<Outcome> outcomes;
    for (const pid_t child : children)
        outcomes.push_back(outcomeOf(child));
    return outcomes;
}

typedef std::tuple<bool, Operation> Case;

std::string nameOf(const testing::TestParamInfo<Case>& info)
{
    return std::string(std::get<bool>(info.param) ? "Managed" : "Plain") + std::get<Operation>(info.param).name;
}

class EventLoopTest : public testing::TestWithParam<Case>
{
protected:
    void SetUp() override { CountedAvahi::tellLater(); }
    void TearDown() override { addedMs = 0; }
};

class OutOfMemoryTest : public testing::TestWithParam<Case>
{
protected:
    void SetUp() override
    {
        // Messages are formatted, too.
        vd::LogQt::setLogLevel(1);
        vd::LogQt::setStream(&m_log);
        CountedAvahi::tellLater();
        // Qt cannot make do without what it makes when it is used first.
        Subject first(std::get<bool>(GetParam()));
        ASSERT_TRUE(first.isUsable());
    }
    void TearDown() override
    {
        vd::LogQt::setLogLevel(4);
        vd::LogQt::setStream(nullptr);
        addedMs = 0;
    }

private:
    QString m_text;
    QTextStream m_log{&m_text};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Each, OutOfMemoryTest, testing::Combine(testing::Bool(), testing::ValuesIn(operations())),
                         nameOf);
INSTANTIATE_TEST_SUITE_P(ManagedOnly, OutOfMemoryTest,
                         testing::Combine(testing::Values(true), testing::ValuesIn(managedOperations())), nameOf);
INSTANTIATE_TEST_SUITE_P(InTheEventLoop, OutOfMemoryTest,
                         testing::Combine(testing::Values(true), testing::ValuesIn(turnsOfTheEventLoop())),
                         nameOf);

TEST_P(OutOfMemoryTest, LeavesTheObjectUsable)
{
    const auto& [isManaged, operation] = GetParam();
    std::map<Outcome, int> counts;
    for (int first = 1; counts[NeverRefused] == 0 && !HasFailure(); first += SIDE_BY_SIDE) {
        int number = first;
        for (const Outcome outcome : outcomesOf(operation, isManaged, first)) {
            ++counts[outcome];
            EXPECT_NE(outcome, OUTCOMES) << "crashed at allocation " << number;
            EXPECT_NE(outcome, Terminated) << "ended the process at allocation " << number;
            EXPECT_NE(outcome, Unusable) << "unusable after allocation " << number;
            ++number;
        }
    }
    const bool isAnyRefused = counts[Done] + counts[LetPass] > 0;
    EXPECT_TRUE(isAnyRefused || !operation.needsMemory || !REFUSES_ALL_MEMORY) << "nothing was refused";
    RecordProperty("done", counts[Done]);
    RecordProperty("let_pass", counts[LetPass]);
}

INSTANTIATE_TEST_SUITE_P(Each, EventLoopTest,
                         testing::Combine(testing::Values(true), testing::ValuesIn(turnsOfTheEventLoop())),
                         nameOf);

TEST_P(EventLoopTest, MakesWhatIsToMeetRefusals)
{
    const auto& [isManaged, operation] = GetParam();
    Subject subject(isManaged);
    for (const Step step : operation.before)
        (subject.*step)();
    const int madeBefore = CountedAvahi::made(operation.made);
    (subject.*operation.step)();
    EXPECT_GT(CountedAvahi::made(operation.made), madeBefore);
}
