// SPDX-License-Identifier: MIT
#pragma once

#include "model/ModelledAvahi.h"
#include "model/Observation.h"
#include "model/Performer.h"

#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/**
 * What vd::AvahiServiceDiscovery is to do, told a second time and as plainly as can be.
 *
 * It predicts, for each step, what is signalled, logged and called, and what is known afterwards. Its texts, table
 * and queue are its own; it shares nothing with the library but the record.
 */
class Model : public Performer
{
public:
    /** What happened since this was cleared. */
    Observation seen;
    /** What the steps of type ClientState and its like were given, in their order; 0 for none. */
    std::vector<int> targets;

    ModelledAvahi avahi;

    const State& state();

    /** The object is deleted, and a new one takes its place. */
    void startAnew();
    void destroy();
    bool isDestroyed() const override { return m_destroyed; }

private:
    void runOperation(const Step& step) override;
    void runEvent(const Step& step) override;
    void runSetting(const Step& step) override;

    bool browseServices(const char* type);
    bool makeClient();
    bool terminateBrowsing();
    void cleanUp();
    bool resolveService(unsigned interface, const char* name, const char* type, const char* domain);
    bool startQueryRecords(const char* name, const char* type, bool longLived);
    void stopQueryRecords(const char* name);
    void queryNextRecord();

    bool registerService(const char* name, const char* type, const vd::SReconfigInfo& info);
    bool isFitForTxt(const vd::SReconfigInfo& info);
    void createTxtRecord(const vd::SReconfigInfo& info);
    bool hasGroup() const;
    bool makeGroup();
    bool addToGroup(const char* name, const char* type);
    bool commitGroup();
    bool updateTxtRecord(const char* txt);
    bool terminateRegistration();
    /** False when discovery ended meanwhile. */
    bool workOnGroup(const std::string& function);
    int callOnGroup(const std::string& function, const std::string& arguments = std::string());

    void clientStateChanged(int state);
    void groupStateChanged(int state);
    void serviceBrowse(int browser, const Step& step);
    void removeService(const Step& step, int life);
    void serviceResolve(int resolver, const Step& step);
    bool isEndOfFailedResolve(const Step& step);
    void storeBasics(const Step& step);
    bool readVendor(const Step& step);
    bool announce(const QString& key, const std::string& address, quint16 checksum, int life);
    void followHost(const Step& step);
    void endResolve(const QString& key, int resolver);
    void recordBrowse(int browser, const Step& step);
    void addressAppears(const Step& step, const QString& key, const QString& address);
    void addressDisappears(const Step& step, const QString& key, const QString& address);
    void endQuery(const QString& key, int browser);

    const std::string* find(const std::vector<const std::string*>& txt, const std::string& key) const;
    QString valueOf(const std::vector<const std::string*>& txt, const std::string& key);
    void readSerial(const QString& service, const std::vector<const std::string*>& txt, const std::string& key,
                    const std::string& logged);

    vd::SServiceInfo& entry(const QString& key) { return m_state.services[key]; }
    bool isLogged(int level) const { return m_logLevel <= level; }
    void log(std::initializer_list<std::string_view> pieces, int level = 1);
    /** Discovery may have ended when this returns. */
    void emitSignal(const char* kind, const QString& key);
    /** False when discovery ended in there. */
    bool runInHandler(const Step& step);
    /** Avahi tells the state of what it is at work on. False when discovery ended in there. */
    bool stateInside(const std::string& function);

    State m_state;
    int m_logLevel = 1;
    int m_client = 0;
    std::vector<int> m_browsers;
    int m_longLiveResolver = 0;
    int m_longLiveRecordBrowser = 0;
    int m_group = 0;
    /** Grows with every end of discovery: a handler that was at work before has nothing left to do. */
    int m_life = 0;
    bool m_destroyed = false;
    bool m_makingClient = false;
    /** Avahi works on the group, which neither an operation nor the end of its client may touch then. */
    bool m_groupIsBusy = false;
    int m_clientToFree = 0;
    std::map<std::string, const Step*> m_statesInside;
};
