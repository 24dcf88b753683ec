// SPDX-License-Identifier: MIT
#pragma once

#include <QtCore/QObject>
#include <QtCore/QVariant>

#include <algorithm>

/** Whether a managed discovery object has calls made in threads just now. */
inline bool areCallsMadeFor(const QObject& discovery)
{
    const QList<QObject*> threads = discovery.findChildren<QObject*>(QStringLiteral("callThread"));
    return std::any_of(threads.begin(), threads.end(),
                       [](const QObject* thread) { return thread->property("busy").toBool(); });
}
