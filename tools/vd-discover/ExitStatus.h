// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_EXITSTATUS_H
#define VD_DISCOVER_EXITSTATUS_H

namespace vd::discover {

/** What the command tells the script that ran it. */
enum ExitStatus {
    EXIT_DEVICES_SEEN = 0,
    EXIT_PUBLISHED = 0,
    EXIT_RESPONDER_RUNNING = 0,
    EXIT_NOTHING_SEEN = 1,
    EXIT_NOT_PUBLISHED = 1,
    EXIT_RESPONDER_NOT_RUNNING = 1,
    EXIT_USAGE = 2,
    EXIT_UNREACHABLE = 3
};

} // namespace vd::discover

#endif
