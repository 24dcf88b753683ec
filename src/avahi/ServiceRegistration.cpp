// SPDX-License-Identifier: MIT
#include <vd/AvahiServiceDiscovery.h>

namespace vd {

bool AvahiServiceDiscovery::RegisterService(const char*, const char*, const vd::SReconfigInfo&)
{
    return false;
}

bool AvahiServiceDiscovery::TerminateRegistration()
{
    return true;
}

bool AvahiServiceDiscovery::IsRegistered()
{
    return entryGroup != nullptr;
}

bool AvahiServiceDiscovery::CreateTxtRecord(const vd::SReconfigInfo&)
{
    return false;
}

bool AvahiServiceDiscovery::UpdateTxtRecord(const char*)
{
    return false;
}

bool AvahiServiceDiscovery::AddTxtRecord(const char* txt)
{
    return UpdateTxtRecord(txt);
}

void AvahiServiceDiscovery::AvahiEntryGroupChanged(AvahiEntryGroup*, AvahiEntryGroupState, void*) {}

} // namespace vd
