// SPDX-License-Identifier: MIT
#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

extern "C" const char* __asan_default_options();

/** A sequence frees little, and what it does is told by its steps: neither needs what takes most of the time. */
extern "C" const char* __asan_default_options()
{
    return "malloc_context_size=5:quarantine_size_mb=8";
}

int main(int argc, char** argv)
{
    // No test is to reach the machine's own bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    QCoreApplication application(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
