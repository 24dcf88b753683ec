// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_TRACKEDSERVICE_H
#define VD_AVAHI_MANAGED_TRACKEDSERVICE_H

#include <avahi-client/lookup.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QStringList>

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
        , resolverNumber(0)
        , resolvingSince(0)
        , timesGivenWay(0)
        , timesIgnored(0)
        , addressBrowser(nullptr)
        , isToBeFollowed(false)
        , isLookComplete(false)
        , wasSeen(false)
        , isWaiting(false)
        , place(0)
        , retryAt(0)
        , isLongLived(false)
        , isKept(false)
    {}

    /** Its objects are gone with their client. What is known of the service stays, but not where it was seen. */
    void forgetCalls()
    {
        links.clear();
        resolver = nullptr;
        timesGivenWay = 0;
        addressBrowser = nullptr;
        isToBeFollowed = false;
        addressLinks.clear();
        isWaiting = false;
        retryAt = 0;
        isKept = false;
    }

    /** Where browsing sees it. */
    QList<Link> links;

    AvahiServiceResolver* resolver;
    /** Resolvers are numbered as they are made. */
    qint64 resolverNumber;
    /** In milliseconds of the clock of calls. */
    qint64 resolvingSince;
    /** How often its resolver was freed for others without having been answered. */
    int timesGivenWay;
    /** How often it was resolved without a maker's key; 0 once it had one. */
    int timesIgnored;

    AvahiRecordBrowser* addressBrowser;
    /** The address browser is yet to be made. */
    bool isToBeFollowed;
    /** The address browser has seen all there is for now. */
    bool isLookComplete;
    /** What the address browser looks up. */
    QString host;
    /** What the address browser has seen, and where. */
    QMap<QString, QList<Link>> addressLinks;
    /** What it brought to the record, which it may share with others of its name. */
    QStringList addresses;
    /** Those of them that were not seen when they were looked up last. */
    QStringList missing;

    /** Browsing has seen it, be it before a restart; otherwise somebody asked for it. */
    bool wasSeen;
    /** Stands in line to be resolved. */
    bool isWaiting;
    qint64 place;
    /** When it is to stand in line again, by the clock of calls; 0 never. */
    qint64 retryAt;
    /** A query is to be kept open. */
    bool isLongLived;
    /** It has the room to be kept open. */
    bool isKept;
    /** Every string of the TXT record as it was resolved last; null before. */
    QByteArray txt;
};

} // namespace vd

#endif
