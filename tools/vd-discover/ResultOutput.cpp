// SPDX-License-Identifier: MIT
#include "ResultOutput.h"

#include "StandardStreams.h"

#include <QtCore/QSocketNotifier>

#include <cerrno>

#include <sys/stat.h>
#include <unistd.h>

namespace vd::discover {

namespace {

bool isPipe(int descriptor)
{
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

} // namespace

// A reader that goes away is noticed by the next line only, which may be hours away.
void ResultOutput::watchReader()
{
    if (!isPipe(STDOUT_FILENO))
        return;
    m_watcher = new QSocketNotifier(STDOUT_FILENO, QSocketNotifier::Exception, this);
    connect(m_watcher, &QSocketNotifier::activated, this, [this] {
        m_error = EPIPE;
        Q_EMIT readerLeft();
    });
}

void ResultOutput::stopWatching()
{
    if (m_watcher)
        m_watcher->setEnabled(false);
}

void ResultOutput::write(const QByteArray& bytes)
{
    if (isClosed())
        return;
    m_isBusy = true;
    m_error = writeAll(STDOUT_FILENO, bytes);
    m_isBusy = false;
}

bool ResultOutput::hasFailed() const
{
    // A reader that has seen enough is no failure, nor is it one not to have had a reader.
    return m_error != 0 && m_error != EPIPE && m_error != EBADF;
}

QString ResultOutput::failureText() const
{
    return QStringLiteral("the results cannot be written: ") + qt_error_string(m_error)
           + QStringLiteral("; write them elsewhere");
}

} // namespace vd::discover
