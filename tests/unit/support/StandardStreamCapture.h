// SPDX-License-Identifier: MIT
#pragma once

#include <QtCore/QByteArray>

#include <cstdio>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

/** Takes the place of standard output, or of standard error, while it lives. */
class CapturedOutput
{
public:
    explicit CapturedOutput(int descriptor = STDOUT_FILENO)
        : m_descriptor(descriptor), m_file(std::tmpfile()), m_outer(dup(descriptor))
    {
        std::fflush(nullptr);
        dup2(fileno(m_file), descriptor);
    }

    ~CapturedOutput()
    {
        std::fflush(nullptr);
        dup2(m_outer, m_descriptor);
        close(m_outer);
        std::fclose(m_file);
    }

    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    QByteArray text() const
    {
        QByteArray text;
        char block[4096];
        off_t offset = 0;
        for (ssize_t size; (size = pread(fileno(m_file), block, sizeof block, offset)) > 0; offset += size)
            text.append(block, static_cast<int>(size));
        return text;
    }

private:
    const int m_descriptor;
    std::FILE* m_file;
    int m_outer;
};

/** Makes a terminal of standard error while it lives. */
class TerminalAsErrors
{
public:
    TerminalAsErrors() : m_outer(dup(STDERR_FILENO)), m_term(qgetenv("TERM"))
    {
        int secondary = -1;
        openpty(&m_primary, &secondary, nullptr, nullptr, nullptr);
        dup2(secondary, STDERR_FILENO);
        close(secondary);
        qputenv("TERM", "xterm");
    }

    ~TerminalAsErrors()
    {
        dup2(m_outer, STDERR_FILENO);
        close(m_outer);
        close(m_primary);
        qputenv("TERM", m_term);
    }

    TerminalAsErrors(const TerminalAsErrors&) = delete;
    TerminalAsErrors& operator=(const TerminalAsErrors&) = delete;

    QByteArray takeText()
    {
        fcntl(m_primary, F_SETFL, O_NONBLOCK);
        char block[65536];
        const ssize_t size = read(m_primary, block, sizeof block);
        return QByteArray(block, static_cast<int>(qMax<ssize_t>(size, 0)));
    }

private:
    int m_primary = -1;
    int m_outer;
    QByteArray m_term;
};
