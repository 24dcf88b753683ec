// SPDX-License-Identifier: MIT
#include "responder/SystemdManager.h"

#include <thread>

namespace vd {

namespace {

typedef ServiceController::Status Status;

const char MANAGER_PATH[] = "/org/freedesktop/systemd1";
const char MANAGER_INTERFACE[] = "org.freedesktop.systemd1.Manager";

const std::chrono::milliseconds TIME_BETWEEN_LOOKS(50);

struct ErrorMeaning
{
    const char* error;
    Status status;
};

const ErrorMeaning MEANINGS_FOR_A_QUESTION[] = {
    {"org.freedesktop.DBus.Error.AccessDenied", Status::QuestionRefused},
    {"org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", Status::QuestionRefused},
    // For a name that no unit can have.
    {"org.freedesktop.DBus.Error.InvalidArgs", Status::NotInstalled},
    {"org.freedesktop.systemd1.NoSuchUnit", Status::NotInstalled},
};

const ErrorMeaning MEANINGS_FOR_A_START[] = {
    {"org.freedesktop.DBus.Error.AccessDenied", Status::NotAllowed},
    {"org.freedesktop.DBus.Error.InteractiveAuthorizationRequired", Status::NotAllowed},
    {"org.freedesktop.DBus.Error.InvalidArgs", Status::NotInstalled},
    {"org.freedesktop.systemd1.NoSuchUnit", Status::NotInstalled},
    {"org.freedesktop.systemd1.UnitMasked", Status::Masked},
    {"org.freedesktop.systemd1.LoadFailed", Status::Broken},
    {"org.freedesktop.systemd1.BadUnitSetting", Status::Broken},
    {"org.freedesktop.systemd1.OnlyByDependency", Status::StartRefused},
};

template <size_t Count>
Status meaningOf(const std::string& error, const ErrorMeaning (&meanings)[Count], Status otherwise)
{
    for (const ErrorMeaning& meaning : meanings) {
        if (error == meaning.error)
            return meaning.status;
    }
    return otherwise;
}

Status meaningOfUnansweredQuestion(const SystemBus::Answer& answer)
{
    if (answer.outcome == SystemBus::Outcome::Refused)
        return meaningOf(answer.error, MEANINGS_FOR_A_QUESTION, Status::NoServiceManager);
    return answer.outcome == SystemBus::Outcome::TimedOut ? Status::NoAnswer : Status::NoServiceManager;
}

Status meaningOfUnansweredStart(const SystemBus::Answer& answer)
{
    if (answer.outcome == SystemBus::Outcome::Refused) {
        // What else systemd refuses, as during a shutdown, is a start. Other errors come from the bus.
        const std::string systemdError = "org.freedesktop.systemd1.";
        const bool isOfSystemd = answer.error.compare(0, systemdError.size(), systemdError) == 0;
        return meaningOf(answer.error, MEANINGS_FOR_A_START,
                         isOfSystemd ? Status::StartFailed : Status::NoServiceManager);
    }
    // It was asked for, and systemd may get to it yet.
    return answer.outcome == SystemBus::Outcome::TimedOut ? Status::StillStarting : Status::NoServiceManager;
}

} // namespace

SystemdManager::SystemdManager(std::chrono::milliseconds time) : bus(time) {}

Status SystemdManager::status(const std::string& unit)
{
    Status reason;
    return find(reason) ? loadedStatus(unit) : reason;
}

Status SystemdManager::start(const std::string& unit, std::chrono::milliseconds settlingTime)
{
    const Status before = status(unit);
    return before == Status::Stopped || before == Status::Starting ? startLoaded(unit, settlingTime) : before;
}

Status SystemdManager::startLoaded(const std::string& unit, std::chrono::milliseconds settlingTime)
{
    // Before the start, as a quick job may be over before its start is answered.
    const bool watching = bus.watchSignal(object(MANAGER_PATH), MANAGER_INTERFACE, "JobRemoved",
                                          [this](sd_bus_message* signal) { noteRemovedJob(signal); });
    if (!watching)
        return Status::NoServiceManager;
    const SystemBus::Answer started
        = bus.call(object(MANAGER_PATH), MANAGER_INTERFACE, "StartUnit", {unit.c_str(), "replace"});
    std::string job;
    if (!started.readText(SD_BUS_TYPE_OBJECT_PATH, job))
        return meaningOfUnansweredStart(started);
    const Status ended = waitForJob(job);
    if (ended != Status::Running)
        return ended;
    const Status now = settledStatus(unit, settlingTime);
    return now == Status::Stopped || now == Status::Starting ? Status::StartFailed : now;
}

Status SystemdManager::settledStatus(const std::string& unit, std::chrono::milliseconds settlingTime)
{
    const std::chrono::steady_clock::time_point end = std::chrono::steady_clock::now() + settlingTime;
    const bool isTimeLeft = bus.timeLeft() >= settlingTime * 2;
    Status now = loadedStatus(unit);
    while (isTimeLeft && now == Status::Running && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(TIME_BETWEEN_LOOKS);
        now = loadedStatus(unit);
    }
    return now;
}

bool SystemdManager::find(Status& reason)
{
    // The bus itself answers, so that nothing that is not there is started to be asked.
    const SystemBus::Object driver = {"org.freedesktop.DBus", "/org/freedesktop/DBus"};
    const SystemBus::Answer answer
        = bus.call(driver, "org.freedesktop.DBus", "GetNameOwner", {"org.freedesktop.systemd1"});
    if (answer.readText(SD_BUS_TYPE_STRING, owner))
        return true;
    reason = meaningOfUnansweredQuestion(answer);
    return false;
}

Status SystemdManager::loadedStatus(const std::string& unit)
{
    // Unlike a question for a loaded unit, this finds one that is stopped.
    const SystemBus::Answer loaded = bus.call(object(MANAGER_PATH), MANAGER_INTERFACE, "LoadUnit", {unit.c_str()});
    std::string path;
    if (!loaded.readText(SD_BUS_TYPE_OBJECT_PATH, path))
        return meaningOfUnansweredQuestion(loaded);
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
    if (active == "activating")
        return Status::Starting;
    return active == "active" || active == "reloading" ? Status::Running : Status::Stopped;
}

bool SystemdManager::readProperty(const std::string& path, const char* property, std::string& value,
                                  Status& reason)
{
    const SystemBus::Answer answer = bus.call(object(path), "org.freedesktop.DBus.Properties", "Get",
                                              {"org.freedesktop.systemd1.Unit", property});
    if (answer.readVariantText(value))
        return true;
    reason = meaningOfUnansweredQuestion(answer);
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
