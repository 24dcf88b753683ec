// SPDX-License-Identifier: MIT
#ifndef VD_TESTS_SYSTEMBUSSTANDIN_H
#define VD_TESTS_SYSTEMBUSSTANDIN_H

#include <list>
#include <string>
#include <thread>

/**
 * A system bus with a systemd on it, in threads of its own. Each service is installed; those whose names begin
 * with "running" run, others do once they have been started. DBUS_SYSTEM_BUS_ADDRESS names it while it exists.
 */
class SystemBusStandIn
{
public:
    SystemBusStandIn();
    ~SystemBusStandIn();

private:
    void acceptClients();

    std::string folder;
    int listener;
    std::list<std::thread> clients;
    std::thread acceptor;
};

#endif
