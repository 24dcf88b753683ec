// SPDX-License-Identifier: MIT
#include "PublishCommand.h"
#include "SignalWatcher.h"

#include "support/VdDiscoverCommandFixture.h"
#include "support/VdDiscoverMessages.h"

#include <QtCore/QtEndian>

#include <csignal>

using vd::discover::OutputFormat;
using vd::discover::PublishCommand;
using vd::discover::PublishOptions;

namespace {

const char WARNING[] = "vd-discover: warning: everyone on the local network can read the record";
const char NAME_TAKEN[] = "vd-discover: another service on the network has the name \"Dock\"; choose another NAME";
const std::string ENDED = PROGRAM + END_REMEDY;

const char REMAINS[] = "vd-discover: the Avahi daemon did not confirm the withdrawal, so the record may still be "
                       "readable; restart it with \"sudo systemctl restart avahi-daemon\"";
const char NOT_PUBLISHED[]
    = "vd-discover: the service was not published, as the run ended before it was established";

PublishOptions dockSetup()
{
    PublishOptions options;
    options.name = QStringLiteral("Dock");
    options.type = QStringLiteral("_setup._tcp");
    options.info.zephValue = 0x010203;
    options.info.newIp = qToBigEndian<quint32>(0x0a141e28);
    options.info.netMask = qToBigEndian<quint32>(0xffffff80);
    options.info.userName = QStringLiteral("admin");
    options.info.password = QStringLiteral("secret");
    options.format = OutputFormat::Json;
    return options;
}

} // namespace

class VdDiscoverPublishBase : public VdDiscoverCommandTest<PublishCommand, PublishOptions>
{
protected:
    VdDiscoverPublishBase() { options = dockSetup(); }

    void startPublished()
    {
        start();
        avahi.fireGroupState(AVAHI_ENTRY_GROUP_REGISTERING);
        avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED);
    }

    /** The names of the functions called since this was asked last. */
    Lines takeFunctions()
    {
        Lines functions;
        for (const std::string& call : avahi.takeCalls())
            functions.push_back(call.substr(0, call.find('(')));
        return functions;
    }

    /** What was printed as JSON, a word an event. */
    Lines events() const
    {
        Lines words;
        for (const QJsonObject& event : printedObjects())
            words.push_back(event.value(QStringLiteral("event")).toString().toStdString());
        return words;
    }
};

class VdDiscoverPublishCommand : public VdDiscoverPublishBase
{
protected:
    /** What was said on standard error, without the warning that everything begins with. */
    Lines said() const
    {
        Lines lines = linesOf(errors);
        EXPECT_FALSE(lines.empty());
        if (!lines.empty())
            lines.erase(lines.begin());
        return lines;
    }

    CapturedOutput errors{STDERR_FILENO};
};

TEST_F(VdDiscoverPublishCommand, BrowsesTheTypeAndThenRegistersTheService)
{
    start();
    EXPECT_EQ(takeFunctions(), (Lines{"client_new", "service_browser_new", "entry_group_new",
                                      "entry_group_add_service_strlst", "entry_group_commit"}));
}

TEST_F(VdDiscoverPublishCommand, HandsTheRecordOver)
{
    start();
    const Lines calls = avahi.takeCalls();
    EXPECT_NE(calls.at(1).find("\"_setup._tcp\""), std::string::npos) << calls.at(1);
    EXPECT_EQ(calls.at(3),
              "entry_group_add_service_strlst(group1, -1, -1, 320, \"Dock\", \"_setup._tcp\", null, null, 80, "
              "[SAVE.vandrel.com=F MASK.vandrel.com=\\xff\\xff\\xff\\x80 NEWIP.vandrel.com=\\x0a\\x14\\x1e( "
              "PWD.vandrel.com=c2VjcmV0 USER.vandrel.com=admin ZEPH.vandrel.com=\\x01\\x02\\x03])");
}

