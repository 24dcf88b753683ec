// SPDX-License-Identifier: MIT
#ifndef VD_DISCOVER_PUBLICATIONTEXT_H
#define VD_DISCOVER_PUBLICATIONTEXT_H

#include "PublishOptions.h"

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>

namespace vd::discover {

/** What becomes of a service that is published. */
enum class PublicationEvent {
    Established,
    Collision,
    Failure,
    /** The daemon is gone, and the service with it. */
    Lost,
    Withdrawn
};

/**
 * The event as one line for people, with its line feed: local time, what happened to which service, and, once it
 * is established, what its record tells a device; never the password. Nothing for a collision, a failure or a
 * loss, which standard error tells of.
 */
QByteArray publicationLine(PublicationEvent event, const QDateTime& time, const PublishOptions& options);

/** The event as one line of JSON in UTF-8, with its line feed. */
QByteArray publicationJson(PublicationEvent event, const QDateTime& time, const PublishOptions& options);

} // namespace vd::discover

#endif
