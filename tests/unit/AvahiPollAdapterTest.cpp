// SPDX-License-Identifier: MIT
#include "avahi/AvahiPollAdapter.h"
#include "avahi/MonotonicDeadline.h"
#include "avahi/WatchGroup.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <tuple>
#include <vector>

namespace {

/** What the tests add to the system's clocks, in seconds. */
std::atomic<time_t> wallClockOffset(0);
std::atomic<time_t> monotonicClockOffset(0);

timespec systemClock(clockid_t clock)
{
    timespec now = {};
    ::syscall(SYS_clock_gettime, clock, &now);
    return now;
}

} // namespace

/** Found before the C library's, by Qt and GLib as well, so that the tests can step the clocks. */
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const int result = static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
    if (result == 0 && clock == CLOCK_REALTIME)
        now->tv_sec += wallClockOffset;
    if (result == 0 && clock == CLOCK_MONOTONIC)
        now->tv_sec += monotonicClockOffset;
    return result;
}

/** Qt is not instrumented: the thread sanitizer does not see how a QThread is kept until its thread is done. */
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "race:QWaitCondition::~QWaitCondition\n";
}

/** Where Qt enters callbacks for tools that follow every object; its header is not installed everywhere. */
extern Q_CORE_EXPORT quintptr qtHookData[];

namespace {

const int IN = AVAHI_WATCH_IN;
const int OUT = AVAHI_WATCH_OUT;
const int ERR = AVAHI_WATCH_ERR;
const int HUP = AVAHI_WATCH_HUP;

typedef std::vector<int> Events;

const int ADD_OBJECT_HOOK = 3;
const int REMOVE_OBJECT_HOOK = 4;
std::atomic<int> liveObjects(0);

void objectAdded(QObject*)
{
    ++liveObjects;
}

void objectRemoved(QObject*)
{
    --liveObjects;
}

int openDescriptors()
{
    int count = 0;
    DIR* directory = ::opendir("/proc/self/fd");
    while (::readdir(directory))
        ++count;
    ::closedir(directory);
    return count;
}

/** Milliseconds by the system's clock, whatever the tests made of the others'. */
qint64 milliseconds(clockid_t clock)
{
    const timespec now = systemClock(clock);
    return static_cast<qint64>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

timeval wallTime()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    timeval time = {};
    time.tv_sec = now.tv_sec;
    time.tv_usec = now.tv_nsec / 1000;
    return time;
}

timeval plusMicroseconds(timeval time, long microseconds)
{
    time.tv_usec += microseconds;
    time.tv_sec += time.tv_usec / 1000000;
    time.tv_usec %= 1000000;
    return time;
}

timeval inMilliseconds(long count)
{
    return plusMicroseconds(wallTime(), count * 1000);
}

timeval inSeconds(time_t count)
{
    timeval time = wallTime();
    time.tv_sec += count;
    return time;
}

const time_t DAY = 24 * 60 * 60;

/** Turns the loop until @p condition holds; false if it does not within 2 s. */
bool runUntil(const std::function<bool()>& condition)
{
    const qint64 end = milliseconds(CLOCK_MONOTONIC) + 2000;
    while (!condition()) {
        if (milliseconds(CLOCK_MONOTONIC) > end)
            return false;
        QCoreApplication::processEvents();
        ::poll(nullptr, 0, 1);
    }
    return true;
}

/** Enough turns for everything that is due to arrive. */
void runFewTurns()
{
    for (int turn = 0; turn < 10; ++turn)
        QCoreApplication::processEvents();
}

void runFor(int duration)
{
    QEventLoop loop;
    QTimer::singleShot(duration, &loop, SLOT(quit()));
    loop.exec();
}

/** What this thread computes, in milliseconds, while its loop should be asleep for 100 ms. */
qint64 busyTimeOfIdleLoop()
{
    const qint64 before = milliseconds(CLOCK_THREAD_CPUTIME_ID);
    runFor(100);
    return milliseconds(CLOCK_THREAD_CPUTIME_ID) - before;
}

const qint64 IDLE = 15;

/** Two connected ends; each can be closed early. */
class Ends
{
public:
    static Ends ofSocket()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends));
        return Ends(ends);
    }

    /** @c here() reads what is written to @c there(). */
    static Ends ofPipe()
    {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, ::pipe2(ends, O_NONBLOCK));
        return Ends(ends);
    }

    Ends(Ends&& other) : m_here(other.m_here), m_there(other.m_there) { other.m_here = other.m_there = -1; }

    ~Ends()
    {
        closeHere();
        closeThere();
    }

    int here() const { return m_here; }
    int there() const { return m_there; }
    void closeHere() { closeEnd(m_here); }
    void closeThere() { closeEnd(m_there); }

    void send() { EXPECT_EQ(1, ::write(m_there, "x", 1)); }

    void drain()
    {
        char buffer[64];
        while (::read(m_here, buffer, sizeof buffer) > 0) {
        }
    }

private:
    explicit Ends(const int (&ends)[2]) : m_here(ends[0]), m_there(ends[1]) {}

    static void closeEnd(int& end)
    {
        if (end >= 0)
            ::close(end);
        end = -1;
    }

    int m_here;
    int m_there;
};

AvahiWatchEvent watchEvents(int bits)
{
    AvahiWatchEvent events;
    std::memcpy(&events, &bits, sizeof events);
    return events;
}

