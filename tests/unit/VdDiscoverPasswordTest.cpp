// SPDX-License-Identifier: MIT
#include "OptionValues.h"
#include "Password.h"

#include "support/StandardStreamCapture.h"

#include <QtCore/QDir>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include <sys/prctl.h>
#include <termios.h>

using vd::discover::readPassword;
using vd::discover::UsageError;

namespace {

const char MISSING[]
    = "the file named by --password-file does not exist; give one that holds the password, or - for "
      "standard input";
// A process that waits in vain is not left behind.
const unsigned LONGEST_LIFE_S = 10;

/** Takes the place of standard input while it lives. */
class StandardInput
{
public:
    explicit StandardInput(int descriptor) : m_outer(dup(STDIN_FILENO)) { dup2(descriptor, STDIN_FILENO); }
    ~StandardInput()
    {
        dup2(m_outer, STDIN_FILENO);
        close(m_outer);
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

private:
    int m_outer;
};

/** Takes the place of standard error while it lives, and lets nothing be written until it is emptied. */
class FullErrors
{
public:
    FullErrors() : m_outer(dup(STDERR_FILENO))
    {
        EXPECT_EQ(pipe(m_ends), 0);
        const std::string filling(static_cast<std::size_t>(fcntl(m_ends[1], F_SETPIPE_SZ, 4096)), '.');
        EXPECT_EQ(write(m_ends[1], filling.data(), filling.size()), static_cast<ssize_t>(filling.size()));
        dup2(m_ends[1], STDERR_FILENO);
    }

    ~FullErrors()
    {
        dup2(m_outer, STDERR_FILENO);
        for (const int descriptor : {m_outer, m_ends[0], m_ends[1]})
            close(descriptor);
    }

    FullErrors(const FullErrors&) = delete;
    FullErrors& operator=(const FullErrors&) = delete;

    void empty() const
    {
        char filling[65536];
        EXPECT_GT(read(m_ends[0], filling, sizeof filling), 0);
    }

private:
    int m_outer;
    int m_ends[2] = {-1, -1};
};

class VdDiscoverPassword : public testing::Test
{
protected:
    QString fileWith(const std::string& bytes)
    {
        const QString path = folder.filePath(QStringLiteral("password"));
        std::FILE* file = std::fopen(path.toUtf8().constData(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), file);
        std::fclose(file);
        return path;
    }

    std::string passwordIn(const std::string& bytes) { return readPassword(fileWith(bytes)).toStdString(); }

    std::string errorOf(const QString& file)
    {
        try {
            readPassword(file);
        } catch (const UsageError& error) {
            return error.message.toStdString();
        }
        return "no error";
    }

    /** The error of a file with @p bytes, without the part that names the file. */
    std::string errorIn(const std::string& bytes)
    {
        const QString path = fileWith(bytes);
        const std::string prefix = "--password-file: \"" + path.toStdString() + "\" ";
        const std::string error = errorOf(path);
        EXPECT_EQ(error.substr(0, prefix.size()), prefix);
        return error.size() < prefix.size() ? error : error.substr(prefix.size());
    }

    std::string unreadable(const std::string& what, const std::string& why)
    {
        return "--password-file: " + what + " cannot be read: " + why
               + "; give a file that can be read, or - for standard input";
    }

    QTemporaryDir folder;
};

/** A terminal as standard input, at which somebody types. */
class VdDiscoverPasswordPrompt : public VdDiscoverPassword
{
protected:
    VdDiscoverPasswordPrompt()
    {
        openpty(&keyboard, &terminal, nullptr, nullptr, nullptr);
        fcntl(keyboard, F_SETFL, O_NONBLOCK);
    }

    ~VdDiscoverPasswordPrompt() override
    {
        close(terminal);
        close(keyboard);
    }

    bool isShowing() const
    {
        struct termios settings = {};
        tcgetattr(terminal, &settings);
        return (settings.c_lflag & ECHO) != 0;
    }

    void waitUntilHidden() const
    {
        for (int i = 0; isShowing() && i < 500; ++i)
            usleep(10000);
    }

    std::string takeShown() const
    {
        char block[1024];
        const ssize_t size = read(keyboard, block, sizeof block);
        return std::string(block, size > 0 ? static_cast<std::size_t>(size) : 0);
    }

    /** Somebody at the keyboard. Signals from there go to the program, of which this thread is no part. */
    template <class Work>
    static std::thread typist(Work work)
    {
        return std::thread([work] {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_BLOCK, &all, nullptr);
            work();
        });
    }

