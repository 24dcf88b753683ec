// SPDX-License-Identifier: MIT
#include "avahi/managed/ManagedServiceDiscoveryPrivate.h"

namespace vd {

namespace {

// What the event loop, or the daemon, was held up for does not count, as events may have waited all that time. So the
// period passes in steps, of which none counts for more than its length, and the last one must be punctual.
const int STEP_MS = 1000;
const int PUNCTUAL_MS = 100;
const int MOST_EXTENSIONS = 30;

} // namespace

void ManagedServiceDiscovery::Private::startGrace()
{
    if (unseenServices().isEmpty())
        return;
    graceLeftMs = gracePeriodMs;
    graceExtensions = 0;
    nextGraceStep(qMin(graceLeftMs, STEP_MS));
}

void ManagedServiceDiscovery::Private::nextGraceStep(int milliseconds)
{
    graceTimer.start(milliseconds);
    graceStep.start();
    isGraceStepHeldUp = ownCalls.watchGroup.isCallingBack();
}

void ManagedServiceDiscovery::Private::passGrace()
{
    const int stepMs = graceTimer.interval();
    graceLeftMs -= stepMs;
    if (graceLeftMs > 0) {
        nextGraceStep(qMin(graceLeftMs, STEP_MS));
    } else {
        isGraceOver = true;
        // While calls are made, what the daemon told is not read.
        if (!ownCalls.isBusy())
            finishGraceIfDaemonAnswers();
    }
}

// One that hangs has not told yet what it sees.
void ManagedServiceDiscovery::Private::finishGraceIfDaemonAnswers()
{
    if (!ping.isAsked() && !askDaemon())
        finishGrace(true);
}

void ManagedServiceDiscovery::Private::finishGrace(bool isDaemonThere)
{
    isGraceOver = false;
    const int stepMs = graceTimer.interval();
    if (isGraceStepHeldUp || ownCalls.watchGroup.isCallingBack()) {
        // A slot runs an event loop, however long, and what the daemon tells is read when it has returned.
        nextGraceStep(qMax(stepMs, PUNCTUAL_MS));
    } else if ((!isDaemonThere || graceStep.elapsed() > stepMs + PUNCTUAL_MS)
               && graceExtensions < MOST_EXTENSIONS) {
        // That a daemon is gone may be told here first.
        ++graceExtensions;
        nextGraceStep(stepMs);
    } else {
        endGrace();
    }
}

// Those that were browsed before a restart and are not back yet.
QList<ServiceKey> ManagedServiceDiscovery::Private::unseenServices() const
{
    QList<ServiceKey> unseen;
    for (TrackedServices::const_iterator service = tracked.constBegin(); service != tracked.constEnd();
         ++service) {
        if (service->wasSeen && service->sightings.isEmpty())
            unseen.append(service.key());
    }
    return unseen;
}

void ManagedServiceDiscovery::Private::endGrace()
{
    const QList<ServiceKey> unseen = unseenServices();
    const ManagedSession current(this);
    for (int i = 0; i < unseen.size() && !current.ended(); ++i) {
        // A slot may have brought it back meanwhile.
        const TrackedServices::const_iterator service = tracked.constFind(unseen.at(i));
        if (service != tracked.constEnd() && service->sightings.isEmpty())
            lose(unseen.at(i));
    }
}

} // namespace vd
