// SPDX-License-Identifier: MIT
#pragma once

/**
 * All objects of Qt in this process, through the hooks that Qt has for tools.
 *
 * What the library makes for Avahi, timeouts and watches, are such objects too: one that is forgotten shows here even
 * while its timer is idle.
 */
namespace QtObjects {

/** Counts from now on. False if this Qt has other hooks than those that are known here. */
bool watch();

int count();

/** How many timers are running in the calling thread. */
int activeTimers();

} // namespace QtObjects
