// SPDX-License-Identifier: MIT
#include "avahi/managed/TrackedService.h"

#include <avahi-common/address.h>

namespace vd {

namespace {

bool isBehindIpv4(const TrackedService& service, const Link& link)
{
    for (int i = 0; i < service.sightings.size(); ++i) {
        if (service.sightings.at(i).link == Link(link.first, AVAHI_PROTO_INET))
            return link.second != AVAHI_PROTO_INET;
    }
    return false;
}

} // namespace

QList<Link> TrackedService::linksToAsk() const
{
    QList<Link> links;
    for (int i = 0; i < sightings.size(); ++i) {
        const Link link = sightings.at(i).link;
        if (!links.contains(link) && !isBehindIpv4(*this, link))
            links.append(link);
    }
    // Nobody browses for it.
    if (links.isEmpty())
        links.append(Link(AVAHI_IF_UNSPEC, AVAHI_PROTO_INET));
    return links;
}

bool TrackedService::isSeenOn(int interface) const
{
    for (int i = 0; i < sightings.size(); ++i) {
        if (sightings.at(i).link.first == interface)
            return true;
    }
    return false;
}

Link TrackedService::linkToAsk() const
{
    const QList<Link> links = linksToAsk();
    return links.at(linkTurn % static_cast<int>(links.size()));
}

bool TrackedService::turnToOtherLink()
{
    const int links = static_cast<int>(linksToAsk().size());
    if (links < 2)
        return false;
    if (resolverLink == linkToAsk())
        linkTurn = (linkTurn + 1) % links;
    return true;
}

bool TrackedService::isBetterToAsk(const Link& link) const
{
    return link.second == AVAHI_PROTO_INET && resolver && resolverLink == Link(link.first, AVAHI_PROTO_INET6);
}

} // namespace vd
