// SPDX-License-Identifier: MIT

// Memory that Avahi's allocator refuses. Unless a host has given it one that may, Avahi ends the process instead.

#include "support/CountedAvahi.h"
#include "support/LeakCheck.h"

#include <vd/LogQt.h>
#include <vd/ManagedServiceDiscovery.h>

#include <avahi-common/malloc.h>

#include <QtCore/QCoreApplication>

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using CountedAvahi::ADDRESS;
using CountedAvahi::CAMERA;
using CountedAvahi::HOST;
using CountedAvahi::HTTP;
using CountedAvahi::SETUP;

// Which allocation is refused, counted from 1; none when it is 0.
int refused = 0;
int allocations = 0;

bool isRefused()
{
    return ++allocations == refused;
}

void* allocate(size_t size)
{
    return isRefused() ? nullptr : LeakCheck::avahiAllocator()->malloc(size);
}

void* allocateCleared(size_t number, size_t size)
{
    return isRefused() ? nullptr : LeakCheck::avahiAllocator()->calloc(number, size);
}

void* reallocate(void* block, size_t size)
{
    return isRefused() ? nullptr : LeakCheck::avahiAllocator()->realloc(block, size);
}

void release(void* block)
{
    LeakCheck::avahiAllocator()->free(block);
}

const AvahiAllocator allocator = {allocate, release, reallocate, allocateCleared};

/** The n-th allocation from now on fails. */
void refuseAllocation(int number)
{
    refused = number;
    allocations = 0;
}

/** A TXT record, its strings in the order of the wire. */
class Text
{
public:
    Text(std::initializer_list<const char*> strings)
    {
        for (auto next = strings.end(); next != strings.begin();)
            m_list = avahi_string_list_add(m_list, *--next);
    }
    ~Text() { avahi_string_list_free(m_list); }
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;

    operator AvahiStringList*() const { return m_list; }

private:
    AvahiStringList* m_list = nullptr;
};

template <typename Base>
class Open : public Base
{
public:
    using Base::CreateTxtRecord;
    using Base::GetSnapServerTxtRecord;
    using Base::GetVandrelTxtRecord;
    using Base::services;
    using Base::txtRecord;
};

vd::SReconfigInfo wholeInfo()
{
    vd::SReconfigInfo info = vd::SReconfigInfo();
    info.deviceKind = vd::DEVICE_KIND_SNAP_SERVER;
    info.userName = QStringLiteral("admin");
    info.password = QStringLiteral("secret");
    info.dns1 = info.dns2 = info.dns3 = 1;
    return info;
}

// From the first allocation on, until one is refused that is never made.
template <typename Action>
int forEachAllocation(Action action)
{
    for (int number = 1;; ++number) {
        SCOPED_TRACE("allocation " + std::to_string(number));
        refuseAllocation(number);
        action();
        const bool wasMade = allocations >= number;
        refuseAllocation(0);
        if (!wasMade || testing::Test::HasFailure())
            return number - 1;
    }
}

template <typename Discovery>
class AvahiMemoryTest : public testing::Test
{
protected:
    AvahiMemoryTest()
    {
        vd::LogQt::setStream(nullptr);
        avahi_set_allocator(&allocator);
        discovery.reset(new Open<Discovery>);
        QObject::connect(discovery.get(), &vd::ServiceDiscovery::serviceFound,
                         [this](const vd::SServiceInfo& info) { found.append(info); });
    }
    ~AvahiMemoryTest() override
    {
        CountedAvahi::refuse(CountedAvahi::KINDS);
        refuseAllocation(0);
        discovery.reset();
        EXPECT_EQ(CountedAvahi::open(), 0);
        avahi_set_allocator(LeakCheck::avahiAllocator());
    }

    bool publish() { return discovery->RegisterService("Setup", SETUP, wholeInfo()); }

    /** Runs what managed discovery leaves to the event loop. */
    static void turn()
    {
        for (int turns = 0; turns < 5; ++turns)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    }

    void appear(AvahiStringList* txt)
    {
        CountedAvahi::browsed(AVAHI_BROWSER_NEW, CAMERA);
        while (CountedAvahi::open(CountedAvahi::Resolver) == 0)
            turn();
        CountedAvahi::resolved(CAMERA, HOST, ADDRESS, txt);
    }

