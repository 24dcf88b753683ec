// SPDX-License-Identifier: MIT

// QtService only knows services that were installed through it, and tells no reasons.

#include "responder/ServiceController.h"

#include <QtService/qtservice.h>

namespace vd {

ServiceController::Status ServiceController::status() const
{
    const ::QtServiceController controller(name);
    if (!controller.isInstalled())
        return Status::NotInstalled;
    return controller.isRunning() ? Status::Running : Status::Stopped;
}

ServiceController::Status ServiceController::tryStart() const
{
    ::QtServiceController controller(name);
    if (!controller.isInstalled())
        return Status::NotInstalled;
    return controller.isRunning() || controller.start() ? Status::Running : Status::StartFailed;
}

} // namespace vd
