// SPDX-License-Identifier: MIT
#include "BrowseCommand.h"
#include "SignalWatcher.h"

#include "support/DiscoveryFixture.h"
#include "support/StandardStreamCapture.h"

#include <vd/LogQt.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEventLoop>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <chrono>
#include <csignal>
#include <thread>

#include <unistd.h>

using vd::discover::BrowseCommand;
using vd::discover::BrowseOptions;
using vd::discover::OutputFormat;

namespace {

const int STILL_RUNNING = -1;
const int LONGEST_WAIT_MS = 5000;

// As a call to a daemon that hangs does.
void block()
{
    std::this_thread::sleep_for(std::chrono::seconds(10));
}

} // namespace

class VdDiscoverBrowseCommand : public testing::Test
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
        command.reset(new BrowseCommand(options, signalDescriptor));
        QObject::connect(command.get(), &BrowseCommand::finished, [this](int status) { exitStatus = status; });
        command->start();
        avahi.takeCalls();
    }

    static void processEvents() { QCoreApplication::processEvents(); }

    /** Waits for the end of a run that ends by itself. */
    int waitForEnd()
    {
        QEventLoop loop;
        QObject::connect(command.get(), &BrowseCommand::finished, &loop, &QEventLoop::quit);
        QTimer::singleShot(LONGEST_WAIT_MS, &loop, &QEventLoop::quit);
        if (exitStatus == STILL_RUNNING)
            loop.exec();
        return exitStatus;
    }

    int end()
    {
        command->end();
        processEvents();
        return exitStatus;
    }

    void appears(const char* name)
    {
        avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_NEW, 2, AVAHI_PROTO_INET, name, "_http._tcp", "local");
    }

    void disappears(const char* name)
    {
        avahi.fireBrowse(avahi.browser(), AVAHI_BROWSER_REMOVE, 2, AVAHI_PROTO_INET, name, "_http._tcp", "local");
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
        const Txt txt = {"ser_no.vandrel.com=\x01\x02\x03"};
        appears(name);
        resolved(resolver, name, "10.0.0.1", txt);
    }

    void printerFound(const char* name, int resolver)
    {
        const Txt txt = {"note=no camera"};
        appears(name);
        resolved(resolver, name, "10.0.0.7", txt);
    }

    /** What was printed as JSON, an event a line: `found Gate 10.0.0.1`. */
    Lines events() const
    {
        Lines lines;
        const auto printed = output.text().split('\n');
        for (const QByteArray& line : printed) {
            if (line.isEmpty())
                continue;
            const QJsonObject event = QJsonDocument::fromJson(line).object();
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

    AvahiStandIn avahi;
    BrowseOptions options;
    CapturedOutput output;
    std::unique_ptr<BrowseCommand> command;
    int exitStatus = STILL_RUNNING;
};

TEST_F(VdDiscoverBrowseCommand, EveryEventIsALineAsItHappens)
{
    start();
    cameraFound("Gate", 1);
    EXPECT_EQ(events(), Lines{"found Gate 10.0.0.1"});
    disappears("Gate");
    EXPECT_EQ(events(), (Lines{"found Gate 10.0.0.1", "lost Gate 10.0.0.1"}));
}

TEST_F(VdDiscoverBrowseCommand, AServiceThatIsNoDeviceIsNeverMentioned)
{
    start();
    printerFound("Printer", 1);
    disappears("Printer");
    EXPECT_EQ(end(), 1);
    EXPECT_EQ(output.text(), QByteArray());
}

TEST_F(VdDiscoverBrowseCommand, EndsWithStatusZeroWhenADeviceWasSeenThoughItIsGone)
{
    start();
    cameraFound("Gate", 1);
    disappears("Gate");
    EXPECT_EQ(end(), 0);
}

TEST_F(VdDiscoverBrowseCommand, EndsByItselfAfterTheTimeout)
{
    options.timeoutMs = 20;
    start();
    EXPECT_EQ(waitForEnd(), 1);
}

TEST_F(VdDiscoverBrowseCommand, PrintsTheTableAtTheEndOnly)
{
    options.format = OutputFormat::Table;
    start();
    cameraFound("Gate", 1);
    EXPECT_EQ(output.text(), QByteArray());
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(output.text().toStdString(), "NAME  KIND            ADDRESS   PORT  MODEL  VERSION  SERIAL\n"
                                           "Gate  Vandrel camera  10.0.0.1  80    -      -        010203\n");
}

TEST_F(VdDiscoverBrowseCommand, PrintsNoTableWithoutDevices)
{
    options.format = OutputFormat::Table;
    start();
    EXPECT_EQ(end(), 1);
    EXPECT_EQ(output.text(), QByteArray());
}

TEST_F(VdDiscoverBrowseCommand, PrintsNoTableAfterFollowing)
{
    options.format = OutputFormat::Table;
    options.follow = true;
    start();
    cameraFound("Gate", 1);
    EXPECT_EQ(output.text().count('\n'), 1);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(output.text().count('\n'), 1);
}

TEST_F(VdDiscoverBrowseCommand, StopsAtTheCountAndPrintsNothingThatComesLater)
{
    options.count = 2;
    start();
    cameraFound("Gate", 1);
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
    cameraFound("Yard", 2);
    cameraFound("Attic", 3);
    processEvents();
    EXPECT_EQ(exitStatus, 0);
    EXPECT_EQ(events(), (Lines{"found Gate 10.0.0.1", "found Yard 10.0.0.1"}));
}

TEST_F(VdDiscoverBrowseCommand, CountsOnlyDevicesThatAreStillThere)
{
    options.count = 2;
    start();
    cameraFound("Gate", 1);
    disappears("Gate");
    cameraFound("Yard", 2);
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
}

TEST_F(VdDiscoverBrowseCommand, FreesEverythingAtTheEnd)
{
    start();
    cameraFound("Gate", 1);
    end();
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverBrowseCommand, KeepsAQueryOpenForEveryDeviceFoundOnceItsSignalIsOver)
{
    options.longLived = true;
    start();
    cameraFound("Gate", 1);
    avahi.takeCalls();
    processEvents();
    EXPECT_EQ(
        avahi.takeCalls(),
        Lines{"service_resolver_new(client1, -1, -1, \"Gate\", \"_http._tcp\", \"local\", -1, 2) = resolver2"});
    processEvents();
    EXPECT_EQ(avahi.takeCalls(), Lines{});
}

TEST_F(VdDiscoverBrowseCommand, OpensNoQueryForADeviceThatIsGoneAlready)
{
    options.longLived = true;
    start();
    cameraFound("Gate", 1);
    disappears("Gate");
    avahi.takeCalls();
    processEvents();
    EXPECT_EQ(avahi.takeCalls(), Lines{});
}

TEST_F(VdDiscoverBrowseCommand, WithoutTheOptionNoQueryIsKeptOpen)
{
    start();
    cameraFound("Gate", 1);
    avahi.takeCalls();
    processEvents();
    EXPECT_EQ(avahi.takeCalls(), Lines{});
}

TEST_F(VdDiscoverBrowseCommand, AMissingBusIsStatusThree)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, 3);
}

TEST_F(VdDiscoverBrowseCommand, FollowingThatNeverReachedTheDaemonIsStatusThree)
{
    options.follow = true;
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
    EXPECT_EQ(end(), 3);
}

TEST_F(VdDiscoverBrowseCommand, AReaderThatIsGoneEndsFollowing)
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

TEST_F(VdDiscoverBrowseCommand, ATerminalShowsProgress)
{
    TerminalAsErrors terminal;
    start();
    EXPECT_TRUE(terminal.takeText().contains("0 devices, 0.0 s of 60 s"));
}

TEST_F(VdDiscoverBrowseCommand, NoProgressStandsBetweenTheLinesOfTheLog)
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

    const char* const REMEDY = "^vd-discover: the Avahi daemon or the system bus does not answer; restart the "
                               "daemon with \"sudo systemctl restart avahi-daemon\"\n$";
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
