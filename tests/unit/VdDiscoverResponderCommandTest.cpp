// SPDX-License-Identifier: MIT
#include "ResponderCommand.h"

#include "support/StandardStreamCapture.h"

#include <gtest/gtest.h>

#include <csignal>

using Status = vd::ServiceController::Status;

namespace {

struct Outcome
{
    int exitStatus;
    std::string output;
    std::string errors;
    int starts;
};

Outcome run(bool start, Status status, Status afterStart = Status::Running)
{
    Outcome outcome = {};
    const CapturedOutput output;
    const CapturedOutput errors(STDERR_FILENO);
    vd::discover::ResponderOptions options;
    options.start = start;
    outcome.exitStatus = vd::discover::runResponder(options, {[status] { return status; },
                                                              [&outcome, afterStart] {
                                                                  ++outcome.starts;
                                                                  return afterStart;
                                                              }});
    outcome.output = output.text().toStdString();
    outcome.errors = errors.text().toStdString();
    return outcome;
}

void expectNotRunning(const Outcome& outcome, const char* finding, const std::string& remedy)
{
    EXPECT_EQ(outcome.exitStatus, 1);
    EXPECT_EQ(outcome.output, std::string(finding) + "\n");
    EXPECT_EQ(outcome.errors, "vd-discover: " + remedy + "\n");
}

} // namespace

TEST(VdDiscoverResponderCommand, AServiceThatRunsIsStatusZeroAndLeftAlone)
{
    for (const bool start : {false, true}) {
        const Outcome outcome = run(start, Status::Running);
        EXPECT_EQ(outcome.exitStatus, 0);
        EXPECT_EQ(outcome.output, "mdnsd is installed and running\n");
        EXPECT_EQ(outcome.errors, "");
        EXPECT_EQ(outcome.starts, 0);
    }
}

TEST(VdDiscoverResponderCommand, AServiceThatIsStoppedIsNotStartedUnasked)
{
    const Outcome outcome = run(false, Status::Stopped);
    expectNotRunning(outcome, "mdnsd is installed and not running",
                     "mdnsd is not running; start it with \"sudo vd-discover responder --start\"");
    EXPECT_EQ(outcome.starts, 0);
}

TEST(VdDiscoverResponderCommand, AServiceThatIsStoppedIsStartedWhenAsked)
{
    const Outcome outcome = run(true, Status::Stopped);
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.output, "mdnsd is installed and was not running; it was started and is running now\n");
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(outcome.starts, 1);
}

TEST(VdDiscoverResponderCommand, WhatKeepsAServiceFromStartingIsToldWithTheRemedy)
{
    expectNotRunning(run(true, Status::Stopped, Status::NotAllowed),
                     "mdnsd is installed and not running; it was not started",
                     "this user may not start services; use \"sudo vd-discover responder --start\" or "
                     "\"sudo systemctl start mdnsd\"");
    expectNotRunning(run(true, Status::Stopped, Status::StartRefused), "mdnsd is installed; it was not started",
                     "the unit file of mdnsd forbids to start it by hand; see what starts it with "
                     "\"systemctl cat mdnsd\"");
    expectNotRunning(run(true, Status::Stopped, Status::StartFailed), "mdnsd is installed; starting it failed",
                     "mdnsd failed to start; see why with \"journalctl -u mdnsd\"");
    expectNotRunning(
        run(true, Status::Stopped, Status::StillStarting),
        "mdnsd is installed; it was asked to start, without an answer within 10 s",
        "mdnsd did not come up within 10 s and may do so yet; ask again in a while, or see \"systemctl "
        "status mdnsd\"");
}

TEST(VdDiscoverResponderCommand, AServiceThatIsStartingIsNeitherSaidToRunNorNotTo)
{
    const Outcome outcome = run(false, Status::Starting);
    expectNotRunning(outcome, "mdnsd is installed and is starting",
                     "mdnsd is not up yet; ask again in a while, or see \"systemctl status mdnsd\"");
    EXPECT_EQ(outcome.starts, 0);
}

