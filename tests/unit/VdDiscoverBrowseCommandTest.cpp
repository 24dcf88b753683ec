// SPDX-License-Identifier: MIT
#include "BrowseCommand.h"
#include "SignalWatcher.h"

#include "support/VdDiscoverCommandFixture.h"
#include "support/VdDiscoverMessages.h"

#include <vd/LogQt.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonArray>

#include <algorithm>
#include <csignal>

#include <unistd.h>

using vd::discover::BrowseCommand;
using vd::discover::BrowseOptions;
using vd::discover::OutputFormat;

namespace {

// Longer than it takes to tell of what stays in the way.
const int LOOKS_AGAIN_MS = 800;
// Longer than managed discovery takes to make a resolver.
const int TIME_TO_RESOLVE_MS = 200;

const std::string ENDED = PROGRAM + END_REMEDY + WAITING;
const std::string RECOVERED = PROGRAM + RECOVERY + "browsing";

} // namespace

class VdDiscoverBrowseCommand : public VdDiscoverCommandTest<BrowseCommand, BrowseOptions>
{
protected:
    VdDiscoverBrowseCommand()
    {
        options.types = QStringList(QStringLiteral("_http._tcp"));
        options.timeoutMs = 60000;
        options.format = OutputFormat::Json;
    }

    void start(int signalDescriptor = -1)
    {
        VdDiscoverCommandTest::start(signalDescriptor);
        avahi.takeCalls();
    }

    void appears(const char* name)
    {
        avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_NEW, 2, AVAHI_PROTO_INET, name, "_http._tcp", "local");
    }

    void disappears(const char* name, int browser = 1)
    {
        avahi.fireBrowse(avahi.browser(browser), AVAHI_BROWSER_REMOVE, 2, AVAHI_PROTO_INET, name, "_http._tcp",
                         "local");
    }

    /** Managed discovery makes it when the daemon has time for it. */
    void waitForResolver(int number)
    {
        const std::string name = "resolver" + std::to_string(number);
        const auto isThere = [&] {
            const Lines live = avahi.liveHandles();
            return std::find(live.begin(), live.end(), name) != live.end();
        };
        passTimeUntil(isThere, LONGEST_WAIT_MS);
    }

    /** The resolvers that are made, if any, within a time in which they are. */
    Lines takeQueries()
    {
        passTime(TIME_TO_RESOLVE_MS);
        Lines calls = avahi.takeCalls();
        const auto isOther = [](const std::string& call) { return call.rfind("service_resolver_new", 0) != 0; };
        calls.erase(std::remove_if(calls.begin(), calls.end(), isOther), calls.end());
        return calls;
    }

    void resolved(int resolver, const char* name, const char* address, AvahiStringList* txt)
    {
        AvahiAddress parsed;
        ASSERT_TRUE(avahi_address_parse(address, AVAHI_PROTO_INET, &parsed));
        const std::string host = std::string(name) + ".local";
        avahi.fireResolve(avahi.resolver(resolver), AVAHI_RESOLVER_FOUND, 2, AVAHI_PROTO_INET, name, "_http._tcp",
                          "local", host.c_str(), &parsed, 80, txt);
    }

    void cameraFound(const char* name, int resolver)
    {
        appears(name);
        waitForResolver(resolver);
        cameraResolved(name, resolver);
    }

    void cameraResolved(const char* name, int resolver)
    {
        const Txt txt = {"ser_no.vandrel.com=\x01\x02\x03"};
        resolved(resolver, name, "10.0.0.1", txt);
    }

    /** On the client that was made second. */
    void reappears(const char* name)
    {
        avahi.fireBrowse(avahi.browser(2), AVAHI_BROWSER_NEW, 2, AVAHI_PROTO_INET, name, "_http._tcp", "local");
        waitForResolver(2);
        cameraResolved(name, 2);
        processEvents();
    }

    void dies()
    {
        daemon.becomes(AVAHI_CLIENT_FAILURE);
        processEvents();
    }

    void printerFound(const char* name, int resolver)
    {
        const Txt txt = {"note=no camera"};
        appears(name);
        waitForResolver(resolver);
        resolved(resolver, name, "10.0.0.7", txt);
    }

    /** What was printed as JSON, an event a line: `found Gate 10.0.0.1`. */
    Lines events() const
    {
        Lines lines;
        for (const QJsonObject& event : printedObjects()) {
            const QJsonObject service = event.value(QStringLiteral("service")).toObject();
            QStringList words = {event.value(QStringLiteral("event")).toString(),
                                 service.value(QStringLiteral("serviceName")).toString()};
            const QJsonArray addresses = service.value(QStringLiteral("addresses")).toArray();
            for (const QJsonValue& address : addresses)
                words.append(address.toString());
            lines.push_back(words.join(QLatin1Char(' ')).toStdString());
        }
        return lines;
    }
};

