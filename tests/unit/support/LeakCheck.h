// SPDX-License-Identifier: MIT
#pragma once

#include <avahi-common/malloc.h>

/** Compiled into a test program, this fails every test that leaves something behind. */
namespace LeakCheck {

/**
 * What counts Avahi's memory. It is set from the start; a test that sets another one takes its memory from here, and
 * sets this one again.
 */
const AvahiAllocator* avahiAllocator();

/** How many blocks Avahi has in use. */
int avahiBlocks();

} // namespace LeakCheck