    /** The record when nothing was refused; in all others one text or number is missing, and the rest is the same. */
    vd::SServiceInfo readWithoutMemory(void (Open<Discovery>::*reader)(vd::SServiceInfo&, AvahiStringList*),
                                       AvahiStringList* txt, QString vd::SServiceInfo::*third)
    {
        std::vector<vd::SServiceInfo> records;
        forEachAllocation([&] {
            records.emplace_back();
            (discovery.get()->*reader)(records.back(), txt);
        });
        EXPECT_GE(records.size(), 4u);
        const vd::SServiceInfo whole = records.back();
        records.pop_back();
        for (const vd::SServiceInfo& record : records) {
            EXPECT_EQ((record.serialNumber == whole.serialNumber) + (record.modelName == whole.modelName)
                          + (record.*third == whole.*third),
                      2);
            EXPECT_TRUE(record.serialNumber == 0 || record.modelName.isEmpty() || (record.*third).isEmpty());
        }
        return whole;
    }

    std::unique_ptr<Open<Discovery>> discovery;
    QList<vd::SServiceInfo> found;
};

typedef testing::Types<vd::AvahiServiceDiscovery, vd::ManagedServiceDiscovery> Classes;
struct ClassNames
{
    template <typename Discovery>
    static std::string GetName(int)
    {
        return std::is_same<Discovery, vd::AvahiServiceDiscovery>::value ? "Avahi" : "Managed";
    }
};

TYPED_TEST_SUITE(AvahiMemoryTest, Classes, ClassNames);

} // namespace

TYPED_TEST(AvahiMemoryTest, RecordThatCannotBeBuiltWholeIsNotPublished)
{
    const int blocks = LeakCheck::avahiBlocks();
    this->discovery->BrowseServices(HTTP);
    int refusals = 0;
    const int before = CountedAvahi::published();
    const int made = forEachAllocation([&] {
        if (this->publish())
            return;
        ++refusals;
        EXPECT_EQ(this->discovery->txtRecord, nullptr);
        EXPECT_FALSE(this->discovery->IsRegistered());
    });
    // Six keys, and three name servers.
    EXPECT_EQ(made, 9);
    EXPECT_EQ(refusals, made);
    EXPECT_EQ(CountedAvahi::published() - before, 1);
    EXPECT_TRUE(this->discovery->IsRegistered());
    this->discovery->TerminateBrowsing();
    EXPECT_EQ(LeakCheck::avahiBlocks(), blocks) << "of the strings of half a record";
}

TYPED_TEST(AvahiMemoryTest, CameraTextThatCannotBeReadIsMissing)
{
    const Text txt
        = {"full_name.vandrel.com=Dome 4", "ser_no.vandrel.com=\x01\x02\x03", "fs_vers.vandrel.com=4.2.1"};
    const vd::SServiceInfo whole
        = this->readWithoutMemory(&Open<TypeParam>::GetVandrelTxtRecord, txt, &vd::SServiceInfo::softwareVersion);
    EXPECT_EQ(whole.serialNumber, 0x010203u);
    EXPECT_EQ(whole.modelName, QLatin1String("Dome 4"));
    EXPECT_EQ(whole.softwareVersion, QLatin1String("4.2.1"));
}

TYPED_TEST(AvahiMemoryTest, StorageTextThatCannotBeReadIsMissing)
{
    const Text txt
        = {"model.snapserver.com=Box", "ser_no.snapserver.com=\x01\x02\x03", "freecapacity.snapserver.com=7"};
    const vd::SServiceInfo whole
        = this->readWithoutMemory(&Open<TypeParam>::GetSnapServerTxtRecord, txt, &vd::SServiceInfo::freeCapacity);
    EXPECT_EQ(whole.serialNumber, 0x010203u);
    EXPECT_EQ(whole.modelName, QLatin1String("Box"));
    EXPECT_EQ(whole.freeCapacity, QLatin1String("7"));
}

TYPED_TEST(AvahiMemoryTest, DeviceWhoseTextCannotBeReadIsFoundAllTheSame)
{
    const Text txt = {"ser_no.vandrel.com=\x01\x02\x03", "full_name.vandrel.com=Dome 4"};
    const int made = forEachAllocation([&] {
        this->discovery->TerminateBrowsing();
        this->found.clear();
        this->discovery->BrowseServices(HTTP);
        this->appear(txt);
        ASSERT_EQ(this->found.size(), 1);
        EXPECT_EQ(this->found.first().addresses, QStringList(QLatin1String(ADDRESS)));
    });
    EXPECT_GE(made, 2);
    EXPECT_EQ(this->found.first().serialNumber, 0x010203u);
    EXPECT_EQ(this->found.first().modelName, QLatin1String("Dome 4"));
}
