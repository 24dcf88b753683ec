// SPDX-License-Identifier: MIT
#include "JsonLines.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>

#include <cstdio>

namespace {

QJsonArray member(const char* name, const QJsonValue& value)
{
    return {QLatin1String(name), value};
}

} // namespace

void writeLine(const QJsonObject& line)
{
    static QMutex mutex;
    const QByteArray bytes = QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n';
    const QMutexLocker locker(&mutex);
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

QJsonArray jsonOf(const vd::SServiceInfo& info)
{
    return {
        member("serviceType", info.serviceType),
        member("interfaceIndex", info.interfaceIndex),
        member("addressRemoved", info.addressRemoved),
        member("longLiveQuery", info.longLiveQuery),
        member("deviceKind", qint64(info.deviceKind)),
        member("serviceName", info.serviceName),
        member("hostName", info.hostName),
        member("recordHostName", info.recordHostName),
        member("addresses", QJsonArray::fromStringList(info.addresses)),
        member("port", info.port),
        member("https", info.https),
        member("macAddress", info.macAddress.toString()),
        member("serialNumber", qint64(info.serialNumber)),
        member("softwareVersion", info.softwareVersion),
        member("modelName", info.modelName),
        member("errorText", info.errorText),
        member("userdataOwner", info.userdataOwner),
        member("privacyMode", info.privacyMode),
        member("totalCapacity", info.totalCapacity),
        member("freeCapacity", info.freeCapacity),
        member("txtChecksum", info.txtChecksum),
    };
}
