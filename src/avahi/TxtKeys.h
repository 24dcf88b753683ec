// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_TXTKEYS_H
#define VD_AVAHI_TXTKEYS_H

namespace vd {

/** The keys that tell the vendor. Their values are the serial number, three raw bytes. */
const char VANDREL_SERIAL_KEY[] = "ser_no." VD_VENDOR_TXT_DOMAIN;
const char SNAP_SERVER_SERIAL_KEY[] = "ser_no.snapserver.com";

} // namespace vd

#endif
