// SPDX-License-Identifier: MIT
#include "EventLine.h"

#include "DeviceText.h"
#include "TerminalCells.h"

namespace vd::discover {

namespace {

const int EVENT_CELLS = 7;
// Wide enough for most names, so that what follows them lines up.
const int NAME_CELLS = 20;

QString listed(const QStringList& texts)
{
    return texts.join(QStringLiteral(", "));
}

QString wholeDevice(const SServiceInfo& device)
{
    QStringList details = {listed(addressTexts(device.addresses)) + QStringLiteral(" port ") + portText(device)};
    if (device.modelName.isEmpty())
        details.append(kindText(device));
    else
        details.append(kindText(device) + QLatin1Char(' ') + textOrDash(device.modelName));
    if (!device.softwareVersion.isEmpty())
        details.append(QStringLiteral("version ") + textOrDash(device.softwareVersion));
    details.append(QStringLiteral("serial ") + serialText(device));
    return listed(details + remarks(device));
}

// An address may be told of again that never left, or whose removal was told before.
QString whatHappened(const SServiceInfo& signalled, bool isChange)
{
    if (isRemoval(signalled))
        return isChange ? QStringLiteral(" removed; ") : QStringLiteral(" removed already; ");
    return isChange ? QStringLiteral(" added; ") : QStringLiteral(" still there; ");
}

QString addressChange(const SServiceInfo& signalled, const QStringList& addressesBefore,
                      const QStringList& addressesNow)
{
    const QString changed = signalled.addresses.isEmpty() ? QString() : signalled.addresses.last();
    QString text = textOrDash(changed) + whatHappened(signalled, addressesNow != addressesBefore);
    if (addressesNow.isEmpty())
        text += QStringLiteral("none is left");
    else
        text += QStringLiteral("now ") + listed(addressTexts(addressesNow));
    return text;
}

QString textChange(const SServiceInfo& before, const SServiceInfo& after)
{
    QStringList changes;
    const auto compare = [&changes](const char* what, const QString& from, const QString& to) {
        if (from != to)
            changes.append(QLatin1String(what) + textOrDash(from) + QStringLiteral(" -> ") + textOrDash(to));
    };
    compare("model ", before.modelName, after.modelName);
    compare("version ", before.softwareVersion, after.softwareVersion);
    compare("serial ", serialText(before), serialText(after));
    if (remarks(before) != remarks(after))
        changes.append(remarks(after).isEmpty() ? QStringLiteral("nothing to remark any more")
                                                : listed(remarks(after)));
    return changes.isEmpty() ? QStringLiteral("TXT record changed") : listed(changes);
}

QString detailsOf(const DeviceEvent& event, const SServiceInfo& before, const SServiceInfo& after)
{
    switch (event.kind) {
    case EventKind::Found:
        return wholeDevice(after);
    case EventKind::Address:
        return addressChange(event.service, before.addresses, after.addresses);
    case EventKind::Text:
        return textChange(before, after);
    case EventKind::Lost:
        break;
    }
    return QStringLiteral("was at ") + listed(addressTexts(before.addresses));
}

} // namespace

QByteArray eventLine(const DeviceEvent& event, const SServiceInfo& before, const SServiceInfo& after, int width)
{
    const QString line = event.time.toLocalTime().toString(QStringLiteral("HH:mm:ss  "))
                         + paddedToCells(QLatin1String(wordFor(event.kind)), EVENT_CELLS) + QStringLiteral("  ")
                         + paddedToCells(nameText(event.service), NAME_CELLS) + QStringLiteral("  ")
                         + detailsOf(event, before, after);
    return (width > 0 ? cutToCells(line, width) : line).toUtf8() + '\n';
}

} // namespace vd::discover
