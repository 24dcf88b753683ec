// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_TXTKEYS_H
#define VD_AVAHI_TXTKEYS_H

#include <cstddef>

namespace vd {

/** In bytes: the length of a string of a TXT record stands in one byte. The daemon would cut off what is longer. */
const std::size_t LONGEST_TXT_STRING = 255;

/** The keys that tell the vendor. Their values are the serial number, three raw bytes. */
const char VANDREL_SERIAL_KEY[] = "ser_no." VD_VENDOR_TXT_DOMAIN;
const char SNAP_SERVER_SERIAL_KEY[] = "ser_no.snapserver.com";

} // namespace vd

#endif
