// SPDX-License-Identifier: MIT
#include <QtCore/QCoreApplication>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // No input is to reach the machine's own bus.
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    // Never destroyed, as libFuzzer ends the process from elsewhere.
    static QCoreApplication* const application = new QCoreApplication(*argc, *argv);
    return application ? 0 : 1;
}
