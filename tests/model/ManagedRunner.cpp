// SPDX-License-Identifier: MIT
#include "model/ManagedRunner.h"

#include "model/Shrinker.h"
#include "model/VirtualClock.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <iterator>

namespace {

std::string flawAfterwards(ManagedLibrary& library)
{
    if (const std::string flaw = library.flawAtRest(); !flaw.empty())
        return "At rest: " + flaw;
    if (const std::string flaw = library.flawInLife(); !flaw.empty())
        return "Afterwards: " + flaw;
    return library.flawAtEnd();
}

/** Ends at the first flaw, or at the first failure that was reported. */
std::string flawOfAll(const Sequence& sequence, const Surroundings& surroundings,
                      const testing::TestPartResultArray& failures, SignalCounts* signalled)
{
    ManagedLibrary library(surroundings, sequence.reusesAddresses);
    for (std::size_t i = 0; i < sequence.steps.size(); ++i) {
        const std::string flaw = library.flawOf(sequence.steps[i]);
        if (!flaw.empty() || failures.size() > 0)
            return "After step " + std::to_string(i + 1) + ": " + flaw;
    }
    if (signalled) {
        for (const auto& [kind, times] : library.signalled)
            (*signalled)[kind] += times;
    }
    return flawAfterwards(library);
}

} // namespace

Surroundings surroundingsOf(std::uint64_t number)
{
    static const int limits[] = {512, 8, 12, 20};
    Surroundings surroundings;
    surroundings.hasBus = number % 2;
    surroundings.objectLimit = limits[number / 2 % std::size(limits)];
    surroundings.hasThread = number / 2 / std::size(limits) % 2;
    return surroundings;
}

std::string flawIn(const Sequence& sequence, const Surroundings& surroundings, SignalCounts* signalled)
{
    testing::TestPartResultArray failures;
    // What the stand-ins find wrong with a call is a flaw like any other.
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &failures);
    const VirtualClock clock;
    const std::string flaw = flawOfAll(sequence, surroundings, failures, signalled);
    return failures.size() > 0 ? failures.GetTestPartResult(0).message() + ('\n' + flaw) : flaw;
}

std::string reportOfFlaw(const Sequence& sequence, const Surroundings& surroundings, const std::string& origin)
{
    const Sequence shortest = shrunk(
        sequence, [&surroundings](const Sequence& tried) { return !flawIn(tried, surroundings).empty(); });
    const std::string flaw = flawIn(shortest, surroundings);
    if (flaw.empty())
        return origin + ": the flaw does not appear again.\n";
    return origin + ", " + std::to_string(surroundings.objectLimit) + " objects, "
           + (surroundings.hasBus ? "with" : "without") + " a bus, "
           + (surroundings.hasThread ? "with" : "without") + " a thread for calls:\n" + describe(shortest) + flaw + '\n';
}
