// SPDX-License-Identifier: MIT
//
// Loaded before a program (LD_PRELOAD), this shifts its wall clock by as many seconds as the file named by
// VD_CLOCK_SHIFT holds at the time, a number of eight bytes. The monotonic clock goes on as it is.

#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

const volatile std::int64_t* openShift()
{
    const char* const name = std::getenv("VD_CLOCK_SHIFT");
    const int file = name ? open(name, O_RDONLY | O_CLOEXEC) : -1;
    void* const shift = mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
    if (shift == MAP_FAILED)
        std::abort();
    close(file);
    return static_cast<const volatile std::int64_t*>(shift);
}

std::int64_t shiftOfWallClock()
{
    static const volatile std::int64_t* const shift = openShift();
    return *shift;
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const long result = syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += shiftOfWallClock();
    return static_cast<int>(result);
}

int gettimeofday(timeval* now, void*) noexcept
{
    timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = precise.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* stored) noexcept
{
    timespec precise;
    clock_gettime(CLOCK_REALTIME, &precise);
    if (stored)
        *stored = precise.tv_sec;
    return precise.tv_sec;
}

} // extern "C"