/** A watch that notes what it is called with, then does what the test wants. */
class Watch
{
public:
    Watch(int descriptor, int wanted)
        : m_descriptor(descriptor),
          m_watch(poll()->watch_new(poll(), descriptor, watchEvents(wanted), &Watch::called, this))
    {
        EXPECT_NE(nullptr, m_watch);
    }

    ~Watch() { free(); }

    static const AvahiPoll* poll() { return avahi_qt_poll_get(); }

    void update(int wanted) { poll()->watch_update(m_watch, watchEvents(wanted)); }
    int happened() const { return poll()->watch_get_events(m_watch); }

    void free()
    {
        if (m_watch)
            poll()->watch_free(m_watch);
        m_watch = nullptr;
    }

    /** What each callback so far was told. */
    Events events;
    std::function<void()> then;

private:
    Q_DISABLE_COPY(Watch)

    static void called(AvahiWatch* watch, int descriptor, AvahiWatchEvent event, void* userdata)
    {
        Watch* self = static_cast<Watch*>(userdata);
        EXPECT_EQ(self->m_watch, watch);
        EXPECT_EQ(self->m_descriptor, descriptor);
        self->events.push_back(event);
        if (self->then)
            self->then();
    }

    int m_descriptor;
    AvahiWatch* m_watch;
};

class Timeout
{
public:
    explicit Timeout(const timeval& time) : Timeout(&time) {}
    explicit Timeout(const timeval* time)
        : calls(0), m_timeout(poll()->timeout_new(poll(), time, &Timeout::called, this))
    {
        EXPECT_NE(nullptr, m_timeout);
    }

    ~Timeout() { free(); }

    static const AvahiPoll* poll() { return avahi_qt_poll_get(); }

    void update(const timeval& time) { poll()->timeout_update(m_timeout, &time); }
    void disable() { poll()->timeout_update(m_timeout, nullptr); }

    void free()
    {
        if (m_timeout)
            poll()->timeout_free(m_timeout);
        m_timeout = nullptr;
    }

    int calls;
    std::function<void()> then;

private:
    Q_DISABLE_COPY(Timeout)

    static void called(AvahiTimeout* timeout, void* userdata)
    {
        Timeout* self = static_cast<Timeout*>(userdata);
        EXPECT_EQ(self->m_timeout, timeout);
        ++self->calls;
        if (self->then)
            self->then();
    }

    AvahiTimeout* m_timeout;
};

/** Checks that a test leaves no object and no descriptor behind, without turning the loop once more. */
class AvahiPollAdapterTest : public testing::Test
{
protected:
    void SetUp() override
    {
        runFewTurns();
        liveObjects = 0;
        qtHookData[ADD_OBJECT_HOOK] = reinterpret_cast<quintptr>(&objectAdded);
        qtHookData[REMOVE_OBJECT_HOOK] = reinterpret_cast<quintptr>(&objectRemoved);
        m_descriptorsBefore = openDescriptors();
    }

    void TearDown() override
    {
        wallClockOffset = 0;
        monotonicClockOffset = 0;
        qtHookData[ADD_OBJECT_HOOK] = 0;
        qtHookData[REMOVE_OBJECT_HOOK] = 0;
        EXPECT_EQ(0, liveObjects);
        EXPECT_EQ(m_descriptorsBefore, openDescriptors());
    }

private:
    int m_descriptorsBefore = 0;
};

typedef AvahiPollAdapterTest AvahiPollAdapterWatch;
typedef AvahiPollAdapterTest AvahiPollAdapterTimeout;
typedef AvahiPollAdapterTest AvahiPollAdapterNestedLoop;
typedef AvahiPollAdapterTest AvahiPollAdapterThread;

// What a watch reports

