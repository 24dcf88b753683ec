// SPDX-License-Identifier: MIT
#include "SystemBusStandIn.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char SYSTEMD[] = ":1.1";
const char JOB[] = "/org/freedesktop/systemd1/job/1";

struct Client
{
    bool started = false;
    bool running = false;
};

bool isCall(sd_bus_message* message, const char* member)
{
    return std::strcmp(sd_bus_message_get_member(message), member) == 0;
}

void answerProperty(const Client& client, sd_bus_message* call, sd_bus_message* answer)
{
    const char* interface = nullptr;
    const char* property = nullptr;
    sd_bus_message_read(call, "ss", &interface, &property);
    const char* active = client.running || client.started ? "active" : "inactive";
    sd_bus_message_append(answer, "v", "s", std::strcmp(property, "LoadState") == 0 ? "loaded" : active);
}

void announceEndOfJob(sd_bus* bus)
{
    sd_bus_message* signal = nullptr;
    sd_bus_message_new_signal(bus, &signal, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
                              "JobRemoved");
    sd_bus_message_append(signal, "uoss", std::uint32_t(1), JOB, "any.service", "done");
    sd_bus_message_set_sender(signal, SYSTEMD);
    sd_bus_send(bus, signal, nullptr);
    sd_bus_message_unref(signal);
}

int answerCall(sd_bus_message* call, void* userdata, sd_bus_error*)
{
    Client& client = *static_cast<Client*>(userdata);
    sd_bus* const bus = sd_bus_message_get_bus(call);
    sd_bus_message* answer = nullptr;
    sd_bus_message_new_method_return(call, &answer);
    if (isCall(call, "Hello")) {
        sd_bus_message_append(answer, "s", ":1.2");
    } else if (isCall(call, "GetNameOwner")) {
        sd_bus_message_append(answer, "s", SYSTEMD);
    } else if (isCall(call, "LoadUnit")) {
        const char* unit = "";
        sd_bus_message_read(call, "s", &unit);
        client.running = std::strncmp(unit, "running", std::strlen("running")) == 0;
        sd_bus_message_append(answer, "o", "/org/freedesktop/systemd1/unit/any");
    } else if (isCall(call, "StartUnit")) {
        // Before the answer, as it may be.
        announceEndOfJob(bus);
        client.started = true;
        sd_bus_message_append(answer, "o", JOB);
    } else if (isCall(call, "Get")) {
        answerProperty(client, call, answer);
    }
    sd_bus_message_set_sender(answer, sd_bus_message_get_destination(call));
    sd_bus_send(bus, answer, nullptr);
    sd_bus_message_unref(answer);
    return 1;
}

void serve(int connection)
{
    Client client;
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, connection, connection);
    sd_bus_set_server(bus, 1, sd_id128_t());
    sd_bus_add_filter(bus, nullptr, &answerCall, &client);
    sd_bus_start(bus);
    int progress = 0;
    while (progress >= 0) {
        progress = sd_bus_process(bus, nullptr);
        if (progress == 0)
            progress = sd_bus_wait(bus, UINT64_MAX);
    }
    sd_bus_close(bus);
    sd_bus_unref(bus);
}

} // namespace

SystemBusStandIn::SystemBusStandIn()
    : listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    char name[] = "/tmp/vd-system-bus-XXXXXX";
    if (!mkdtemp(name))
        throw std::runtime_error("no temporary folder");
    folder = name;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, (folder + "/bus").c_str());
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(listener, 64) != 0)
        throw std::runtime_error("no socket");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + folder + "/bus").c_str(), 1);
    acceptor = std::thread([this] { acceptClients(); });
}

SystemBusStandIn::~SystemBusStandIn()
{
    shutdown(listener, SHUT_RDWR);
    acceptor.join();
    for (std::thread& client : clients)
        client.join();
    close(listener);
    unlink((folder + "/bus").c_str());
    rmdir(folder.c_str());
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

void SystemBusStandIn::acceptClients()
{
    int connection;
    while ((connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0)
        clients.emplace_back(&serve, connection);
}
