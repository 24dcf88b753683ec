// SPDX-License-Identifier: MIT
#include "avahi/managed/SecondClient.h"

#include "avahi/AvahiPollAdapter.h"

namespace vd {

SecondClient::SecondClient(QObject* parent, const std::function<void()>& failed)
    : ThreadedCalls(parent), m_failed(failed), m_client(nullptr), m_isBeingMade(false), m_wasTried(false)
{}

SecondClient::~SecondClient()
{
    clear();
}

void SecondClient::make()
{
    if (m_wasTried)
        return;
    m_wasTried = true;
    m_isBeingMade = true;
    const bool hasBegun = beginInThread([this] {
        const WatchGroup::Scope scope(&watchGroup);
        int error = 0;
        m_client
            = avahi_client_new(avahi_qt_poll_get(), static_cast<AvahiClientFlags>(0), stateChanged, this, &error);
    });
    if (!hasBegun)
        m_isBeingMade = false;
}

bool SecondClient::hasWork() const
{
    return !planned.isEmpty() || !addressBrowsersToFree.isEmpty() || (m_client && !watchGroup.isPausable());
}

void SecondClient::wait()
{
    ThreadedCalls::wait();
    m_isBeingMade = false;
}

void SecondClient::clear()
{
    if (isBusy())
        SecondClient::wait();
    if (m_client)
        avahi_client_free(m_client);
    m_client = nullptr;
    m_wasTried = false;
    planned.takeAll();
    addressBrowsersToFree.clear();
    thread.end();
}

void SecondClient::stateChanged(AvahiClient*, AvahiClientState state, void* userdata)
{
    const SecondClient* const second = static_cast<const SecondClient*>(userdata);
    // While it is made this is the other thread, and there is nothing yet that could be lost.
    if (state == AVAHI_CLIENT_FAILURE && !second->isBusy())
        second->m_failed();
}

} // namespace vd
