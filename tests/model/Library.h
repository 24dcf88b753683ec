// SPDX-License-Identifier: MIT
#pragma once

#include "model/Observation.h"
#include "model/Performer.h"
#include "support/AvahiStandIn.h"
#include "support/DiscoveryFixture.h"

#include <QtCore/QTextStream>

#include <functional>
#include <memory>
#include <vector>

/** Makes the objects that are compared with the model. */
typedef std::function<std::unique_ptr<OpenDiscovery>()> Factory;

/** The library over the stand-in for Avahi, with all that it does written down. */
class Library : public Performer
{
public:
    Library(const Factory& factory, bool reusesAddresses);
    ~Library() override;

    Observation seen;
    /** Numbers of the Avahi objects that the next events are for, in their order; 0 for none. */
    std::vector<int> targets;

    /** To be called after each step, for what was logged and called in it. */
    void collect();
    State state() const;

    void startAnew();
    void destroy() { m_discovery.reset(); }
    bool isDestroyed() const override { return !m_discovery; }
    std::vector<std::string> liveHandles() const { return m_avahi.liveHandles(); }

private:
    void runOperation(const Step& step) override;
    void runEvent(const Step& step) override;
    void runSetting(const Step& step) override;
    void fireResolve(int resolver, const Step& step);
    /** The state of the object that the call is about is told while it runs. */
    void fireInsideNextCall(const Step& step);
    void fireOnGroup(const AvahiEntryGroup* group, const Step& step);
    void fireOnNewClient(const AvahiClient* client);
    void prepareHandler(const Step& step);
    void noteSignal(const char* kind, const vd::SServiceInfo& info);
    void collectCalls();
    void collectLog();

    Factory m_factory;
    AvahiStandIn m_avahi;
    std::unique_ptr<OpenDiscovery> m_discovery;
    QString m_logText;
    QTextStream m_logStream;
    std::size_t m_target = 0;
    const Step* m_insideClientNew = nullptr;
};
