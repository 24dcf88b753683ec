// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_BROWSECOMMAND_H
#define VD_DISCOVER_BROWSECOMMAND_H

#include "BrowseOptions.h"
#include "DaemonLink.h"
#include "DeviceEvent.h"
#include "KnownDevices.h"
#include "Progress.h"
#include "ResultOutput.h"
#include "TimelyEnd.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <atomic>
#include <mutex>

namespace vd::discover {

/** One run of `vd-discover browse`. */
class BrowseCommand : public QObject
{
    Q_OBJECT

public:
    /** @param signalDescriptor becomes readable when end() is about to be called, even if this is blocked. */
    explicit BrowseCommand(const BrowseOptions& options, int signalDescriptor = -1);
    ~BrowseCommand() override;

    /** Begins; needs a running event loop to go on. */
    void start();

    /** Ends the run, as the timeout does. */
    void end();

Q_SIGNALS:
    /** Everything is printed and freed; @p exitStatus is what the process is to end with. */
    void finished(int exitStatus);

private:
    void connectDevices();
    void connectLink();
    void beginCollecting();
    void handle(EventKind kind, const SServiceInfo& service);
    void printEvent(const DeviceEvent& event, const SServiceInfo& before);
    void startLongLivedQuery(const QString& serviceName);
    void print(const QByteArray& bytes);
    void say(const QString& message);
    void finish();
    void endHungProcess();
    QByteArray tableToPrint() const;
    void printTable();
    int exitStatus() const;

    const BrowseOptions m_options;
    /** Changed and, by any thread but the object's own, read with m_knownMutex held. */
    KnownDevices m_known;
    mutable std::mutex m_knownMutex;
    Progress m_progress;
    QTimer m_timeout;
    ResultOutput m_output;
    std::atomic<bool> m_wasDeviceSeen{false};
    std::atomic<bool> m_isUnreachable{false};
    bool m_isEnding = false;
    DaemonLink m_link;
    // Last, so that none of its threads runs while the rest is destroyed.
    TimelyEnd m_end;
};

} // namespace vd::discover

#endif
