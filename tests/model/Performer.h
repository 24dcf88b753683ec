// SPDX-License-Identifier: MIT
#pragma once

#include "model/Step.h"

#include <cstddef>

/** Performs steps, and those inside them when their time has come. */
class Performer
{
public:
    virtual ~Performer() = default;

    void perform(const Step& step)
    {
        performWith(step, [] {});
    }

    /** What @p afterwards does is part of the step: the signals that come then have their slots. */
    template <typename Action>
    void performWith(const Step& step, const Action& afterwards)
    {
        const Step* const outer = m_step;
        const std::size_t outerSlots = m_slots;
        m_step = &step;
        m_slots = 0;
        run(step);
        afterwards();
        m_step = outer;
        m_slots = outerSlots;
    }

    virtual bool isDestroyed() const = 0;

protected:
    virtual void runOperation(const Step& step) = 0;
    virtual void runEvent(const Step& step) = 0;
    virtual void runSetting(const Step& step) = 0;

    /** To be called in the slot of every signal. */
    void runInSlot()
    {
        if (m_step && m_slots < m_step->inSlots.size())
            perform(m_step->inSlots[m_slots++]);
    }

private:
    void run(const Step& step)
    {
        if (isDestroyed())
            return;
        if (step.kind < Step::ClientState)
            runOperation(step);
        else if (step.kind <= Step::GroupState)
            runEvent(step);
        else
            runSetting(step);
    }

    const Step* m_step = nullptr;
    std::size_t m_slots = 0;
};
