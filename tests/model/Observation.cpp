// SPDX-License-Identifier: MIT
#include "model/Observation.h"

#include "support/DiscoveryFixture.h"

#include <algorithm>
#include <tuple>

namespace {

auto membersOf(const vd::SServiceInfo& info)
{
    return std::tie(info.serviceType, info.interfaceIndex, info.addressRemoved, info.longLiveQuery,
                    info.deviceKind, info.serviceName, info.hostName, info.recordHostName, info.addresses,
                    info.port, info.https, info.serialNumber, info.softwareVersion, info.modelName, info.errorText,
                    info.userdataOwner, info.privacyMode, info.totalCapacity, info.freeCapacity, info.txtChecksum);
}

std::vector<std::string> linesOf(const Table& table)
{
    std::vector<std::string> lines;
    for (auto entry = table.constBegin(); entry != table.constEnd(); ++entry)
        lines.push_back('"' + entry.key().toStdString() + "\": " + describe(entry.value()));
    return lines;
}

std::vector<std::string> linesOf(const Queue& queue)
{
    std::vector<std::string> lines;
    for (const QPair<QString, QString>& entry : queue)
        lines.push_back(entry.first.toStdString() + ", " + entry.second.toStdString());
    return lines;
}

std::string lineAt(const std::vector<std::string>& lines, std::size_t place)
{
    return place < lines.size() ? lines[place] : "nothing more";
}

std::string expectedAndSeen(const std::string& what, const std::string& expected, const std::string& seen)
{
    return what + "\n  expected: " + expected + "\n  seen:     " + seen;
}

std::string differenceOfLines(const std::string& what, const std::vector<std::string>& expected,
                              const std::vector<std::string>& seen)
{
    if (expected == seen)
        return std::string();
    std::size_t place = 0;
    while (place < expected.size() && place < seen.size() && expected[place] == seen[place])
        ++place;
    return expectedAndSeen(what + ", line " + std::to_string(place + 1), lineAt(expected, place),
                           lineAt(seen, place));
}

template <typename Value>
std::string differenceOf(const std::string& what, const Value& expected, const Value& seen)
{
    if (expected == seen)
        return std::string();
    if constexpr (std::is_same_v<Value, std::string>)
        return expectedAndSeen(what, expected, seen);
    else
        return expectedAndSeen(what, std::to_string(expected), std::to_string(seen));
}

std::string differenceOfTables(const std::string& what, const Table& expected, const Table& seen)
{
    return isEqual(expected, seen) ? std::string() : differenceOfLines(what, linesOf(expected), linesOf(seen));
}

std::string differenceOfQueues(const std::string& what, const Queue& expected, const Queue& seen)
{
    return expected == seen ? std::string() : differenceOfLines(what, linesOf(expected), linesOf(seen));
}

std::string lineOf(const Signal& signal)
{
    return std::string(signal.kind) + ' ' + describe(signal.record);
}

std::vector<std::string> linesOf(const std::vector<Signal>& emitted)
{
    std::vector<std::string> lines;
    for (const Signal& signal : emitted)
        lines.push_back(lineOf(signal));
    return lines;
}

bool isSameSignal(const Signal& left, const Signal& right)
{
    return left.kind == std::string(right.kind) && isEqual(left.record, right.record);
}

std::string differenceOfSignals(const std::vector<Signal>& expected, const std::vector<Signal>& seen)
{
    if (!std::equal(expected.begin(), expected.end(), seen.begin(), seen.end(), isSameSignal))
        return differenceOfLines("signals", linesOf(expected), linesOf(seen));
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const std::string during = " during signal " + std::to_string(i + 1);
        for (const std::string& found :
             {differenceOfTables("table" + during, expected[i].table, seen[i].table),
              differenceOfQueues("queue" + during, expected[i].queue, seen[i].queue),
              differenceOf("log lines before signal " + std::to_string(i + 1), expected[i].logLines,
                           seen[i].logLines),
              differenceOf("calls before signal " + std::to_string(i + 1), expected[i].calls, seen[i].calls)}) {
            if (!found.empty())
                return found;
        }
    }
    return std::string();
}

std::vector<std::string> linesOf(const std::vector<bool>& results)
{
    std::vector<std::string> lines;
    for (const bool result : results)
        lines.push_back(result ? "true" : "false");
    return lines;
}

} // namespace

bool isEqual(const vd::SServiceInfo& left, const vd::SServiceInfo& right)
{
    return membersOf(left) == membersOf(right);
}

bool isEqual(const Table& left, const Table& right)
{
    return std::equal(left.constKeyValueBegin(), left.constKeyValueEnd(), right.constKeyValueBegin(),
                      right.constKeyValueEnd(), [](const auto& one, const auto& other) {
                          return one.first == other.first && isEqual(one.second, other.second);
                      });
}

std::string difference(const Observation& expected, const Observation& seen)
{
    std::string found = differenceOfSignals(expected.signalled, seen.signalled);
    if (found.empty())
        found = differenceOfLines("calls of Avahi", expected.calls, seen.calls);
    if (found.empty())
        found = differenceOfLines("log", expected.log, seen.log);
    if (found.empty() && expected.results != seen.results)
        found = differenceOfLines("results", linesOf(expected.results), linesOf(seen.results));
    return found;
}

std::string difference(const State& expected, const State& seen)
{
    std::string found = differenceOfTables("table", expected.services, seen.services);
    if (found.empty())
        found = differenceOfQueues("queue", expected.recordQueue, seen.recordQueue);
    const auto compare = [&found](const char* what, const auto& left, const auto& right) {
        if (found.empty())
            found = differenceOf(what, left, right);
    };
    compare("IsBrowsing()", expected.isBrowsing, seen.isBrowsing);
    compare("IsRegistered()", expected.isRegistered, seen.isRegistered);
    compare("number of browsers", expected.browsers, seen.browsers);
    compare("presence of a client", expected.hasClient, seen.hasClient);
    compare("timer running", expected.isTicking, seen.isTicking);
    compare("timer interval", expected.interval, seen.interval);
    compare("long-lived resolver held", expected.holdsResolver, seen.holdsResolver);
    compare("long-lived record browser held", expected.holdsRecordBrowser, seen.holdsRecordBrowser);
    compare("registered name", expected.registeredName, seen.registeredName);
    compare("registered type", expected.registeredType, seen.registeredType);
    if (found.empty() && expected.isTxtRecordTold)
        found = differenceOfLines("stored TXT record", expected.txtRecord, seen.txtRecord);
    return found;
}