TEST_F(AvahiPollAdapterWatch, ReportsDataToRead)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    watch.then = [&] { ends.drain(); };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    runFewTurns();
    EXPECT_EQ(Events({IN}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsRoomToWriteAsWriting)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), OUT);
    watch.then = [&] { watch.update(0); };
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    runFewTurns();
    EXPECT_EQ(Events({OUT}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsReadingAndWritingTogether)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN | OUT);
    watch.then = [&] { watch.update(0); };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({IN | OUT}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsOnlyTheDirectionAskedFor)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), OUT);
    watch.then = [&] { watch.update(0); };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({OUT}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsAHangUpThatWasNotAskedFor)
{
    Ends ends = Ends::ofPipe();
    Watch watch(ends.here(), IN);
    watch.then = [&] { watch.update(0); };
    ends.closeThere();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({HUP}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsTheEndOfAConnectionAsReadingAndHangUp)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    watch.then = [&] { watch.update(0); };
    ends.closeThere();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({IN | HUP}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsAnErrorThatWasNotAskedFor)
{
    Ends ends = Ends::ofPipe();
    Watch watch(ends.there(), OUT);
    watch.then = [&] { watch.update(0); };
    ends.closeHere();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({OUT | ERR}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, SleepsThroughReadableDataWhenOnlyHangUpIsWanted)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), HUP | ERR);
    ends.send();
    EXPECT_LT(busyTimeOfIdleLoop(), IDLE);
    EXPECT_EQ(Events(), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsAHangUpWhenNothingElseIsWanted)
{
    Ends ends = Ends::ofPipe();
    Watch watch(ends.here(), HUP);
    watch.then = [&] { watch.update(0); };
    ends.send();
    ends.closeThere();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({HUP}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsAnErrorWhenNothingElseIsWanted)
{
    Ends ends = Ends::ofPipe();
    Watch watch(ends.there(), ERR);
    watch.then = [&] { watch.update(0); };
    ends.closeHere();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({ERR}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, ReportsUnreadDataAgain)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    ends.send();
    EXPECT_TRUE(runUntil([&] { return watch.events.size() == 3; }));
    EXPECT_EQ(Events({IN, IN, IN}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, SleepsWhileNothingHappens)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    EXPECT_LT(busyTimeOfIdleLoop(), IDLE);
    EXPECT_EQ(Events(), watch.events);
}

TEST_F(AvahiPollAdapterWatch, IsOffWhenItAsksForNothing)
{
    Ends ends = Ends::ofPipe();
    Watch watch(ends.here(), 0);
    ends.send();
    ends.closeThere();
    EXPECT_LT(busyTimeOfIdleLoop(), IDLE);
    EXPECT_EQ(Events(), watch.events);
}

TEST_F(AvahiPollAdapterWatch, IgnoresFlagsThatItDoesNotKnow)
{
#ifdef __SANITIZE_ADDRESS__
    // The sanitizers hold the enumeration to its bits, which a caller in C need not do.
    const int unknown = POLLPRI;
#else
    // Among these bits are those by which epoll would report a descriptor once only, or only on changes.
    const int unknown = static_cast<int>(~0u) & ~(IN | OUT | ERR | HUP);
#endif
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN | unknown);
    ends.send();
    EXPECT_TRUE(runUntil([&] { return watch.events.size() == 2; }));
    EXPECT_EQ(Events({IN, IN}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, IsOffWhenItAsksForUnknownFlagsOnly)
{
    Ends ends = Ends::ofPipe();
    Watch watch(ends.here(), POLLPRI);
    ends.closeThere();
    EXPECT_LT(busyTimeOfIdleLoop(), IDLE);
    EXPECT_EQ(Events(), watch.events);
}

TEST_F(AvahiPollAdapterWatch, TellsWhatHappenedOnlyInsideTheCallback)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN | OUT);
    Events inside;
    watch.then = [&] {
        inside.push_back(watch.happened());
        watch.update(0);
        inside.push_back(watch.happened());
    };
    ends.send();
    const int before = watch.happened();
    EXPECT_TRUE(runUntil([&] { return !inside.empty(); }));
    EXPECT_EQ(0, before);
    EXPECT_EQ(Events({IN | OUT, IN | OUT}), inside);
    EXPECT_EQ(0, watch.happened());
}

TEST_F(AvahiPollAdapterWatch, IsRefusedForADescriptorThatIsNotOpen)
{
    const AvahiPoll* poll = avahi_qt_poll_get();
    EXPECT_EQ(nullptr, poll->watch_new(poll, -1, AVAHI_WATCH_IN, nullptr, nullptr));
}

TEST_F(AvahiPollAdapterWatch, SharesADescriptorWithAnotherOfTheSameKind)
{
    Ends ends = Ends::ofSocket();
    Watch first(ends.here(), IN);
    Watch second(ends.here(), IN);
    ends.send();
    EXPECT_TRUE(runUntil([&] { return !first.events.empty() && !second.events.empty(); }));
}

TEST_F(AvahiPollAdapterWatch, IsNotCalledForWhatAnotherHasReadInTheSameTurn)
{
    Ends ends = Ends::ofSocket();
    Watch first(ends.here(), IN);
    Watch second(ends.here(), IN);
    first.then = second.then = [&] { ends.drain(); };
    ends.send();
    runFewTurns();
    EXPECT_EQ(1u, first.events.size() + second.events.size());
}

// Updating a watch

TEST_F(AvahiPollAdapterWatch, ReportsWhatItWasUpdatedTo)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    watch.then = [&] { watch.update(0); };
    ends.send();
    watch.update(OUT);
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({OUT}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, GoesOnAfterBeingOff)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    ends.send();
    watch.update(0);
    runFewTurns();
    EXPECT_EQ(Events(), watch.events);
    watch.then = [&] { ends.drain(); };
    watch.update(IN);
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(Events({IN}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, NeedsNoMoreObjectsOrDescriptorsForRepeatedUpdates)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN | OUT);
    const int objects = liveObjects;
    const int descriptors = openDescriptors();
    for (int wanted = 0; wanted < 32; ++wanted)
        watch.update(wanted);
    EXPECT_EQ(objects, liveObjects);
    EXPECT_EQ(descriptors, openDescriptors());
}

TEST_F(AvahiPollAdapterWatch, ObeysAnUpdateInItsCallback)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    watch.then = [&] { watch.update(watch.events.size() == 1 ? OUT : 0); };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return watch.events.size() == 2; }));
    runFewTurns();
    EXPECT_EQ(Events({IN, OUT}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, IsNotCalledOnceAnotherHasTurnedItOffInTheSameTurn)
{
    Ends firstEnds = Ends::ofSocket();
    Ends secondEnds = Ends::ofSocket();
    Watch first(firstEnds.here(), IN);
    Watch second(secondEnds.here(), IN);
    first.then = [&] {
        firstEnds.drain();
        second.update(0);
    };
    second.then = [&] {
        secondEnds.drain();
        first.update(0);
    };
    firstEnds.send();
    secondEnds.send();
    runFewTurns();
    EXPECT_EQ(1u, first.events.size() + second.events.size());
}

TEST_F(AvahiPollAdapterWatch, FollowsADescriptorThatWasOpenedAgain)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    Ends other = Ends::ofSocket();
    ASSERT_EQ(ends.here(), ::dup2(other.here(), ends.here()));
    watch.update(IN);
    other.send();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
}

