// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

/**
 * The Avahi objects that this process holds, whatever anybody believes.
 *
 * The calls that make and free them are found in this program before those of libavahi-client, to which they go on.
 */
namespace AvahiObjects {

/** How many browsers, resolvers, address browsers and entry groups are not freed. */
int open();

/** The most that were open at any moment, however short it was. */
int most();

/** What each of them is for. */
std::vector<std::string> descriptions();

} // namespace AvahiObjects
