// SPDX-License-Identifier: MIT

// Where there is no service manager to build against, no service is installed.

#include "responder/ServiceController.h"

namespace vd {

ServiceController::Status ServiceController::status() const
{
    return Status::Unsupported;
}

ServiceController::Status ServiceController::tryStart() const
{
    return Status::Unsupported;
}

} // namespace vd
