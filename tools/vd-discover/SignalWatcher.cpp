// SPDX-License-Identifier: MIT
#include "SignalWatcher.h"

#include <QtCore/QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstdint>

#include <sys/eventfd.h>
#include <unistd.h>

namespace vd::discover {

namespace {

int wakeUpDescriptor = -1;

void handle(int signalNumber, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(signalNumber, &action, nullptr);
}

void handleBoth(void (*handler)(int))
{
    handle(SIGINT, handler);
    handle(SIGTERM, handler);
}

void wakeUpOnce(int)
{
    const int savedErrno = errno;
    // The next one kills, whatever the process is doing then.
    handleBoth(SIG_DFL);
    const std::uint64_t one = 1;
    // It can't fail: nobody else writes, and the counter has room.
    if (write(wakeUpDescriptor, &one, sizeof one) == -1)
        _exit(128 + SIGINT);
    errno = savedErrno;
}

} // namespace

SignalWatcher::SignalWatcher()
{
    wakeUpDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUpDescriptor == -1)
        return;
    m_notifier = new QSocketNotifier(wakeUpDescriptor, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] {
        m_notifier->setEnabled(false);
        Q_EMIT interrupted();
    });
    handleBoth(wakeUpOnce);
}

int SignalWatcher::descriptor() const
{
    return wakeUpDescriptor;
}

SignalWatcher::~SignalWatcher()
{
    if (wakeUpDescriptor == -1)
        return;
    handleBoth(SIG_DFL);
    delete m_notifier;
    close(wakeUpDescriptor);
    wakeUpDescriptor = -1;
}

} // namespace vd::discover
