// SPDX-License-Identifier: MIT
#pragma once

#include "JsonLines.h"

#include <vd/ManagedServiceDiscovery.h>

/** What a discovery object of any class can be told beyond the operations that all have. */
class ProbedDiscovery
{
public:
    virtual ~ProbedDiscovery() = default;

    virtual vd::ServiceDiscovery* discovery() = 0;
    virtual bool updateTxt(const char* txt) = 0;
    /** The service table, the queue and the other members. Handles appear as whether they are null. */
    virtual QJsonObject dump() const = 0;
};

/** Shows what a class that derives from @p Base can see. */
template <typename Base>
class ProbeDiscovery : public Base, public ProbedDiscovery
{
public:
    vd::ServiceDiscovery* discovery() override { return this; }
    bool updateTxt(const char* txt) override { return Base::UpdateTxtRecord(txt); }
    QJsonObject dump() const override;
};