/** What does not depend on the class that discovers. */
class VdDiscoverBrowse : public VdDiscoverBrowseCommand, public testing::WithParamInterface<bool>
{
protected:
    VdDiscoverBrowse() { options.plain = GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(, VdDiscoverBrowse, testing::Bool(), [](const testing::TestParamInfo<bool>& isPlain) {
    return isPlain.param ? std::string("Plain") : std::string("Managed");
});

TEST_P(VdDiscoverBrowse, EveryEventIsALineAsItHappens)
{
    start();
    cameraFound("Gate", 1);
    EXPECT_EQ(events(), Lines{"found Gate 10.0.0.1"});
    disappears("Gate");
    EXPECT_EQ(events(), (Lines{"found Gate 10.0.0.1", "lost Gate 10.0.0.1"}));
}

TEST_P(VdDiscoverBrowse, AServiceThatIsNoDeviceIsNeverMentioned)
{
    start();
    printerFound("Printer", 1);
    disappears("Printer");
    EXPECT_EQ(end(), 1);
    EXPECT_EQ(output.text(), QByteArray());
}

TEST_P(VdDiscoverBrowse, EndsWithStatusZeroWhenADeviceWasSeenThoughItIsGone)
{
    start();
    cameraFound("Gate", 1);
    disappears("Gate");
    EXPECT_EQ(end(), 0);
}

TEST_P(VdDiscoverBrowse, EndsByItselfAfterTheTimeout)
{
    options.timeoutMs = 20;
    start();
    EXPECT_EQ(waitForEnd(), 1);
}

TEST_P(VdDiscoverBrowse, PrintsTheTableAtTheEndOnly)
{
    options.format = OutputFormat::Table;
    start();
    cameraFound("Gate", 1);
    EXPECT_EQ(output.text(), QByteArray());
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(output.text().toStdString(), "NAME  KIND            ADDRESS   PORT  MODEL  VERSION  SERIAL\n"
                                           "Gate  Vandrel camera  10.0.0.1  80    -      -        010203\n");
}

TEST_P(VdDiscoverBrowse, PrintsNoTableWithoutDevices)
{
    options.format = OutputFormat::Table;
    start();
    EXPECT_EQ(end(), 1);
    EXPECT_EQ(output.text(), QByteArray());
}

TEST_P(VdDiscoverBrowse, PrintsNoTableAfterFollowing)
{
    options.format = OutputFormat::Table;
    options.follow = true;
    start();
    cameraFound("Gate", 1);
    EXPECT_EQ(output.text().count('\n'), 1);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(output.text().count('\n'), 1);
}

TEST_P(VdDiscoverBrowse, StopsAtTheCountAndPrintsNothingThatComesLater)
{
    options.count = 2;
    start();
    cameraFound("Gate", 1);
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
    appears("Yard");
    appears("Attic");
    waitForResolver(3);
    cameraResolved("Yard", 2);
    cameraResolved("Attic", 3);
    processEvents();
    EXPECT_EQ(exitStatus, 0);
    EXPECT_EQ(events(), (Lines{"found Gate 10.0.0.1", "found Yard 10.0.0.1"}));
}

TEST_P(VdDiscoverBrowse, CountsOnlyDevicesThatAreStillThere)
{
    options.count = 2;
    start();
    cameraFound("Gate", 1);
    disappears("Gate");
    cameraFound("Yard", 2);
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
}

TEST_P(VdDiscoverBrowse, FreesEverythingAtTheEnd)
{
    start();
    cameraFound("Gate", 1);
    end();
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_P(VdDiscoverBrowse, KeepsAQueryOpenForEveryDeviceFoundOnceItsSignalIsOver)
{
    options.longLived = true;
    start();
    cameraFound("Gate", 1);
    avahi.takeCalls();
    const std::string link = options.plain ? "-1, -1" : "2, 0";
    const std::string addresses = options.plain ? "-1" : "0";
    EXPECT_EQ(takeQueries(), Lines{"service_resolver_new(client1, " + link + ", \"Gate\", \"_http._tcp\", \"local\", "
                                   + addresses + ", 2) = resolver2"});
    EXPECT_EQ(takeQueries(), Lines{});
}

TEST_P(VdDiscoverBrowse, OpensNoQueryForADeviceThatIsGoneAlready)
{
    options.longLived = true;
    start();
    cameraFound("Gate", 1);
    disappears("Gate");
    avahi.takeCalls();
    EXPECT_EQ(takeQueries(), Lines{});
}

TEST_P(VdDiscoverBrowse, WithoutTheOptionNoQueryIsKeptOpen)
{
    start();
    cameraFound("Gate", 1);
    avahi.takeCalls();
    EXPECT_EQ(takeQueries(), Lines{});
}

TEST_P(VdDiscoverBrowse, AMissingBusIsStatusThree)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, 3);
}

TEST_P(VdDiscoverBrowse, FollowingThatNeverReachedTheDaemonIsStatusThree)
{
    options.follow = true;
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
    EXPECT_EQ(end(), 3);
}

TEST_P(VdDiscoverBrowse, AReaderThatIsGoneEndsFollowing)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
    options.follow = true;
    start();
    close(ends[0]);
    EXPECT_EQ(waitForEnd(), 1);
}

