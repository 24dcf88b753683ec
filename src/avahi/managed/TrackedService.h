// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_TRACKEDSERVICE_H
#define VD_AVAHI_MANAGED_TRACKEDSERVICE_H

#include <avahi-client/lookup.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QString>

namespace vd {

/** Avahi's number of an interface, and its protocol: where something was seen. */
typedef QPair<int, int> Link;

/** What tells one service from another. */
struct ServiceKey
{
    QString name;
    QString type;
    QString domain;
};

inline bool operator==(const ServiceKey& a, const ServiceKey& b)
{
    return a.name == b.name && a.type == b.type && a.domain == b.domain;
}

inline bool operator<(const ServiceKey& a, const ServiceKey& b)
{
    if (a.name != b.name)
        return a.name < b.name;
    return a.type != b.type ? a.type < b.type : a.domain < b.domain;
}

/** What is open for a service, and what was seen of it. */
struct TrackedService
{
    TrackedService()
        : resolver(nullptr)
        , resolvingSince(0)
        , addressBrowser(nullptr)
        , wasSeen(false)
        , isWaiting(false)
        , isLongLived(false)
        , isKept(false)
    {}

    /** Where browsing sees it. */
    QList<Link> links;
    AvahiServiceResolver* resolver;
    /** In milliseconds of the clock of resolving. */
    qint64 resolvingSince;
    AvahiRecordBrowser* addressBrowser;
    /** What the address browser looks up. */
    QString host;
    /** What the address browser has seen, and where. */
    QMap<QString, QList<Link>> addressLinks;
    /** Browsing has seen it, be it before a restart; otherwise somebody asked for it. */
    bool wasSeen;
    /** Stands in line to be resolved. */
    bool isWaiting;
    /** A query is to be kept open. */
    bool isLongLived;
    /** It has the room to be kept open. */
    bool isKept;
    /** Every string of the TXT record as it was resolved last; null before. */
    QByteArray txt;
};

} // namespace vd

#endif
