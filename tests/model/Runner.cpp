// SPDX-License-Identifier: MIT
#include "model/Runner.h"

#include "model/Model.h"
#include "model/Shrinker.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace {

/** Library and model side by side. */
class Comparison
{
public:
    Comparison(const Factory& factory, bool reusesAddresses) : m_library(factory, reusesAddresses) {}

    std::string perform(const Step& step)
    {
        // The model goes first, as it tells which Avahi objects the events are for.
        m_model.perform(step);
        m_library.targets = m_model.targets;
        m_library.perform(step);
        return differenceAfterStep();
    }

    std::string end()
    {
        m_model.destroy();
        m_library.destroy();
        std::string found = differenceOfObservations();
        for (const std::string& handle : m_library.liveHandles()) {
            if (found.empty())
                found = handle + " outlived the discovery object";
        }
        return found;
    }

private:
    std::string differenceAfterStep()
    {
        std::string found = differenceOfObservations();
        if (m_model.isDestroyed() || m_library.isDestroyed()) {
            m_model.startAnew();
            m_library.startAnew();
        }
        return found.empty() ? difference(m_model.state(), m_library.state()) : found;
    }

    std::string differenceOfObservations()
    {
        m_model.seen.calls.swap(m_model.avahi.calls);
        m_library.collect();
        std::string found = difference(m_model.seen, m_library.seen);
        m_model.seen.clear();
        m_model.avahi.calls.clear();
        m_model.targets.clear();
        m_library.seen.clear();
        return found;
    }

    Model m_model;
    Library m_library;
};

} // namespace

std::unique_ptr<OpenDiscovery> makeDiscovery()
{
    return std::make_unique<OpenDiscovery>();
}

std::optional<Mismatch> compare(const Sequence& sequence, const Factory& factory)
{
    testing::TestPartResultArray failures;
    // What the stand-in finds wrong with a call is a difference like any other.
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
    Comparison comparison(factory, sequence.reusesAddresses);
    const auto withFailures = [&failures](const std::string& difference) {
        return failures.size() ? failures.GetTestPartResult(0).message() + ('\n' + difference) : difference;
    };
    for (std::size_t i = 0; i < sequence.steps.size(); ++i) {
        const std::string found = withFailures(comparison.perform(sequence.steps[i]));
        if (!found.empty())
            return Mismatch{i + 1, found};
    }
    const std::string found = withFailures(comparison.end());
    return found.empty() ? std::nullopt : std::make_optional(Mismatch{sequence.steps.size() + 1, found});
}

std::string report(const Sequence& sequence, const std::string& origin, const Factory& factory)
{
    const Sequence shortest
        = shrunk(sequence, [&factory](const Sequence& tried) { return compare(tried, factory).has_value(); });
    const std::optional<Mismatch> mismatch = compare(shortest, factory);
    if (!mismatch)
        return origin + ": the difference does not appear again.\n";
    return origin + ": library and model part at step " + std::to_string(mismatch->step) + " of\n"
           + describe(shortest) + mismatch->difference + '\n';
}
