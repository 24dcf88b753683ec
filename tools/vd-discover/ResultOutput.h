// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_RESULTOUTPUT_H
#define VD_DISCOVER_RESULTOUTPUT_H

#include <QtCore/QByteArray>
#include <QtCore/QObject>

#include <atomic>

class QSocketNotifier;

namespace vd::discover {

/** Standard output, where the results go. */
class ResultOutput : public QObject
{
    Q_OBJECT

public:
    /** Begins to watch for a reader that goes away. */
    void watchReader();
    void stopWatching();

    /** Does nothing once it is closed. Any thread may call this, if isBusy() is false. */
    void write(const QByteArray& bytes);

    /** Whether results are being written, which takes as long as their reader likes. Any thread may ask. */
    bool isBusy() const { return m_isBusy; }
    /** Whether nothing more can be written, for whatever reason. Any thread may ask. */
    bool isClosed() const { return m_error != 0; }
    /** Whether results are lost to somebody who wants them. Any thread may ask. */
    bool hasFailed() const;
    /** One line for the user, once it has failed. */
    QString failureText() const;

Q_SIGNALS:
    /** The reader is gone. */
    void readerLeft();

private:
    QSocketNotifier* m_watcher = nullptr;
    std::atomic<bool> m_isBusy{false};
    std::atomic<int> m_error{0};
};

} // namespace vd::discover

#endif
