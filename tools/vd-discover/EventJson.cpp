// SPDX-License-Identifier: MIT
#include "EventJson.h"

#include "support/PrintableText.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

namespace vd::discover {

namespace {

// JSON itself asks for this below U+0020 only. Joiners are escaped too: nothing is lost by it.
bool needsEscape(uint codePoint)
{
    return isUnprintable(codePoint) || QChar::category(codePoint) == QChar::Other_Format;
}

QString escaped(QChar unit)
{
    return QStringLiteral("\\u%1").arg(uint(unit.unicode()), 4, 16, QLatin1Char('0'));
}

// Only strings can hold such characters, so replacing them anywhere leaves the document the same.
QByteArray withoutUnprintable(const QString& json)
{
    QString printable;
    printable.reserve(json.size());
    for (int i = 0; i < json.size(); ++i) {
        const QChar unit = json.at(i);
        const bool isPair = unit.isHighSurrogate() && i + 1 < json.size() && json.at(i + 1).isLowSurrogate();
        if (isPair) {
            const QChar second = json.at(++i);
            const bool escape = needsEscape(QChar::surrogateToUcs4(unit, second));
            printable += escape ? escaped(unit) + escaped(second) : QString(unit) + second;
        } else {
            printable += needsEscape(unit.unicode()) ? escaped(unit) : QString(unit);
        }
    }
    return printable.toUtf8();
}

} // namespace

QJsonObject jsonOf(const SServiceInfo& service)
{
    return {
        {QStringLiteral("serviceType"), service.serviceType},
        {QStringLiteral("interfaceIndex"), service.interfaceIndex},
        {QStringLiteral("addressRemoved"), service.addressRemoved},
        {QStringLiteral("longLiveQuery"), service.longLiveQuery},
        {QStringLiteral("deviceKind"), qint64(service.deviceKind)},
        {QStringLiteral("serviceName"), service.serviceName},
        {QStringLiteral("hostName"), service.hostName},
        {QStringLiteral("recordHostName"), service.recordHostName},
        {QStringLiteral("addresses"), QJsonArray::fromStringList(service.addresses)},
        {QStringLiteral("port"), service.port},
        {QStringLiteral("https"), service.https},
        {QStringLiteral("macAddress"), service.macAddress.toString()},
        {QStringLiteral("serialNumber"), qint64(service.serialNumber)},
        {QStringLiteral("softwareVersion"), service.softwareVersion},
        {QStringLiteral("modelName"), service.modelName},
        {QStringLiteral("errorText"), service.errorText},
        {QStringLiteral("userdataOwner"), service.userdataOwner},
        {QStringLiteral("privacyMode"), service.privacyMode},
        {QStringLiteral("totalCapacity"), service.totalCapacity},
        {QStringLiteral("freeCapacity"), service.freeCapacity},
        {QStringLiteral("txtChecksum"), service.txtChecksum},
    };
}

QByteArray jsonLine(const char* event, const QDateTime& time, const QJsonObject& service)
{
    // The outer object is put together here, as QJsonObject would sort its members.
    const QByteArray inner = QJsonDocument(service).toJson(QJsonDocument::Compact);
    return QByteArray("{\"event\":\"") + event + "\",\"time\":\""
           + time.toUTC().toString(Qt::ISODateWithMs).toUtf8()
           + "\",\"service\":" + withoutUnprintable(QString::fromUtf8(inner)) + "}\n";
}

QByteArray jsonLine(const DeviceEvent& event)
{
    return jsonLine(wordFor(event.kind), event.time, jsonOf(event.service));
}

} // namespace vd::discover
