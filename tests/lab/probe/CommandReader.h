// SPDX-License-Identifier: MIT
#pragma once

#include "ProbeDiscovery.h"

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

/** Carries out the commands that come in on standard input, one JSON object a line, and answers each. */
class CommandReader : public QObject
{
    Q_OBJECT

public:
    explicit CommandReader(ProbedDiscovery* probed);

private:
    void readInput();
    void handleLine(const QByteArray& line);
    void answer(const QJsonObject& request, const QJsonValue& result);
    QJsonValue carryOut(const QJsonObject& request);

    ProbedDiscovery* const m_probed;
    vd::ServiceDiscovery* const m_discovery;
    QSocketNotifier m_input;
    QByteArray m_pending;
};
