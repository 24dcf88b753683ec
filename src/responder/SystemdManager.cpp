// SPDX-License-Identifier: MIT
#include "responder/SystemdManager.h"

#include <thread>

namespace vd {

namespace {

typedef ServiceController::Status Status;

const char MANAGER_PATH[] = "/org/freedesktop/systemd1";
const char MANAGER_INTERFACE[] = "org.freedesktop.systemd1.Manager";

// The job of a simple service is done before its program begins, which may be missing or end at once.
const std::chrono::milliseconds SETTLING_TIME(200);

struct ErrorMeaning
{
    const char* error;
    Status status;
};

const ErrorMeaning ERROR_MEANINGS[] = {
    {"org.freedesktop.DBus.Error.AccessDenied", Status::NotAllowed},
    {"org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", Status::NotAllowed},
    // For a name that no unit can have.
    {"org.freedesktop.DBus.Error.InvalidArgs", Status::NotInstalled},
    {"org.freedesktop.systemd1.NoSuchUnit", Status::NotInstalled},
    {"org.freedesktop.systemd1.UnitMasked", Status::Masked},
    {"org.freedesktop.systemd1.LoadFailed", Status::Broken},
    {"org.freedesktop.systemd1.BadUnitSetting", Status::Broken},
    {"org.freedesktop.systemd1.OnlyByDependency", Status::StartRefused},
};

Status meaningOfError(const std::string& error)
{
    for (const ErrorMeaning& meaning : ERROR_MEANINGS) {
        if (error == meaning.error)
            return meaning.status;
    }
    // What else systemd refuses, as during a shutdown, is a start. Other errors come from the bus.
    const std::string systemdError = "org.freedesktop.systemd1.";
    return error.compare(0, systemdError.size(), systemdError) == 0 ? Status::StartFailed
                                                                    : Status::NoServiceManager;
}

Status meaningOfFailure(const SystemBus::Answer& answer)
{
    if (answer.outcome == SystemBus::Outcome::Refused)
        return meaningOfError(answer.error);
    return answer.outcome == SystemBus::Outcome::TimedOut ? Status::NoAnswer : Status::NoServiceManager;
}

} // namespace

SystemdManager::SystemdManager(std::chrono::milliseconds time) : bus(time) {}

Status SystemdManager::status(const std::string& unit)
{
    Status reason;
    return find(reason) ? loadedStatus(unit) : reason;
}

Status SystemdManager::start(const std::string& unit)
{
    Status reason;
    if (!find(reason))
        return reason;
    // Before the start, as a quick job may be over before its start is answered.
    const bool watching = bus.watchSignal(object(MANAGER_PATH), MANAGER_INTERFACE, "JobRemoved",
                                          [this](sd_bus_message* signal) { noteRemovedJob(signal); });
    if (!watching)
        return Status::NoServiceManager;
    const SystemBus::Answer started
        = bus.call(object(MANAGER_PATH), MANAGER_INTERFACE, "StartUnit", {unit.c_str(), "replace"});
    std::string job;
    if (!started.readText(SD_BUS_TYPE_OBJECT_PATH, job))
        return meaningOfFailure(started);
    const Status ended = waitForJob(job);
    if (ended != Status::Running)
        return ended;
    const Status now = settledStatus(unit);
    return now == Status::Stopped ? Status::StartFailed : now;
}

Status SystemdManager::settledStatus(const std::string& unit)
{
    const Status now = loadedStatus(unit);
    if (now != Status::Running || bus.timeLeft() < SETTLING_TIME * 2)
        return now;
    std::this_thread::sleep_for(SETTLING_TIME);
    return loadedStatus(unit);
}

bool SystemdManager::find(Status& reason)
{
    // The bus itself answers, so that nothing that is not there is started to be asked.
    const SystemBus::Object driver = {"org.freedesktop.DBus", "/org/freedesktop/DBus"};
    const SystemBus::Answer answer
        = bus.call(driver, "org.freedesktop.DBus", "GetNameOwner", {"org.freedesktop.systemd1"});
    if (answer.readText(SD_BUS_TYPE_STRING, owner))
        return true;
    reason = meaningOfFailure(answer);
    return false;
}

Status SystemdManager::loadedStatus(const std::string& unit)
{
    // Unlike a question for a loaded unit, this finds one that is stopped.
    const SystemBus::Answer loaded = bus.call(object(MANAGER_PATH), MANAGER_INTERFACE, "LoadUnit", {unit.c_str()});
    std::string path;
    if (!loaded.readText(SD_BUS_TYPE_OBJECT_PATH, path))
        return meaningOfFailure(loaded);
    std::string load;
    std::string active;
    Status reason;
    if (!readProperty(path, "LoadState", load, reason))
        return reason;
    if (load == "not-found")
        return Status::NotInstalled;
    if (load == "masked")
        return Status::Masked;
    if (load != "loaded")
        return Status::Broken;
    if (!readProperty(path, "ActiveState", active, reason))
        return reason;
    return active == "active" || active == "reloading" ? Status::Running : Status::Stopped;
}

bool SystemdManager::readProperty(const std::string& path, const char* property, std::string& value,
                                  Status& reason)
{
    const SystemBus::Answer answer = bus.call(object(path), "org.freedesktop.DBus.Properties", "Get",
                                              {"org.freedesktop.systemd1.Unit", property});
    if (answer.readVariantText(value))
        return true;
    reason = meaningOfFailure(answer);
    return false;
}

Status SystemdManager::waitForJob(const std::string& job)
{
    const SystemBus::Outcome outcome = bus.runUntil([&] { return removedJobs.count(job) != 0; });
    if (outcome == SystemBus::Outcome::TimedOut)
        return Status::StillStarting;
    if (outcome != SystemBus::Outcome::Done)
        return Status::NoServiceManager;
    return removedJobs[job] == "done" ? Status::Running : Status::StartFailed;
}

void SystemdManager::noteRemovedJob(sd_bus_message* signal)
{
    std::uint32_t number = 0;
    const char* job = nullptr;
    const char* unit = nullptr;
    const char* result = nullptr;
    if (sd_bus_message_read(signal, "uoss", &number, &job, &unit, &result) > 0)
        removedJobs[job] = result;
}

SystemBus::Object SystemdManager::object(const std::string& path) const
{
    return {owner, path};
}

} // namespace vd