// Freeing a watch

TEST_F(AvahiPollAdapterWatch, IsGoneAtOnceWhenFreedInItsCallback)
{
    Ends ends = Ends::ofSocket();
    const int objects = liveObjects;
    const int descriptors = openDescriptors();
    Watch watch(ends.here(), IN);
    int objectsAfter = -1;
    int descriptorsAfter = -1;
    watch.then = [&] {
        watch.free();
        objectsAfter = liveObjects;
        descriptorsAfter = openDescriptors();
    };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty(); }));
    EXPECT_EQ(objects, objectsAfter);
    EXPECT_EQ(descriptors, descriptorsAfter);
    runFewTurns();
    EXPECT_EQ(Events({IN}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, IsNotCalledOnceAnotherHasFreedItInTheSameTurn)
{
    Ends firstEnds = Ends::ofSocket();
    Ends secondEnds = Ends::ofSocket();
    Watch first(firstEnds.here(), IN);
    Watch second(secondEnds.here(), IN);
    first.then = [&] {
        firstEnds.drain();
        second.free();
    };
    second.then = [&] {
        secondEnds.drain();
        first.free();
    };
    firstEnds.send();
    secondEnds.send();
    runFewTurns();
    EXPECT_EQ(1u, first.events.size() + second.events.size());
}

TEST_F(AvahiPollAdapterWatch, IsNotCalledAfterItWasFreed)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    ends.send();
    watch.free();
    runFewTurns();
    EXPECT_EQ(Events(), watch.events);
}

TEST_F(AvahiPollAdapterWatch, CanBeReplacedInItsCallbackWithTheDescriptorsNumberUsedAgain)
{
    Ends ends = Ends::ofSocket();
    Ends other = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    std::unique_ptr<Watch> replacement;
    watch.then = [&] {
        watch.free();
        EXPECT_EQ(ends.here(), ::dup2(other.here(), ends.here()));
        replacement.reset(new Watch(ends.here(), IN));
    };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return replacement != nullptr; }));
    runFewTurns();
    EXPECT_EQ(Events(), replacement->events);
    other.send();
    EXPECT_TRUE(runUntil([&] { return !replacement->events.empty(); }));
    EXPECT_EQ(Events({IN}), watch.events);
}

TEST_F(AvahiPollAdapterWatch, IsNotStarvedByATimeoutThatIsAlwaysDue)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    Timeout timeout(wallTime());
    timeout.then = [&] { timeout.update(wallTime()); };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return watch.events.size() >= 3 && timeout.calls >= 3; }));
}

// When a timeout fires