TEST_F(VdDiscoverPublishCommand, WarnsThatThePasswordCanBeRead)
{
    start();
    EXPECT_EQ(errors.text().toStdString(), std::string(WARNING) + ", password included\n");
}

TEST_F(VdDiscoverPublishCommand, WarnsOfNoPasswordWhereThereIsNone)
{
    options.info.password.clear();
    start();
    EXPECT_EQ(errors.text().toStdString(), std::string(WARNING) + "\n");
}

TEST_F(VdDiscoverPublishCommand, WarnsOfWhatTheUserMayNotHaveMeant)
{
    options.warnings = QStringList{QStringLiteral("one thing"), QStringLiteral("another")};
    start();
    EXPECT_EQ(said(), (Lines{"vd-discover: warning: one thing", "vd-discover: warning: another"}));
}

TEST_F(VdDiscoverPublishCommand, TellsThatTheServiceIsEstablishedOnceOnly)
{
    start();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_UNCOMMITED);
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_REGISTERING);
    EXPECT_EQ(events(), Lines{});
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED);
    EXPECT_EQ(events(), Lines{"established"});
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_REGISTERING);
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED);
    EXPECT_EQ(events(), Lines{"established"});
}

TEST_F(VdDiscoverPublishCommand, IsEstablishedThoughAvahiSaysSoBeforeTheCallIsOver)
{
    avahi.duringCall("entry_group_commit", [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED); });
    start();
    EXPECT_EQ(events(), Lines{"established"});
    EXPECT_EQ(end(), 0);
}

TEST_F(VdDiscoverPublishCommand, PrintsLinesForPeople)
{
    options.format = OutputFormat::Table;
    startPublished();
    EXPECT_EQ(end(), 0);
    const auto lines = output.text().split('\n');
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(lines.at(0).mid(8).toStdString(),
              "  published  Dock (_setup._tcp)  zeph 0x010203: 10.20.30.40/25, not saved");
    EXPECT_EQ(lines.at(1).mid(8).toStdString(), "  withdrawn  Dock (_setup._tcp)");
}

TEST_F(VdDiscoverPublishCommand, AtTheEndWithdrawsAndThenEndsBrowsing)
{
    startPublished();
    takeFunctions();
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(takeFunctions(), (Lines{"entry_group_reset", "entry_group_free", "client_free"}));
    EXPECT_EQ(events(), (Lines{"established", "withdrawn"}));
    EXPECT_EQ(avahi.liveHandles(), Lines{});
    EXPECT_EQ(said(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, OfAWithdrawalThatFailsIsToldThatTheRecordMayRemain)
{
    startPublished();
    avahi.failNext("entry_group_reset", AVAHI_ERR_BAD_STATE);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(said(), Lines{REMAINS});
    EXPECT_EQ(events(), Lines{"established"});
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, OfAWithdrawalThatFailsInItsSecondStepIsToldThatTheRecordMayRemain)
{
    startPublished();
    avahi.failNext("entry_group_free", AVAHI_ERR_BAD_STATE);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(said(), Lines{REMAINS});
    EXPECT_EQ(events(), Lines{"established"});
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, OfAWithdrawalThatFailsBeforeTheServiceIsEstablishedIsToldToo)
{
    start();
    avahi.failNext("entry_group_reset", AVAHI_ERR_BAD_STATE);
    EXPECT_EQ(end(), 1);
    EXPECT_EQ(said(), (Lines{REMAINS, NOT_PUBLISHED}));
}

TEST_F(VdDiscoverPublishCommand, WhatFailedDoesNotRemainThoughItsWithdrawalFails)
{
    start();
    avahi.failNext("entry_group_reset", AVAHI_ERR_BAD_STATE);
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION);
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(said(), Lines{NAME_TAKEN});
}

TEST_F(VdDiscoverPublishCommand, WhatWasNeverEstablishedIsStatusOneAndToldNotToBePublished)
{
    start();
    EXPECT_EQ(end(), 1);
    EXPECT_EQ(events(), Lines{});
    EXPECT_EQ(said(), Lines{NOT_PUBLISHED});
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, ANameThatIsTakenOnTheNetworkIsToldWithTheRemedy)
{
    start();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION);
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(events(), Lines{"collision"});
    EXPECT_EQ(said(), Lines{NAME_TAKEN});
    EXPECT_EQ(avahi.liveHandles(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, ANameThatIsTakenLaterEndsThePublication)
{
    startPublished();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION);
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(events(), (Lines{"established", "collision"}));
}

TEST_F(VdDiscoverPublishCommand, ANameThatIsTakenOnThisHostIsToldWithTheRemedy)
{
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_COLLISION);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(events(), Lines{"collision"});
    EXPECT_EQ(said(), Lines{NAME_TAKEN});
}

