// SPDX-License-Identifier: MIT
#ifndef VD_MUTEX_H
#define VD_MUTEX_H

#include <QtCore/QMutex>

namespace vd {

/** A non-recursive lock. Part of the support layer that a host may replace by its own. */
class Q_DECL_EXPORT Mutex
{
public:
    Mutex() {}

    void lock() { m_mutex.lock(); }
    void unlock() { m_mutex.unlock(); }

private:
    Q_DISABLE_COPY(Mutex)

    QMutex m_mutex;
};

/** Holds a Mutex for as long as it lives. */
class Q_DECL_EXPORT MutexLocker
{
public:
    /** Locks @p mutex, which must outlive this object and not be null. */
    explicit MutexLocker(Mutex* mutex) : m_mutex(mutex) { m_mutex->lock(); }
    ~MutexLocker() { m_mutex->unlock(); }

private:
    Q_DISABLE_COPY(MutexLocker)

    Mutex* m_mutex;
};

} // namespace vd

#endif