    /** Asks in the foreground, where @p number ends the process; it comes from @p sender's thread. */
    template <class Work>
    [[noreturn]] void askInTheForeground(int number, Work sender)
    {
        alarm(LONGEST_LIFE_S);
        setsid();
        std::signal(number, SIG_DFL);
        const StandardInput input(terminal);
        std::thread thread = typist(sender);
        readPassword(QStringLiteral("-"));
        _exit(99);
    }

    int keyboard = -1;
    int terminal = -1;
};

} // namespace

TEST_F(VdDiscoverPassword, IsWhatStandsInTheFile)
{
    EXPECT_EQ(passwordIn("secret"), "secret");
    EXPECT_EQ(passwordIn(" a=b\t\"c\" "), " a=b\t\"c\" ");
    EXPECT_EQ(passwordIn("Gr\xc3\xbc\xc3\x9f \xf0\x9f\x94\x91"), "Gr\xc3\xbc\xc3\x9f \xf0\x9f\x94\x91");
}

TEST_F(VdDiscoverPassword, OneLineEndBehindItIsLeftOut)
{
    EXPECT_EQ(passwordIn("secret\n"), "secret");
    EXPECT_EQ(passwordIn("secret\r\n"), "secret");
}

TEST_F(VdDiscoverPassword, AMarkOfUtf8InFrontOfItIsLeftOut)
{
    EXPECT_EQ(passwordIn("\xef\xbb\xbfsecret\r\n"), "secret");
}

TEST_F(VdDiscoverPassword, AFileWithoutOneIsRefused)
{
    for (const char* bytes : {"", "\n", "\r\n", "\xef\xbb\xbf"})
        EXPECT_EQ(errorIn(bytes), "holds no password; leave the option out to publish none");
}

TEST_F(VdDiscoverPassword, MoreThanOneLineIsRefused)
{
    for (const std::string& bytes :
         {std::string("one\ntwo"), std::string("one\n\n"), std::string("one\rtwo"), std::string("one\0two", 7)})
        EXPECT_EQ(errorIn(bytes), "holds more than one line of text; leave nothing but the password in it");
}

TEST_F(VdDiscoverPassword, BytesThatAreNotUtf8AreRefused)
{
    for (const char* bytes : {"Gr\xfc\xdf", "\xff", "\xed\xa0\x80", "\xc0\xaf"})
        EXPECT_EQ(errorIn(bytes), "is not UTF-8 text; convert it to that");
}

TEST_F(VdDiscoverPassword, FitsItsPlaceInTheRecordInBase64)
{
    // A string of 255 bytes holds "PWD.vandrel.com=" too, and four characters for every three bytes.
    EXPECT_EQ(passwordIn(std::string(177, 'p') + "\n"), std::string(177, 'p'));
    EXPECT_EQ(errorIn(std::string(178, 'p')), "holds more than the 177 bytes that a password may have");
}

TEST_F(VdDiscoverPassword, AFileWithoutEndIsNotReadToIt)
{
    EXPECT_EQ(errorOf(QStringLiteral("/dev/zero")),
              "--password-file: \"/dev/zero\" holds more than the 177 bytes that a password may have");
}

TEST_F(VdDiscoverPassword, AFileThatIsMissingIsRefused)
{
    const QString path = folder.filePath(QStringLiteral("none"));
    EXPECT_EQ(errorOf(path), MISSING);
}

TEST_F(VdDiscoverPassword, APasswordInPlaceOfAFilesNameIsNotRepeated)
{
    EXPECT_EQ(errorOf(QStringLiteral("secret\x1b[31m")), MISSING);
    EXPECT_EQ(errorOf(QString(300, QLatin1Char('s'))), unreadable("the file that it names", "File name too long"));
    EXPECT_EQ(errorOf(fileWith("") + QStringLiteral("/secret")),
              unreadable("the file that it names", "Not a directory"));
}

TEST_F(VdDiscoverPassword, AFolderIsRefused)
{
    EXPECT_EQ(errorOf(folder.path()), unreadable('"' + folder.path().toStdString() + '"', "Is a directory"));
}

TEST_F(VdDiscoverPassword, AFilesNameIsSafeToPrint)
{
    const QString path = folder.filePath(QStringLiteral("odd\x1b[31m"));
    ASSERT_TRUE(QDir().mkdir(path));
    EXPECT_EQ(errorOf(path), unreadable('"' + folder.filePath(QStringLiteral("odd\\x1b[31m")).toStdString() + '"',
                                        "Is a directory"));
}

TEST_F(VdDiscoverPassword, ACrashLeavesNoneOfItBehind)
{
    prctl(PR_SET_DUMPABLE, 1);
    passwordIn("secret");
    const int isDumpable = prctl(PR_GET_DUMPABLE);
    prctl(PR_SET_DUMPABLE, 1);
    EXPECT_EQ(isDumpable, 0);
}

