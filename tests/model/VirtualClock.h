// SPDX-License-Identifier: MIT
#pragma once

/**
 * While this lives, the monotonic clock of the program stands still but for advance(): timers are due when it says so,
 * and the same course takes the same time whatever the machine does. There is at most one.
 */
class VirtualClock
{
public:
    VirtualClock();
    ~VirtualClock();
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    static void advance(int milliseconds);
};
