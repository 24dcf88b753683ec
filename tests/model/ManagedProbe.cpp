// SPDX-License-Identifier: MIT
#include "model/ManagedProbe.h"

#include "model/ManagedHandles.h"
#include "support/DiscoveryFixture.h"

namespace {

const char PROBE_NAME[] = "Probe";
const char LINK_DOMAIN[] = "local";
// Others may have their turns first, and wait for answers that do not come.
const int TURN_MS = 600000;
const int STEP_MS = 1000;

} // namespace

const char ManagedProbe::TYPE[] = "_http._tcp";

void ManagedProbe::tell(const std::string& browser, AvahiBrowserEvent event)
{
    m_avahi.fireBrowse(m_avahi.browser(numberOf(browser)), event, 2, AVAHI_PROTO_INET, PROBE_NAME, TYPE,
                       LINK_DOMAIN);
}

std::string ManagedProbe::resolver() const
{
    const Service probe = {PROBE_NAME, TYPE, LINK_DOMAIN};
    for (const std::string& resolver : liveOf(m_avahi, "resolver")) {
        if (m_account.serviceOf(resolver) == probe)
            return resolver;
    }
    return std::string();
}

void ManagedProbe::answer(const std::string& resolver)
{
    const Txt txt = {vocabulary::txtStrings()[1]};
    AvahiAddress address = AvahiAddress();
    address.proto = AVAHI_PROTO_INET;
    address.data.ipv4.address = 0x0909000a;
    m_avahi.fireResolve(m_avahi.resolver(numberOf(resolver)), AVAHI_RESOLVER_FOUND, 2, AVAHI_PROTO_INET,
                        PROBE_NAME, TYPE, LINK_DOMAIN, "probe.local", &address, 80, txt);
}

std::string ManagedProbe::flawOn(const std::string& browser)
{
    tell(browser, AVAHI_BROWSER_NEW);
    for (int waited = 0; waited < TURN_MS && resolver().empty(); waited += STEP_MS)
        m_passTime(STEP_MS);
    if (resolver().empty())
        return "a device that appears is not resolved";
    answer(resolver());
    if (!m_account.isShown(PROBE_NAME))
        return "a device that appears is not found";
    tell(browser, AVAHI_BROWSER_REMOVE);
    return m_account.isShown(PROBE_NAME) ? "a device that disappears is not lost" : "";
}
