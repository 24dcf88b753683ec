// SPDX-License-Identifier: MIT
#include "avahi/WatchGroup.h"

#include <exception>

namespace vd {

namespace {

thread_local WatchGroup* currentGroup = nullptr;

} // namespace

WatchGroup::WatchGroup() : m_first(nullptr), m_isPaused(false) {}

WatchGroup::~WatchGroup()
{
    for (Member* member = m_first; member; member = member->m_next)
        member->m_group = nullptr;
}

WatchGroup::Scope::Scope(WatchGroup* group) : m_outer(currentGroup)
{
    currentGroup = group;
}

WatchGroup::Scope::~Scope()
{
    currentGroup = m_outer;
}

bool WatchGroup::isCallingBack() const
{
    for (const Member* member = m_first; member; member = member->m_next) {
        if (member->isCallingBack())
            return true;
    }
    return false;
}

void WatchGroup::pause()
{
    m_isPaused = true;
    for (Member* member = m_first; member; member = member->m_next)
        member->pause();
}

void WatchGroup::resume()
{
    m_isPaused = false;
    std::exception_ptr failure;
    for (Member *member = m_first, *next = nullptr; member; member = next) {
        next = member->m_next;
        if (member->m_isReleased) {
            delete member;
            continue;
        }
        try {
            member->resume();
        } catch (...) {
            // The others go on.
            failure = std::current_exception();
        }
    }
    if (failure)
        std::rethrow_exception(failure);
}

WatchGroup::Member::Member() : m_group(currentGroup), m_previous(nullptr), m_next(nullptr), m_isReleased(false)
{
    if (!m_group)
        return;
    m_next = m_group->m_first;
    if (m_next)
        m_next->m_previous = this;
    m_group->m_first = this;
}

WatchGroup::Member::~Member()
{
    if (m_next)
        m_next->m_previous = m_previous;
    if (m_previous)
        m_previous->m_next = m_next;
    else if (m_group)
        m_group->m_first = m_next;
}

void WatchGroup::Member::release()
{
    if (isPaused())
        m_isReleased = true;
    else
        delete this;
}

} // namespace vd
