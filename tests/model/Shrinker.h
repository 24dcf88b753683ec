// SPDX-License-Identifier: MIT
#pragma once

#include "model/Sequence.h"

#include <functional>

/** The shortest and plainest sequence to be had by leaving out and simplifying that still @p fails. */
Sequence shrunk(const Sequence& sequence, const std::function<bool(const Sequence&)>& fails);