TEST_F(VdDiscoverPublishCommand, ACollisionToldInsideTheCallIsToldOnce)
{
    avahi.duringCall("entry_group_commit", [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION); });
    avahi.failNext("entry_group_commit", AVAHI_ERR_BAD_STATE);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(events(), Lines{"collision"});
    EXPECT_EQ(said(), Lines{NAME_TAKEN});
}

TEST_F(VdDiscoverPublishCommand, FreesNothingFromInsideTheCallback)
{
    start();
    avahi.takeCalls();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_COLLISION);
    EXPECT_EQ(takeFunctions(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, AFailureIsToldWithTheRemedy)
{
    start();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_FAILURE);
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(events(), Lines{"failure"});
    EXPECT_EQ(said(), Lines{"vd-discover: the Avahi daemon could not publish the service; see why with "
                            "\"journalctl -u avahi-daemon\""});
}

TEST_F(VdDiscoverPublishCommand, ARefusalIsToldWithAvahisReason)
{
    avahi.failNext("entry_group_new", AVAHI_ERR_TOO_MANY_OBJECTS);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(events(), Lines{"failure"});
    EXPECT_EQ(said(), Lines{"vd-discover: the Avahi daemon refuses to publish the service (Too many objects); "
                            "restart it with \"sudo systemctl restart avahi-daemon\""});
}

TEST_F(VdDiscoverPublishCommand, AMissingBusIsStatusThree)
{
    avahi.failNext("client_new", AVAHI_ERR_DBUS_ERROR);
    start();
    processEvents();
    EXPECT_EQ(exitStatus, 3);
    EXPECT_EQ(said(), Lines{PROGRAM + BUS_REMEDY});
}

TEST_F(VdDiscoverPublishCommand, ADaemonThatDiesBeforeTheServiceIsEstablishedIsStatusThree)
{
    start();
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    processEvents();
    EXPECT_EQ(exitStatus, 3);
    EXPECT_EQ(said(), Lines{ENDED});
}

TEST_F(VdDiscoverPublishCommand, ARegistrationThatTheDaemonDiesInIsNoRefusal)
{
    avahi.failNext("entry_group_commit", AVAHI_ERR_DISCONNECTED);
    avahi.duringCall("entry_group_commit", [this] { daemon.becomes(AVAHI_CLIENT_FAILURE); });
    start();
    processEvents();
    processEvents();
    EXPECT_EQ(exitStatus, 3);
    EXPECT_EQ(events(), Lines{});
    EXPECT_EQ(said(), Lines{ENDED});
}

TEST_F(VdDiscoverPublishCommand, IsPublishedAgainAfterTheDaemonDied)
{
    startPublished();
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    EXPECT_EQ(exitStatus, STILL_RUNNING);
    EXPECT_EQ(avahi.liveHandles(), Lines{"client2"});
    EXPECT_EQ(events(), (Lines{"established", "lost"}));
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client2", "browser2", "group2"}));
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_REGISTERING, 2);
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED, 2);
    EXPECT_EQ(events(), (Lines{"established", "lost", "established"}));
    EXPECT_EQ(said(), (Lines{ENDED + WAITING, PROGRAM + RECOVERY + "publishing"}));
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(events(), (Lines{"established", "lost", "established", "withdrawn"}));
}

