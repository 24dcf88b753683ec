// SPDX-License-Identifier: MIT
#ifndef VD_TESTS_SERVICECONTROLLERSTANDIN_H
#define VD_TESTS_SERVICECONTROLLERSTANDIN_H

#include <mutex>
#include <string>
#include <vector>

/** Stands in for the machine's service manager: says what a test wants to hear, and keeps what it was asked. */
struct ServiceControllerStandIn
{
    bool installed = false;
    bool running = false;
    bool startSucceeds = false;

    /** "isInstalled mdnsd" and the like, in order. */
    std::vector<std::string> calls;
    std::mutex mutex;

    static ServiceControllerStandIn& get();
    /** Back to a machine without the service. */
    static void reset();
};

#endif