TEST_F(AvahiPollAdapterTimeout, FiresFromTheLoopForATimeInThePast)
{
    Timeout timeout(inSeconds(-3600));
    EXPECT_EQ(0, timeout.calls);
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, FiresFromTheLoopForNow)
{
    Timeout timeout(wallTime());
    EXPECT_EQ(0, timeout.calls);
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, FiresFromTheLoopWhenUpdatedToThePast)
{
    Timeout timeout(nullptr);
    timeout.update(inSeconds(-1));
    EXPECT_EQ(0, timeout.calls);
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, FiresOnce)
{
    Timeout timeout(wallTime());
    runFewTurns();
    EXPECT_EQ(1, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, NeverFiresEarly)
{
    std::vector<std::unique_ptr<Timeout>> timeouts;
    int early = 0;
    int fired = 0;
    const timeval start = wallTime();
    for (int count = 0; count < 40; ++count) {
        const timeval time = plusMicroseconds(start, 1000 + count * 1337);
        timeouts.emplace_back(new Timeout(time));
        timeouts.back()->then = [&early, &fired, time] {
            const timeval now = wallTime();
            early += std::tie(now.tv_sec, now.tv_usec) < std::tie(time.tv_sec, time.tv_usec) ? 1 : 0;
            ++fired;
        };
    }
    const qint64 busyBefore = milliseconds(CLOCK_THREAD_CPUTIME_ID);
    runFor(100);
    EXPECT_LT(milliseconds(CLOCK_THREAD_CPUTIME_ID) - busyBefore, IDLE);
    EXPECT_EQ(0, early);
    EXPECT_EQ(40, fired);
}

TEST_F(AvahiPollAdapterTimeout, FiresInTheOrderOfTheTimes)
{
    std::vector<char> order;
    Timeout late(inMilliseconds(40));
    Timeout early(inMilliseconds(10));
    late.then = [&] { order.push_back('b'); };
    early.then = [&] { order.push_back('a'); };
    EXPECT_TRUE(runUntil([&] { return order.size() == 2; }));
    EXPECT_EQ(std::vector<char>({'a', 'b'}), order);
}

TEST_F(AvahiPollAdapterTimeout, NeverFiresWithoutATime)
{
    Timeout timeout(nullptr);
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, IsDisabledByNoTime)
{
    Timeout timeout(wallTime());
    timeout.disable();
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, IsMovedByAnUpdate)
{
    Timeout timeout(wallTime());
    timeout.update(inSeconds(60));
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
    timeout.update(inMilliseconds(5));
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, FiresAgainWhenUpdatedInItsCallback)
{
    Timeout timeout(wallTime());
    timeout.then = [&] {
        if (timeout.calls < 3)
            timeout.update(inMilliseconds(timeout.calls == 1 ? 0 : 5));
    };
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 3; }));
    runFewTurns();
    EXPECT_EQ(3, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, StaysOffWhenArmedAndDisabledInItsCallback)
{
    Timeout timeout(wallTime());
    timeout.then = [&] {
        timeout.update(wallTime());
        timeout.disable();
    };
    runFewTurns();
    EXPECT_EQ(1, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, IsGoneAtOnceWhenFreedInItsCallback)
{
    const int objects = liveObjects;
    Timeout timeout(wallTime());
    int objectsAfter = -1;
    timeout.then = [&] {
        timeout.update(wallTime());
        timeout.free();
        objectsAfter = liveObjects;
    };
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
    EXPECT_EQ(objects, objectsAfter);
    runFewTurns();
    EXPECT_EQ(1, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, IsNotCalledOnceAnotherHasFreedItInTheSameTurn)
{
    Timeout first(wallTime());
    Timeout second(wallTime());
    first.then = [&] { second.free(); };
    second.then = [&] { first.free(); };
    runFewTurns();
    EXPECT_EQ(1, first.calls + second.calls);
}

TEST_F(AvahiPollAdapterTimeout, IsNotCalledAfterItWasFreed)
{
    Timeout timeout(wallTime());
    timeout.free();
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, WaitsLongerThanQtCanCount)
{
    Timeout timeout(inSeconds(30 * DAY));
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
    monotonicClockOffset = 26 * DAY;
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
    monotonicClockOffset = 30 * DAY + 1;
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, SleepsWhileItIsFarAway)
{
    Timeout timeout(inSeconds(30 * DAY));
    EXPECT_LT(busyTimeOfIdleLoop(), IDLE);
    EXPECT_EQ(0, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, WaitsForTheLastTimeThereIs)
{
    timeval time = {};
    time.tv_sec = std::numeric_limits<time_t>::max();
    time.tv_usec = std::numeric_limits<suseconds_t>::max();
    Timeout timeout(time);
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
}

TEST_F(AvahiPollAdapterTimeout, FiresForTheFirstTimeThereIs)
{
    timeval time = {};
    time.tv_sec = std::numeric_limits<time_t>::min();
    time.tv_usec = std::numeric_limits<suseconds_t>::min();
    Timeout timeout(time);
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, ReadsItsTimeByTheWallClock)
{
    wallClockOffset = 3600;
    Timeout timeout(inMilliseconds(20));
    runFewTurns();
    EXPECT_EQ(0, timeout.calls);
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, IsNotDelayedByAClockThatIsSetBack)
{
    Timeout timeout(inMilliseconds(20));
    wallClockOffset = -3600;
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 1; }));
}

TEST_F(AvahiPollAdapterTimeout, IsNotHastenedByAClockThatIsPutForward)
{
    Timeout timeout(inSeconds(60));
    wallClockOffset = 3600;
    runFor(20);
    EXPECT_EQ(0, timeout.calls);
}

// Nested event loops

TEST_F(AvahiPollAdapterNestedLoop, DefersATimeoutThatIsDueAgainWithoutSpinning)
{
    Timeout timeout(wallTime());
    int callsInside = 0;
    qint64 busy = 0;
    timeout.then = [&] {
        if (timeout.calls > 1)
            return;
        timeout.update(wallTime());
        busy = busyTimeOfIdleLoop();
        callsInside = timeout.calls;
    };
    EXPECT_TRUE(runUntil([&] { return timeout.calls == 2; }));
    EXPECT_EQ(1, callsInside);
    EXPECT_LT(busy, IDLE);
}

TEST_F(AvahiPollAdapterNestedLoop, SleepsInsideATimeoutThatHasFired)
{
    Timeout timeout(wallTime());
    qint64 busy = 0;
    timeout.then = [&] { busy = busyTimeOfIdleLoop(); };
    EXPECT_TRUE(runUntil([&] { return timeout.calls != 0; }));
    EXPECT_LT(busy, IDLE);
    EXPECT_EQ(1, timeout.calls);
}

TEST_F(AvahiPollAdapterNestedLoop, DefersAWatchThatIsReadyAgainWithoutSpinning)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    size_t callsInside = 0;
    qint64 busy = 0;
    watch.then = [&] {
        if (watch.events.size() > 1) {
            ends.drain();
            return;
        }
        busy = busyTimeOfIdleLoop();
        callsInside = watch.events.size();
    };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return watch.events.size() == 2; }));
    EXPECT_EQ(1u, callsInside);
    EXPECT_LT(busy, IDLE);
}

TEST_F(AvahiPollAdapterNestedLoop, DefersAWatchThatIsUpdatedThere)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    Timeout inner(nullptr);
    inner.then = [&] { watch.update(OUT); };
    size_t callsInside = 0;
    watch.then = [&] {
        if (watch.events.size() > 1) {
            watch.update(0);
            return;
        }
        inner.update(wallTime());
        runFor(20);
        callsInside = watch.events.size();
    };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return watch.events.size() == 2; }));
    EXPECT_EQ(1u, callsInside);
    EXPECT_EQ(Events({IN, OUT}), watch.events);
}

