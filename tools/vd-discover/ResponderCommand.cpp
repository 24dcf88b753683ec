// SPDX-License-Identifier: MIT
#include "ResponderCommand.h"

#include "ExitStatus.h"
#include "ResultOutput.h"
#include "StandardStreams.h"

#include <vd/BonjourResponder.h>

#include <chrono>

namespace vd::discover {

namespace {

using Status = ServiceController::Status;

/** Opens up the name of the service. */
struct Responder : BonjourResponder
{
    static QString serviceName() { return BONJOUR_RESPONDER_NAME; }
};

struct Report
{
    /** How it stands, for standard output. */
    const char* finding;
    /** What to do about it, for standard error. */
    const char* remedy;
};

const char UNKNOWN[] = "NAME is not known to be installed or running";

// In all texts NAME stands for the name of the service and LIMIT for the seconds that a start may take. Whether
// the service runs is told only where it was asked for.
Report reportOf(Status status)
{
    switch (status) {
    case Status::Running:
        return {"NAME is installed and running", nullptr};
    case Status::Stopped:
        return {"NAME is installed and not running",
                "NAME is not running; start it with \"sudo vd-discover responder --start\""};
    case Status::NotInstalled:
        return {
            "NAME is not installed",
            "there is no service NAME; install it with \"sudo apt install NAME\", or do without it, as browse and "
            "publish need the Avahi daemon only"};
    case Status::Masked:
        return {"NAME is masked",
                "NAME is masked, so it cannot be started; allow it with \"sudo systemctl unmask NAME\""};
    case Status::Broken:
        return {"NAME is not installed properly",
                "the unit file of NAME is not valid; see why with \"systemctl status NAME\" and mend it"};
    case Status::NotAllowed:
        return {"NAME is installed and not running; it was not started",
                "this user may not start services; use \"sudo vd-discover responder --start\" or "
                "\"sudo systemctl start NAME\""};
    case Status::StartRefused:
        return {"NAME is installed; it was not started",
                "the unit file of NAME forbids to start it by hand; see what starts it with "
                "\"systemctl cat NAME\""};
    case Status::StartFailed:
        return {"NAME is installed; starting it failed",
                "NAME failed to start; see why with \"journalctl -u NAME\""};
    case Status::Starting:
        return {"NAME is installed and is starting",
                "NAME is not up yet; ask again in a while, or see \"systemctl status NAME\""};
    case Status::StillStarting:
        return {"NAME is installed; it was asked to start, without an answer within LIMIT s",
                "NAME did not come up within LIMIT s and may do so yet; ask again in a while, or see \"systemctl "
                "status NAME\""};
    case Status::QuestionRefused:
        return {UNKNOWN, "this user may not ask for services; use \"sudo vd-discover responder\""};
    case Status::NoServiceManager:
        return {UNKNOWN,
                "systemd cannot be reached on the system bus; see to it that both run, or start NAME by this "
                "system's own means"};
    case Status::NoAnswer:
        return {UNKNOWN,
                "systemd or the system bus does not answer; try again, and if that does not help restart the "
                "machine"};
    case Status::Unsupported:
        break;
    }
    return {UNKNOWN,
            "vd-discover was built without a service manager; build it with libsystemd, or use this system's own "
            "means"};
}

const char* findingAfterStart(Status before)
{
    return before == Status::Starting ? "NAME is installed and was starting; it is running now"
                                      : "NAME is installed and was not running; it was started and is running now";
}

QString named(const char* text)
{
    const auto limit = std::chrono::duration_cast<std::chrono::seconds>(ServiceController::START_TIME).count();
    return QString::fromLatin1(text)
        .replace(QLatin1String("NAME"), Responder::serviceName())
        .replace(QLatin1String("LIMIT"), QString::number(limit));
}

} // namespace

ResponderService systemResponderService()
{
    const ServiceController controller(Responder::serviceName());
    return {[controller] { return controller.status(); }, [controller] { return controller.tryStart(); }};
}

int runResponder(const ResponderOptions& options, const ResponderService& service)
{
    const Status before = service.status();
    const bool isToStart = options.start && (before == Status::Stopped || before == Status::Starting);
    const Status status = isToStart ? service.start() : before;

    Report report = reportOf(status);
    if (isToStart && status == Status::Running)
        report.finding = findingAfterStart(before);
    else if (isToStart && report.finding == UNKNOWN)
        report.finding = "NAME is installed; whether it runs by now is not known";
    ResultOutput output;
    output.write(named(report.finding).toUtf8() + '\n');
    if (output.hasFailed())
        reportError(output.failureText());
    if (report.remedy)
        reportError(named(report.remedy));
    // The status is an answer too, which does not need the text.
    return status == Status::Running ? EXIT_RESPONDER_RUNNING : EXIT_RESPONDER_NOT_RUNNING;
}

} // namespace vd::discover
