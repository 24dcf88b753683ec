// SPDX-License-Identifier: MIT
#ifndef VD_RESPONDER_SERVICECONTROLLER_H
#define VD_RESPONDER_SERVICECONTROLLER_H

#include <QtCore/QString>

#include <chrono>

namespace vd {

/**
 * Looks up and starts a named service of the system.
 *
 * Each question is put anew, so an answer is as old as the call that gave it. No call takes longer than its time,
 * throws, logs, or asks a user for anything. Usable from any thread, without an application object.
 *
 * The build decides which service manager it talks to: systemd, the one that QtService brings, or none.
 */
class ServiceController
{
public:
    enum class Status {
        Running,
        /** Installed, and to be started. */
        Stopped,
        NotInstalled,
        /** Installed, and an administrator has forbidden to start it. */
        Masked,
        /** Its unit file is not valid. */
        Broken,
        /** This user may not start it. */
        NotAllowed,
        /** Its unit file says that nobody starts it by hand. */
        StartRefused,
        /** The start ended, and the service does not run. */
        StartFailed,
        /** The start was begun and did not end in time; it goes on. */
        StillStarting,
        /** There is no bus, or no service manager on it that makes sense. */
        NoServiceManager,
        /** The bus or the service manager did not answer in time. */
        NoAnswer,
        /** The library was built without any service manager. */
        Unsupported
    };

    static const std::chrono::milliseconds QUESTION_TIME;
    static const std::chrono::milliseconds START_TIME;

    explicit ServiceController(const QString& serviceName,
                               std::chrono::milliseconds timeOfQuestion = QUESTION_TIME,
                               std::chrono::milliseconds timeOfStart = START_TIME);

    bool isInstalled() const;
    bool isRunning() const;
    /** Starts the service, and waits until it runs. True at once when it is running. */
    bool start() const;

    /**
     * Why isInstalled() and isRunning() answer as they do.
     * QtService knows no more than Running, Stopped and NotInstalled.
     */
    Status status() const;

    /**
     * Does what start() does and says why it failed. Running stands for success; never Stopped.
     * QtService knows no more than Running, NotInstalled and StartFailed, and sets its own time limit.
     */
    Status tryStart() const;

private:
    QString name;
    std::chrono::milliseconds questionTime;
    std::chrono::milliseconds startTime;
};

} // namespace vd

#endif
