// SPDX-License-Identifier: MIT

// Memory that the process does not get: each operation, with each of its allocations refused in turn.
//
// An operation either does without or lets std::bad_alloc pass, and then the object can end, begin anew, find a device
// and free everything; or the process is ended, for which each attempt has one of its own. Not so where memory runs out
// in the making of the object, or in what Qt makes when it is used first, as Qt itself crashes then; nor in a handler
// that Avahi calls while it makes the client, which is lost when an exception passes through Avahi.

#include "support/CountedAvahi.h"

#include <vd/LogQt.h>
#include <vd/ManagedServiceDiscovery.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QTextStream>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <map>
#include <memory>
#include <new>
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

} // namespace

// The sanitizers have an allocator of their own, from which only what C++ asks for is taken here.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

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

const char CAMERA[] = "Cam";
const char HOST[] = "cam.local";
const char ADDRESS[] = "10.0.0.1";
const char HTTP[] = "_http._tcp";

const int SIDE_BY_SIDE = 16;

enum Outcome { Done, LetPass, Terminated, Unusable, NeverRefused, OUTCOMES };

AvahiStringList* const cameraText
    = avahi_string_list_new("full_name.vandrel.com=Dome 4", "ser_no.vandrel.com=\x01\x02\x03", nullptr);

void turn()
{
    for (int turns = 0; turns < 20; ++turns) {
        QCoreApplication::processEvents();
        usleep(1000);
    }
}

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
    void queryAll() { m_discovery->StartQueryAllRecords(); }
    void answer() { CountedAvahi::resolved(CAMERA, HOST, ADDRESS, cameraText); }
    void addAddress() { CountedAvahi::recordSeen(AVAHI_BROWSER_NEW, HOST, "10.0.0.2"); }
    void removeAddress() { CountedAvahi::recordSeen(AVAHI_BROWSER_REMOVE, HOST, ADDRESS); }
    void publish() { m_discovery->RegisterService("Setup", "_setup._tcp", vd::SReconfigInfo()); }
    void establish() { CountedAvahi::groupIs(AVAHI_ENTRY_GROUP_ESTABLISHED); }
    void withdraw() { m_discovery->TerminateRegistration(); }
    void fail() { CountedAvahi::clientIs(AVAHI_CLIENT_FAILURE); }
    void run() { CountedAvahi::clientIs(AVAHI_CLIENT_S_RUNNING); }
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
        destroy();
        return browses && isFound && CountedAvahi::open() == 0;
    }

private:
    const bool m_isManaged;
    std::unique_ptr<vd::ServiceDiscovery> m_discovery;
    int m_found = 0;
};

typedef void (Subject::*Step)();

struct Operation
{
    const char* name;
    std::vector<Step> before;
    Step step;
};

const std::vector<Step> browsed = {&Subject::make, &Subject::browse, &Subject::run, &Subject::wait};

std::vector<Step> after(const std::vector<Step>& steps, std::initializer_list<Step> more)
{
    std::vector<Step> all = steps;
    all.insert(all.end(), more);
    return all;
}

std::vector<Operation> operations()
{
    const std::vector<Step> appeared = after(browsed, {&Subject::appear, &Subject::wait});
    const std::vector<Step> found = after(appeared, {&Subject::answer, &Subject::wait});
    const std::vector<Step> kept = after(found, {&Subject::keep, &Subject::wait});
    const std::vector<Step> published = after(browsed, {&Subject::publish});
    return {
        {"Browse", {&Subject::make}, &Subject::browse},
        {"DaemonRuns", {&Subject::make, &Subject::browse}, &Subject::run},
        {"Resolve", browsed, &Subject::resolve},
        {"ServiceAppears", browsed, &Subject::appear},
        {"ServiceIsAnswered", appeared, &Subject::answer},
        {"AddressIsAdded", found, &Subject::addAddress},
        {"AddressIsRemoved", found, &Subject::removeAddress},
        {"ServiceDisappears", found, &Subject::disappear},
        {"Keep", found, &Subject::keep},
        {"StopKeeping", kept, &Subject::stopKeeping},
        {"QueryAll", found, &Subject::queryAll},
        {"Publish", browsed, &Subject::publish},
        {"ServiceIsEstablished", published, &Subject::establish},
        {"Withdraw", published, &Subject::withdraw},
        {"ClientFails", found, &Subject::fail},
        {"End", found, &Subject::end},
        {"Destroy", found, &Subject::destroy},
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
    _exit(subject.isUsable() ? outcome : Unusable);
}

/** What came of it, or OUTCOMES for a process that crashed. */
Outcome outcomeOf(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) < OUTCOMES ? static_cast<Outcome>(WEXITSTATUS(status)) : OUTCOMES;
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
    }

private:
    QString m_text;
    QTextStream m_log{&m_text};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Each, OutOfMemoryTest, testing::Combine(testing::Bool(), testing::ValuesIn(operations())),
                         nameOf);

TEST_P(OutOfMemoryTest, LeavesTheObjectUsableOrEndsTheProcess)
{
    const auto& [isManaged, operation] = GetParam();
    std::map<Outcome, int> counts;
    for (int first = 1; counts[NeverRefused] == 0 && !HasFailure(); first += SIDE_BY_SIDE) {
        int number = first;
        for (const Outcome outcome : outcomesOf(operation, isManaged, first)) {
            ++counts[outcome];
            EXPECT_NE(outcome, OUTCOMES) << "crashed at allocation " << number;
            EXPECT_NE(outcome, Unusable) << "unusable after allocation " << number;
            ++number;
        }
    }
    RecordProperty("done", counts[Done]);
    RecordProperty("let_pass", counts[LetPass]);
    RecordProperty("ended", counts[Terminated]);
}
