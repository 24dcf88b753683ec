// SPDX-License-Identifier: MIT
#include "ResponderCommand.h"

#include "ExitStatus.h"
#include "StandardStreams.h"

#include <vd/BonjourResponder.h>

#include <memory>

#include <unistd.h>

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

// In all texts NAME stands for the name of the service.
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
        return {"NAME is masked and not running",
                "NAME is masked, so it cannot be started; allow it with \"sudo systemctl unmask NAME\""};
    case Status::Broken:
        return {"NAME is not installed properly and not running",
                "the unit file of NAME is not valid; see why with \"systemctl status NAME\" and mend it"};
    case Status::NotAllowed:
        return {"NAME is installed and not running; it was not started",
                "this user may not start services; use \"sudo vd-discover responder --start\" or "
                "\"sudo systemctl start NAME\""};
    case Status::StartRefused:
        return {"NAME is installed and not running; it was not started",
                "the unit file of NAME forbids to start it by hand; see what starts it with "
                "\"systemctl cat NAME\""};
    case Status::StartFailed:
        return {"NAME is installed and not running; starting it failed",
                "NAME failed to start; see why with \"journalctl -u NAME\""};
    case Status::StillStarting:
        return {"NAME is installed and still starting",
                "NAME has not come up yet; ask again in a while, or see \"systemctl status NAME\""};
    case Status::NoServiceManager:
        return {"NAME is not known to be installed or running",
                "systemd cannot be reached on the system bus; see to it that both run, or start NAME by this "
                "system's own means"};
    case Status::NoAnswer:
        return {"NAME is not known to be installed or running",
                "systemd or the system bus does not answer; try again, and if that does not help restart the "
                "machine"};
    case Status::Unsupported:
        break;
    }
    return {"NAME is not known to be installed or running",
            "vd-discover was built without a service manager; build it with libsystemd, or use this system's own "
            "means"};
}

QString named(const char* text)
{
    return QString::fromLatin1(text).replace(QLatin1String("NAME"), Responder::serviceName());
}

} // namespace

ResponderService systemResponderService()
{
    const auto controller = std::make_shared<ServiceController>(Responder::serviceName());
    return {[controller] { return controller->status(); }, [controller] { return controller->tryStart(); }};
}

int runResponder(const ResponderOptions& options, const ResponderService& service)
{
    Status status = service.status();
    const bool isToStart = options.start && status == Status::Stopped;
    if (isToStart)
        status = service.start();

    Report report = reportOf(status);
    if (isToStart && status == Status::Running)
        report.finding = "NAME is installed and was not running; it was started and is running now";
    const int error = writeAll(STDOUT_FILENO, named(report.finding).toUtf8() + '\n');
    if (report.remedy)
        reportError(named(report.remedy));
    return status == Status::Running && error == 0 ? EXIT_RESPONDER_RUNNING : EXIT_RESPONDER_NOT_RUNNING;
}

} // namespace vd::discover
