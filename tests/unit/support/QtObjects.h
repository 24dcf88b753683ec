// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <string>

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

/** How many there are of each class that has a meta-object of its own. No other thread may be ending one. */
std::map<std::string, int> countByClass();

/** How many timers are running in the calling thread. */
int activeTimers();

} // namespace QtObjects
