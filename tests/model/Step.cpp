// SPDX-License-Identifier: MIT
#include "model/Step.h"

#include <cstdio>

namespace {

const char* const KIND_NAMES[Step::KindCount] = {"BrowseServices",
                                                 "TerminateBrowsing",
                                                 "cleanupAvahiMembers",
                                                 "ResolveService",
                                                 "StartQueryRecords",
                                                 "StopQueryRecords",
                                                 "RegisterService",
                                                 "TerminateRegistration",
                                                 "UpdateTxtRecord",
                                                 "AddTxtRecord",
                                                 "StartQueryAllRecords",
                                                 "StopQueryAllRecords",
                                                 "queryNextRecord",
                                                 "delete",
                                                 "client state",
                                                 "browse event",
                                                 "resolve event",
                                                 "record event",
                                                 "group state",
                                                 "fail next",
                                                 "set error",
                                                 "log level",
                                                 "state inside"};

const char* const FIELD_NAMES[Step::FieldCount]
    = {"target", "event", "name", "type", "domain",    "host",     "host is name", "address", "txt",      "txt",
       "txt",    "txt",   "data", "port", "interface", "protocol", "long-lived",   "record",  "function", "error"};

std::string visible(const std::string& bytes)
{
    std::string text = "\"";
    for (const char byte : bytes) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += byte > 0x1f && byte < 0x7f ? std::string(1, byte) : escaped;
    }
    return text + '"';
}

std::string visible(const char* text)
{
    return text ? visible(std::string(text)) : "null";
}

std::string bytesOf(const std::vector<std::uint8_t>& bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes)
        text += (text.empty() ? "" : ".") + std::to_string(byte);
    return text;
}

std::string addressOf(const vocabulary::Address* address)
{
    return address ? "protocol " + std::to_string(address->protocol) + ' ' + bytesOf(address->bytes) : "null";
}

std::string payloadOf(const vocabulary::Payload& payload)
{
    return (payload.bytes ? bytesOf(*payload.bytes) : "null") + " of size " + std::to_string(payload.size);
}

std::string valueOf(const Step& step, Step::Field field)
{
    switch (field) {
    case Step::Event:
        return std::to_string(step.event());
    case Step::Name:
        return visible(step.name());
    case Step::Type:
        return visible(step.type());
    case Step::Domain:
        return visible(step.domain());
    case Step::Host:
        return step[Step::HostIsName] ? "the name itself" : visible(step.host());
    case Step::Address:
        return addressOf(step.address());
    case Step::Txt1:
    case Step::Txt2:
    case Step::Txt3:
    case Step::Txt4:
        return visible(vocabulary::txtStrings()[step[field]]);
    case Step::Data:
        return step.kind == Step::RecordEvent ? payloadOf(step.data())
                                              : visible(vocabulary::updates()[step[field]]);
    case Step::Port:
        return std::to_string(step.port());
    case Step::Interface:
        return std::to_string(step.interface());
    case Step::Protocol:
        return std::to_string(step.protocol());
    case Step::Function:
        return step.function();
    case Step::Error:
        return std::to_string(step.error());
    default:
        return std::to_string(step[field]);
    }
}

bool isWorthTelling(const Step& step, Step::Field field)
{
    const bool isTxt = field >= Step::Txt1 && field <= Step::Txt4;
    return field != Step::HostIsName && (!isTxt || step[field] != 0);
}

} // namespace

std::vector<const std::string*> Step::txt() const
{
    std::vector<const std::string*> strings;
    for (const Field field : {Txt1, Txt2, Txt3, Txt4}) {
        if (fields[field])
            strings.push_back(&vocabulary::txtStrings()[fields[field]]);
    }
    return strings;
}

int Step::event() const
{
    // Behind the defined values stand undefined ones.
    static const int browser[] = {0, 1, 2, 3, 4, 5, 7, -1};
    static const int resolver[] = {0, 1, 2, -1};
    static const int group[] = {0, 1, 2, 3, 4, 5, 7};
    switch (kind) {
    case ClientState:
        return vocabulary::clientStates()[fields[Event] % vocabulary::clientStates().size()];
    case ResolveEvent:
        return resolver[fields[Event] % std::size(resolver)];
    case LogLevel:
        return vocabulary::logLevels()[fields[Event] % vocabulary::logLevels().size()];
    case GroupState:
    case StateInside:
        return group[fields[Event] % std::size(group)];
    default:
        return browser[fields[Event] % std::size(browser)];
    }
}

const std::vector<Step::Field>& fieldsOf(Step::Kind kind)
{
    typedef Step S;
    static const std::vector<Step::Field> fields[Step::KindCount] = {
        {S::Type},
        {},
        {},
        {S::Interface, S::Name, S::Type, S::Domain},
        {S::Name, S::Type, S::LongLived},
        {S::Name, S::Type},
        {S::Name, S::Type, S::Reconfiguration},
        {},
        {S::Data},
        {S::Data},
        {},
        {},
        {},
        {},
        {S::Event},
        {S::Target, S::Event, S::Interface, S::Protocol, S::Name, S::Type, S::Domain},
        {S::Target, S::Event, S::Interface, S::Protocol, S::Name, S::Type, S::Domain, S::Host, S::HostIsName,
         S::Address, S::Port, S::Txt1, S::Txt2, S::Txt3, S::Txt4},
        {S::Target, S::Event, S::Host, S::Data, S::Interface},
        {S::Event},
        {S::Function, S::Error},
        {S::Error},
        {S::Event},
        {S::Function, S::Event},
    };
    return fields[kind];
}

std::string describe(const Step& step, int indentation)
{
    const std::string margin(static_cast<std::size_t>(indentation) * 2, ' ');
    std::string text = margin + KIND_NAMES[step.kind];
    const char* separator = ": ";
    for (const Step::Field field : fieldsOf(step.kind)) {
        if (!isWorthTelling(step, field))
            continue;
        text += separator + std::string(FIELD_NAMES[field]) + ' ' + valueOf(step, field);
        separator = ", ";
    }
    for (const Step& inner : step.inHandler)
        text += '\n' + margin + "  in the handler, first:\n" + describe(inner, indentation + 2);
    for (const Step& inner : step.inSlots)
        text += '\n' + margin + "  in a slot:\n" + describe(inner, indentation + 2);
    return text;
}
