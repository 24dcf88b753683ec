// SPDX-License-Identifier: MIT
#include "StandardStreams.h"

#include <vd/LogQt.h>

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vd::discover {

namespace {

// What a terminal that does not tell its size is taken for.
const int USUAL_WIDTH = 80;
const int LOG_EVERYTHING = 1;

void waitUntilWritable(int descriptor)
{
    struct pollfd waiting = {descriptor, POLLOUT, 0};
    poll(&waiting, 1, -1);
}

} // namespace

void occupyStandardDescriptors()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDONLY) == -1)
            return;
    }
}

int writeAll(int descriptor, const QByteArray& bytes)
{
    const char* next = bytes.constData();
    size_t left = static_cast<size_t>(bytes.size());
    while (left > 0) {
        const ssize_t written = write(descriptor, next, left);
        if (written >= 0) {
            next += written;
            left -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            waitUntilWritable(descriptor);
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

void reportError(const QString& message)
{
    writeAll(STDERR_FILENO, "vd-discover: " + message.toUtf8() + '\n');
}

void writeWholeLog()
{
    LogQt::setLogLevel(LOG_EVERYTHING);
}

int terminalWidth(int descriptor)
{
    if (!isatty(descriptor))
        return 0;
    struct winsize size = {};
    const bool isKnown = ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : USUAL_WIDTH;
}

bool isRedrawable(int descriptor)
{
    const QByteArray terminal = qgetenv("TERM");
    return isatty(descriptor) && !terminal.isEmpty() && terminal != "dumb";
}

} // namespace vd::discover
