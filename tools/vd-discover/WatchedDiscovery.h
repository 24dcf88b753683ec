// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_WATCHEDDISCOVERY_H
#define VD_DISCOVER_WATCHEDDISCOVERY_H

#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QObject>

#include <memory>

namespace vd::discover {

/** A discovery object that tells how it stands with the daemon, which the library itself only logs. */
class WatchedDiscovery : public QObject
{
    Q_OBJECT

public:
    enum Kind {
        /** AvahiServiceDiscovery: when the daemon goes, its user has to begin anew. */
        Plain,
        /** ManagedServiceDiscovery: it waits for the daemon and resumes by itself. */
        Managed
    };

    enum State {
        /** There is no client: never made, ended, or the bus cannot be reached. */
        NoClient,
        /** The bus is there, the daemon is not. */
        NoDaemon,
        /** The daemon answers. */
        Ready,
        /** The connection is gone, and the client with it. */
        Failed
    };

    static std::unique_ptr<WatchedDiscovery> make(Kind kind);

    virtual ServiceDiscovery& operations() = 0;

    State state() const;

    /** Whether every type is browsed, by a daemon that is there. */
    virtual bool isBrowsing() = 0;

    /** Whether the daemon has its host name settled, which a published service is to lead to. */
    bool isHostNameSettled() const;

    /** Avahi's code for what went wrong last. */
    int lastError() const;

Q_SIGNALS:
    /** state() or isBrowsing() may have changed. Emitted from inside Avahi's calls: to be queued. */
    void stateChanged();

    /** What has become of the published service. Emitted from inside Avahi's calls. */
    void publicationChanged(AvahiEntryGroupState groupState);

protected:
    virtual AvahiClient* currentClient() const = 0;
};

} // namespace vd::discover

#endif
