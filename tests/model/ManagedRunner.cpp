// SPDX-License-Identifier: MIT
#include "model/ManagedRunner.h"

#include "model/Shrinker.h"
#include "model/VirtualClock.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <iterator>

namespace {

// Longer than the grace period, and than what follows a lost connection.
const int REST_MS = 40000;

std::string flawOfStep(ManagedLibrary& library, const Step& step)
{
    library.perform(step);
    if (std::string flaw = library.flaw(); !flaw.empty())
        return flaw;
    library.passTimeAfter(step);
    return library.flaw();
}

std::string flawAfterwards(ManagedLibrary& library)
{
    library.endLooks();
    library.passTime(REST_MS);
    if (const std::string flaw = library.flawAtRest(); !flaw.empty())
        return "At rest: " + flaw;
    if (const std::string flaw = library.flawInLife(); !flaw.empty())
        return "Afterwards: " + flaw;
    return library.flawAtEnd();
}

} // namespace

Surroundings surroundingsOf(std::uint64_t number)
{
    static const int limits[] = {512, 8, 12, 20};
    Surroundings surroundings;
    surroundings.hasBus = number % 2;
    surroundings.objectLimit = limits[number / 2 % std::size(limits)];
    return surroundings;
}

std::string flawIn(const Sequence& sequence, const Surroundings& surroundings, SignalCounts* signalled)
{
    testing::TestPartResultArray failures;
    // What the stand-ins find wrong with a call is a flaw like any other.
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
    const auto withFailures = [&failures](const std::string& flaw) {
        return failures.size() ? failures.GetTestPartResult(0).message() + ('\n' + flaw) : flaw;
    };
    const VirtualClock clock;
    ManagedLibrary library(surroundings, sequence.reusesAddresses);
    for (std::size_t i = 0; i < sequence.steps.size(); ++i) {
        const std::string flaw = withFailures(flawOfStep(library, sequence.steps[i]));
        if (!flaw.empty())
            return "After step " + std::to_string(i + 1) + ": " + flaw;
    }
    if (signalled) {
        for (const auto& [kind, times] : library.signalled)
            (*signalled)[kind] += times;
    }
    return withFailures(flawAfterwards(library));
}

std::string reportOfFlaw(const Sequence& sequence, const Surroundings& surroundings, const std::string& origin)
{
    const Sequence shortest = shrunk(
        sequence, [&surroundings](const Sequence& tried) { return !flawIn(tried, surroundings).empty(); });
    return origin + ", " + std::to_string(surroundings.objectLimit) + " objects, "
           + (surroundings.hasBus ? "with" : "without") + " a bus:\n" + describe(shortest)
           + flawIn(shortest, surroundings) + '\n';
}
