// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_TXTRECORDWRITER_H
#define VD_AVAHI_TXTRECORDWRITER_H

#include <vd/ServiceDiscovery.h>

#include <avahi-common/strlst.h>

namespace vd {

/** Why a device would not read what @p info says from @p txt, which was built from it; empty when it would. */
QString reasonNotToPublish(const SReconfigInfo& info, AvahiStringList* txt);

} // namespace vd

#endif
