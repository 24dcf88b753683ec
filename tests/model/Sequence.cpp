// SPDX-License-Identifier: MIT
#include "model/Sequence.h"

#include <avahi-client/lookup.h>

#include <algorithm>
#include <utility>

namespace {

// How often each kind is chosen, of the sum of them all.
struct Weight
{
    Step::Kind kind;
    int times;
};

const Weight WEIGHTS[] = {
    {Step::Browse, 8},       {Step::Resolve, 8},       {Step::StartQuery, 20},
    {Step::StopQuery, 12},   {Step::Register, 8},      {Step::TerminateRegistration, 4},
    {Step::Update, 3},       {Step::Add, 1},           {Step::StartAll, 2},
    {Step::StopAll, 2},      {Step::Tick, 20},         {Step::ClientState, 2},
    {Step::BrowseEvent, 33}, {Step::ResolveEvent, 64}, {Step::RecordEvent, 44},
    {Step::GroupState, 3},   {Step::FailNext, 8},      {Step::SetError, 3},
    {Step::LogLevel, 2},     {Step::StateInside, 5},   {Step::Terminate, 2},
    {Step::Cleanup, 1},      {Step::Destroy, 1},
};

Step::Kind kindOf(std::uint8_t byte)
{
    int place = byte;
    for (const Weight& weight : WEIGHTS) {
        place -= weight.times;
        if (place < 0)
            return weight.kind;
    }
    return WEIGHTS[0].kind;
}

bool isEvent(Step::Kind kind)
{
    return kind >= Step::ClientState && kind <= Step::GroupState;
}

bool isOperation(Step::Kind kind)
{
    return kind < Step::ClientState;
}

std::size_t sizeOf(Step::Field field, Step::Kind kind)
{
    using namespace vocabulary;
    switch (field) {
    case Step::Target:
        return 256;
    case Step::Name:
        return names().size();
    case Step::Type:
        return types().size();
    case Step::Domain:
        return domains().size();
    case Step::Host:
        return hosts().size();
    case Step::Address:
        return addresses().size();
    case Step::Data:
        return kind == Step::RecordEvent ? payloads().size() : updates().size();
    case Step::Port:
        return ports().size();
    case Step::Interface:
        return interfaces().size();
    case Step::Protocol:
        return protocols().size();
    case Step::LongLived:
        return 2;
    case Step::Reconfiguration:
        return reconfigurations().size();
    case Step::Function:
        return functions().size();
    case Step::Error:
        return errors().size();
    default:
        return 8;
    }
}

std::uint8_t eventOf(Step::Kind kind, Bytes& bytes)
{
    const std::uint8_t value = bytes.next();
    // Answers are the rule; otherwise hardly any service would get as far as its addresses.
    if (kind == Step::ResolveEvent)
        return value < 200 ? 0 : static_cast<std::uint8_t>(value < 244 ? 1 : value % 4);
    if (kind == Step::BrowseEvent)
        return value < 120 ? 0 : static_cast<std::uint8_t>(value < 200 ? 1 : value % 8);
    if (kind == Step::RecordEvent)
        return value < 110 ? 0 : static_cast<std::uint8_t>(value < 180 ? 1 : value % 8);
    return static_cast<std::uint8_t>(value % 7);
}

bool isTxt(Step::Field field)
{
    return field >= Step::Txt1 && field <= Step::Txt4;
}

/** From no string at all, which Avahi passes as a null list, to four; mostly with one that tells the vendor. */
void fillTxt(Step& step, Bytes& bytes)
{
    const std::uint8_t choice = bytes.next();
    const int strings = choice < 16 ? 0 : 1 + choice % 4;
    for (int i = 0; i < strings; ++i) {
        const bool tellsVendor = i == 0 && !bytes.oneIn(4);
        const std::size_t number = tellsVendor ? vocabulary::SERIAL_STRINGS : vocabulary::txtStrings().size() - 1;
        step.fields[static_cast<std::size_t>(Step::Txt1 + i)] = static_cast<std::uint8_t>(1 + bytes.below(number));
    }
    // The vendor's key need not stand first.
    if (bytes.oneIn(4))
        std::swap(step[Step::Txt1], step[Step::Txt2]);
}

template <typename Values, typename Value>
std::uint8_t placeOf(const Values& values, const Value& value)
{
    return static_cast<std::uint8_t>(std::find(values.begin(), values.end(), value) - values.begin());
}

/** With a failure Avahi passes what it was asked for, and nothing more. */
void makeEmptyHanded(Step& step)
{
    step[Step::Host] = placeOf(vocabulary::hosts(), nullptr);
    step[Step::HostIsName] = 0;
    step[Step::Address] = placeOf(vocabulary::addresses(), nullptr);
    step[Step::Port] = placeOf(vocabulary::ports(), 0);
    for (const Step::Field field : {Step::Txt1, Step::Txt2, Step::Txt3, Step::Txt4})
        step[field] = 0;
}

void fillResolved(Step& step, Bytes& bytes)
{
    fillTxt(step, bytes);
    // One that says more than Avahi's do is to do no harm either.
    if (step.event() == AVAHI_RESOLVER_FAILURE && !bytes.oneIn(4))
        makeEmptyHanded(step);
}

Step stepOf(Bytes& bytes, int depth);

/** Only operations: Avahi delivers no event while a handler is at work, but from an event loop in a slot. */
void fillInHandler(Step& step, Bytes& bytes)
{
    const Step inner = stepOf(bytes, 2);
    // An override may not delete the object that it goes on to call.
    if (isOperation(inner.kind) && inner.kind != Step::Destroy)
        step.inHandler.push_back(inner);
}

void fillInner(Step& step, Bytes& bytes, int depth)
{
    const std::uint8_t choice = bytes.next();
    if (choice < 28 && depth < 2) {
        step.inSlots.push_back(stepOf(bytes, depth + 1));
        if (choice < 4)
            step.inSlots.push_back(stepOf(bytes, depth + 1));
    } else if (choice < 34) {
        fillInHandler(step, bytes);
    }
}

Step stepOf(Bytes& bytes, int depth)
{
    Step step;
    step.kind = kindOf(bytes.next());
    for (const Step::Field field : fieldsOf(step.kind)) {
        if (isTxt(field))
            continue;
        if (field == Step::Event)
            step[field] = eventOf(step.kind, bytes);
        else if (field == Step::HostIsName)
            step[field] = bytes.oneIn(32);
        else
            step[field] = bytes.below(sizeOf(field, step.kind));
    }
    if (step.kind == Step::ResolveEvent)
        fillResolved(step, bytes);
    if (isEvent(step.kind))
        fillInner(step, bytes, depth);
    else if (step.kind == Step::StateInside)
        fillInHandler(step, bytes);
    return step;
}

} // namespace

