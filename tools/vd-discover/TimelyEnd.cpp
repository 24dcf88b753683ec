// SPDX-License-Identifier: MIT
#include "TimelyEnd.h"

#include <utility>

#include <unistd.h>

namespace vd::discover {

namespace {

// How long a daemon that hangs may delay the end, when all results are out.
const std::chrono::milliseconds PATIENCE_AT_END(1000);
// How long it may delay the results from when the run should end.
const std::chrono::milliseconds PATIENCE_BEFORE_END(1500);

} // namespace

TimelyEnd::TimelyEnd(int signalDescriptor, Deadline::Action endProcess)
    : m_endProcess(std::move(endProcess))
    , m_signalled(new Deadline(signalDescriptor, PATIENCE_BEFORE_END, m_endProcess))
{}

void TimelyEnd::expectAfter(std::chrono::milliseconds time)
{
    m_foreseen.reset(new Deadline(time + PATIENCE_BEFORE_END, m_endProcess));
}

void TimelyEnd::expectNow()
{
    m_begun.reset(new Deadline(PATIENCE_BEFORE_END, m_endProcess));
}

void TimelyEnd::begin()
{
    while (!take())
        pause();
    m_signalled.reset();
    m_foreseen.reset();
    m_begun.reset();
}

void TimelyEnd::hurry(const std::function<void()>& work, Deadline::Action endProcess)
{
    const Deadline deadline(PATIENCE_AT_END, std::move(endProcess));
    work();
}

} // namespace vd::discover
