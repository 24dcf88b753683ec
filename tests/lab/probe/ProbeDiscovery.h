// SPDX-License-Identifier: MIT
#pragma once

#include <vd/AvahiServiceDiscovery.h>

#include <QtCore/QJsonObject>

/** Shows what a derived class can see. */
class ProbeDiscovery : public vd::AvahiServiceDiscovery
{
public:
    using AvahiServiceDiscovery::UpdateTxtRecord;

    /** The service table, the queue and the other members. Handles appear as whether they are null. */
    QJsonObject dump() const;
};
