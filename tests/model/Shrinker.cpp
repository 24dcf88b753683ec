// SPDX-License-Identifier: MIT
#include "model/Shrinker.h"

#include <algorithm>
#include <utility>

namespace {

class Shrinker
{
public:
    Shrinker(const Sequence& sequence, const std::function<bool(const Sequence&)>& fails)
        : m_best(sequence), m_fails(fails)
    {}

    Sequence shrink()
    {
        bool better = true;
        while (better) {
            better = leaveOutChunks();
            better |= leaveOutInnerSteps();
            better |= moveInnerStepsOut();
            better |= simplifyValues();
        }
        return m_best;
    }

private:
    bool take(Sequence tried)
    {
        if (!m_fails(tried))
            return false;
        m_best = std::move(tried);
        return true;
    }

    bool leaveOutChunks()
    {
        bool better = false;
        for (std::size_t size = std::max<std::size_t>(m_best.steps.size() / 2, 1); size > 0; size /= 2) {
            std::size_t begin = 0;
            while (begin < m_best.steps.size()) {
                if (take(without(begin, size)))
                    better = true;
                else
                    begin += size;
            }
        }
        return better;
    }

    Sequence without(std::size_t begin, std::size_t size) const
    {
        Sequence tried = m_best;
        const std::size_t end = std::min(begin + size, tried.steps.size());
        tried.steps.erase(tried.steps.begin() + static_cast<std::ptrdiff_t>(begin),
                          tried.steps.begin() + static_cast<std::ptrdiff_t>(end));
        return tried;
    }

    /** The steps of the sequence and those inside them, in one row. */
    static std::vector<Step*> allSteps(std::vector<Step>& steps)
    {
        std::vector<Step*> all;
        for (Step& step : steps) {
            all.push_back(&step);
            for (std::vector<Step>* const inner : {&step.inSlots, &step.inHandler}) {
                const std::vector<Step*> deeper = allSteps(*inner);
                all.insert(all.end(), deeper.begin(), deeper.end());
            }
        }
        return all;
    }

    bool leaveOutInnerSteps()
    {
        bool better = false;
        for (std::size_t i = 0; i < allSteps(m_best.steps).size(); ++i) {
            for (const auto member : {&Step::inSlots, &Step::inHandler}) {
                std::size_t inner = 0;
                while (inner < (allSteps(m_best.steps)[i]->*member).size()) {
                    Sequence tried = m_best;
                    std::vector<Step>& steps = allSteps(tried.steps)[i]->*member;
                    steps.erase(steps.begin() + static_cast<std::ptrdiff_t>(inner));
                    if (take(tried))
                        better = true;
                    else
                        ++inner;
                }
            }
        }
        return better;
    }

    /** What fails in a slot may fail behind it, or instead of what caused the signal, as well. */
    bool moveInnerStepsOut()
    {
        bool better = false;
        for (std::size_t i = 0; i < m_best.steps.size(); ++i) {
            for (const auto member : {&Step::inSlots, &Step::inHandler}) {
                if (!(m_best.steps[i].*member).empty())
                    better |= take(movedOut(i, member, 0)) || take(movedOut(i, member, 1));
            }
        }
        return better;
    }

    Sequence movedOut(std::size_t place, std::vector<Step> Step::*member, std::size_t kept) const
    {
        Sequence tried = m_best;
        const std::vector<Step> inner = tried.steps[place].*member;
        (tried.steps[place].*member).clear();
        const auto begin = tried.steps.begin() + static_cast<std::ptrdiff_t>(place);
        const auto rest = kept ? begin + 1 : tried.steps.erase(begin);
        tried.steps.insert(rest, inner.begin(), inner.end());
        return tried;
    }

    bool simplifyValues()
    {
        bool better = false;
        if (m_best.reusesAddresses) {
            Sequence tried = m_best;
            tried.reusesAddresses = false;
            better = take(tried);
        }
        for (std::size_t i = 0; i < allSteps(m_best.steps).size(); ++i) {
            for (int field = 0; field < Step::FieldCount; ++field) {
                if (!allSteps(m_best.steps)[i]->fields[static_cast<std::size_t>(field)])
                    continue;
                Sequence tried = m_best;
                allSteps(tried.steps)[i]->fields[static_cast<std::size_t>(field)] = 0;
                better |= take(tried);
            }
        }
        return better;
    }

    Sequence m_best;
    const std::function<bool(const Sequence&)>& m_fails;
};

} // namespace

Sequence shrunk(const Sequence& sequence, const std::function<bool(const Sequence&)>& fails)
{
    return Shrinker(sequence, fails).shrink();
}