TEST_P(VdDiscoverBrowse, ATerminalShowsProgress)
{
    TerminalAsErrors terminal;
    start();
    EXPECT_TRUE(terminal.takeText().contains("0 devices, 0.0 s of 60 s"));
}

TEST_P(VdDiscoverBrowse, NoProgressStandsBetweenTheLinesOfTheLog)
{
    TerminalAsErrors terminal;
    options.verbose = true;
    const int level = vd::LogQt::logLevel();
    start();
    cameraFound("Gate", 1);
    end();
    vd::LogQt::setLogLevel(level);
    const QByteArray text = terminal.takeText();
    EXPECT_TRUE(text.contains("BrowseServices()"));
    EXPECT_FALSE(text.contains("of 60 s"));
}

TEST_P(VdDiscoverBrowse, WhatWasSeenBeforeTheDaemonDiedIsInTheTable)
{
    options.format = OutputFormat::Table;
    options.timeoutMs = 100;
    start();
    cameraFound("Gate", 1);
    dies();
    EXPECT_EQ(waitForEnd(), 3);
    EXPECT_EQ(output.text().count("Gate"), 1);
}

// Without the option of the plain class.
class VdDiscoverManagedBrowse : public VdDiscoverBrowseCommand
{
protected:
    void diesAndReturns()
    {
        const size_t toldBefore = linesOf(errors).size();
        daemon.becomes(AVAHI_CLIENT_FAILURE);
        daemon.state = AVAHI_CLIENT_S_RUNNING;
        passTimeUntil([&] { return linesOf(errors).size() == toldBefore + 2; }, LONGEST_WAIT_MS);
    }

    CapturedOutput errors{STDERR_FILENO};
};

TEST_F(VdDiscoverManagedBrowse, ARestartIsToldOnceEachWayAndDevicesThatStayAreNotFoundAgain)
{
    options.follow = true;
    start();
    cameraFound("Gate", 1);
    diesAndReturns();
    reappears("Gate");
    passTime(LOOKS_AGAIN_MS);
    EXPECT_EQ(events(), Lines{"found Gate 10.0.0.1"});
    EXPECT_EQ(linesOf(errors), (Lines{ENDED, RECOVERED}));
}

TEST_F(VdDiscoverManagedBrowse, WhatBecomesOfADeviceAfterARestartIsTold)
{
    options.follow = true;
    start();
    cameraFound("Gate", 1);
    diesAndReturns();
    reappears("Gate");
    disappears("Gate", 2);
    EXPECT_EQ(events(), (Lines{"found Gate 10.0.0.1", "lost Gate 10.0.0.1"}));
}

TEST_F(VdDiscoverManagedBrowse, EachOutageIsTold)
{
    options.follow = true;
    start();
    diesAndReturns();
    diesAndReturns();
    EXPECT_EQ(linesOf(errors), (Lines{ENDED, RECOVERED, ENDED, RECOVERED}));
}

TEST_F(VdDiscoverManagedBrowse, WithoutFollowingARestartIsLivedThroughToo)
{
    options.timeoutMs = 500;
    start();
    cameraFound("Gate", 1);
    diesAndReturns();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
    EXPECT_EQ(waitForEnd(), 0);
    EXPECT_EQ(linesOf(errors), (Lines{ENDED, RECOVERED}));
}

TEST_F(VdDiscoverManagedBrowse, ADaemonThatDiesDoesNotEndTheRunBeforeItsTime)
{
    start();
    dies();
    passTime(LOOKS_AGAIN_MS);
    EXPECT_EQ(exitStatus, STILL_RUNNING);
    EXPECT_EQ(linesOf(errors), Lines{ENDED});
}

