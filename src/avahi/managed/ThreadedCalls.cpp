// SPDX-License-Identifier: MIT
#include "avahi/managed/ThreadedCalls.h"

namespace vd {

ThreadedCalls::ThreadedCalls(QObject* parent) : thread(parent)
{
    thread.setObjectName(QLatin1String("callThread"));
}

ThreadedCalls::~ThreadedCalls()
{
    if (isBusy())
        thread.wait();
}

bool ThreadedCalls::begin(int milliseconds)
{
    if (!watchGroup.isPausable())
        return false;
    return beginInThread([this, milliseconds] {
        const WatchGroup::Scope scope(&watchGroup);
        planned.make(milliseconds);
    });
}

bool ThreadedCalls::beginInThread(const std::function<void()>& call)
{
    watchGroup.pause();
    if (thread.begin(call))
        return true;
    watchGroup.resume();
    return false;
}

int ThreadedCalls::frees() const
{
    return static_cast<int>(closedAddressBrowsers.size()) + planned.size() - planned.makes();
}

void ThreadedCalls::wait()
{
    thread.wait();
    watchGroup.resume();
}

} // namespace vd