TEST_F(VdDiscoverPublishCommand, WhatWasPublishedAgainMayRemainWhenItsWithdrawalFails)
{
    startPublished();
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    daemon.state = AVAHI_CLIENT_S_RUNNING;
    processEvents();
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_REGISTERING, 2);
    avahi.failNext("entry_group_reset", AVAHI_ERR_BAD_STATE);
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(said().back(), REMAINS);
}

TEST_F(VdDiscoverPublishCommand, EndsWhileItWaitsForTheDaemonWithoutAWithdrawal)
{
    startPublished();
    daemon.becomes(AVAHI_CLIENT_FAILURE);
    processEvents();
    EXPECT_EQ(end(), 0);
    EXPECT_EQ(events(), (Lines{"established", "lost"}));
}

TEST_F(VdDiscoverPublishCommand, WaitsForTheHostNameToBeSettled)
{
    daemon.state = AVAHI_CLIENT_S_REGISTERING;
    start();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1"}));
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(avahi.liveHandles(), (Lines{"client1", "browser1", "group1"}));
}

TEST_F(VdDiscoverPublishCommand, ANameThatIsTakenIsToldThoughTheHostNameWasNotSettledAtFirst)
{
    daemon.state = AVAHI_CLIENT_S_REGISTERING;
    start();
    avahi.failNext("entry_group_add_service_strlst", AVAHI_ERR_COLLISION);
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(said(), Lines{NAME_TAKEN});
}

TEST_F(VdDiscoverPublishCommand, RegistersOnceThoughTheDaemonSaysTwiceThatItRuns)
{
    start();
    takeFunctions();
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(takeFunctions(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, PublishesAnewUnderANewHostName)
{
    startPublished();
    takeFunctions();
    daemon.becomes(AVAHI_CLIENT_S_COLLISION);
    processEvents();
    EXPECT_EQ(takeFunctions(), (Lines{"entry_group_reset", "entry_group_free"}));
    EXPECT_EQ(events(), (Lines{"established", "withdrawn"}));
    daemon.becomes(AVAHI_CLIENT_S_REGISTERING);
    daemon.becomes(AVAHI_CLIENT_S_RUNNING);
    processEvents();
    EXPECT_EQ(takeFunctions(), (Lines{"entry_group_new", "entry_group_add_service_strlst", "entry_group_commit"}));
    avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED, 2);
    EXPECT_EQ(events(), (Lines{"established", "withdrawn", "established"}));
}

TEST_F(VdDiscoverPublishCommand, ASlowReaderOfTheOutputIsNotTakenForADaemonThatHangs)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const QByteArray filling(fcntl(ends[1], F_SETPIPE_SZ, 4096), '.');
    ASSERT_EQ(write(ends[1], filling.constData(), static_cast<size_t>(filling.size())), filling.size());
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
    std::thread reader([&ends] {
        // Longer than a daemon may take for its answer.
        std::this_thread::sleep_for(std::chrono::milliseconds(2000));
        char block[4096];
        EXPECT_GT(read(ends[0], block, sizeof block), 0);
    });
    avahi.duringCall("entry_group_commit", [this] { avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED); });
    start();
    reader.join();
    EXPECT_EQ(said(), Lines{});
    EXPECT_EQ(end(), 0);
    close(ends[0]);
}

