// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

#include <QtCore/QMetaType>
#include <QtCore/QMetaObject>

#include <type_traits>

namespace {

vd::SServiceInfo filledRecord()
{
    vd::SServiceInfo info;
    info.serviceType = QLatin1String("_https._tcp");
    info.interfaceIndex = -1;
    info.addressRemoved = true;
    info.longLiveQuery = true;
    info.deviceKind = vd::DEVICE_KIND_SNAP_SERVER;
    info.serviceName = QLatin1String("name");
    info.hostName = QLatin1String("host");
    info.recordHostName = QLatin1String("record host");
    info.addresses << QLatin1String("10.0.0.1") << QLatin1String("10.0.0.2");
    info.port = 65535;
    info.https = true;
    const quint8 mac[vd::MACAddress::BYTE_COUNT] = {0x00, 0x1b, 0x44, 0x11, 0x3a, 0xb7};
    info.macAddress = vd::MACAddress(mac);
    info.serialNumber = 0xffffff;
    info.softwareVersion = QLatin1String("version");
    info.modelName = QLatin1String("model");
    info.errorText = QLatin1String("error");
    info.userdataOwner = QLatin1String("owner");
    info.privacyMode = true;
    info.totalCapacity = QLatin1String("total");
    info.freeCapacity = QLatin1String("free");
    info.txtChecksum = 65535;
    return info;
}

const char FILLED[] = "serviceType='_https._tcp' interfaceIndex=-1 addressRemoved=true longLiveQuery=true deviceKind=1024 "
                      "serviceName='name' hostName='host' recordHostName='record host' addresses=[10.0.0.1,10.0.0.2] "
                      "port=65535 https=true macAddress='00:1b:44:11:3a:b7' serialNumber=16777215 "
                      "softwareVersion='version' modelName='model' errorText='error' userdataOwner='owner' "
                      "privacyMode=true totalCapacity='total' freeCapacity='free' txtChecksum=65535";

template <typename Class, typename Member>
size_t offsetOf(Member Class::*member)
{
    static Class object = Class();
    return size_t(reinterpret_cast<const char*>(&(object.*member)) - reinterpret_cast<const char*>(&object));
}

} // namespace

TEST(ServiceInfo, IsEmptyWithPort80WhenNew)
{
    const vd::SServiceInfo info;
    EXPECT_EQ(info.serviceType, QString());
    EXPECT_EQ(info.interfaceIndex, 0);
    EXPECT_FALSE(info.addressRemoved);
    EXPECT_FALSE(info.longLiveQuery);
    EXPECT_EQ(info.deviceKind, 0u);
    EXPECT_EQ(info.serviceName, QString());
    EXPECT_EQ(info.hostName, QString());
    EXPECT_EQ(info.recordHostName, QString());
    EXPECT_TRUE(info.addresses.isEmpty());
    EXPECT_EQ(info.port, 80);
    EXPECT_FALSE(info.https);
    EXPECT_EQ(info.macAddress.toString(), QLatin1String("00:00:00:00:00:00"));
    EXPECT_EQ(info.serialNumber, 0u);
    EXPECT_EQ(info.softwareVersion, QString());
    EXPECT_EQ(info.modelName, QString());
    EXPECT_EQ(info.errorText, QString());
    EXPECT_EQ(info.userdataOwner, QString());
    EXPECT_FALSE(info.privacyMode);
    EXPECT_EQ(info.totalCapacity, QString());
    EXPECT_EQ(info.freeCapacity, QString());
    EXPECT_EQ(info.txtChecksum, 0);
}

TEST(ServiceInfo, CopyHoldsEveryMember)
{
    const vd::SServiceInfo copy(filledRecord());
    EXPECT_EQ(describe(copy), FILLED);
    vd::SServiceInfo assigned;
    assigned = copy;
    EXPECT_EQ(describe(assigned), FILLED);
}

TEST(ServiceInfo, ChangingACopyLeavesTheOriginal)
{
    const vd::SServiceInfo original = filledRecord();
    vd::SServiceInfo copy = original;
    copy.addresses << QLatin1String("10.0.0.3");
    copy.serviceName = QLatin1String("other");
    EXPECT_EQ(describe(original), FILLED);
}

TEST(ServiceInfo, MembersStandInTheirOrder)
{
    typedef vd::SServiceInfo S;
    const size_t offsets[] = {
        offsetOf(&S::serviceType),   offsetOf(&S::interfaceIndex), offsetOf(&S::addressRemoved),
        offsetOf(&S::longLiveQuery), offsetOf(&S::deviceKind),     offsetOf(&S::serviceName),
        offsetOf(&S::hostName),      offsetOf(&S::recordHostName), offsetOf(&S::addresses),
        offsetOf(&S::port),          offsetOf(&S::https),          offsetOf(&S::macAddress),
        offsetOf(&S::serialNumber),  offsetOf(&S::softwareVersion), offsetOf(&S::modelName),
        offsetOf(&S::errorText),     offsetOf(&S::userdataOwner),  offsetOf(&S::privacyMode),
        offsetOf(&S::totalCapacity), offsetOf(&S::freeCapacity),   offsetOf(&S::txtChecksum)};
    EXPECT_EQ(std::size(offsets), 21u);
    EXPECT_TRUE(std::is_sorted(std::begin(offsets), std::end(offsets)));
}