TEST_F(AvahiPollAdapterNestedLoop, DropsWhatWasDeferredIfItNoLongerApplies)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    Timeout timeout(nullptr);
    watch.then = [&] {
        runFor(20);
        ends.drain();
    };
    timeout.then = [&] {
        timeout.update(wallTime());
        runFor(20);
        timeout.disable();
    };
    ends.send();
    timeout.update(wallTime());
    EXPECT_TRUE(runUntil([&] { return !watch.events.empty() && timeout.calls != 0; }));
    runFewTurns();
    EXPECT_EQ(Events({IN}), watch.events);
    EXPECT_EQ(1, timeout.calls);
}

TEST_F(AvahiPollAdapterNestedLoop, GoesOnWithTheOthers)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    Timeout inner(nullptr);
    Timeout outer(wallTime());
    watch.then = [&] { ends.drain(); };
    bool othersCalled = false;
    outer.then = [&] {
        ends.send();
        inner.update(wallTime());
        othersCalled = runUntil([&] { return watch.events.size() == 1 && inner.calls == 1; });
    };
    EXPECT_TRUE(runUntil([&] { return outer.calls == 1; }));
    EXPECT_TRUE(othersCalled);
}

TEST_F(AvahiPollAdapterNestedLoop, MayFreeTheWatchWhoseCallbackRunsIt)
{
    Ends ends = Ends::ofSocket();
    Watch watch(ends.here(), IN);
    Timeout inner(nullptr);
    inner.then = [&] { watch.free(); };
    watch.then = [&] {
        inner.update(wallTime());
        runFor(20);
    };
    ends.send();
    EXPECT_TRUE(runUntil([&] { return inner.calls == 1; }));
    runFewTurns();
    EXPECT_EQ(Events({IN}), watch.events);
}

TEST_F(AvahiPollAdapterNestedLoop, MayFreeTheTimeoutWhoseCallbackRunsIt)
{
    Timeout timeout(wallTime());
    Timeout inner(nullptr);
    inner.then = [&] { timeout.free(); };
    timeout.then = [&] {
        timeout.update(wallTime());
        inner.update(wallTime());
        runFor(20);
    };
    EXPECT_TRUE(runUntil([&] { return inner.calls == 1; }));
    runFewTurns();
    EXPECT_EQ(1, timeout.calls);
}

// Threads

/** Makes, uses and frees a watch and a timeout in its run(). */
class Worker : public QThread
{
public:
    explicit Worker(Ends& ends) : m_ends(ends) {}

    Events events;
    int timeoutCalls = 0;
    bool alwaysInWorker = true;
    /** Hands the others over; wait() does as well, but where the thread sanitizer does not see it. */
    std::atomic<bool> done{false};

protected:
    void run() override
    {
        QEventLoop loop;
        Watch watch(m_ends.here(), IN);
        Timeout timeout(nullptr);
        Timeout giveUp(inSeconds(2));
        watch.then = [&] {
            noteThread();
            m_ends.drain();
            timeout.update(inMilliseconds(5));
        };
        timeout.then = [&] {
            noteThread();
            loop.quit();
        };
        giveUp.then = [&] { loop.quit(); };
        m_ends.send();
        loop.exec();
        events = watch.events;
        timeoutCalls = timeout.calls;
        done = true;
    }

private:
    void noteThread() { alwaysInWorker = alwaysInWorker && QThread::currentThread() == this; }

    Ends& m_ends;
};

TEST_F(AvahiPollAdapterThread, ServesEachObjectInTheLoopOfTheThreadThatMadeIt)
{
    Ends workersEnds = Ends::ofSocket();
    Ends ownEnds = Ends::ofSocket();
    Watch watch(ownEnds.here(), IN);
    Timeout timeout(wallTime());
    QThread* const here = QThread::currentThread();
    bool alwaysHere = true;
    watch.then = timeout.then = [&] { alwaysHere = alwaysHere && QThread::currentThread() == here; };
    ownEnds.send();

    Worker worker(workersEnds);
    worker.start();
    EXPECT_TRUE(runUntil([&] { return worker.done && !watch.events.empty() && timeout.calls != 0; }));
    worker.wait();
    EXPECT_EQ(Events({IN}), worker.events);
    EXPECT_EQ(1, worker.timeoutCalls);
    EXPECT_TRUE(worker.alwaysInWorker);
    EXPECT_TRUE(alwaysHere);
}

// Converting times

std::chrono::microseconds untilTime(time_t seconds, suseconds_t microseconds, std::int64_t nowInMicroseconds)
{
    timeval time = {};
    time.tv_sec = seconds;
    time.tv_usec = microseconds;
    return vd::timeUntil(time, std::chrono::microseconds(nowInMicroseconds));
}

TEST(MonotonicDeadline, IsTheDifferenceOfTimeAndNow)
{
    EXPECT_EQ(2000001, untilTime(1700000002, 500001, 1700000000500000).count());
}

TEST(MonotonicDeadline, IsNegativeForThePast)
{
    EXPECT_EQ(-1, untilTime(1700000000, 499999, 1700000000500000).count());
}

TEST(MonotonicDeadline, TakesMicrosecondsBeyondASecond)
{
    EXPECT_EQ(3500000, untilTime(1700000000, 3500000, 1700000000000000).count());
    EXPECT_EQ(-500000, untilTime(1700000000, -500000, 1700000000000000).count());
}

