// SPDX-License-Identifier: MIT
#include "DeviceText.h"

#include "ColumnText.h"

namespace vd::discover {

QString nameText(const SServiceInfo& device)
{
    return textOrDash(device.serviceName);
}

QString kindText(const SServiceInfo& device)
{
    switch (device.deviceKind) {
    case DEVICE_KIND_VANDREL:
        return QStringLiteral("Vandrel camera");
    case DEVICE_KIND_SNAP_SERVER:
        return QStringLiteral("Snap Server storage");
    default:
        return QStringLiteral("other");
    }
}

QString portText(const SServiceInfo& device)
{
    return QString::number(device.port) + (device.https ? QStringLiteral(" https") : QString());
}

QString serialText(const SServiceInfo& device)
{
    return QStringLiteral("%1").arg(device.serialNumber, 6, 16, QLatin1Char('0'));
}

QStringList addressTexts(const QStringList& addresses)
{
    QStringList texts;
    for (const QString& address : addresses)
        texts.append(textOrDash(address));
    if (texts.isEmpty())
        texts.append(QStringLiteral("-"));
    return texts;
}

QString textOrDash(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("-") : columnText(text);
}

QStringList remarks(const SServiceInfo& device)
{
    QStringList texts;
    if (!device.errorText.isEmpty())
        texts.append(QStringLiteral("error: ") + columnText(device.errorText));
    if (device.privacyMode)
        texts.append(QStringLiteral("privacy mode"));
    if (!device.userdataOwner.isEmpty())
        texts.append(QStringLiteral("user data of ") + columnText(device.userdataOwner));
    if (!device.freeCapacity.isEmpty() || !device.totalCapacity.isEmpty()) {
        texts.append(textOrDash(device.freeCapacity) + QStringLiteral(" free of ")
                     + textOrDash(device.totalCapacity));
    }
    return texts;
}

} // namespace vd::discover
