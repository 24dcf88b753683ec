// SPDX-License-Identifier: MIT
#pragma once

#include "support/DaemonStandIn.h"
#include "support/DiscoveryFixture.h"
#include "support/StandardStreamCapture.h"
#include "support/VdDiscoverTurns.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <chrono>
#include <thread>

/** A command of vd-discover on the stand-ins, whose standard output is kept. */
template <typename Command, typename Options>
class VdDiscoverCommandTest : public VdDiscoverTurns
{
protected:
    static constexpr int STILL_RUNNING = -1;
    static constexpr int LONGEST_WAIT_MS = 5000;

    // As a call to a daemon that hangs does.
    static void block() { std::this_thread::sleep_for(std::chrono::seconds(10)); }

    void start(int signalDescriptor = -1)
    {
        command.reset(new Command(options, signalDescriptor));
        QObject::connect(command.get(), &Command::finished, [this](int status) { exitStatus = status; });
        command->start();
    }

    /** Waits for the end of a run that ends by itself. */
    int waitForEnd()
    {
        passTimeUntil([this] { return exitStatus != STILL_RUNNING; }, LONGEST_WAIT_MS);
        return exitStatus;
    }

    int end()
    {
        command->end();
        processEvents();
        return exitStatus;
    }

    /** What was printed as JSON. */
    std::vector<QJsonObject> printedObjects() const
    {
        std::vector<QJsonObject> objects;
        for (const std::string& line : linesOf(output))
            objects.push_back(QJsonDocument::fromJson(QByteArray::fromStdString(line)).object());
        return objects;
    }

    static Lines linesOf(const CapturedOutput& captured)
    {
        Lines lines;
        const auto all = captured.text().split('\n');
        for (const QByteArray& line : all) {
            if (!line.isEmpty())
                lines.push_back(line.toStdString());
        }
        return lines;
    }

    AvahiStandIn avahi;
    DaemonStandIn daemon{avahi};
    Options options;
    CapturedOutput output;
    std::unique_ptr<Command> command;
    int exitStatus = STILL_RUNNING;
};
