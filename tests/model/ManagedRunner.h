// SPDX-License-Identifier: MIT
#pragma once

#include "model/ManagedLibrary.h"
#include "model/Sequence.h"

#include <cstdint>
#include <map>
#include <string>

/** Others for each number. */
Surroundings surroundingsOf(std::uint64_t number);

/** How often each signal was emitted. */
typedef std::map<std::string, int> SignalCounts;

/** Performs the steps on managed discovery, and tells what does not hold after one of them; empty if all does. */
std::string flawIn(const Sequence& sequence, const Surroundings& surroundings, SignalCounts* signalled = nullptr);

/** The sequence in its shortest form, and its flaw. */
std::string reportOfFlaw(const Sequence& sequence, const Surroundings& surroundings, const std::string& origin);
