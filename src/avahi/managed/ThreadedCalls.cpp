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

void ThreadedCalls::freeAddressBrowser(AvahiRecordBrowser* browser, const ServiceKey& key)
{
    ClientCall call(ClientCall::FreeAddressBrowser);
    call.addressBrowser = browser;
    call.key = key;
    addressBrowsersToFree.append(call);
}

bool ThreadedCalls::areAnyOfAddressesFor(const ServiceKey& key) const
{
    for (int i = 0; i < addressBrowsersToFree.size(); ++i) {
        if (addressBrowsersToFree.at(i).key == key)
            return true;
    }
    return planned.areAnyOfAddressesFor(key);
}

int ThreadedCalls::frees() const
{
    return static_cast<int>(addressBrowsersToFree.size()) + planned.size() - planned.makes();
}

void ThreadedCalls::wait()
{
    thread.wait();
    watchGroup.resume();
}

} // namespace vd
