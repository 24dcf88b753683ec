// SPDX-License-Identifier: MIT
#pragma once

#include "model/ManagedAccount.h"
#include "support/AvahiStandIn.h"

#include <functional>
#include <string>

/** A device that appears and disappears again, to see whether that is noticed still. */
class ManagedProbe
{
public:
    static const char TYPE[];

    /** @p passTime lets so many milliseconds pass, in which others get their answers. */
    ManagedProbe(AvahiStandIn& avahi, const ManagedAccount& account, const std::function<void(int)>& passTime)
        : m_avahi(avahi), m_account(account), m_passTime(passTime)
    {}

    /** Empty when it is found and lost. */
    std::string flawOn(const std::string& browser);

private:
    void tell(const std::string& browser, AvahiBrowserEvent event);
    std::string resolver() const;
    void answer(const std::string& resolver);

    AvahiStandIn& m_avahi;
    const ManagedAccount& m_account;
    const std::function<void(int)> m_passTime;
};
