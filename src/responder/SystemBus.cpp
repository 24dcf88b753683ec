// SPDX-License-Identifier: MIT
#include "responder/SystemBus.h"

#include <QtCore/QByteArray>

#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

namespace vd {

namespace {

// The deadline of the bus is the only one.
const std::uint64_t NO_TIMEOUT = std::numeric_limits<std::uint64_t>::max();

// Any other address has sd-bus look up a host's name, which takes its own time, or run a program.
bool isLocalBus(const char* addresses)
{
    const std::string all = addresses ? addresses : "";
    for (size_t begin = 0; begin < all.size(); begin = all.find(';', begin)) {
        begin = all.find_first_not_of(';', begin);
        if (begin == std::string::npos)
            break;
        if (all.compare(begin, 5, "unix:") != 0)
            return false;
    }
    return true;
}

// Nothing is flushed: that would wait for a bus that does not read.
sd_bus* closeConnection(sd_bus* bus)
{
    sd_bus_close(bus);
    return sd_bus_unref(bus);
}

int forwardToHandler(sd_bus_message* message, void* handler, sd_bus_error*)
{
    (*static_cast<std::function<void(sd_bus_message*)>*>(handler))(message);
    return 0;
}

SystemBus::Answer answerWithout(SystemBus::Outcome outcome)
{
    return {outcome, SystemBus::Message(nullptr, &sd_bus_message_unref), std::string()};
}

// Anybody on the bus may have sent an answer. The bus itself answers where the service cannot.
bool isEntitledToAnswer(sd_bus_message* message, const SystemBus::Object& object)
{
    const char* sender = sd_bus_message_get_sender(message);
    if (!sender)
        return false;
    return object.service == sender
           || (sd_bus_message_get_error(message) && std::string("org.freedesktop.DBus") == sender);
}

SystemBus::Answer judge(SystemBus::Answer answer, const SystemBus::Object& object)
{
    if (!isEntitledToAnswer(answer.message.get(), object))
        return answerWithout(SystemBus::Outcome::Failed);
    if (const sd_bus_error* error = sd_bus_message_get_error(answer.message.get())) {
        SystemBus::Answer refusal = answerWithout(SystemBus::Outcome::Refused);
        refusal.error = error->name;
        return refusal;
    }
    return answer;
}

} // namespace

bool SystemBus::Answer::readText(char type, std::string& text) const
{
    const char* found = nullptr;
    if (!message || sd_bus_message_read_basic(message.get(), type, &found) <= 0)
        return false;
    text = found;
    return true;
}

bool SystemBus::Answer::readVariantText(std::string& text) const
{
    if (!message || sd_bus_message_enter_container(message.get(), SD_BUS_TYPE_VARIANT, "s") <= 0)
        return false;
    return readText(SD_BUS_TYPE_STRING, text);
}

SystemBus::SystemBus(std::chrono::milliseconds time)
    : deadline(std::chrono::steady_clock::now() + time)
    , connection(nullptr, &closeConnection)
    , outcomeWithoutConnection(Outcome::Failed)
{
    if (!isLocalBus(qgetenv("DBUS_SYSTEM_BUS_ADDRESS").constData()))
        return;
    sd_bus* opened = nullptr;
    const int result = sd_bus_open_system(&opened);
    if (result >= 0)
        connection.reset(opened);
    else if (result == -EAGAIN)
        outcomeWithoutConnection = Outcome::TimedOut;
}

SystemBus::Message SystemBus::makeCall(const Object& object, const char* interface, const char* method,
                                       std::initializer_list<const char*> arguments)
{
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_method_call(connection.get(), &made, object.service.c_str(), object.path.c_str(),
                                       interface, method)
        < 0)
        made = nullptr;
    Message message(made, &sd_bus_message_unref);
    for (const char* argument : arguments) {
        if (message && sd_bus_message_append_basic(message.get(), SD_BUS_TYPE_STRING, argument) < 0)
            message.reset();
    }
    return message;
}

SystemBus::Answer SystemBus::call(const Object& object, const char* interface, const char* method,
                                  std::initializer_list<const char*> arguments)
{
    if (!connection)
        return answerWithout(outcomeWithoutConnection);
    Answer answer = answerWithout(Outcome::Failed);
    const Message message = makeCall(object, interface, method, arguments);
    if (!message)
        return answer;
    // The process may be entitled to what its user has to be asked for; nobody is there to be asked.
    sd_bus_message_set_allow_interactive_authorization(message.get(), 0);
    sd_bus_message_set_auto_start(message.get(), 0);

    Handler keepReply = [&answer](sd_bus_message* reply) { answer.message.reset(sd_bus_message_ref(reply)); };
    sd_bus_slot* made = nullptr;
    if (sd_bus_call_async(connection.get(), &made, message.get(), &forwardToHandler, &keepReply, NO_TIMEOUT) < 0)
        return answer;
    const Slot slot(made, &sd_bus_slot_unref);
    answer.outcome = runUntil([&answer] { return answer.message != nullptr; });
    return answer.outcome == Outcome::Done ? judge(std::move(answer), object) : std::move(answer);
}

bool SystemBus::watchSignal(const Object& object, const char* interface, const char* signal, Handler handler)
{
    signalHandler = std::move(handler);
    // Without a slot of its own, which would have to be taken leave of on the bus.
    return connection
           && sd_bus_match_signal_async(connection.get(), nullptr, object.service.c_str(), object.path.c_str(),
                                        interface, signal, &forwardToHandler, nullptr, &signalHandler)
                  >= 0;
}

std::chrono::microseconds SystemBus::timeLeft() const
{
    return std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
}

SystemBus::Outcome SystemBus::runUntil(const std::function<bool()>& condition)
{
    while (!condition()) {
        const std::chrono::microseconds left = timeLeft();
        if (left.count() <= 0)
            return Outcome::TimedOut;
        int progress = sd_bus_process(connection.get(), nullptr);
        if (progress == 0)
            progress = sd_bus_wait(connection.get(), static_cast<std::uint64_t>(left.count()));
        // Versions differ in whether a signal handler's interruption is a failure.
        if (progress < 0 && progress != -EINTR)
            return Outcome::Failed;
    }
    return Outcome::Done;
}

} // namespace vd