TEST_F(VdDiscoverPublishCommand, AfterTheTimeoutWithdraws)
{
    options.timeoutMs = 50;
    startPublished();
    EXPECT_EQ(waitForEnd(), 0);
    EXPECT_EQ(events(), (Lines{"established", "withdrawn"}));
    EXPECT_EQ(said(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, ATimeoutThatComesTooEarlyIsTold)
{
    options.timeoutMs = 20;
    start();
    EXPECT_EQ(waitForEnd(), 1);
    EXPECT_EQ(said(), Lines{"vd-discover: the service is not established yet; try a longer --timeout"});
}

TEST_F(VdDiscoverPublishCommand, WithoutATimeoutItStays)
{
    startPublished();
    passTime(200);
    EXPECT_EQ(exitStatus, STILL_RUNNING);
}

TEST_F(VdDiscoverPublishCommand, AReaderThatIsGoneEndsThePublication)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
    startPublished();
    close(ends[0]);
    EXPECT_EQ(waitForEnd(), 0);
    EXPECT_EQ(avahi.liveHandles(), Lines{});
    EXPECT_EQ(said(), Lines{});
}

TEST_F(VdDiscoverPublishCommand, ResultsThatCannotBeWrittenEndItWithStatusOne)
{
    const int full = open("/dev/full", O_WRONLY);
    dup2(full, STDOUT_FILENO);
    close(full);
    startPublished();
    processEvents();
    EXPECT_EQ(exitStatus, 1);
    EXPECT_EQ(avahi.liveHandles(), Lines{});
    EXPECT_EQ(said(), Lines{"vd-discover: the results cannot be written: No space left on device; write them "
                            "elsewhere"});
}

TEST_F(VdDiscoverPublishCommand, TheLogTellsWhatHappensAndHoldsNoPassword)
{
    options.verbose = true;
    const int level = vd::LogQt::logLevel();
    startPublished();
    end();
    vd::LogQt::setLogLevel(level);
    const QByteArray log = errors.text();
    EXPECT_TRUE(log.contains("RegisterService() -> registering service Dock type: _setup._tcp"));
    EXPECT_TRUE(log.contains("AvahiEntryGroupChanged() -> entry group established"));
    EXPECT_FALSE(log.contains("secret"));
    EXPECT_FALSE(log.contains("c2VjcmV0"));
}

// Each of these runs in a process of its own, which writes to the same captured output.
class VdDiscoverPublishHang : public VdDiscoverPublishBase
{
protected:
    [[noreturn]] void blockInTheFirstRegistration()
    {
        avahi.duringCall("entry_group_commit", block);
        start();
        _exit(99);
    }

    [[noreturn]] void blockInAWithdrawal()
    {
        startPublished();
        avahi.duringCall("entry_group_reset", block);
        command->end();
        processEvents();
        _exit(99);
    }

    [[noreturn]] void blockAtASignal()
    {
        const vd::discover::SignalWatcher signals;
        start(signals.descriptor());
        avahi.fireGroupState(AVAHI_ENTRY_GROUP_ESTABLISHED);
        std::raise(SIGTERM);
        block();
        _exit(99);
    }

    [[noreturn]] void blockAfterTheTimeout()
    {
        options.timeoutMs = 20;
        startPublished();
        block();
        _exit(99);
    }

    const std::string warning = "^" + std::string(WARNING) + ", password included\n";
    const std::string remedy = warning + PROGRAM + HANG_REMEDY + "\n";
    const std::string remedyAndRemains = remedy + REMAINS + "\n$";
};

TEST_F(VdDiscoverPublishHang, ARegistrationWithoutAnAnswerIsStatusThree)
{
    EXPECT_EXIT(blockInTheFirstRegistration(), testing::ExitedWithCode(3), remedy + "$");
}

TEST_F(VdDiscoverPublishHang, AWithdrawalWithoutAnAnswerIsNotHeldUpAndNotTold)
{
    EXPECT_EXIT(blockInAWithdrawal(), testing::ExitedWithCode(0), remedyAndRemains);
    EXPECT_EQ(events(), Lines{"established"});
}

TEST_F(VdDiscoverPublishHang, ASignalIsNotHeldUp)
{
    EXPECT_EXIT(blockAtASignal(), testing::ExitedWithCode(0), remedyAndRemains);
}

TEST_F(VdDiscoverPublishHang, TheTimeoutIsNotHeldUp)
{
    EXPECT_EXIT(blockAfterTheTimeout(), testing::ExitedWithCode(0), remedyAndRemains);
}
