// SPDX-License-Identifier: MIT
#ifndef VD_RESPONDER_SYSTEMBUS_H
#define VD_RESPONDER_SYSTEMBUS_H

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>

namespace vd {

/**
 * A connection of its own to the system bus, which DBUS_SYSTEM_BUS_ADDRESS may name, as a socket of this machine
 * only. Everything that is done on it, connecting included, has to be over by one deadline.
 *
 * sd-bus' own blocking calls are avoided: they wait for the connection, and for what is still to be sent, longer
 * than the time they are given.
 *
 * Thread: one at a time. No event loop is needed.
 */
class SystemBus
{
public:
    typedef std::unique_ptr<sd_bus_message, sd_bus_message* (*)(sd_bus_message*)> Message;

    enum class Outcome {
        Done,
        /** Answered by an error, of the service or of the bus. */
        Refused,
        /** There is no bus, it went away, or what was answered makes no sense. */
        Failed,
        /** Not answered by the deadline, or so many wait for the bus already that it takes nobody else. */
        TimedOut
    };

    struct Answer
    {
        Outcome outcome;
        /** What was returned; null unless Done. */
        Message message;
        /** The name of the error; empty unless Refused. */
        std::string error;

        /** Reads the text, which has to be of this type of D-Bus; false if something else was returned. */
        bool readText(char type, std::string& text) const;
        /** The same with a variant that has to hold a string. */
        bool readVariantText(std::string& text) const;
    };

    struct Object
    {
        std::string service;
        std::string path;
    };

    /** Begins to connect. */
    explicit SystemBus(std::chrono::milliseconds time);

    /** Calls a method whose arguments are all strings. */
    Answer call(const Object& object, const char* interface, const char* method,
                std::initializer_list<const char*> arguments);

    /**
     * Has @p handler called for each such signal of the object, until the bus is destroyed.
     * It may be called while other functions of this class run.
     */
    bool watchSignal(const Object& object, const char* interface, const char* signal,
                     std::function<void(sd_bus_message*)> handler);

    /** What is left until the deadline; nothing or less once it has passed. */
    std::chrono::microseconds timeLeft() const;

    /** Done as soon as @p condition holds; never Refused. */
    Outcome runUntil(const std::function<bool()>& condition);

private:
    typedef std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> Connection;
    typedef std::unique_ptr<sd_bus_slot, sd_bus_slot* (*)(sd_bus_slot*)> Slot;
    typedef std::function<void(sd_bus_message*)> Handler;

    Message makeCall(const Object& object, const char* interface, const char* method,
                     std::initializer_list<const char*> arguments);

    const std::chrono::steady_clock::time_point deadline;
    Handler signalHandler;
    // Calls the handler as long as it exists.
    Connection connection;
    Outcome outcomeWithoutConnection;
};

} // namespace vd

#endif
