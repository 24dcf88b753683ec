// SPDX-License-Identifier: MIT
#pragma once

#include <vd/ServiceDiscovery.h>

#include <cstdint>
#include <string>
#include <vector>

/**
 * The values that steps are made of. They are few, so that services share names, hosts, types and addresses.
 *
 * The first value of each kind is the plainest one: a failing sequence is made simpler by setting it.
 */
namespace vocabulary {

/** A value that stands more than once is chosen as often. Null where Avahi, or a careless caller, passes null. */
typedef std::vector<const char*> Texts;

const Texts& names();
const Texts& hosts();
const Texts& types();
const Texts& domains();

/** A whole TXT record by UpdateTxtRecord(). */
const Texts& updates();

/** Strings of a TXT record; the first one stands for none. */
const std::vector<std::string>& txtStrings();

/** How many of them, from the second one on, tell the vendor. */
const std::size_t SERIAL_STRINGS = 14;

struct Address
{
    int protocol;
    /** 4 or 16 of them. */
    std::vector<std::uint8_t> bytes;
};

/** The first ones are IPv4; one of no protocol stands among them. Null for none. */
const std::vector<const Address*>& addresses();

struct Payload
{
    /** Null when Avahi passes none. */
    const std::vector<std::uint8_t>* bytes;
    std::size_t size;
};

const std::vector<Payload>& payloads();

const std::vector<std::uint16_t>& ports();
const std::vector<int>& interfaces();
const std::vector<int>& protocols();
const std::vector<int>& errors();
const std::vector<int>& logLevels();
const std::vector<int>& clientStates();

/** Avahi functions that can be made to fail. */
const Texts& functions();

/** What RegisterService() publishes. */
const std::vector<vd::SReconfigInfo>& reconfigurations();

} // namespace vocabulary
