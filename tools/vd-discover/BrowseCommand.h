// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_BROWSECOMMAND_H
#define VD_DISCOVER_BROWSECOMMAND_H

#include "BrowseOptions.h"
#include "DaemonLink.h"
#include "Deadline.h"
#include "DeviceEvent.h"
#include "KnownDevices.h"
#include "Progress.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <atomic>
#include <memory>
#include <mutex>

class QSocketNotifier;

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
    void watchForClosedOutput();
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
    void closeLink(int exitStatus);
    int exitStatus() const;

    const BrowseOptions m_options;
    /** Changed and, by any thread but the object's own, read with m_knownMutex held. */
    KnownDevices m_known;
    mutable std::mutex m_knownMutex;
    Progress m_progress;
    QTimer m_timeout;
    QSocketNotifier* m_closedOutput = nullptr;
    std::atomic<bool> m_wasDeviceSeen{false};
    std::atomic<bool> m_isUnreachable{false};
    bool m_isEnding = false;
    std::atomic<bool> m_isPrinting{false};
    /** Whether somebody prints what there is to print at the end, which is to happen once. */
    std::atomic<bool> m_isEndTaken{false};
    std::atomic<int> m_outputError{0};
    DaemonLink m_link;
    // Last, so that none of their threads runs while the rest is destroyed.
    const Deadline m_signalDeadline;
    std::unique_ptr<Deadline> m_timeoutDeadline;
    std::unique_ptr<Deadline> m_endDeadline;
};

} // namespace vd::discover

#endif
