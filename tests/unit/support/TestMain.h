// SPDX-License-Identifier: MIT
#pragma once

#include <QtCore/QByteArray>

#include <gtest/gtest.h>

template <typename Application>
int runTests(int argc, char** argv)
{
    // No test is to reach the machine's own bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    Application application(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
