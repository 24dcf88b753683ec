// SPDX-License-Identifier: MIT
#include "QtObjects.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QObject>
#include <QtCore/QThread>

#include <mutex>
#include <unordered_set>

// Qt declares it in a private header, which is not installed everywhere.
QT_BEGIN_NAMESPACE
extern Q_CORE_EXPORT quintptr qtHookData[];
QT_END_NAMESPACE

namespace {

// The entries of qtHookData that matter here, the same since Qt 5.4.
const int NUMBER_OF_ENTRIES = 1;
const int OBJECT_MADE = 3;
const int OBJECT_GONE = 4;

struct Living
{
    std::mutex mutex;
    std::unordered_set<QObject*> objects;
};

// Never destroyed, as some objects end after all static ones.
Living& living()
{
    static Living* const all = new Living;
    return *all;
}

void made(QObject* object)
{
    const std::lock_guard<std::mutex> locker(living().mutex);
    living().objects.insert(object);
}

void gone(QObject* object)
{
    const std::lock_guard<std::mutex> locker(living().mutex);
    living().objects.erase(object);
}

} // namespace

bool QtObjects::watch()
{
    if (qtHookData[NUMBER_OF_ENTRIES] <= OBJECT_GONE || qtHookData[OBJECT_MADE] || qtHookData[OBJECT_GONE])
        return false;
    qtHookData[OBJECT_MADE] = reinterpret_cast<quintptr>(&made);
    qtHookData[OBJECT_GONE] = reinterpret_cast<quintptr>(&gone);
    return true;
}

int QtObjects::count()
{
    const std::lock_guard<std::mutex> locker(living().mutex);
    return static_cast<int>(living().objects.size());
}

std::map<std::string, int> QtObjects::countByClass()
{
    const std::lock_guard<std::mutex> locker(living().mutex);
    std::map<std::string, int> counts;
    for (const QObject* const object : living().objects)
        ++counts[object->metaObject()->className()];
    return counts;
}

int QtObjects::activeTimers()
{
    const QAbstractEventDispatcher* const dispatcher = QAbstractEventDispatcher::instance();
    const std::lock_guard<std::mutex> locker(living().mutex);
    int timers = 0;
    for (QObject* const object : living().objects) {
        if (object->thread() == QThread::currentThread())
            timers += static_cast<int>(dispatcher->registeredTimers(object).size());
    }
    return timers;
}