TEST_F(VdDiscoverPassword, AMinusIsStandardInput)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], "sec", 3), 3);
    const StandardInput input(ends[0]);
    std::thread writer([&ends] {
        usleep(50000);
        EXPECT_EQ(write(ends[1], "ret\n", 4), 4);
        close(ends[1]);
    });
    EXPECT_EQ(readPassword(QStringLiteral("-")).toStdString(), "secret");
    writer.join();
    close(ends[0]);
}

TEST_F(VdDiscoverPassword, StandardInputIsNamedInErrors)
{
    const int empty = open("/dev/null", O_RDONLY);
    const StandardInput input(empty);
    close(empty);
    EXPECT_EQ(errorOf(QStringLiteral("-")),
              "--password-file: standard input holds no password; leave the option out to publish none");
}

TEST_F(VdDiscoverPasswordPrompt, WhatIsTypedIsNotShown)
{
    const StandardInput input(terminal);
    const CapturedOutput errors(STDERR_FILENO);
    std::thread thread = typist([this, &errors] {
        while (errors.text() != QByteArray("Password: "))
            usleep(100);
        EXPECT_EQ(write(keyboard, "secret\n", 7), 7);
    });
    EXPECT_EQ(readPassword(QStringLiteral("-")).toStdString(), "secret");
    thread.join();
    EXPECT_EQ(errors.text(), QByteArray("Password: "));
    EXPECT_EQ(takeShown(), "\r\n");
    EXPECT_TRUE(isShowing());
}

TEST_F(VdDiscoverPasswordPrompt, TypingIsHiddenBeforeAnybodyIsAsked)
{
    const StandardInput input(terminal);
    const FullErrors errors;
    bool isHiddenBefore = false;
    std::thread thread = typist([&] {
        waitUntilHidden();
        isHiddenBefore = !isShowing();
        errors.empty();
        waitUntilHidden();
        EXPECT_EQ(write(keyboard, "secret\n", 7), 7);
    });
    readPassword(QStringLiteral("-"));
    thread.join();
    EXPECT_TRUE(isHiddenBefore);
}

TEST_F(VdDiscoverPasswordPrompt, AnInterruptThatIsIgnoredStaysSo)
{
    const auto outer = std::signal(SIGINT, SIG_IGN);
    const StandardInput input(terminal);
    const CapturedOutput errors(STDERR_FILENO);
    std::thread thread = typist([this] {
        waitUntilHidden();
        kill(getpid(), SIGINT);
        EXPECT_EQ(write(keyboard, "secret\n", 7), 7);
    });
    EXPECT_EQ(readPassword(QStringLiteral("-")).toStdString(), "secret");
    thread.join();
    std::signal(SIGINT, outer);
    EXPECT_EQ(errors.text(), QByteArray("Password: "));
}

TEST_F(VdDiscoverPasswordPrompt, WhoComesBackFromAStopIsAskedAgain)
{
    // In place of the stop.
    const auto outer = std::signal(SIGTSTP, [](int) {});
    const StandardInput input(terminal);
    const CapturedOutput errors(STDERR_FILENO);
    std::thread thread = typist([this, &errors] {
        waitUntilHidden();
        kill(getpid(), SIGTSTP);
        while (errors.text() != QByteArray("Password: Password: "))
            usleep(100);
        EXPECT_EQ(write(keyboard, "secret\n", 7), 7);
    });
    EXPECT_EQ(readPassword(QStringLiteral("-")).toStdString(), "secret");
    thread.join();
    std::signal(SIGTSTP, outer);
    EXPECT_TRUE(isShowing());
}

TEST_F(VdDiscoverPasswordPrompt, ASignalThatEndsTheProcessShowsTypingAgain)
{
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        const auto sendOnceHidden = [this, number] {
            waitUntilHidden();
            kill(getpid(), number);
        };
        EXPECT_EXIT(askInTheForeground(number, sendOnceHidden), testing::KilledBySignal(number),
                    "^(Password: )?$");
        EXPECT_TRUE(isShowing());
    }
}

TEST_F(VdDiscoverPasswordPrompt, ASignalThatComesBeforeTheWaitingIsNotLost)
{
    const auto askBehindTheSignal = [this] {
        const FullErrors errors;
        askInTheForeground(SIGTERM, [this, &errors] {
            waitUntilHidden();
            kill(getpid(), SIGTERM);
            // Time enough for the asking thread to take it, which would be too early.
            usleep(20000);
            sigset_t pending;
            sigpending(&pending);
            if (sigismember(&pending, SIGTERM) != 1)
                _exit(98);
            errors.empty();
        });
    };
    EXPECT_EXIT(askBehindTheSignal(), testing::KilledBySignal(SIGTERM), "^$");
    EXPECT_TRUE(isShowing());
}
