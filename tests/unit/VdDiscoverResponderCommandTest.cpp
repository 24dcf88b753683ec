// SPDX-License-Identifier: MIT
#include "ResponderCommand.h"

#include "support/StandardStreamCapture.h"

#include <gtest/gtest.h>

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
    expectNotRunning(run(true, Status::Stopped, Status::StartRefused),
                     "mdnsd is installed and not running; it was not started",
                     "the unit file of mdnsd forbids to start it by hand; see what starts it with "
                     "\"systemctl cat mdnsd\"");
    expectNotRunning(run(true, Status::Stopped, Status::StartFailed),
                     "mdnsd is installed and not running; starting it failed",
                     "mdnsd failed to start; see why with \"journalctl -u mdnsd\"");
    expectNotRunning(run(true, Status::Stopped, Status::StillStarting), "mdnsd is installed and still starting",
                     "mdnsd has not come up yet; ask again in a while, or see \"systemctl status mdnsd\"");
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
    expectUntried(Status::Masked, "mdnsd is masked and not running",
                  "mdnsd is masked, so it cannot be started; allow it with \"sudo systemctl unmask mdnsd\"");
    expectUntried(Status::Broken, "mdnsd is not installed properly and not running",
                  "the unit file of mdnsd is not valid; see why with \"systemctl status mdnsd\" and mend it");
    const char* const unknown = "mdnsd is not known to be installed or running";
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

TEST(VdDiscoverResponderCommand, AnAnswerThatCannotBeWrittenIsNoSuccess)
{
    const CapturedOutput output;
    const int full = open("/dev/full", O_WRONLY);
    dup2(full, STDOUT_FILENO);
    close(full);
    EXPECT_EQ(vd::discover::runResponder({}, {[] { return Status::Running; }, nullptr}), 1);
}
