// SPDX-License-Identifier: MIT
#pragma once

#include <vd/ManagedServiceDiscovery.h>

#include <functional>

/** A host's class, which acts in the handlers after what it overrides, and may delete the object there. */
template <typename Base>
class Overriding : public Base
{
public:
    /** Each may return with the object gone. */
    std::function<void(AvahiClientState)> onClientState;
    std::function<void(AvahiEntryGroupState)> onGroupState;

protected:
    void AvahiClientStateChanged(AvahiClient* changed, AvahiClientState state, void* userdata) override
    {
        Base::AvahiClientStateChanged(changed, state, userdata);
        act(onClientState, state);
    }
    void AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata) override
    {
        Base::AvahiEntryGroupChanged(group, state, userdata);
        act(onGroupState, state);
    }

private:
    template <typename State>
    static void act(std::function<void(State)>& action, State state)
    {
        // Once, and from a copy, as the object may take the original along.
        const std::function<void(State)> once = std::move(action);
        action = nullptr;
        if (once)
            once(state);
    }
};

typedef Overriding<vd::ManagedServiceDiscovery> OverridingDiscovery;