TEST(ServiceInfo, MembersHaveTheirTypes)
{
    typedef vd::SServiceInfo S;
    EXPECT_TRUE((std::is_same<decltype(S::interfaceIndex), qint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::deviceKind), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::addresses), QStringList>::value));
    EXPECT_TRUE((std::is_same<decltype(S::port), quint16>::value));
    EXPECT_TRUE((std::is_same<decltype(S::macAddress), vd::MACAddress>::value));
    EXPECT_TRUE((std::is_same<decltype(S::serialNumber), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::txtChecksum), quint16>::value));
    EXPECT_EQ(vd::DEVICE_KIND_VANDREL, 1u);
    EXPECT_EQ(vd::DEVICE_KIND_SNAP_SERVER, 1024u);
}

TEST(ReconfigInfo, MembersStandInTheirOrderAndValueInitialisationGivesZeros)
{
    typedef vd::SReconfigInfo S;
    const size_t offsets[] = {offsetOf(&S::userName),     offsetOf(&S::password),   offsetOf(&S::zephValue),
                              offsetOf(&S::newIp),        offsetOf(&S::netMask),    offsetOf(&S::reservedFlag),
                              offsetOf(&S::save),         offsetOf(&S::deviceKind), offsetOf(&S::reservedWord),
                              offsetOf(&S::dns1),         offsetOf(&S::dns2),       offsetOf(&S::dns3)};
    EXPECT_TRUE(std::is_sorted(std::begin(offsets), std::end(offsets)));
    EXPECT_EQ(sizeof(S::reservedFlag), 1u);
    EXPECT_EQ(sizeof(S::reservedWord), 4u);
    EXPECT_TRUE(std::is_aggregate<S>::value);

    const S info = S();
    EXPECT_EQ(info.zephValue | info.newIp | info.netMask | info.deviceKind | info.dns1 | info.dns2 | info.dns3, 0u);
    EXPECT_FALSE(info.save);
}

TEST(ResolverInfo, HoldsThreeByteStringsInTheirOrder)
{
    const vd::SResolverInfo info = {"name", "type", "domain"};
    EXPECT_EQ(info.serviceName, "name");
    EXPECT_EQ(info.serviceType, "type");
    EXPECT_EQ(info.domain, "domain");
}

class MetaTypeTest : public DiscoveryTest
{
protected:
#if QT_VERSION >= QT_VERSION_CHECK(6, 0, 0)
    static int idOf(const char* name) { return QMetaType::fromName(name).id(); }
    static void* construct(int id, const void* source) { return QMetaType(id).create(source); }
    static void destroy(int id, void* record) { QMetaType(id).destroy(record); }
#else
    static int idOf(const char* name) { return QMetaType::type(name); }
    static void* construct(int id, const void* source) { return QMetaType::create(id, source); }
    static void destroy(int id, void* record) { QMetaType::destroy(id, record); }
#endif
};

TEST_F(MetaTypeTest, IsRegisteredUnderItsFullName)
{
    const int id = idOf("vd::SServiceInfo");
    EXPECT_GE(id, int(QMetaType::User));
    EXPECT_EQ(id, qMetaTypeId<vd::SServiceInfo>());
}

TEST_F(MetaTypeTest, ASecondObjectSharesTheTypeId)
{
    const int before = idOf("vd::SServiceInfo");
    const OpenDiscovery second;
    EXPECT_EQ(idOf("vd::SServiceInfo"), before);
}

TEST_F(MetaTypeTest, ConstructingWithoutASourceGivesADefaultRecord)
{
    const int id = idOf("vd::SServiceInfo");
    vd::SServiceInfo* record = static_cast<vd::SServiceInfo*>(construct(id, nullptr));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(describe(*record), "");
    EXPECT_EQ(record->port, 80);
    destroy(id, record);
}

TEST_F(MetaTypeTest, ConstructingFromASourceGivesAnIndependentCopy)
{
    const int id = idOf("vd::SServiceInfo");
    const vd::SServiceInfo source = filledRecord();
    vd::SServiceInfo* record = static_cast<vd::SServiceInfo*>(construct(id, &source));
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(describe(*record), FILLED);
    record->addresses.clear();
    EXPECT_EQ(describe(source), FILLED);
    destroy(id, record);
}

TEST(ReconfigInfo, MembersHaveTheirTypes)
{
    typedef vd::SReconfigInfo S;
    EXPECT_TRUE((std::is_same<decltype(S::userName), QString>::value));
    EXPECT_TRUE((std::is_same<decltype(S::password), QString>::value));
    EXPECT_TRUE((std::is_same<decltype(S::zephValue), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::newIp), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::netMask), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::save), bool>::value));
    EXPECT_TRUE((std::is_same<decltype(S::deviceKind), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::dns1), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::dns2), quint32>::value));
    EXPECT_TRUE((std::is_same<decltype(S::dns3), quint32>::value));
}

TEST_F(MetaTypeTest, IsRegisteredByTheFirstObject)
{
    // A process of its own, as any earlier test may have registered the type.
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            const OpenDiscovery first;
            std::_Exit(idOf("vd::SServiceInfo") >= int(QMetaType::User) ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
