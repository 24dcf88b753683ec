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

class ThreadedCalls;

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

ServiceKey keyFromBytes(const char* name, const char* type, const char* domain);

/** A browser sees a service on a link. */
struct Sighting
{
    /** The place of its type among those that are browsed. */
    int browser;
    Link link;
};

inline bool operator==(const Sighting& a, const Sighting& b)
{
    return a.browser == b.browser && a.link == b.link;
}

/** What is open for a service, and what was seen of it. */
struct TrackedService
{
    TrackedService()
        : resolver(nullptr)
        , resolverNumber(0)
        , resolvingSince(0)
        , linkTurn(0)
        , timesUnanswered(0)
        , timesGivenWay(0)
        , timesIgnored(0)
        , addressBrowser(nullptr)
        , addressBrowserCalls(nullptr)
        , isToBeFollowed(false)
        , isFollowPlanned(false)
        , isLookComplete(false)
        , wasSeen(false)
        , lostIpv4(false)
        , isWaiting(false)
        , place(0)
        , retryAt(-1)
        , isLongLived(false)
        , isKept(false)
    {}

    /** Its objects are gone with their client. What is known of the service stays, but not where it was seen. */
    void forgetCalls()
    {
        sightings.clear();
        lostIpv4 = false;
        resolver = nullptr;
        linkTurn = 0;
        timesUnanswered = 0;
        timesGivenWay = 0;
        timesIgnored = 0;
        addressBrowser = nullptr;
        isToBeFollowed = false;
        isFollowPlanned = false;
        addressLinks.clear();
        isWaiting = false;
        retryAt = -1;
        isKept = false;
    }

    bool isSeenOn(int interface) const;
    /**
     * Where resolvers are to look. One that is told no link stays on that of the first record it sees, be that record
     * out of date. Over IPv6 many hosts do not tell their IPv4 addresses, so that counts only where IPv4 does not show
     * the service.
     */
    QList<Link> linksToAsk() const;
    /** Each has its turn. */
    Link linkToAsk() const;
    /** Its resolver was not answered. @return whether there is another link to ask. */
    bool turnToOtherLink();
    /** @p link is a better one to ask than that which has not answered yet. */
    bool isBetterToAsk(const Link& link) const;

    /** Its addresses are looked up, or are to be as soon as the daemon is ready for it. */
    bool isFollowed() const { return addressBrowser || isToBeFollowed || isFollowPlanned; }

    /** Where browsing sees it. */
    QList<Sighting> sightings;

    AvahiServiceResolver* resolver;
    /** Resolvers are numbered as they are made. */
    qint64 resolverNumber;
    /** In milliseconds of the clock of calls. */
    qint64 resolvingSince;
    Link resolverLink;
    /** Which of the links to ask is the next. */
    int linkTurn;
    /** How often a resolver on one of several links got no answer since the last one. */
    int timesUnanswered;
    /** How often its resolver was freed for others without having been answered. */
    int timesGivenWay;
    /** How often it was resolved without a maker's key since the last restart; 0 once it had one. */
    int timesIgnored;

    AvahiRecordBrowser* addressBrowser;
    /** Those on the client that it was made of. */
    ThreadedCalls* addressBrowserCalls;
    /** The address browser is yet to be made. */
    bool isToBeFollowed;
    /** It is being made, or about to be. */
    bool isFollowPlanned;
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
    /** IPv4 showed it somewhere and does so no more. */
    bool lostIpv4;
    /** Stands in line to be resolved. */
    bool isWaiting;
    qint64 place;
    /** When it is to stand in line again, by the clock of calls; -1 never. */
    qint64 retryAt;
    /** A query is to be kept open. */
    bool isLongLived;
    /** It has the room to be kept open. */
    bool isKept;
    /** Port, host and every string of the TXT record as they were resolved last; null before. */
    QByteArray answer;
};

} // namespace vd

#endif
