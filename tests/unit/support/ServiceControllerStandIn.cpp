// SPDX-License-Identifier: MIT
#include "ServiceControllerStandIn.h"

#include "responder/ServiceController.h"

namespace {

bool note(const char* call, const QString& name, bool ServiceControllerStandIn::* answer)
{
    ServiceControllerStandIn& standIn = ServiceControllerStandIn::get();
    const std::lock_guard<std::mutex> lock(standIn.mutex);
    standIn.calls.push_back(call + (' ' + name.toStdString()));
    return standIn.*answer;
}

} // namespace

ServiceControllerStandIn& ServiceControllerStandIn::get()
{
    static ServiceControllerStandIn standIn;
    return standIn;
}

void ServiceControllerStandIn::reset()
{
    ServiceControllerStandIn& standIn = get();
    standIn.installed = standIn.running = standIn.startSucceeds = false;
    standIn.calls.clear();
}

namespace vd {

const std::chrono::milliseconds ServiceController::QUESTION_TIME(1);
const std::chrono::milliseconds ServiceController::START_TIME(1);
const std::chrono::milliseconds ServiceController::SETTLING_TIME(1);

ServiceController::ServiceController(const QString& serviceName, std::chrono::milliseconds timeOfQuestion,
                                     std::chrono::milliseconds timeOfStart,
                                     std::chrono::milliseconds timeOfSettling)
    : name(serviceName), questionTime(timeOfQuestion), startTime(timeOfStart), settlingTime(timeOfSettling)
{}

bool ServiceController::isInstalled() const
{
    return note("isInstalled", name, &ServiceControllerStandIn::installed);
}

bool ServiceController::isRunning() const
{
    return note("isRunning", name, &ServiceControllerStandIn::running);
}

bool ServiceController::start() const
{
    return note("start", name, &ServiceControllerStandIn::startSucceeds);
}

} // namespace vd
