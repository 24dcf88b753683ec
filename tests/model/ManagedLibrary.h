// SPDX-License-Identifier: MIT
#pragma once

#include "model/Library.h"
#include "model/ManagedAccount.h"
#include "model/ManagedHandles.h"
#include "support/BusStandIn.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

/** Where a sequence is to be performed. */
struct Surroundings
{
    /** Whether the daemon can be asked if it is ready. */
    bool hasBus = false;
    int objectLimit = 512;
    /** Whether calls are made in a thread of their own. */
    bool hasThread = false;
};

/** Managed discovery over the stand-in for Avahi, with the time in hand, and the rules that it always keeps. */
class ManagedLibrary : public LibraryOf<OpenManagedDiscovery>
{
public:
    ManagedLibrary(const Surroundings& surroundings, bool reusesAddresses);
    /** The object goes before the bus that it is connected to. */
    ~ManagedLibrary() override { destroy(); }

    /** How often, by kind. */
    std::map<std::string, int> signalled;

    /** Performs the step and lets some time pass, and tells what does not hold then; empty when all does. */
    std::string flawOf(const Step& step);
    /** The same when nothing has happened for a while. */
    std::string flawAtRest();
    /** Whether all goes on, and a device that appears now is still found and lost. */
    std::string flawInLife();
    /** Deletes the object. */
    std::string flawAtEnd();

private:
    int targetOf(const Step& step) override;
    ServiceTexts answered(int resolver, const Step& step) override;
    /** The daemon is there. */
    void clientIsMade(int number) override { avahi().fireClientState(AVAHI_CLIENT_S_RUNNING, number); }
    void noteSignal(const char* kind, const vd::SServiceInfo& info) override;
    void runOperation(const Step& step) override;
    void runEvent(const Step& step) override;

    void passTimeAfter(const Step& step);
    void passTime(int milliseconds);
    void processEvents();
    void endLooks();
    bool disappears(const Step& step);
    std::string handleOf(const Step& step);
    std::vector<std::string> live(const std::string& kind) { return liveOf(avahi(), kind); }
    void browsingHasEnded();
    void noteResult(Step::Kind kind);
    void noteCalls();
    void checkHandles();
    void checkStep();
    void becomeReady();
    void checkRunning();

    std::optional<BusStandIn> m_bus;
    ManagedAccount m_account;
    /** Objects that were told of the end of their first look. */
    std::set<std::string> m_ended;
    bool m_isBrowsing = false;
    bool m_isRegistered = false;
    /** For all that the client was told. */
    bool m_isDaemonThere = false;
    const int m_limit;
    /** How many browsers and groups came, which may be over the limit, since there was room for all. */
    int m_privileged = 0;
};
