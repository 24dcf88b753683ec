// SPDX-License-Identifier: MIT
#pragma once

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QThread>

#include <functional>

#include <gtest/gtest.h>

/** Lets the event loop run. */
class VdDiscoverTurns : public testing::Test
{
protected:
    // Twice, as what a timer begins may be told by a queued call.
    static void processEvents()
    {
        for (int turn = 0; turn < 2; ++turn)
            QCoreApplication::processEvents();
    }

    static void passTimeUntil(const std::function<bool()>& isOver, int longestMs)
    {
        QElapsedTimer passed;
        passed.start();
        while (!isOver() && passed.elapsed() < longestMs) {
            QCoreApplication::processEvents();
            QThread::msleep(1);
        }
    }

    static void passTime(int milliseconds)
    {
        passTimeUntil([] { return false; }, milliseconds);
    }
};
