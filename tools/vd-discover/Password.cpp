// SPDX-License-Identifier: MIT
#include "Password.h"

#include "OptionValues.h"
#include "PublishOptions.h"
#include "StandardStreams.h"

#include <QtCore/QByteArray>
#include <QtCore/QFile>

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace vd::discover {

namespace {

// Far above what is published, and little enough to read whatever the file is.
const int LONGEST_FILE = 4096;

volatile std::sig_atomic_t caughtSignal = 0;

/** A terminal that does not show what is typed. It is restored whatever ends the program meanwhile. */
class HiddenTyping
{
public:
    explicit HiddenTyping(int terminal) : m_terminal(terminal)
    {
        holdSignals();
        tcgetattr(terminal, &m_outer);
        struct termios hidden = m_outer;
        hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        hidden.c_lflag |= ECHONL;
        tcsetattr(terminal, TCSAFLUSH, &hidden);
    }

    ~HiddenTyping()
    {
        tcsetattr(m_terminal, TCSAFLUSH, &m_outer);
        for (std::size_t i = 0; i < SIGNALS.size(); ++i)
            sigaction(SIGNALS[i], &m_outerActions[i], nullptr);
        if (caughtSignal != 0)
            static_cast<void>(std::raise(caughtSignal));
        pthread_sigmask(SIG_SETMASK, &m_outerMask, nullptr);
    }

    HiddenTyping(const HiddenTyping&) = delete;
    HiddenTyping& operator=(const HiddenTyping&) = delete;

    /** Waits until there is something to read; false if a signal came. */
    bool waitForTyping() const
    {
        struct pollfd waiting = {m_terminal, POLLIN, 0};
        while (caughtSignal == 0 && ppoll(&waiting, 1, nullptr, &m_outerMask) == -1 && errno == EINTR) {
        }
        return caughtSignal == 0;
    }

private:
    // Blocked but while this waits, so that none can come between asking for it and waiting, and be lost.
    void holdSignals()
    {
        caughtSignal = 0;
        struct sigaction action = {};
        action.sa_handler = [](int number) { caughtSignal = number; };
        sigemptyset(&action.sa_mask);
        for (const int number : SIGNALS)
            sigaddset(&action.sa_mask, number);
        pthread_sigmask(SIG_BLOCK, &action.sa_mask, &m_outerMask);
        for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
            sigaction(SIGNALS[i], &action, &m_outerActions[i]);
            // As the jobs that a script runs in the background ignore some.
            if (m_outerActions[i].sa_handler == SIG_IGN)
                sigaction(SIGNALS[i], &m_outerActions[i], nullptr);
        }
    }

    static constexpr std::array<int, 5> SIGNALS = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

    const int m_terminal;
    struct termios m_outer = {};
    sigset_t m_outerMask = {};
    std::array<struct sigaction, SIGNALS.size()> m_outerActions = {};
};

[[noreturn]] void throwUnreadable(const QString& where, int error)
{
    throw UsageError{
        QStringLiteral("--password-file: %1 cannot be read: %2; give a file that can be read, or - for "
                       "standard input")
            .arg(where, qt_error_string(error))};
}

// Whoever mistakes the option for one that takes the password itself must not see it on the screen or in a log.
[[noreturn]] void throwNoFile(const QByteArray& path, int error)
{
    if (error == ENOENT) {
        throw UsageError{
            QStringLiteral("the file named by --password-file does not exist; give one that holds the "
                           "password, or - for standard input")};
    }
    struct stat status = {};
    const bool exists = lstat(path.constData(), &status) == 0;
    throwUnreadable(exists ? quoted(QFile::decodeName(path)) : QStringLiteral("the file that it names"), error);
}

/** Appends what can be read at once; false at the end. */
bool readSome(int descriptor, const QString& where, QByteArray& bytes)
{
    char block[1024];
    ssize_t size = -1;
    do
        size = read(descriptor, block, sizeof block);
    while (size == -1 && errno == EINTR);
    if (size == -1)
        throwUnreadable(where, errno);
    bytes.append(block, static_cast<int>(size));
    return size > 0;
}

QByteArray bytesOf(int descriptor, const QString& where)
{
    QByteArray bytes;
    while (bytes.size() <= LONGEST_FILE && readSome(descriptor, where, bytes)) {
    }
    return bytes;
}

QByteArray lineTyped(const HiddenTyping& hidden, int terminal, const QString& where)
{
    QByteArray bytes;
    while (bytes.size() <= LONGEST_FILE && !bytes.endsWith('\n') && hidden.waitForTyping()
           && readSome(terminal, where, bytes)) {
    }
    return bytes;
}

QByteArray bytesOfStandardInput()
{
    const QString where = QStringLiteral("standard input");
    if (!isatty(STDIN_FILENO))
        return bytesOf(STDIN_FILENO, where);
    QByteArray bytes;
    do {
        const HiddenTyping hidden(STDIN_FILENO);
        // Only now, as people type as soon as they are asked.
        writeAll(STDERR_FILENO, "Password: ");
        bytes = lineTyped(hidden, STDIN_FILENO, where);
        // Who comes back from a stop is asked again.
    } while (caughtSignal != 0);
    return bytes;
}

QByteArray bytesOfFile(const QString& file)
{
    const QByteArray path = QFile::encodeName(file);
    const int descriptor = open(path.constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor == -1)
        throwNoFile(path, errno);
    struct Closer
    {
        int descriptor;
        ~Closer() { close(descriptor); }
    } const closer = {descriptor};
    return bytesOf(descriptor, quoted(file));
}

QByteArray withoutWrapping(QByteArray bytes)
{
    // Some editors put the mark in front of UTF-8 text. It is no part of it.
    if (bytes.startsWith("\xef\xbb\xbf"))
        bytes.remove(0, 3);
    if (bytes.endsWith('\n'))
        bytes.chop(1);
    if (bytes.endsWith('\r'))
        bytes.chop(1);
    return bytes;
}

void checkPassword(const QByteArray& password, const QString& where)
{
    const auto refuse = [&where](const QString& problem) {
        throw UsageError{QStringLiteral("--password-file: %1 %2").arg(where, problem)};
    };
    // Base64 makes four characters of three bytes.
    const int room = roomForValue("PWD") / 4 * 3;
    if (password.isEmpty())
        refuse(QStringLiteral("holds no password; leave the option out to publish none"));
    if (password.size() > room)
        refuse(QStringLiteral("holds more than the %1 bytes that a password may have").arg(room));
    if (password.contains('\n') || password.contains('\r') || password.contains('\0'))
        refuse(QStringLiteral("holds more than one line of text; leave nothing but the password in it"));
    if (QString::fromUtf8(password).toUtf8() != password)
        refuse(QStringLiteral("is not UTF-8 text; convert it to that"));
}

} // namespace

QString readPassword(const QString& file)
{
    // A crash must not leave the password behind in a core file, which outlives the process and gets sent around.
    prctl(PR_SET_DUMPABLE, 0);
    const bool isStandardInput = file == QLatin1String("-");
    const QByteArray password = withoutWrapping(isStandardInput ? bytesOfStandardInput() : bytesOfFile(file));
    checkPassword(password, isStandardInput ? QStringLiteral("standard input") : quoted(file));
    return QString::fromUtf8(password);
}

} // namespace vd::discover
