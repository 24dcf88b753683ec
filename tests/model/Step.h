// SPDX-License-Identifier: MIT
#pragma once

#include "model/Vocabulary.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

/** One thing that a host, or Avahi, does to a discovery object. */
struct Step
{
    enum Kind {
        // What a host calls.
        Browse,
        Terminate,
        Cleanup,
        Resolve,
        StartQuery,
        StopQuery,
        Register,
        TerminateRegistration,
        Update,
        Add,
        StartAll,
        StopAll,
        Tick,
        Destroy,
        // What Avahi calls.
        ClientState,
        BrowseEvent,
        ResolveEvent,
        RecordEvent,
        GroupState,
        // What happens to Avahi or to the log.
        FailNext,
        SetError,
        LogLevel,
        StateInside,
        KindCount
    };

    /** Places in the vocabulary, but for Target, Event and the flags. 0 is the plainest value of each. */
    enum Field {
        Target,
        Event,
        Name,
        Type,
        Domain,
        Host,
        HostIsName,
        Address,
        Txt1,
        Txt2,
        Txt3,
        Txt4,
        Data,
        Port,
        Interface,
        Protocol,
        LongLived,
        Reconfiguration,
        Function,
        Error,
        FieldCount
    };

    Kind kind = Browse;
    std::array<std::uint8_t, FieldCount> fields{};

    /** Done inside the slots of the signals that this one causes, one in each. */
    std::vector<Step> inSlots;
    /** Done by an override of Avahi's next handler, before what it overrides. */
    std::vector<Step> inHandler;

    std::uint8_t operator[](Field field) const { return fields[field]; }
    std::uint8_t& operator[](Field field) { return fields[field]; }

    const char* name() const { return vocabulary::names()[fields[Name]]; }
    const char* type() const { return vocabulary::types()[fields[Type]]; }
    const char* domain() const { return vocabulary::domains()[fields[Domain]]; }
    /** Not to be asked when HostIsName is set. */
    const char* host() const { return vocabulary::hosts()[fields[Host]]; }
    const vocabulary::Address* address() const { return vocabulary::addresses()[fields[Address]]; }
    const vocabulary::Payload& data() const { return vocabulary::payloads()[fields[Data]]; }
    int interface() const { return vocabulary::interfaces()[fields[Interface]]; }
    int protocol() const { return vocabulary::protocols()[fields[Protocol]]; }
    std::uint16_t port() const { return vocabulary::ports()[fields[Port]]; }
    int error() const { return vocabulary::errors()[fields[Error]]; }
    const char* function() const { return vocabulary::functions()[fields[Function]]; }
    const vd::SReconfigInfo& reconfiguration() const
    {
        return vocabulary::reconfigurations()[fields[Reconfiguration]];
    }
    /** The strings of the TXT record, in the order of the wire. None for a null list. */
    std::vector<const std::string*> txt() const;

    /** The value of the event or state that Avahi passes, undefined ones included. */
    int event() const;
};

/** The fields that matter to a step of this kind. */
const std::vector<Step::Field>& fieldsOf(Step::Kind kind);

/** One line a step; those inside it stand below, indented. */
std::string describe(const Step& step, int indentation = 0);