TEST(MonotonicDeadline, IsLimitedEitherWay)
{
    const time_t last = std::numeric_limits<time_t>::max();
    const time_t first = std::numeric_limits<time_t>::min();
    EXPECT_EQ(1000000000000000, untilTime(last, 0, 1700000000000000).count());
    EXPECT_EQ(-1000000000000000, untilTime(first, 0, 1700000000000000).count());
    EXPECT_EQ(2000000000000000, untilTime(last, last, 1700000000000000).count());
    EXPECT_EQ(-2000000000000000, untilTime(first, first, 1700000000000000).count());
}

int intervalFor(std::chrono::microseconds left)
{
    const vd::MonotonicClock::time_point now = vd::MonotonicClock::time_point(std::chrono::hours(1));
    return vd::timerInterval(now + left, now);
}

TEST(MonotonicDeadline, RoundsATimersIntervalUp)
{
    EXPECT_EQ(1, intervalFor(std::chrono::microseconds(1)));
    EXPECT_EQ(7, intervalFor(std::chrono::microseconds(7000)));
    EXPECT_EQ(8, intervalFor(std::chrono::microseconds(7001)));
}

TEST(MonotonicDeadline, LeavesNoIntervalOnceReached)
{
    EXPECT_EQ(0, intervalFor(std::chrono::microseconds(0)));
    EXPECT_EQ(0, intervalFor(std::chrono::hours(-24 * 365)));
}

TEST(MonotonicDeadline, SetsATimerForADayAtMost)
{
    EXPECT_EQ(86400000, intervalFor(std::chrono::hours(24)));
    EXPECT_EQ(86400000, intervalFor(std::chrono::hours(24 * 365 * 30)));
}

} // namespace

// Groups.

namespace {

/** What is made for one client, which another thread may use while the group is paused. */
class WatchGroupTest : public AvahiPollAdapterTest
{
protected:
    /** As a thread that has the client does. */
    void inOtherThread(const std::function<void()>& action)
    {
        std::thread([&] {
            const vd::WatchGroup::Scope scope(&group);
            action();
        }).join();
    }

    std::unique_ptr<Watch> newWatch(int wanted = IN)
    {
        const vd::WatchGroup::Scope scope(&group);
        return std::make_unique<Watch>(ends.here(), wanted);
    }

    std::unique_ptr<Timeout> newTimeout(const timeval* time)
    {
        const vd::WatchGroup::Scope scope(&group);
        return std::make_unique<Timeout>(time);
    }

    std::unique_ptr<Timeout> newTimeout(const timeval& time) { return newTimeout(&time); }