TEST_F(VdDiscoverManagedBrowse, ARestartDoesNotProlongTheRun)
{
    options.timeoutMs = 2000;
    QElapsedTimer elapsed;
    elapsed.start();
    start();
    passTime(1500);
    diesAndReturns();
    EXPECT_EQ(waitForEnd(), 1);
    EXPECT_LT(elapsed.elapsed(), 3300);
}

TEST_F(VdDiscoverManagedBrowse, CountsADeviceOnceThoughTheDaemonWasRestarted)
{
    options.count = 2;
    start();
    cameraFound("Gate", 1);
    diesAndReturns();
    reappears("Gate");
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
}

class VdDiscoverPlainBrowse : public VdDiscoverBrowseCommand
{
protected:
    VdDiscoverPlainBrowse() { options.plain = true; }

    /** The daemon is restarted once a camera is known, which it has not found again at the end. */
    void followThroughRestart()
    {
        options.follow = true;
        start();
        cameraFound("Gate", 1);
        dies();
        daemon.state = AVAHI_CLIENT_S_RUNNING;
        passTimeUntil([this] { return avahi.liveHandles().size() == 2; }, LONGEST_WAIT_MS);
    }
};

TEST_F(VdDiscoverPlainBrowse, FollowingFindsEveryDeviceAnewAfterARestart)
{
    followThroughRestart();
    reappears("Gate");
    EXPECT_EQ(events(), (Lines{"found Gate 10.0.0.1", "found Gate 10.0.0.1"}));
}

TEST_F(VdDiscoverPlainBrowse, FollowingCountsOnlyWhatIsFoundAfterTheRestart)
{
    options.count = 2;
    followThroughRestart();
    reappears("Yard");
    EXPECT_EQ(exitStatus, STILL_RUNNING);
}

TEST_F(VdDiscoverPlainBrowse, WithoutFollowingADaemonThatDiesEndsTheRun)
{
    start();
    dies();
    EXPECT_EQ(exitStatus, 3);
}

// Each of these runs in a process of its own, which writes to the same captured output.
class VdDiscoverHang : public VdDiscoverBrowseCommand
{
protected:
    [[noreturn]] void blockAfterTheTimeout()
    {
        options.timeoutMs = 20;
        startWithCamera();
        block();
        _exit(99);
    }

    [[noreturn]] void blockAtASignal()
    {
        const vd::discover::SignalWatcher signals;
        start(signals.descriptor());
        cameraFound("Gate", 1);
        std::raise(SIGTERM);
        block();
        _exit(99);
    }

    void startWithCamera()
    {
        start();
        cameraFound("Gate", 1);
    }

    const std::string REMEDY = "^" + PROGRAM + HANG_REMEDY + "\n$";
};

TEST_F(VdDiscoverHang, AfterTheTimeoutTheTableIsPrintedAllTheSame)
{
    options.format = OutputFormat::Table;
    EXPECT_EXIT(blockAfterTheTimeout(), testing::ExitedWithCode(0), REMEDY);
    EXPECT_EQ(output.text().toStdString(), "NAME  KIND            ADDRESS   PORT  MODEL  VERSION  SERIAL\n"
                                           "Gate  Vandrel camera  10.0.0.1  80    -      -        010203\n");
}

TEST_F(VdDiscoverHang, AtASignalTheTableIsPrintedAllTheSame)
{
    options.format = OutputFormat::Table;
    EXPECT_EXIT(blockAtASignal(), testing::ExitedWithCode(0), REMEDY);
    EXPECT_EQ(output.text().count('\n'), 2);
}

TEST_F(VdDiscoverHang, WhatWasPrintedBeforeIsNotPrintedAgain)
{
    options.follow = true;
    EXPECT_EXIT(blockAtASignal(), testing::ExitedWithCode(0), REMEDY);
    EXPECT_EQ(events(), Lines{"found Gate 10.0.0.1"});
}

TEST_F(VdDiscoverHang, WithoutADeviceTheStatusIsOne)
{
    const auto blockWithoutDevices = [this] {
        options.timeoutMs = 20;
        start();
        block();
    };
    EXPECT_EXIT(blockWithoutDevices(), testing::ExitedWithCode(1), REMEDY);
}

TEST_F(VdDiscoverHang, ACountThatIsReachedIsNotHeldUp)
{
    options.count = 1;
    const auto blockAtTheCount = [this] {
        startWithCamera();
        block();
    };
    EXPECT_EXIT(blockAtTheCount(), testing::ExitedWithCode(0), REMEDY);
}
