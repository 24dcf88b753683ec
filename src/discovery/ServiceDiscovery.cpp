// SPDX-License-Identifier: MIT
#include <vd/ServiceDiscovery.h>

#include "support/QtCompat.h"

#include <QtCore/QPointer>

namespace vd {

namespace {

const int FIRST_QUERY_DELAY_MS = 15000;
const int QUERY_INTERVAL_MS = 200;

} // namespace

ServiceDiscovery::ServiceDiscovery()
{
    qRegisterMetaType<vd::SServiceInfo>("vd::SServiceInfo");
    connect(&queryTimer, SIGNAL(timeout()), this, SLOT(queryNextRecord()));
}

ServiceDiscovery::~ServiceDiscovery() {}

void ServiceDiscovery::StartQueryAllRecords()
{
    queryTimer.setInterval(FIRST_QUERY_DELAY_MS);
    queryTimer.start();
}

void ServiceDiscovery::StopQueryAllRecords()
{
    queryTimer.stop();
}

void ServiceDiscovery::queryNextRecord()
{
    queryTimer.setInterval(QUERY_INTERVAL_MS);
    if (recordQueue.isEmpty())
        return;

    const QByteArray name = bytesFromText(recordQueue.first().first);
    const QByteArray type = bytesFromText(recordQueue.first().second);
    const QPointer<ServiceDiscovery> self(this);
    StartQueryRecords(name.constData(), type.constData(), false);

    // An overriding StartQueryRecords() may have ended discovery.
    // cppcheck-suppress knownConditionTrueFalse ; the pointer is cleared by the destructor
    if (!self || recordQueue.isEmpty())
        return;

    // The entry that was queued last alternates with the first; the ones between wait, by design.
    qSwap(recordQueue.first(), recordQueue.last());
}

QHostAddress ServiceDiscovery::getQHostAddress(const unsigned char* data, unsigned long size)
{
    if (!data || size < 4)
        return QHostAddress();
    return QHostAddress(quint32(data[0]) << 24 | quint32(data[1]) << 16 | quint32(data[2]) << 8
                        | quint32(data[3]));
}

} // namespace vd