TEST(VdDiscoverResponderCommand, AServiceThatIsStartingIsWaitedForWhenAsked)
{
    const Outcome outcome = run(true, Status::Starting);
    EXPECT_EQ(outcome.exitStatus, 0);
    EXPECT_EQ(outcome.output, "mdnsd is installed and was starting; it is running now\n");
    EXPECT_EQ(outcome.starts, 1);
}

TEST(VdDiscoverResponderCommand, AServiceOfWhichNothingIsHeardOnceItIsStartedIsStillInstalled)
{
    for (const Status status : {Status::NoAnswer, Status::NoServiceManager}) {
        const Outcome outcome = run(true, Status::Stopped, status);
        EXPECT_EQ(outcome.exitStatus, 1);
        EXPECT_EQ(outcome.output, "mdnsd is installed; whether it runs by now is not known\n");
    }
}

TEST(VdDiscoverResponderCommand, WhatCannotBeStartedIsToldWithTheRemedyAndNotTried)
{
    const auto expectUntried = [](Status status, const char* finding, const std::string& remedy) {
        for (const bool start : {false, true}) {
            const Outcome outcome = run(start, status);
            expectNotRunning(outcome, finding, remedy);
            EXPECT_EQ(outcome.starts, 0);
        }
    };
    expectUntried(Status::NotInstalled, "mdnsd is not installed",
                  "there is no service mdnsd; install it with \"sudo apt install mdnsd\", or do without it, as "
                  "browse and publish need the Avahi daemon only");
    expectUntried(Status::Masked, "mdnsd is masked",
                  "mdnsd is masked, so it cannot be started; allow it with \"sudo systemctl unmask mdnsd\"");
    expectUntried(Status::Broken, "mdnsd is not installed properly",
                  "the unit file of mdnsd is not valid; see why with \"systemctl status mdnsd\" and mend it");
    const char* const unknown = "mdnsd is not known to be installed or running";
    expectUntried(Status::QuestionRefused, unknown,
                  "this user may not ask for services; use \"sudo vd-discover responder\"");
    expectUntried(Status::NoServiceManager, unknown,
                  "systemd cannot be reached on the system bus; see to it that both run, or start mdnsd by this "
                  "system's own means");
    expectUntried(Status::NoAnswer, unknown,
                  "systemd or the system bus does not answer; try again, and if that does not help restart the "
                  "machine");
    expectUntried(
        Status::Unsupported, unknown,
        "vd-discover was built without a service manager; build it with libsystemd, or use this system's "
        "own means");
}

class VdDiscoverResponderOutput : public testing::Test
{
protected:
    static int runWith(int output)
    {
        dup2(output, STDOUT_FILENO);
        close(output);
        return vd::discover::runResponder({}, {[] { return Status::Running; }, nullptr});
    }

    // Puts back what the tests replace.
    const CapturedOutput output;
    const CapturedOutput errors{STDERR_FILENO};
};

TEST_F(VdDiscoverResponderOutput, AnAnswerThatDoesNotFitIsToldAndChangesNoStatus)
{
    EXPECT_EQ(runWith(open("/dev/full", O_WRONLY)), 0);
    EXPECT_EQ(errors.text(),
              QByteArray("vd-discover: the results cannot be written: No space left on device; write "
                         "them elsewhere\n"));
}

TEST_F(VdDiscoverResponderOutput, AnAnswerThatNobodyReadsIsNoFailure)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const auto outer = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(runWith(ends[1]), 0);
    std::signal(SIGPIPE, outer);
    EXPECT_EQ(errors.text(), QByteArray());
}

TEST_F(VdDiscoverResponderOutput, AClosedOutputIsNoFailure)
{
    EXPECT_EQ(runWith(open("/dev/null", O_RDONLY)), 0);
    EXPECT_EQ(errors.text(), QByteArray());
}
