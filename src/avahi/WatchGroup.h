// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_WATCHGROUP_H
#define VD_AVAHI_WATCHGROUP_H

#include <QtCore/QtGlobal>

namespace vd {

/**
 * What Avahi's client library has the event loop wait for on behalf of one client.
 *
 * Each watch and timeout belongs to the thread that made it. While the group is paused none of them calls back, and
 * one other thread may use the client, and with it make, change and free what belongs to the group. Handing the
 * client to that thread and back is up to the caller, and so is the order of their accesses to memory.
 */
class WatchGroup
{
public:
    class Member;

    WatchGroup();
    /** The members stay, and belong to no group any more. */
    ~WatchGroup();

    /** As long as it lives, what is made in the calling thread belongs to the group. */
    class Scope
    {
    public:
        explicit Scope(WatchGroup* group);
        ~Scope();

    private:
        Q_DISABLE_COPY(Scope)

        WatchGroup* const m_outer;
    };

    /** One of them calls back, in which the client is at work. */
    bool isCallingBack() const;
    /** Nobody uses the client, and there is something to pause: another adapter's watches do not join. */
    bool isPausable() const { return m_first && !m_isPaused && !isCallingBack(); }
    bool isPaused() const { return m_isPaused; }

    // In the thread of the members.
    void pause();
    void resume();

private:
    Q_DISABLE_COPY(WatchGroup)

    Member* m_first;
    bool m_isPaused;
};

/** A watch or a timeout. */
class WatchGroup::Member
{
public:
    /** Deletes it; one that is paused later, when its group is resumed. */
    void release();

protected:
    Member();
    virtual ~Member();

    bool isPaused() const { return m_group && m_group->m_isPaused; }

    virtual bool isCallingBack() const = 0;
    virtual void pause() = 0;
    /** It may have been made while the group was paused. */
    virtual void resume() = 0;

private:
    Q_DISABLE_COPY(Member)
    friend class WatchGroup;

    // Linked by hand, as there may be no memory for an entry of a list, and Avahi cannot be told so.
    WatchGroup* m_group;
    Member* m_previous;
    Member* m_next;
    bool m_isReleased;
};

} // namespace vd

#endif
