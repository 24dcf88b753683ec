// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_MANAGED_DAEMONPING_H
#define VD_AVAHI_MANAGED_DAEMONPING_H

#include <QtCore/QObject>

struct DBusConnection;
struct DBusMessage;
class QSocketNotifier;

namespace vd {

/**
 * Asks the Avahi daemon whether it answers, without waiting for it.
 *
 * Avahi's client library waits in every call until the daemon answers, and has nothing that asks first. So this
 * has a connection to the system bus of its own.
 */
class DaemonPing : public QObject
{
    Q_OBJECT

public:
    DaemonPing();
    ~DaemonPing() override;

    /** Connects to the bus anew, and waits for it. Without a bus the object stays closed. */
    void open();
    /** What was asked is forgotten. */
    void close();
    bool isOpen() const { return m_connection; }

    /**
     * Sends a question; answered() follows, unless the object is closed before. The object must be open, and no
     * answer be awaited. When the question cannot be sent the object closes, and nothing is asked.
     */
    void ask();
    /** An answer is awaited. */
    bool isAsked() const { return m_question != 0; }

Q_SIGNALS:
    /**
     * The daemon has done what it was given before the question, and @p isThere. Or it is gone, and no call waits for it;
     * or the connection was lost, and the object is closed. A slot may do anything with the object, and delete it.
     */
    void answered(bool isThere);

private Q_SLOTS:
    void read();

private:
    Q_DISABLE_COPY(DaemonPing)

    /** @return the answer, which the caller owns; null if it is not there. */
    DBusMessage* readAnswer();

    DBusConnection* m_connection;
    QSocketNotifier* m_notifier;
    /** The serial number of the message; 0 when no answer is awaited. */
    unsigned int m_question;
};

} // namespace vd

#endif
