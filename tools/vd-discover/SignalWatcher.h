// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_SIGNALWATCHER_H
#define VD_DISCOVER_SIGNALWATCHER_H

#include <QtCore/QObject>

class QSocketNotifier;

namespace vd::discover {

/**
 * Turns the first SIGINT or SIGTERM into a Qt signal. A second one ends the process at once, even while it
 * is blocked in a call. One object at a time.
 */
class SignalWatcher : public QObject
{
    Q_OBJECT

public:
    SignalWatcher();
    ~SignalWatcher() override;

    /** Becomes readable at the signal and stays so, for whoever can't wait for the event loop; -1 if none. */
    int descriptor() const;

Q_SIGNALS:
    void interrupted();

private:
    QSocketNotifier* m_notifier = nullptr;
};

} // namespace vd::discover

#endif
