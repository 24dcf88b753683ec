// SPDX-License-Identifier: MIT
#pragma once

#include <dbus/dbus.h>

#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

/**
 * Takes the place of libdbus's connections in the test program. Its messages are the real ones.
 *
 * As long as there is no such object there is no bus to connect to. What comes over a connection is read when the
 * event loop runs. A call with a null, closed or released connection fails the running test, and so does a call
 * that would wait, and a connection that is left open at the end.
 */
class BusStandIn
{
public:
    /** The one that the dbus_… functions talk to; there is at most one. */
    static BusStandIn* instance();

    BusStandIn();
    ~BusStandIn();
    BusStandIn(const BusStandIn&) = delete;
    BusStandIn& operator=(const BusStandIn&) = delete;

    /** Makes the next call of @p function ("connection_send") fail. */
    void failNext(const std::string& function) { m_failures.insert(function); }

    /** The next message is lost with its connection, which libdbus closes then, and tells nobody. */
    void loseConnectionInNextSend() { m_isToLoseConnection = true; }

    /** What was asked since the last time this was asked: `destination path interface.member`. */
    std::vector<std::string> takeQuestions();

    /** The serial number of the question that was asked last. */
    dbus_uint32_t lastSerial() const { return m_lastSerial; }

    int openConnections() const;

    /** Whether libdbus would end the process with the connection that was made last. */
    bool endsProcessWithBus() const { return m_connections.back()->endsProcess; }

    // What comes over the connection that was made last.
    void answer() { answer(m_lastSerial); }
    void answer(dbus_uint32_t serial);
    /** It is the bus that answers, for a daemon that cannot. */
    void answerWithError(const char* name);
    void tellSomethingElse();
    void loseConnection();

    /** What came over the connection that was made last, and was not taken yet. */
    int untaken() const;

    // For the dbus_… functions.
    struct Connection
    {
        int ours = -1;
        int theirs = -1;
        bool isConnected = true;
        bool isClosed = false;
        bool isReleased = false;
        bool endsProcess = true;
        std::deque<DBusMessage*> underWay;
        std::deque<DBusMessage*> arrived;
    };

    bool isToFail(const std::string& function) { return m_failures.erase(function) > 0; }
    Connection* connect();
    /** The connection at @p pointer if it may be used; fails the test otherwise. */
    Connection* checked(const void* pointer, const std::string& function, bool isClosed = false);
    void send(Connection* connection, DBusMessage* message);
    static void read(Connection* connection);
    static void close(Connection* connection);
    static void release(Connection* connection);

private:
    void deliver(DBusMessage* message);

    std::vector<std::unique_ptr<Connection>> m_connections;
    std::set<std::string> m_failures;
    std::vector<std::string> m_questions;
    // That of libdbus's own question to the bus.
    dbus_uint32_t m_lastSerial = 1;
    bool m_isToLoseConnection = false;
};
