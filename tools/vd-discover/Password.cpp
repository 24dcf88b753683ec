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
#include <cstring>

#include <fcntl.h>
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
        caughtSignal = 0;
        for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
            struct sigaction action = {};
            // Without SA_RESTART, so that reading ends.
            action.sa_handler = [](int number) { caughtSignal = number; };
            sigemptyset(&action.sa_mask);
            sigaction(SIGNALS[i], &action, &m_outerActions[i]);
            // As the jobs that a script runs in the background ignore some.
            if (m_outerActions[i].sa_handler == SIG_IGN)
                sigaction(SIGNALS[i], &m_outerActions[i], nullptr);
        }
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
            std::raise(caughtSignal);
    }

    HiddenTyping(const HiddenTyping&) = delete;
    HiddenTyping& operator=(const HiddenTyping&) = delete;

private:
    static constexpr std::array<int, 5> SIGNALS = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

    const int m_terminal;
    struct termios m_outer = {};
    std::array<struct sigaction, SIGNALS.size()> m_outerActions = {};
};

[[noreturn]] void throwUnreadable(const QString& where, int error)
{
    throw UsageError{
        QStringLiteral("--password-file: %1 cannot be read: %2; give a file that can be read, or - for "
                       "standard input")
            .arg(where, QString::fromLocal8Bit(std::strerror(error)))};
}

// A terminal gives a line at a time, anything else is read to its end.
QByteArray bytesOf(int descriptor, const QString& where, bool isTerminal)
{
    QByteArray bytes;
    char block[1024];
    while (bytes.size() <= LONGEST_FILE && !(isTerminal && bytes.endsWith('\n'))) {
        const ssize_t size = read(descriptor, block, sizeof block);
        if (size == 0)
            break;
        if (size > 0)
            bytes.append(block, static_cast<int>(size));
        else if (errno != EINTR)
            throwUnreadable(where, errno);
        else if (caughtSignal != 0)
            return QByteArray();
    }
    return bytes;
}

QByteArray bytesOfStandardInput()
{
    const QString where = QStringLiteral("standard input");
    if (!isatty(STDIN_FILENO))
        return bytesOf(STDIN_FILENO, where, false);
    QByteArray bytes;
    do {
        writeAll(STDERR_FILENO, "Password: ");
        const HiddenTyping hidden(STDIN_FILENO);
        bytes = bytesOf(STDIN_FILENO, where, true);
        // Who comes back from a stop is asked again.
    } while (caughtSignal != 0);
    return bytes;
}

QByteArray bytesOfFile(const QString& file)
{
    const int descriptor = open(QFile::encodeName(file).constData(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor == -1)
        throwUnreadable(quoted(file), errno);
    struct Closer
    {
        int descriptor;
        ~Closer() { close(descriptor); }
    } const closer = {descriptor};
    return bytesOf(descriptor, quoted(file), false);
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
    const bool isStandardInput = file == QLatin1String("-");
    const QByteArray password = withoutWrapping(isStandardInput ? bytesOfStandardInput() : bytesOfFile(file));
    checkPassword(password, isStandardInput ? QStringLiteral("standard input") : quoted(file));
    return QString::fromUtf8(password);
}

} // namespace vd::discover