    vd::WatchGroup group;
    Ends ends = Ends::ofSocket();
};

TEST_F(WatchGroupTest, IsPausableOnceItHasAMember)
{
    EXPECT_FALSE(group.isPausable());
    const Timeout ofNoGroup(nullptr);
    EXPECT_FALSE(group.isPausable());
    std::unique_ptr<Timeout> timeout = newTimeout(nullptr);
    EXPECT_TRUE(group.isPausable());
    timeout.reset();
    EXPECT_FALSE(group.isPausable());
}

TEST_F(WatchGroupTest, IsNotPausableTwice)
{
    const std::unique_ptr<Watch> watch = newWatch();
    group.pause();
    EXPECT_TRUE(group.isPaused());
    EXPECT_FALSE(group.isPausable());
    group.resume();
    EXPECT_FALSE(group.isPaused());
    EXPECT_TRUE(group.isPausable());
}

TEST_F(WatchGroupTest, IsNotPausableInsideACallback)
{
    const std::unique_ptr<Watch> watch = newWatch();
    const std::unique_ptr<Timeout> timeout = newTimeout(inMilliseconds(0));
    std::vector<bool> answers;
    watch->then = [&] {
        ends.drain();
        answers.push_back(group.isPausable());
    };
    timeout->then = [&] { answers.push_back(group.isPausable()); };
    ends.send();
    ASSERT_TRUE(runUntil([&] { return answers.size() == 2; }));
    EXPECT_EQ(answers, (std::vector<bool>{false, false}));
    EXPECT_TRUE(group.isPausable());
}

TEST_F(WatchGroupTest, PausedMembersCallBackWhenResumed)
{
    const std::unique_ptr<Watch> watch = newWatch();
    const std::unique_ptr<Timeout> timeout = newTimeout(inMilliseconds(0));
    group.pause();
    ends.send();
    runFor(20);
    EXPECT_EQ(watch->events, Events());
    EXPECT_EQ(timeout->calls, 0);
    group.resume();
    EXPECT_TRUE(runUntil([&] { return watch->events == Events{IN} && timeout->calls == 1; }));
}

TEST_F(WatchGroupTest, PausedLoopIsAsleep)
{
    const std::unique_ptr<Watch> watch = newWatch();
    ends.send();
    group.pause();
    EXPECT_LT(busyTimeOfIdleLoop(), IDLE);
    group.resume();
}

TEST_F(WatchGroupTest, OthersGoOn)
{
    Ends otherEnds = Ends::ofSocket();
    Watch other(otherEnds.here(), IN);
    Timeout otherTimeout(inMilliseconds(0));
    const std::unique_ptr<Watch> watch = newWatch();
    group.pause();
    otherEnds.send();
    EXPECT_TRUE(runUntil([&] { return other.events == Events{IN} && otherTimeout.calls == 1; }));
    group.resume();
}

TEST_F(WatchGroupTest, WhatTheOtherThreadChangesHoldsWhenResumed)
{
    const std::unique_ptr<Watch> watch = newWatch(0);
    const std::unique_ptr<Timeout> armed = newTimeout(nullptr);
    const std::unique_ptr<Timeout> disarmed = newTimeout(inMilliseconds(0));
    group.pause();
    inOtherThread([&] {
        watch->update(IN);
        armed->update(inMilliseconds(0));
        disarmed->disable();
    });
    ends.send();
    runFor(20);
    EXPECT_EQ(watch->events, Events());
    EXPECT_EQ(armed->calls, 0);
    group.resume();
    EXPECT_TRUE(runUntil([&] { return watch->events == Events{IN} && armed->calls == 1; }));
    runFor(20);
    EXPECT_EQ(disarmed->calls, 0);
}

TEST_F(WatchGroupTest, WhatTheOtherThreadMakesCallsBackInThisOne)
{
    const std::unique_ptr<Timeout> first = newTimeout(nullptr);
    std::unique_ptr<Watch> watch;
    std::unique_ptr<Timeout> timeout;
    group.pause();
    inOtherThread([&] {
        watch = std::make_unique<Watch>(ends.here(), IN);
        timeout = std::make_unique<Timeout>(inMilliseconds(0));
    });
    ends.send();
    runFor(20);
    EXPECT_EQ(watch->events, Events());
    EXPECT_EQ(timeout->calls, 0);
    std::vector<QThread*> threads;
    watch->then = [&] {
        ends.drain();
        threads.push_back(QThread::currentThread());
    };
    timeout->then = [&] { threads.push_back(QThread::currentThread()); };
    group.resume();
    ASSERT_TRUE(runUntil([&] { return threads.size() == 2; }));
    EXPECT_EQ(threads, (std::vector<QThread*>{QThread::currentThread(), QThread::currentThread()}));
}

TEST_F(WatchGroupTest, WhatTheOtherThreadFreesIsGone)
{
    std::unique_ptr<Watch> watch = newWatch();
    std::unique_ptr<Timeout> timeout = newTimeout(inMilliseconds(0));
    ends.send();
    group.pause();
    inOtherThread([&] {
        watch.reset();
        timeout.reset();
        // Both in its own time, as for every call that waits.
        newTimeout(inMilliseconds(0)).reset();
    });
    const int descriptors = openDescriptors();
    group.resume();
    EXPECT_EQ(openDescriptors(), descriptors - 1);
    EXPECT_EQ(liveObjects, 0);
    EXPECT_FALSE(group.isPausable());
    runFewTurns();
}

TEST_F(WatchGroupTest, MembersOutliveTheirGroup)
{
    auto mayEnd = std::make_unique<vd::WatchGroup>();
    std::unique_ptr<Timeout> first;
    std::unique_ptr<Timeout> second;
    {
        const vd::WatchGroup::Scope scope(mayEnd.get());
        first = std::make_unique<Timeout>(inMilliseconds(0));
        second = std::make_unique<Timeout>(inMilliseconds(0));
    }
    mayEnd.reset();
    first.reset();
    EXPECT_TRUE(runUntil([&] { return second->calls == 1; }));
}

TEST_F(WatchGroupTest, ScopesNest)
{
    vd::WatchGroup inner;
    const vd::WatchGroup::Scope scope(&group);
    std::unique_ptr<Timeout> ofInner;
    {
        const vd::WatchGroup::Scope innerScope(&inner);
        ofInner = std::make_unique<Timeout>(nullptr);
    }
    EXPECT_TRUE(inner.isPausable());
    EXPECT_FALSE(group.isPausable());
    const Timeout ofOuter(nullptr);
    EXPECT_TRUE(group.isPausable());
}

class FailingMember : public vd::WatchGroup::Member
{
public:
    explicit FailingMember(bool fails) : m_fails(fails) {}
    ~FailingMember() override = default;

    int resumed = 0;

protected:
    bool isCallingBack() const override { return false; }
    void pause() override {}
    void resume() override
    {
        ++resumed;
        if (m_fails)
            throw std::bad_alloc();
    }

private:
    const bool m_fails;
};

TEST_F(WatchGroupTest, MemberThatCannotBeResumedIsToldAndTheOthersGoOn)
{
    const vd::WatchGroup::Scope scope(&group);
    FailingMember first(false);
    FailingMember failing(true);
    FailingMember last(false);
    group.pause();
    EXPECT_THROW(group.resume(), std::bad_alloc);
    EXPECT_EQ(first.resumed + failing.resumed + last.resumed, 3);
    EXPECT_FALSE(group.isPaused());
}

TEST_F(WatchGroupTest, MembersGoInAnyOrder)
{
    for (size_t gone = 0; gone < 3; ++gone) {
        std::vector<std::unique_ptr<Timeout>> timeouts;
        for (int i = 0; i < 3; ++i)
            timeouts.push_back(newTimeout(inMilliseconds(0)));
        timeouts.at(gone).reset();
        group.pause();
        runFor(20);
        for (const std::unique_ptr<Timeout>& timeout : timeouts)
            EXPECT_EQ(timeout ? timeout->calls : 0, 0) << gone;
        group.resume();
    }
}

} // namespace
