// SPDX-License-Identifier: MIT
#pragma once

#include "model/Library.h"
#include "model/Sequence.h"

#include <optional>
#include <string>

/** Where library and model part. */
struct Mismatch
{
    /** Counted from 1; one more than there are steps for the end of the object. */
    std::size_t step;
    std::string difference;
};

/** The library's own class. */
std::unique_ptr<OpenDiscovery> makeDiscovery();

/** Performs the steps on library and model; nothing when they agree to the end. */
std::optional<Mismatch> compare(const Sequence& sequence, const Factory& factory = makeDiscovery);

/** The sequence in its shortest form, and what differs first. */
std::string report(const Sequence& sequence, const std::string& origin, const Factory& factory = makeDiscovery);
