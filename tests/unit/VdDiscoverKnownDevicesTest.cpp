// SPDX-License-Identifier: MIT
#include "KnownDevices.h"

#include <gtest/gtest.h>

using vd::SServiceInfo;
using vd::discover::EventKind;
using vd::discover::KnownDevices;

namespace {

SServiceInfo record(const QString& name, const QStringList& addresses)
{
    SServiceInfo info;
    info.serviceName = name;
    info.addresses = addresses;
    return info;
}

} // namespace

class VdDiscoverKnownDevices : public testing::Test
{
protected:
    bool apply(EventKind kind, const SServiceInfo& service) { return known.apply({kind, QDateTime(), service}); }

    bool found(const QString& name) { return apply(EventKind::Found, record(name, {FIRST})); }

    bool removed(const QString& address)
    {
        SServiceInfo signalled = record(CAMERA, {address});
        signalled.addressRemoved = true;
        return apply(EventKind::Address, signalled);
    }

    QStringList addresses() const { return known.device(CAMERA).addresses; }

    const QString CAMERA = QStringLiteral("Gate");
    const QString FIRST = QStringLiteral("10.0.0.1");
    const QString SECOND = QStringLiteral("10.0.0.2");
    const QString THIRD = QStringLiteral("10.0.0.3");
    KnownDevices known;
};

TEST_F(VdDiscoverKnownDevices, AFoundDeviceIsKnown)
{
    EXPECT_TRUE(found(CAMERA));
    EXPECT_TRUE(known.contains(CAMERA));
    EXPECT_EQ(known.count(), 1);
    EXPECT_EQ(addresses(), QStringList(FIRST));
}

TEST_F(VdDiscoverKnownDevices, ADeviceThatIsFoundTwiceIsOne)
{
    found(CAMERA);
    found(CAMERA);
    EXPECT_EQ(known.count(), 1);
}

TEST_F(VdDiscoverKnownDevices, AnAddedAddressJoinsTheOthers)
{
    found(CAMERA);
    EXPECT_TRUE(apply(EventKind::Address, record(CAMERA, {FIRST, SECOND})));
    EXPECT_EQ(addresses(), (QStringList{FIRST, SECOND}));
}

TEST_F(VdDiscoverKnownDevices, ARemovedAddressLeavesTheOthers)
{
    found(CAMERA);
    apply(EventKind::Address, record(CAMERA, {FIRST, SECOND}));
    EXPECT_TRUE(removed(FIRST));
    EXPECT_EQ(addresses(), QStringList(SECOND));
}

TEST_F(VdDiscoverKnownDevices, AnAddressAddedAfterARemovalDoesNotBringTheRemovedOneBack)
{
    found(CAMERA);
    apply(EventKind::Address, record(CAMERA, {FIRST, SECOND}));
    removed(FIRST);
    apply(EventKind::Address, record(CAMERA, {FIRST, THIRD}));
    EXPECT_EQ(addresses(), (QStringList{SECOND, THIRD}));
}

TEST_F(VdDiscoverKnownDevices, AnAddressLearnedByResolvingAfterARemovalCountsAsAdded)
{
    found(CAMERA);
    removed(FIRST);
    SServiceInfo signalled = record(CAMERA, {FIRST, SECOND});
    signalled.addressRemoved = true;
    apply(EventKind::Address, signalled);
    EXPECT_EQ(addresses(), QStringList(SECOND));
}

TEST_F(VdDiscoverKnownDevices, AChangedTextIsTakenOverAndTheAddressesStay)
{
    found(CAMERA);
    apply(EventKind::Address, record(CAMERA, {FIRST, SECOND}));
    removed(FIRST);
    SServiceInfo signalled = record(CAMERA, {FIRST});
    signalled.softwareVersion = QStringLiteral("2");
    EXPECT_TRUE(apply(EventKind::Text, signalled));
    EXPECT_EQ(known.device(CAMERA).softwareVersion, QStringLiteral("2"));
    EXPECT_EQ(addresses(), QStringList(SECOND));
}

TEST_F(VdDiscoverKnownDevices, ALostDeviceIsForgotten)
{
    found(CAMERA);
    EXPECT_TRUE(apply(EventKind::Lost, record(CAMERA, {FIRST})));
    EXPECT_FALSE(known.contains(CAMERA));
    EXPECT_EQ(known.count(), 0);
}

TEST_F(VdDiscoverKnownDevices, EventsOfServicesThatWereNeverFoundAreNotOfDevices)
{
    EXPECT_FALSE(apply(EventKind::Lost, record(CAMERA, {})));
    EXPECT_FALSE(apply(EventKind::Address, record(QString(), {FIRST})));
    EXPECT_FALSE(apply(EventKind::Text, record(CAMERA, {FIRST})));
    EXPECT_EQ(known.count(), 0);
}

TEST_F(VdDiscoverKnownDevices, DevicesAreSortedByNameWithoutRegardToCase)
{
    for (const char* name : {"yard", "Gate", "attic", "Zoo"})
        found(QLatin1String(name));
    QStringList names;
    const QList<SServiceInfo> devices = known.devices();
    for (const SServiceInfo& device : devices)
        names.append(device.serviceName);
    EXPECT_EQ(names.join(QLatin1Char(' ')), QStringLiteral("attic Gate yard Zoo"));
}

TEST_F(VdDiscoverKnownDevices, ClearingForgetsAll)
{
    found(CAMERA);
    known.clear();
    EXPECT_EQ(known.count(), 0);
}
