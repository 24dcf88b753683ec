// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_BROWSECOMMAND_H
#define VD_DISCOVER_BROWSECOMMAND_H

#include "BrowseOptions.h"
#include "DaemonLink.h"
#include "DeviceEvent.h"
#include "KnownDevices.h"
#include "Progress.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

class QSocketNotifier;

namespace vd::discover {

/** One run of `vd-discover browse`. */
class BrowseCommand : public QObject
{
    Q_OBJECT

public:
    explicit BrowseCommand(const BrowseOptions& options);
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
    void printTable();
    void closeLink(int exitStatus);
    int exitStatus() const;

    const BrowseOptions m_options;
    KnownDevices m_known;
    Progress m_progress;
    QTimer m_timeout;
    QSocketNotifier* m_closedOutput = nullptr;
    bool m_wasDeviceSeen = false;
    bool m_isUnreachable = false;
    bool m_isEnding = false;
    int m_outputError = 0;
    DaemonLink m_link;
};

} // namespace vd::discover

#endif
