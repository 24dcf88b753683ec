// SPDX-License-Identifier: MIT
#include "support/BusStandIn.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

namespace {

BusStandIn* theInstance = nullptr;

void closeDescriptor(int& descriptor)
{
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

void release(std::deque<DBusMessage*>& messages)
{
    for (DBusMessage* const message : messages)
        dbus_message_unref(message);
    messages.clear();
}

// As libdbus does.
void loseOurEnd(BusStandIn::Connection* connection)
{
    connection->isConnected = false;
    closeDescriptor(connection->ours);
    connection->arrived.push_back(dbus_message_new_signal(DBUS_PATH_LOCAL, DBUS_INTERFACE_LOCAL, "Disconnected"));
}

std::string textOf(DBusMessage* question)
{
    const std::string text = std::string(dbus_message_get_destination(question)) + ' '
                             + dbus_message_get_path(question) + ' ' + dbus_message_get_interface(question) + '.'
                             + dbus_message_get_member(question);
    return dbus_message_get_auto_start(question) ? text + " and starts it" : text;
}

BusStandIn::Connection* checked(const void* pointer, const std::string& function, bool isClosed = false)
{
    if (theInstance)
        return theInstance->checked(pointer, function, isClosed);
    ADD_FAILURE() << function << " was called without a bus";
    return nullptr;
}

} // namespace

BusStandIn* BusStandIn::instance()
{
    return theInstance;
}

BusStandIn::BusStandIn()
{
    theInstance = this;
}

BusStandIn::~BusStandIn()
{
    theInstance = nullptr;
    EXPECT_EQ(openConnections(), 0) << "these connections outlived the test";
    for (const std::unique_ptr<Connection>& connection : m_connections) {
        close(connection.get());
        release(connection.get());
    }
}

std::vector<std::string> BusStandIn::takeQuestions()
{
    std::vector<std::string> questions;
    questions.swap(m_questions);
    return questions;
}

int BusStandIn::openConnections() const
{
    int open = 0;
    for (const std::unique_ptr<Connection>& connection : m_connections)
        open += connection->isReleased ? 0 : 1;
    return open;
}

int BusStandIn::untaken() const
{
    const Connection& connection = *m_connections.back();
    return static_cast<int>(connection.underWay.size() + connection.arrived.size());
}

void BusStandIn::answer(dbus_uint32_t serial)
{
    DBusMessage* const message = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    dbus_message_set_reply_serial(message, serial);
    deliver(message);
}

void BusStandIn::answerWithError(const char* name)
{
    DBusMessage* const message = dbus_message_new(DBUS_MESSAGE_TYPE_ERROR);
    dbus_message_set_sender(message, DBUS_SERVICE_DBUS);
    dbus_message_set_error_name(message, name);
    dbus_message_set_reply_serial(message, m_lastSerial);
    deliver(message);
}

void BusStandIn::tellSomethingElse()
{
    deliver(dbus_message_new_signal(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameAcquired"));
}

void BusStandIn::loseConnection()
{
    closeDescriptor(m_connections.back()->theirs);
}

void BusStandIn::deliver(DBusMessage* message)
{
    Connection& connection = *m_connections.back();
    connection.underWay.push_back(message);
    EXPECT_EQ(::send(connection.theirs, "m", 1, MSG_NOSIGNAL), 1) << "nobody is there to be told";
}

BusStandIn::Connection* BusStandIn::connect()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        ADD_FAILURE() << "there is no socket to connect with";
        return nullptr;
    }
    m_connections.push_back(std::make_unique<Connection>());
    m_connections.back()->ours = ends[0];
    m_connections.back()->theirs = ends[1];
    return m_connections.back().get();
}

BusStandIn::Connection* BusStandIn::checked(const void* pointer, const std::string& function, bool isClosed)
{
    for (const std::unique_ptr<Connection>& connection : m_connections) {
        if (connection.get() != pointer)
            continue;
        if (connection->isReleased || connection->isClosed != isClosed) {
            const char* const closed = connection->isClosed ? "closed" : "not closed";
            ADD_FAILURE() << function << " was called with a connection that is "
                          << (connection->isReleased ? "released" : closed);
            return nullptr;
        }
        return connection.get();
    }
    ADD_FAILURE() << function << " was called with a connection that was never given";
    return nullptr;
}

void BusStandIn::send(Connection* connection, DBusMessage* message)
{
    dbus_message_set_serial(message, ++m_lastSerial);
    if (m_isToLoseConnection)
        loseOurEnd(connection);
    else if (connection->isConnected)
        m_questions.push_back(textOf(message));
    m_isToLoseConnection = false;
}

void BusStandIn::read(Connection* connection)
{
    if (!connection->isConnected)
        return;
    char bytes[64];
    ssize_t size;
    while ((size = recv(connection->ours, bytes, sizeof bytes, 0)) > 0) {
        for (; size > 0; --size) {
            connection->arrived.push_back(connection->underWay.front());
            connection->underWay.pop_front();
        }
    }
    if (size == 0)
        loseOurEnd(connection);
}

void BusStandIn::close(Connection* connection)
{
    connection->isClosed = true;
    connection->isConnected = false;
    closeDescriptor(connection->ours);
    closeDescriptor(connection->theirs);
}

void BusStandIn::release(Connection* connection)
{
    connection->isReleased = true;
    ::release(connection->underWay);
    ::release(connection->arrived);
}

extern "C" {

DBusConnection* dbus_bus_get_private(DBusBusType type, DBusError*)
{
    EXPECT_EQ(type, DBUS_BUS_SYSTEM);
    if (!theInstance || theInstance->isToFail("bus_get_private"))
        return nullptr;
    return reinterpret_cast<DBusConnection*>(theInstance->connect());
}

void dbus_connection_set_exit_on_disconnect(DBusConnection* connection, dbus_bool_t isToExit)
{
    BusStandIn::Connection* const known = checked(connection, "connection_set_exit_on_disconnect");
    if (known)
        known->endsProcess = isToExit;
}

dbus_bool_t dbus_connection_get_unix_fd(DBusConnection* connection, int* descriptor)
{
    BusStandIn::Connection* const known = checked(connection, "connection_get_unix_fd");
    if (!known || !known->isConnected || theInstance->isToFail("connection_get_unix_fd"))
        return false;
    *descriptor = known->ours;
    return true;
}

dbus_bool_t dbus_connection_get_is_connected(DBusConnection* connection)
{
    BusStandIn::Connection* const known = checked(connection, "connection_get_is_connected");
    return known && known->isConnected;
}

dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial)
{
    BusStandIn::Connection* const known = checked(connection, "connection_send");
    if (!known || theInstance->isToFail("connection_send"))
        return false;
    theInstance->send(known, message);
    if (serial)
        *serial = dbus_message_get_serial(message);
    return true;
}

dbus_bool_t dbus_connection_read_write(DBusConnection* connection, int milliseconds)
{
    EXPECT_EQ(milliseconds, 0) << "connection_read_write would wait";
    BusStandIn::Connection* const known = checked(connection, "connection_read_write");
    if (!known)
        return false;
    BusStandIn::read(known);
    return known->isConnected;
}

DBusMessage* dbus_connection_pop_message(DBusConnection* connection)
{
    BusStandIn::Connection* const known = checked(connection, "connection_pop_message");
    if (!known || known->arrived.empty())
        return nullptr;
    DBusMessage* const message = known->arrived.front();
    known->arrived.pop_front();
    return message;
}

void dbus_connection_close(DBusConnection* connection)
{
    BusStandIn::Connection* const known = checked(connection, "connection_close");
    if (known)
        BusStandIn::close(known);
}

void dbus_connection_unref(DBusConnection* connection)
{
    BusStandIn::Connection* const known = checked(connection, "connection_unref", true);
    if (known)
        BusStandIn::release(known);
}

} // extern "C"
