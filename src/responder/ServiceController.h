// SPDX-License-Identifier: MIT
#ifndef VD_RESPONDER_SERVICECONTROLLER_H
#define VD_RESPONDER_SERVICECONTROLLER_H

#include <QtCore/QString>

#include <chrono>

namespace vd {

/**
 * Looks up and starts a named service of the system.
 *
 * Each question is put anew, so an answer is as old as the call that gave it. No call throws, logs, or asks a user
 * for anything. Usable from any thread, without an application object.
 *
 * The build decides which service manager it talks to: systemd, the one that QtService brings, or none. No call to
 * systemd takes longer than its time. QtService knows no such limits: it takes what time it needs.
 */
class ServiceController
{
public:
    enum class Status {
        Running,
        /** Installed, and being started, by whomever; tryStart() waits for it. */
        Starting,
        /** Installed, and to be started. */
        Stopped,
        /** It may run all the same, if it was removed while it ran. */
        NotInstalled,
        /** An administrator has forbidden to start it, be it installed or not. It may run since before that. */
        Masked,
        /** Its unit file is not valid. */
        Broken,
        /** Installed, does not run yet, and this user may not start it. */
        NotAllowed,
        /** Its unit file says that nobody starts it by hand. */
        StartRefused,
        /** The start ended, and the service does not run. */
        StartFailed,
        /** The start was asked for and did not end in time; it goes on, or may yet begin. */
        StillStarting,
        /** This user may not even ask. Nothing is known about the service. */
        QuestionRefused,
        /** There is no bus, or no service manager on it that makes sense. */
        NoServiceManager,
        /** The bus or the service manager did not answer in time, or is too busy to take a question. */
        NoAnswer,
        /** The library was built without any service manager. */
        Unsupported
    };

    static const std::chrono::milliseconds QUESTION_TIME;
    static const std::chrono::milliseconds START_TIME;
    /**
     * How long a service is watched after its start. The start of a simple service is over before its program
     * begins, which may be missing or end at once.
     */
    static const std::chrono::milliseconds SETTLING_TIME;

    explicit ServiceController(const QString& serviceName,
                               std::chrono::milliseconds timeOfQuestion = QUESTION_TIME,
                               std::chrono::milliseconds timeOfStart = START_TIME,
                               std::chrono::milliseconds timeOfSettling = SETTLING_TIME);

    bool isInstalled() const;
    bool isRunning() const;
    /** Starts the service, and waits until it runs. True at once when it is running, for every user. */
    bool start() const;

    /**
     * Why isInstalled() and isRunning() answer as they do.
     * QtService knows no more than Running, Stopped and NotInstalled.
     */
    Status status() const;

    /**
     * Does what start() does and says why it failed. Running stands for success; never Stopped or Starting.
     * QtService knows no more than Running, NotInstalled and StartFailed.
     */
    Status tryStart() const;

private:
    QString name;
    std::chrono::milliseconds questionTime;
    std::chrono::milliseconds startTime;
    std::chrono::milliseconds settlingTime;
};

} // namespace vd

#endif
