// SPDX-License-Identifier: MIT
#include "PublicationText.h"

#include "ColumnText.h"
#include "EventJson.h"

#include <QtCore/QStringList>
#include <QtCore/QtAlgorithms>
#include <QtCore/QtEndian>
#include <QtNetwork/QHostAddress>

namespace vd::discover {

namespace {

const char* wordFor(PublicationEvent event)
{
    switch (event) {
    case PublicationEvent::Established:
        return "established";
    case PublicationEvent::Collision:
        return "collision";
    case PublicationEvent::Failure:
        return "failure";
    case PublicationEvent::Lost:
        return "lost";
    case PublicationEvent::Withdrawn:
        break;
    }
    return "withdrawn";
}

QString addressText(quint32 asInRecord)
{
    return QHostAddress(qFromBigEndian(asInRecord)).toString();
}

// A mask is known by its ones, which stand in front.
int prefixLength(quint32 asInRecord)
{
    return static_cast<int>(qPopulationCount(asInRecord));
}

QString recordText(const SReconfigInfo& info)
{
    QString text = QStringLiteral("zeph 0x%1: %2/%3")
                       .arg(info.zephValue, 6, 16, QLatin1Char('0'))
                       .arg(addressText(info.newIp))
                       .arg(prefixLength(info.netMask));
    QStringList servers;
    for (const quint32 server : {info.dns1, info.dns2, info.dns3}) {
        if (server != 0)
            servers.append(addressText(server));
    }
    if (!servers.isEmpty())
        text += QStringLiteral(", name servers ") + servers.join(QLatin1Char(' '));
    return text + (info.save ? QStringLiteral(", saved") : QStringLiteral(", not saved"));
}

} // namespace

QByteArray publicationLine(PublicationEvent event, const QDateTime& time, const PublishOptions& options)
{
    const bool isEstablished = event == PublicationEvent::Established;
    if (!isEstablished && event != PublicationEvent::Withdrawn)
        return QByteArray();
    QString line = time.toLocalTime().toString(QStringLiteral("HH:mm:ss  "))
                   + (isEstablished ? QStringLiteral("published  ") : QStringLiteral("withdrawn  "))
                   + columnText(options.name) + QStringLiteral(" (") + options.type + QLatin1Char(')');
    if (isEstablished)
        line += QStringLiteral("  ") + recordText(options.info);
    return line.toUtf8() + '\n';
}

QByteArray publicationJson(PublicationEvent event, const QDateTime& time, const PublishOptions& options)
{
    return jsonLine(wordFor(event), time,
                    {{QStringLiteral("serviceName"), options.name},
                     {QStringLiteral("serviceType"), options.type}});
}

} // namespace vd::discover
