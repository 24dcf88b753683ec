// SPDX-License-Identifier: MIT
#include "KnownDevices.h"

#include <algorithm>

namespace vd::discover {

namespace {

QStringList addressesAfter(const QStringList& known, const SServiceInfo& service)
{
    QStringList addresses = known;
    if (service.addresses.isEmpty())
        return addresses;
    // Of a longer list only the last is news: it may begin with an address that was removed before.
    if (isRemoval(service))
        addresses.removeAll(service.addresses.last());
    else if (!addresses.contains(service.addresses.last()))
        addresses.append(service.addresses.last());
    return addresses;
}

} // namespace

bool KnownDevices::apply(const DeviceEvent& event)
{
    const SServiceInfo& service = event.service;
    if (event.kind == EventKind::Found) {
        m_devices.insert(service.serviceName, service);
        return true;
    }
    const auto known = m_devices.find(service.serviceName);
    if (known == m_devices.end())
        return false;

    if (event.kind == EventKind::Lost) {
        m_devices.erase(known);
        return true;
    }
    QStringList addresses = known->addresses;
    if (event.kind == EventKind::Address)
        addresses = addressesAfter(addresses, service);
    *known = service;
    known->addresses = addresses;
    return true;
}

QList<SServiceInfo> KnownDevices::devices() const
{
    QList<SServiceInfo> sorted = m_devices.values();
    const auto isBefore = [](const SServiceInfo& first, const SServiceInfo& second) {
        return first.serviceName.compare(second.serviceName, Qt::CaseInsensitive) < 0;
    };
    std::stable_sort(sorted.begin(), sorted.end(), isBefore);
    return sorted;
}

} // namespace vd::discover
