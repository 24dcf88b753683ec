// SPDX-License-Identifier: MIT

// The time that one browse, resolve or record event takes in the library, beside its Avahi calls, with 1,000
// devices known and the log below its threshold.

#include <vd/AvahiServiceDiscovery.h>

#include <benchmark/benchmark.h>

#include <QtCore/QCoreApplication>

#include <chrono>
#include <string>
#include <vector>

namespace {

const int KNOWN_DEVICES = 1000;

struct Device
{
    std::string name;
    std::string host;
    AvahiStringList* txt;
    AvahiStringList* changedTxt;
    AvahiAddress address;
    AvahiAddress otherAddress;
};

AvahiStringList* txtWith(const std::string& serial, const std::string& name)
{
    AvahiStringList* list = avahi_string_list_new("error.vandrel.com=", "userdata_owner.vandrel.com=operator",
                                                  "privacy_mode.vandrel.com=F", "fs_vers.vandrel.com=4.2.1",
                                                  ("full_name.vandrel.com=" + name).c_str(), nullptr);
    return avahi_string_list_add_pair(list, "ser_no.vandrel.com", serial.c_str());
}

AvahiAddress addressOf(int number, int network)
{
    AvahiAddress address;
    avahi_address_parse(("10." + std::to_string(network) + "." + std::to_string(number / 250) + "."
                         + std::to_string(number % 250 + 1))
                            .c_str(),
                        AVAHI_PROTO_INET, &address);
    return address;
}

/** A discovery object that knows KNOWN_DEVICES devices, whose handlers can be called as Avahi would. */
class KnownNetwork : public vd::AvahiServiceDiscovery
{
public:
    KnownNetwork()
    {
        BrowseServices("_http._tcp");
        for (int i = 0; i < KNOWN_DEVICES; ++i) {
            const std::string number = std::to_string(i);
            devices.push_back({"Camera " + number, "camera-" + number + ".local",
                               txtWith("ABC", "Camera " + number), txtWith("ABD", "Camera " + number),
                               addressOf(i, 77), addressOf(i, 78)});
            resolve(devices.back(), devices.back().address, devices.back().txt);
        }
    }

    ~KnownNetwork() override
    {
        for (const Device& device : devices) {
            avahi_string_list_free(device.txt);
            avahi_string_list_free(device.changedTxt);
        }
    }

    /** Each round of events begins with the queue and the addresses that one resolve per device leaves. */
    void trim()
    {
        recordQueue.erase(recordQueue.begin() + KNOWN_DEVICES, recordQueue.end());
        for (const Device& device : devices) {
            vd::SServiceInfo& info = services[QString::fromStdString(device.name)];
            info.addresses.erase(info.addresses.begin() + 1, info.addresses.end());
        }
    }

    void browse(const Device& device, AvahiBrowserEvent event)
    {
        SServiceBrowse_callback(serviceBrowsers.first(), 2, AVAHI_PROTO_INET, event, device.name.c_str(),
                                "_http._tcp", "local", AVAHI_LOOKUP_RESULT_MULTICAST, self());
    }

    void resolve(const Device& device, const AvahiAddress& address, AvahiStringList* txt)
    {
        SServiceResolve_callback(anyResolver(), 2, AVAHI_PROTO_INET, AVAHI_RESOLVER_FOUND, device.name.c_str(),
                                 "_http._tcp", "local", device.host.c_str(), &address, 80, txt,
                                 AVAHI_LOOKUP_RESULT_MULTICAST, self());
    }

    void record(const Device& device, AvahiBrowserEvent event, const AvahiAddress* address)
    {
        SAvahiRecordBrowser_callback(anyRecordBrowser(), 2, AVAHI_PROTO_INET, event, device.host.c_str(), 1, 1,
                                     address ? &address->data.ipv4.address : nullptr, address ? 4 : 0,
                                     AVAHI_LOOKUP_RESULT_MULTICAST, self());
    }

    std::vector<Device> devices;

private:
    vd::AvahiServiceDiscovery* self() { return this; }
    AvahiServiceResolver* anyResolver() { return reinterpret_cast<AvahiServiceResolver*>(client); }
    AvahiRecordBrowser* anyRecordBrowser() { return reinterpret_cast<AvahiRecordBrowser*>(client); }
};

template <typename Event>
void measure(benchmark::State& state, Event event)
{
    KnownNetwork network;
    size_t next = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        event(network, network.devices[next]);
        next += 7;
        if (next >= network.devices.size()) {
            next -= network.devices.size();
            state.PauseTiming();
            network.trim();
            state.ResumeTiming();
        }
    }
}

void browseNew(benchmark::State& state)
{
    measure(state, [](KnownNetwork& network, const Device& device) { network.browse(device, AVAHI_BROWSER_NEW); });
}

void resolveUnchanged(benchmark::State& state)
{
    measure(state, [](KnownNetwork& network, const Device& device) {
        network.resolve(device, device.address, device.txt);
    });
}

void resolveChangedText(benchmark::State& state)
{
    bool changed = false;
    measure(state, [&](KnownNetwork& network, const Device& device) {
        changed = !changed;
        network.resolve(device, device.address, changed ? device.changedTxt : device.txt);
    });
}

void resolveNewAddress(benchmark::State& state)
{
    measure(state, [](KnownNetwork& network, const Device& device) {
        network.resolve(device, device.otherAddress, device.txt);
    });
}

void recordKnown(benchmark::State& state)
{
    measure(state, [](KnownNetwork& network, const Device& device) {
        network.record(device, AVAHI_BROWSER_NEW, &device.address);
    });
}

void recordNew(benchmark::State& state)
{
    measure(state, [](KnownNetwork& network, const Device& device) {
        network.record(device, AVAHI_BROWSER_NEW, &device.otherAddress);
    });
}

void recordRemove(benchmark::State& state)
{
    measure(state, [](KnownNetwork& network, const Device& device) {
        network.record(device, AVAHI_BROWSER_REMOVE, &device.address);
    });
}

void recordAllForNow(benchmark::State& state)
{
    measure(state, [](KnownNetwork& network, const Device& device) {
        network.record(device, AVAHI_BROWSER_ALL_FOR_NOW, nullptr);
    });
}

/** Only the removal is timed; the device comes back in between. */
void browseRemove(benchmark::State& state)
{
    typedef std::chrono::steady_clock Clock;
    KnownNetwork network;
    size_t next = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        const Device& device = network.devices[next];
        const Clock::time_point start = Clock::now();
        network.browse(device, AVAHI_BROWSER_REMOVE);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        network.resolve(device, device.address, device.txt);
        next = (next + 7) % network.devices.size();
    }
}

} // namespace

BENCHMARK(browseNew);
BENCHMARK(browseRemove)->UseManualTime();
BENCHMARK(resolveUnchanged);
BENCHMARK(resolveChangedText);
BENCHMARK(resolveNewAddress);
BENCHMARK(recordNew);
BENCHMARK(recordKnown);
BENCHMARK(recordRemove);
BENCHMARK(recordAllForNow);

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
