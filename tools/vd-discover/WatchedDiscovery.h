// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_WATCHEDDISCOVERY_H
#define VD_DISCOVER_WATCHEDDISCOVERY_H

#include <vd/AvahiServiceDiscovery.h>

namespace vd::discover {

/** Discovery that tells how it stands with the daemon, which the library itself only logs. */
class WatchedDiscovery : public AvahiServiceDiscovery
{
    Q_OBJECT

public:
    enum State {
        /** There is no client: never made, ended, or the bus cannot be reached. */
        NoClient,
        /** The bus is there, the daemon is not. */
        NoDaemon,
        /** Browsing is possible. */
        Ready,
        /** The connection is gone. Nothing recovers but by TerminateBrowsing(). */
        Failed
    };

    State state() const;

    /** Whether the daemon has its host name settled, which a published service is to lead to. */
    bool isHostNameSettled() const;

    /** Avahi's code for what went wrong last. */
    int lastError() const;

Q_SIGNALS:
    /** state() may have changed. Emitted from inside Avahi's calls: to be queued. */
    void stateChanged();

    /** What has become of the published service. Emitted from inside Avahi's calls. */
    void publicationChanged(AvahiEntryGroupState groupState);

protected:
    void AvahiClientStateChanged(AvahiClient* avahiClient, AvahiClientState clientState, void* userdata) override;
    void AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState groupState, void* userdata) override;
};

} // namespace vd::discover

#endif
