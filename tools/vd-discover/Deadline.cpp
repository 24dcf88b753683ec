// SPDX-License-Identifier: MIT
#include "Deadline.h"

#include <utility>

namespace vd::discover {

Deadline::Deadline(std::chrono::milliseconds time, std::function<void()> whenMissed)
    : m_whenMissed(std::move(whenMissed)), m_watcher([this, time] { watch(time); })
{}

Deadline::~Deadline()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isMet = true;
    }
    m_metSignal.notify_one();
    m_watcher.join();
}

void Deadline::watch(std::chrono::milliseconds time)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_metSignal.wait_for(lock, time, [this] { return m_isMet; }))
        m_whenMissed();
}

} // namespace vd::discover
