// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_RESPONDERCOMMAND_H
#define VD_DISCOVER_RESPONDERCOMMAND_H

#include "ResponderOptions.h"

#include "responder/ServiceController.h"

#include <functional>

namespace vd::discover {

/** How the responder service is asked about and started; both wait, for seconds at most. */
struct ResponderService
{
    std::function<ServiceController::Status()> status;
    /** Asked only when the service is installed and does not run. */
    std::function<ServiceController::Status()> start;
};

/** The service that vd::BonjourResponder cares for, on this system. */
ResponderService systemResponderService();

/** Runs `vd-discover responder`: prints what there is to say and returns the exit status. */
int runResponder(const ResponderOptions& options, const ResponderService& service);

} // namespace vd::discover

#endif
