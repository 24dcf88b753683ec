// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_PUBLISHCOMMAND_H
#define VD_DISCOVER_PUBLISHCOMMAND_H

#include "DaemonLink.h"
#include "PublicationText.h"
#include "PublishOptions.h"
#include "ResultOutput.h"
#include "TimelyEnd.h"

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <atomic>

namespace vd::discover {

/** One run of `vd-discover publish`. */
class PublishCommand : public QObject
{
    Q_OBJECT

public:
    /** @param signalDescriptor becomes readable when end() is about to be called, even if this is blocked. */
    explicit PublishCommand(const PublishOptions& options, int signalDescriptor = -1);

    /** Begins; needs a running event loop to go on. */
    void start();

    /** Withdraws the service and ends the run, as the timeout does. */
    void end();

Q_SIGNALS:
    /** Everything is printed and freed; @p exitStatus is what the process is to end with. */
    void finished(int exitStatus);

private:
    void connectLink();
    void warn();
    void followDaemon();
    void publish();
    void handle(AvahiEntryGroupState state);
    void fail(PublicationEvent event, const QString& message);
    void tell(PublicationEvent event);
    void lose();
    void finish();
    void withdrawAndClose();
    void sayThatItEndedTooEarly() const;
    void sayWhatRemains();
    void endHungProcess();
    int exitStatus() const;

    const PublishOptions m_options;
    QTimer m_timeout;
    ResultOutput m_output;
    /** Discovery is to publish the service, and goes on to see to it. */
    bool m_isRequested = false;
    /** The service was handed to the daemon. */
    std::atomic<bool> m_isRegistered{false};
    /** The daemon said that it is established. */
    bool m_isPublished = false;
    std::atomic<bool> m_wasPublished{false};
    std::atomic<bool> m_hasFailed{false};
    std::atomic<bool> m_isUnreachable{false};
    bool m_isEnding = false;
    bool m_isTimeUp = false;
    DaemonLink m_link;
    // Last, so that none of its threads runs while the rest is destroyed.
    TimelyEnd m_end;
};

} // namespace vd::discover

#endif
