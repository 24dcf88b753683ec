// SPDX-License-Identifier: MIT
#include "ProbeDiscovery.h"

namespace {

QJsonArray tableJson(const QMap<QString, vd::SServiceInfo>& services)
{
    QJsonArray entries;
    for (auto entry = services.constBegin(); entry != services.constEnd(); ++entry)
        entries.append(QJsonArray{entry.key(), jsonOf(entry.value())});
    return entries;
}

QJsonArray queueJson(const QList<QPair<QString, QString>>& queue)
{
    QJsonArray entries;
    for (const QPair<QString, QString>& entry : queue)
        entries.append(QJsonArray{entry.first, entry.second});
    return entries;
}

} // namespace

template <typename Base>
QJsonObject ProbeDiscovery<Base>::dump() const
{
    return {
        {QStringLiteral("services"), tableJson(this->services)},
        {QStringLiteral("recordQueue"), queueJson(this->recordQueue)},
        {QStringLiteral("nameList"), int(this->nameList.size())},
        {QStringLiteral("queryTimerActive"), this->queryTimer.isActive()},
        {QStringLiteral("queryTimerInterval"), this->queryTimer.interval()},
        {QStringLiteral("client"), this->client != nullptr},
        {QStringLiteral("serviceBrowsers"), int(this->serviceBrowsers.size())},
        {QStringLiteral("longLiveResolver"), this->longLiveResolver != nullptr},
        {QStringLiteral("longLiveRecordBrowser"), this->longLiveRecordBrowser != nullptr},
        {QStringLiteral("resolvers"), int(this->resolvers.size())},
        {QStringLiteral("entryGroup"), this->entryGroup != nullptr},
        {QStringLiteral("registeredName"), QString::fromStdString(this->registeredName)},
        {QStringLiteral("registeredType"), QString::fromStdString(this->registeredType)},
        {QStringLiteral("txtRecord"), this->txtRecord != nullptr},
    };
}

template class ProbeDiscovery<vd::AvahiServiceDiscovery>;
template class ProbeDiscovery<vd::ManagedServiceDiscovery>;
