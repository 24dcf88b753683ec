// SPDX-License-Identifier: MIT
#include "CommandReader.h"

#include "AvahiObjects.h"
#include "JsonLines.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <arpa/inet.h>
#include <unistd.h>

#include <vector>

namespace {

// The four bytes in the order in which they are written.
quint32 addressOf(const QJsonValue& dotted)
{
    return dotted.isString() ? inet_addr(dotted.toString().toUtf8().constData()) : 0;
}

vd::SReconfigInfo reconfigInfoOf(const QJsonObject& request)
{
    vd::SReconfigInfo info = vd::SReconfigInfo();
    info.userName = request[QStringLiteral("userName")].toString();
    info.password = request[QStringLiteral("password")].toString();
    info.zephValue = quint32(request[QStringLiteral("zephValue")].toInt());
    info.newIp = addressOf(request[QStringLiteral("newIp")]);
    info.netMask = addressOf(request[QStringLiteral("netMask")]);
    info.save = request[QStringLiteral("save")].toBool();
    info.deviceKind = quint32(request[QStringLiteral("deviceKind")].toInt());
    const QJsonArray nameServers = request[QStringLiteral("nameServers")].toArray();
    info.dns1 = addressOf(nameServers.at(0));
    info.dns2 = addressOf(nameServers.at(1));
    info.dns3 = addressOf(nameServers.at(2));
    return info;
}

std::vector<int> takenDescriptors;

/** How many could be had. */
int takeAllDescriptors()
{
    for (int taken = dup(STDIN_FILENO); taken != -1; taken = dup(STDIN_FILENO))
        takenDescriptors.push_back(taken);
    return static_cast<int>(takenDescriptors.size());
}

void giveDescriptorsBack()
{
    for (const int taken : takenDescriptors)
        close(taken);
    takenDescriptors.clear();
}

} // namespace

CommandReader::CommandReader(ProbedDiscovery* probed)
    : m_probed(probed), m_discovery(probed->discovery()), m_input(STDIN_FILENO, QSocketNotifier::Read)
{
    connect(&m_input, &QSocketNotifier::activated, this, &CommandReader::readInput);
}

void CommandReader::readInput()
{
    char buffer[4096];
    const ssize_t size = read(STDIN_FILENO, buffer, sizeof buffer);
    if (size <= 0) {
        m_input.setEnabled(false);
        QCoreApplication::quit();
        return;
    }
    m_pending.append(buffer, static_cast<int>(size));
    for (auto end = m_pending.indexOf('\n'); end >= 0; end = m_pending.indexOf('\n')) {
        const QByteArray line = m_pending.left(end);
        m_pending.remove(0, end + 1);
        handleLine(line);
    }
}

void CommandReader::handleLine(const QByteArray& line)
{
    const QJsonObject request = QJsonDocument::fromJson(line).object();
    // Asked of this thread, whatever that of the discovery object is doing.
    if (request[QStringLiteral("command")] == QLatin1String("beat"))
        answer(request, true);
    else
        QMetaObject::invokeMethod(m_discovery, [this, request] { answer(request, carryOut(request)); });
}

void CommandReader::answer(const QJsonObject& request, const QJsonValue& result)
{
    writeLine({
        {QStringLiteral("event"), QStringLiteral("answer")},
        {QStringLiteral("command"), request[QStringLiteral("command")]},
        {QStringLiteral("result"), result},
    });
}

// Undefined, which is left out of the answer, for a command that does not exist.
QJsonValue CommandReader::carryOut(const QJsonObject& request)
{
    const auto text = [&](const char* key) { return request[QLatin1String(key)].toString().toUtf8(); };
    const QByteArray command = text("command"), name = text("name"), type = text("type");

    if (command == "browse")
        return m_discovery->BrowseServices(type.constData());
    if (command == "terminate")
        return m_discovery->TerminateBrowsing();
    if (command == "is-browsing")
        return m_discovery->IsBrowsing();
    if (command == "start-query") {
        const bool isLong = request[QStringLiteral("longLiveQuery")].toBool();
        return m_discovery->StartQueryRecords(name.constData(), type.constData(), isLong);
    }
    if (command == "stop-query") {
        m_discovery->StopQueryRecords(name.constData(), type.constData());
        return true;
    }
    if (command == "start-query-all") {
        m_discovery->StartQueryAllRecords();
        return true;
    }
    if (command == "stop-query-all") {
        m_discovery->StopQueryAllRecords();
        return true;
    }
    if (command == "register")
        return m_discovery->RegisterService(name.constData(), type.constData(), reconfigInfoOf(request));
    if (command == "update-txt")
        return m_probed->updateTxt(text("txt").constData());
    if (command == "terminate-registration")
        return m_discovery->TerminateRegistration();
    if (command == "is-registered")
        return m_discovery->IsRegistered();
    if (command == "dump")
        return m_probed->dump();
    if (command == "count-avahi-objects")
        return AvahiObjects::open();
    if (command == "most-avahi-objects")
        return AvahiObjects::most();
    if (command == "take-descriptors")
        return takeAllDescriptors();
    if (command == "give-descriptors-back") {
        giveDescriptorsBack();
        return true;
    }
    return QJsonValue::Undefined;
}
