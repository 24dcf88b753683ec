// SPDX-License-Identifier: MIT
#include "model/VirtualClock.h"

#include <dlfcn.h>

#include <ctime>

namespace {

const time_t FIRST_SECOND = 1000000;
const long NANOSECONDS_PER_SECOND = 1000000000;
const long NANOSECONDS_PER_MILLISECOND = 1000000;

bool isVirtual = false;
timespec now;

typedef int (*ClockFunction)(clockid_t, timespec*);

int readRealClock(clockid_t clock, timespec* time)
{
    static const ClockFunction function = reinterpret_cast<ClockFunction>(dlsym(RTLD_NEXT, "clock_gettime"));
    return function(clock, time);
}

} // namespace

/** Found before the C library's, by Qt and by glib's event loop as well. */
extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (!isVirtual || clock != CLOCK_MONOTONIC)
        return readRealClock(clock, time);
    *time = now;
    return 0;
}

VirtualClock::VirtualClock()
{
    // Qt rounds the times of timers, so where it begins makes a difference.
    now = timespec{FIRST_SECOND, 0};
    isVirtual = true;
}

VirtualClock::~VirtualClock()
{
    isVirtual = false;
}

void VirtualClock::advance(int milliseconds)
{
    now.tv_nsec += milliseconds % 1000 * NANOSECONDS_PER_MILLISECOND;
    now.tv_sec += milliseconds / 1000 + now.tv_nsec / NANOSECONDS_PER_SECOND;
    now.tv_nsec %= NANOSECONDS_PER_SECOND;
}
