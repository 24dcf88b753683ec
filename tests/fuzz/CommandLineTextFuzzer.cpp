// SPDX-License-Identifier: MIT
// What the command line prints of devices and services, whatever they call themselves.
#include "Fuzzing.h"

#include "ColumnText.h"
#include "DeviceTable.h"
#include "EventJson.h"
#include "EventLine.h"
#include "PublicationText.h"
#include "TerminalCells.h"
#include "support/PrintableText.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <algorithm>

namespace {

using namespace vd::discover;

using vd::fuzz::decoded;
using vd::fuzz::takeText;

const int WIDEST_TERMINAL = 200;

void expectHarmless(const QString& text)
{
    for (const char32_t codePoint : decoded(text.toUtf8().toStdString()))
        VD_EXPECT(!vd::fuzz::isHostile(codePoint));
}

QStringList expectLines(const QByteArray& output)
{
    VD_EXPECT(output.endsWith('\n'));
    const std::string text = output.chopped(1).toStdString();
    for (const char32_t codePoint : decoded(text))
        VD_EXPECT(codePoint == '\n' || !vd::fuzz::isHostile(codePoint));
    return QString::fromStdString(text).split(QLatin1Char('\n'));
}

QString expectOneLine(const QByteArray& output)
{
    const QStringList lines = expectLines(output);
    VD_EXPECT(lines.size() == 1);
    return lines.first();
}

vd::SServiceInfo takeService(FuzzedDataProvider& input)
{
    vd::SServiceInfo service;
    const quint32 kinds[] = {0, vd::DEVICE_KIND_VANDREL, vd::DEVICE_KIND_SNAP_SERVER};
    service.deviceKind = input.PickValueInArray(kinds);
    service.addressRemoved = input.ConsumeBool();
    service.privacyMode = input.ConsumeBool();
    service.https = input.ConsumeBool();
    service.port = input.ConsumeIntegral<quint16>();
    service.serialNumber = input.ConsumeIntegral<quint32>();
    for (QString* text : {&service.serviceName, &service.serviceType, &service.hostName, &service.recordHostName,
                          &service.modelName, &service.softwareVersion, &service.errorText, &service.userdataOwner,
                          &service.totalCapacity, &service.freeCapacity})
        *text = takeText(input, 80);
    for (int count = input.ConsumeIntegralInRange(0, 3); count > 0; --count)
        service.addresses.append(takeText(input, 20));
    return service;
}

void checkColumnText(const QString& text)
{
    const QString shown = columnText(text);
    expectHarmless(shown);
    // Two blanks would be taken for the gap between columns.
    VD_EXPECT(!shown.contains(QStringLiteral("  ")));
    VD_EXPECT(!shown.startsWith(QLatin1Char(' ')) && !shown.endsWith(QLatin1Char(' ')));
    VD_EXPECT(shown.isEmpty() == text.isEmpty());
    expectHarmless(vd::printableText(text));
    VD_EXPECT(vd::printableText(vd::printableText(text)) == vd::printableText(text));
}

void checkEventLines(const QDateTime& time, const vd::SServiceInfo& before, const vd::SServiceInfo& after, int width)
{
    for (const EventKind kind : {EventKind::Found, EventKind::Address, EventKind::Text, EventKind::Lost}) {
        expectOneLine(eventLine({kind, time, after}, before, after, 0));
        VD_EXPECT(cellsOf(expectOneLine(eventLine({kind, time, after}, before, after, width))) <= width);
    }
}

void checkTables(const QList<vd::SServiceInfo>& devices, int width)
{
    VD_EXPECT(expectLines(deviceTable(devices, 0)).size() == 1 + devices.size());
    const QStringList lines = expectLines(deviceTable(devices, width));
    VD_EXPECT(std::all_of(lines.begin(), lines.end(),
                          [width](const QString& line) { return cellsOf(line) <= width; }));
}

void checkJson(const QDateTime& time, const vd::SServiceInfo& service)
{
    const QByteArray line = jsonLine({EventKind::Text, time, service});
    expectOneLine(line);
    const QJsonObject event = QJsonDocument::fromJson(line).object();
    VD_EXPECT(event.keys() == QStringList({"event", "service", "time"}));
    VD_EXPECT(event.value("event") == QStringLiteral("text"));
    const QJsonObject told = event.value("service").toObject();
    const std::pair<const char*, const QString&> texts[]
        = {{"serviceName", service.serviceName},     {"serviceType", service.serviceType},
           {"hostName", service.hostName},           {"recordHostName", service.recordHostName},
           {"modelName", service.modelName},         {"softwareVersion", service.softwareVersion},
           {"errorText", service.errorText},         {"userdataOwner", service.userdataOwner},
           {"totalCapacity", service.totalCapacity}, {"freeCapacity", service.freeCapacity}};
    for (const auto& [key, text] : texts)
        VD_EXPECT(told.value(QLatin1String(key)).isString() && told.value(QLatin1String(key)).toString() == text);
    VD_EXPECT(told.value("addresses").toArray() == QJsonArray::fromStringList(service.addresses));
    VD_EXPECT(told.value("serialNumber").toInteger() == service.serialNumber);
    VD_EXPECT(told.value("port").toInt() == service.port);
}

void checkPublication(const QDateTime& time, const QString& name)
{
    PublishOptions options;
    options.name = name;
    options.type = QStringLiteral("_setup._tcp");
    expectOneLine(publicationLine(PublicationEvent::Established, time, options));
    expectOneLine(publicationLine(PublicationEvent::Withdrawn, time, options));
    const QByteArray line = publicationJson(PublicationEvent::Collision, time, options);
    expectOneLine(line);
    const QJsonObject told = QJsonDocument::fromJson(line).object().value("service").toObject();
    VD_EXPECT(told.value("serviceName").toString() == name);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    const int width = input.ConsumeIntegralInRange(1, WIDEST_TERMINAL);
    const QDateTime time = QDateTime::fromSecsSinceEpoch(input.ConsumeIntegral<quint32>(), Qt::UTC);
    const vd::SServiceInfo before = takeService(input);
    const vd::SServiceInfo after = takeService(input);

    checkColumnText(after.serviceName);
    checkEventLines(time, before, after, width);
    checkTables({before, after}, width);
    checkJson(time, after);
    checkPublication(time, before.serviceName);
    return 0;
}
