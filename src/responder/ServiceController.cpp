// SPDX-License-Identifier: MIT
#include "responder/ServiceController.h"

namespace vd {

const std::chrono::milliseconds ServiceController::QUESTION_TIME(2000);
const std::chrono::milliseconds ServiceController::START_TIME(10000);
const std::chrono::milliseconds ServiceController::SETTLING_TIME(200);

ServiceController::ServiceController(const QString& serviceName, std::chrono::milliseconds timeOfQuestion,
                                     std::chrono::milliseconds timeOfStart,
                                     std::chrono::milliseconds timeOfSettling)
    : name(serviceName), questionTime(timeOfQuestion), startTime(timeOfStart), settlingTime(timeOfSettling)
{}

bool ServiceController::isInstalled() const
{
    const Status found = status();
    return found == Status::Running || found == Status::Starting || found == Status::Stopped;
}

bool ServiceController::isRunning() const
{
    return status() == Status::Running;
}

bool ServiceController::start() const
{
    return tryStart() == Status::Running;
}

} // namespace vd