std::uint8_t SeededBytes::next()
{
    if (m_left == 0) {
        // splitmix64, by Sebastiano Vigna, who left it to the public domain.
        m_state += 0x9e3779b97f4a7c15u;
        m_word = m_state;
        m_word = (m_word ^ (m_word >> 30)) * 0xbf58476d1ce4e5b9u;
        m_word = (m_word ^ (m_word >> 27)) * 0x94d049bb133111ebu;
        m_word ^= m_word >> 31;
        m_left = 8;
    }
    const std::uint8_t byte = static_cast<std::uint8_t>(m_word);
    m_word >>= 8;
    --m_left;
    return byte;
}

Sequence sequenceOf(Bytes& bytes)
{
    Sequence sequence;
    // Short ones are more frequent: they come by more first steps in the same time.
    const std::size_t share = bytes.next();
    const std::size_t length = 1 + share * share * (Sequence::MAX_STEPS - 1) / (255 * 255);
    const std::uint8_t start = bytes.next();
    sequence.reusesAddresses = start % 2;
    sequence.steps.reserve(length);
    // Mostly it begins with browsing, as nothing else leads anywhere before.
    if (start >= 32)
        sequence.steps.emplace_back();
    while (sequence.steps.size() < length && !bytes.atEnd())
        sequence.steps.push_back(stepOf(bytes, 0));
    return sequence;
}

std::string describe(const Sequence& sequence)
{
    std::string text = sequence.reusesAddresses ? "Addresses of freed Avahi objects are used again.\n" : "";
    int number = 0;
    for (const Step& step : sequence.steps)
        text += std::to_string(++number) + ". " + describe(step) + '\n';
    return text;
}
