// SPDX-License-Identifier: MIT
#include "avahi/managed/DaemonPing.h"

#include <QtCore/QSocketNotifier>

#include <dbus/dbus.h>

namespace vd {

namespace {

DBusMessage* newQuestion()
{
    // Every D-Bus service answers this one from its main loop, Avahi's daemon too.
    DBusMessage* const question
        = dbus_message_new_method_call("org.freedesktop.Avahi", "/", DBUS_INTERFACE_PEER, "Ping");
    if (question)
        dbus_message_set_auto_start(question, false);
    return question;
}

/** The bus answers for a daemon that is gone, or that went without an answer. */
bool isFromBus(DBusMessage* answer)
{
    return dbus_message_has_sender(answer, DBUS_SERVICE_DBUS);
}

} // namespace

DaemonPing::DaemonPing() : m_connection(nullptr), m_notifier(nullptr), m_question(0) {}

DaemonPing::~DaemonPing()
{
    close();
}

void DaemonPing::open()
{
    close();
    m_connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    if (!m_connection)
        return;
    // libdbus would end the process with the bus.
    dbus_connection_set_exit_on_disconnect(m_connection, false);
    int descriptor = -1;
    if (!dbus_connection_get_unix_fd(m_connection, &descriptor)) {
        close();
        return;
    }
    m_notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    connect(m_notifier, SIGNAL(activated(int)), this, SLOT(read()));
}

void DaemonPing::close()
{
    m_question = 0;
    if (m_notifier) {
        m_notifier->setEnabled(false);
        // It may be the one that calls.
        m_notifier->deleteLater();
        m_notifier = nullptr;
    }
    if (!m_connection)
        return;
    dbus_connection_close(m_connection);
    dbus_connection_unref(m_connection);
    m_connection = nullptr;
}

void DaemonPing::ask()
{
    DBusMessage* const question = newQuestion();
    dbus_uint32_t serial = 0;
    bool isSent = question && dbus_connection_send(m_connection, question, &serial);
    // libdbus says yes as well when the connection is lost by it, and no answer would ever come.
    isSent = isSent && dbus_connection_get_is_connected(m_connection);
    if (question)
        dbus_message_unref(question);
    if (isSent)
        m_question = serial;
    else
        close();
}

void DaemonPing::read()
{
    const bool isConnected = dbus_connection_read_write(m_connection, 0);
    const bool wasAsked = isAsked();
    DBusMessage* const answer = readAnswer();
    const bool isThere = answer && !isFromBus(answer);
    if (answer) {
        m_question = 0;
        dbus_message_unref(answer);
    }
    if (!isConnected)
        close();
    if (wasAsked && !isAsked())
        Q_EMIT answered(isThere);
}

DBusMessage* DaemonPing::readAnswer()
{
    DBusMessage* answer = nullptr;
    while (DBusMessage* const message = dbus_connection_pop_message(m_connection)) {
        // An error is an answer too, and belongs to no other question.
        if (!answer && isAsked() && dbus_message_get_reply_serial(message) == m_question)
            answer = message;
        else
            dbus_message_unref(message);
    }
    return answer;
}

} // namespace vd
