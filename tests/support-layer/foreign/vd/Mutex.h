// SPDX-License-Identifier: MIT
#ifndef FOREIGN_VD_MUTEX_H
#define FOREIGN_VD_MUTEX_H

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>

namespace vd {

class Mutex : public QMutex
{
public:
    explicit Mutex(const char* what) : name(what) {}

    /** Lets no default constructor do, and gives it another size than the library's own. */
    const char* name;
};

#if QT_VERSION < 0x060000
using MutexLockerBase = QMutexLocker;
#else
using MutexLockerBase = QMutexLocker<Mutex>;
#endif

class MutexLocker : public MutexLockerBase
{
public:
    explicit MutexLocker(Mutex* mutex) : MutexLockerBase(mutex) {}
};

} // namespace vd

#endif
