// SPDX-License-Identifier: MIT
#include "ProbeDiscovery.h"

#include "JsonLines.h"

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

QJsonObject ProbeDiscovery::dump() const
{
    return {
        {QStringLiteral("services"), tableJson(services)},
        {QStringLiteral("recordQueue"), queueJson(recordQueue)},
        {QStringLiteral("nameList"), int(nameList.size())},
        {QStringLiteral("queryTimerActive"), queryTimer.isActive()},
        {QStringLiteral("queryTimerInterval"), queryTimer.interval()},
        {QStringLiteral("client"), client != nullptr},
        {QStringLiteral("serviceBrowsers"), int(serviceBrowsers.size())},
        {QStringLiteral("longLiveResolver"), longLiveResolver != nullptr},
        {QStringLiteral("longLiveRecordBrowser"), longLiveRecordBrowser != nullptr},
        {QStringLiteral("resolvers"), int(resolvers.size())},
        {QStringLiteral("entryGroup"), entryGroup != nullptr},
        {QStringLiteral("registeredName"), QString::fromStdString(registeredName)},
        {QStringLiteral("registeredType"), QString::fromStdString(registeredType)},
        {QStringLiteral("txtRecord"), txtRecord != nullptr},
    };
}
