// SPDX-License-Identifier: MIT
#include <vd/ServiceDiscovery.h>

namespace vd {

SServiceInfo::SServiceInfo()
    : interfaceIndex(0)
    , addressRemoved(false)
    , longLiveQuery(false)
    , deviceKind(0)
    , port(80)
    , https(false)
    , serialNumber(0)
    , privacyMode(false)
    , txtChecksum(0)
{}

} // namespace vd
