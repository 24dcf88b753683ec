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

/** A class of the library over the stand-in for Avahi, with all that it does written down. */
template <typename Discovery>
class LibraryOf : public Performer
{
public:
    /** Makes the objects. */
    typedef std::function<std::unique_ptr<Discovery>()> Factory;

    LibraryOf(const Factory& factory, bool reusesAddresses);
    ~LibraryOf() override;

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

protected:
    Discovery& discovery() { return *m_discovery; }
    AvahiStandIn& avahi() { return m_avahi; }
    /** The number of the Avahi object that the event is for; 0 for none. */
    virtual int targetOf(const Step& step);
    /** How an answer of a resolver names the service. */
    struct ServiceTexts
    {
        const char* name;
        const char* type;
        const char* domain;
    };
    virtual ServiceTexts answered(int resolver, const Step& step);
    /** Avahi is making the client of this number, and can call back already. */
    virtual void clientIsMade(int) {}
    /** Nothing fails any more, and nothing happens inside of calls, unless later steps want it. */
    void forgetWhatIsToCome();
    virtual void noteSignal(const char* kind, const vd::SServiceInfo& info);
    void runOperation(const Step& step) override;
    void runEvent(const Step& step) override;

private:
    void runSetting(const Step& step) override;
    void fireResolve(int resolver, const Step& step);
    /** The state of the object that the call is about is told while it runs. */
    void fireInsideNextCall(const Step& step);
    void fireOnGroup(const AvahiEntryGroup* group, const Step& step);
    void fireOnNewClient(const AvahiClient* client);
    void prepareHandler(const Step& step);
    void collectCalls();
    void collectLog();

    Factory m_factory;
    AvahiStandIn m_avahi;
    std::unique_ptr<Discovery> m_discovery;
    QString m_logText;
    QTextStream m_logStream;
    std::size_t m_target = 0;
    const Step* m_insideClientNew = nullptr;
};

extern template class LibraryOf<OpenDiscovery>;
extern template class LibraryOf<OpenManagedDiscovery>;

/** The one that is compared with the model. */
typedef LibraryOf<OpenDiscovery> Library;
typedef Library::Factory Factory;
