// SPDX-License-Identifier: MIT
#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    // No test is to reach the machine's own bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    QCoreApplication application(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
