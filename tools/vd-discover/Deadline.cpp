// SPDX-License-Identifier: MIT
#include "Deadline.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace vd::discover {

namespace {

const std::chrono::milliseconds MOMENT(100);

} // namespace

Deadline::Deadline(std::chrono::milliseconds time, Action whenMissed)
    : m_whenMissed(std::move(whenMissed)), m_met(eventfd(0, EFD_CLOEXEC))
{
    // Without a descriptor left the work goes unwatched, as it could not be told to be over.
    if (m_met != -1)
        m_watcher = std::thread([this, time] { watch(time); });
}

Deadline::Deadline(int startDescriptor, std::chrono::milliseconds time, Action whenMissed)
    : m_whenMissed(std::move(whenMissed)), m_met(startDescriptor == -1 ? -1 : eventfd(0, EFD_CLOEXEC))
{
    if (m_met == -1)
        return;
    m_watcher = std::thread([this, startDescriptor, time] {
        if (!isMetBeforeReadable(startDescriptor))
            watch(time);
    });
}

Deadline::~Deadline()
{
    if (!m_watcher.joinable())
        return;
    eventfd_write(m_met, 1);
    m_watcher.join();
    close(m_met);
}

void Deadline::watch(std::chrono::milliseconds time) const
{
    // A process that was stopped goes on past the time: what is watched over gets a moment to end all the same.
    if (!isMetWithin(time) && !isMetWithin(MOMENT))
        m_whenMissed();
}

bool Deadline::isMetBeforeReadable(int descriptor) const
{
    struct pollfd waiting[] = {{m_met, POLLIN, 0}, {descriptor, POLLIN, 0}};
    while (poll(waiting, 2, -1) == -1 && errno == EINTR) {
    }
    return waiting[0].revents != 0;
}

bool Deadline::isMetWithin(std::chrono::milliseconds time) const
{
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + time;
    struct pollfd waiting = {m_met, POLLIN, 0};
    int ready = -1;
    do {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        ready = poll(&waiting, 1, static_cast<int>(std::max<std::int64_t>(left, 0)));
    } while (ready == -1 && errno == EINTR);
    return ready != 0;
}

} // namespace vd::discover
