// SPDX-License-Identifier: MIT
#ifndef VD_AVAHI_AVAHIPOLLADAPTER_H
#define VD_AVAHI_AVAHIPOLLADAPTER_H

#ifdef VD_SYSTEM_AVAHI_QT_HEADER
#    include VD_SYSTEM_AVAHI_QT_HEADER
#else
#    include <avahi-common/watch.h>

/**
 * Avahi's poll interface on the Qt event loop of the calling thread.
 *
 * Watches and timeouts belong to the thread that makes them, which needs a Qt event dispatcher (an
 * application object, or a QThread). They must be used and freed there; those of a paused WatchGroup by the thread that
 * has the client, and take effect when the group is resumed. The returned table is static.
 *
 * A callback never runs inside a call of this interface, and it may update and free any watch or timeout,
 * its own included; what is freed is gone at once and is not called again. Where avahi-common/watch.h
 * leaves it open:
 *
 * - A callback is not entered again while it is on the stack, even if it runs a nested event loop: D-Bus,
 *   which is behind Avahi's callbacks, would wait for itself for ever. What comes due meanwhile follows when
 *   the callback has returned, if it still applies. Other watches and timeouts go on.
 * - A watch reports all that happened in one callback, AVAHI_WATCH_HUP and AVAHI_WATCH_ERR also if they
 *   were not asked for. It is level-triggered. One that asks for nothing is off.
 * - watch_get_events() tells what happened while the watch's callback is on the stack, otherwise 0.
 * - watch_new() returns null for a descriptor that is not open or that cannot be waited for (a plain file),
 *   and when the process is out of descriptors: each watch takes one.
 * - A timeout's wall-clock time is converted when it is set; later steps of the clock do not move it. It never
 *   fires early. A time that has passed fires in the next turn of the event loop.
 */
extern "C" const AvahiPoll* avahi_qt_poll_get();
#endif

#endif
