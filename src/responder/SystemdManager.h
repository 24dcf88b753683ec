// SPDX-License-Identifier: MIT
#ifndef VD_RESPONDER_SYSTEMDMANAGER_H
#define VD_RESPONDER_SYSTEMDMANAGER_H

#include "responder/ServiceController.h"
#include "responder/SystemBus.h"

#include <cstdint>
#include <map>
#include <string>

namespace vd {

/** One conversation with the systemd on the system bus, about one unit. */
class SystemdManager
{
public:
    typedef ServiceController::Status Status;

    /** Everything together has to be over after @p time. */
    explicit SystemdManager(std::chrono::milliseconds time);

    Status status(const std::string& unit);
    /**
     * Starts the unit unless it runs, and waits until it runs or has failed to. A unit that was started is watched
     * for @p settlingTime, if that much time is left. Running stands for success; never Stopped or Starting.
     */
    Status start(const std::string& unit, std::chrono::milliseconds settlingTime);

private:
    /** Whether systemd is there; if not, @p reason says why. */
    bool find(Status& reason);
    Status loadedStatus(const std::string& unit);
    Status startLoaded(const std::string& unit, std::chrono::milliseconds settlingTime);
    /** The status as soon as the unit does not run, or when the settling time is over. */
    Status settledStatus(const std::string& unit, std::chrono::milliseconds settlingTime);
    bool readProperty(const std::string& path, const char* property, std::string& value, Status& reason);
    /** Running when the job could be done. */
    Status waitForJob(const std::string& job);
    void noteRemovedJob(sd_bus_message* signal);
    SystemBus::Object object(const std::string& path) const;

    SystemBus bus;
    /** systemd's own name on the bus, which nobody else can speak under. */
    std::string owner;
    /** Results of jobs, by their paths. A job may be over before its path is known. */
    std::map<std::string, std::string> removedJobs;
};

} // namespace vd

#endif
