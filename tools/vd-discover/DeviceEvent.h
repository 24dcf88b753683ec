// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_DEVICEEVENT_H
#define VD_DISCOVER_DEVICEEVENT_H

#include <vd/ServiceDiscovery.h>

#include <QtCore/QDateTime>

namespace vd::discover {

enum class EventKind { Found, Address, Text, Lost };

/** One signal of the discovery object. */
struct DeviceEvent
{
    EventKind kind;
    QDateTime time;
    /** The record as the signal carried it. */
    SServiceInfo service;
};

/** The word for it in the output: "found", "address", "text", "lost". */
inline const char* wordFor(EventKind kind)
{
    switch (kind) {
    case EventKind::Found:
        return "found";
    case EventKind::Address:
        return "address";
    case EventKind::Text:
        return "text";
    case EventKind::Lost:
        break;
    }
    return "lost";
}

/**
 * Whether an address event tells of a removal. addressRemoved alone does not: it stays set when the next
 * address is learned by resolving, and the list holds that one too then.
 */
inline bool isRemoval(const SServiceInfo& service)
{
    return service.addressRemoved && service.addresses.size() == 1;
}

} // namespace vd::discover

#endif
