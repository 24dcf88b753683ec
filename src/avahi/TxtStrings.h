// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_TXTSTRINGS_H
#define VD_AVAHI_TXTSTRINGS_H

#include <cstddef>

namespace vd {

/** In bytes: the length of a string of a TXT record stands in one byte. The daemon would cut off what is longer. */
const std::size_t LONGEST_TXT_STRING = 255;

} // namespace vd

#endif
