// SPDX-License-Identifier: MIT
#include "support/DiscoveryFixture.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>

#include <cstring>
#include <type_traits>

namespace {

/** A back end that only writes down what it is asked to query. */
class RecordingDiscovery : public vd::ServiceDiscovery
{
public:
    using ServiceDiscovery::nameList;
    using ServiceDiscovery::queryTimer;
    using ServiceDiscovery::recordQueue;
    using ServiceDiscovery::services;

    bool BrowseServices(const char*) override { return false; }
    bool TerminateBrowsing() override { return false; }
    bool IsBrowsing() override { return false; }
    bool ResolveService(unsigned int, const char*, const char*, const char*) override { return false; }
    bool StartQueryRecords(const char* name, const char* type, bool longLiveQuery) override
    {
        queries.push_back(std::string(name) + ", " + type + (longLiveQuery ? ", long" : ""));
        if (inQuery)
            inQuery();
        return true;
    }
    void StopQueryRecords(const char*, const char*) override {}
    bool RegisterService(const char*, const char*, const vd::SReconfigInfo&) override { return false; }
    bool TerminateRegistration() override { return false; }
    bool IsRegistered() override { return false; }

    void enqueue(const char* name) { recordQueue.append(qMakePair(QString::fromUtf8(name), QString::fromUtf8("_t._tcp"))); }

    std::string queueText() const
    {
        std::string text;
        for (const QPair<QString, QString>& entry : recordQueue)
            text += entry.first.toStdString();
        return text;
    }

    Lines takeQueries()
    {
        Lines taken;
        taken.swap(queries);
        return taken;
    }

    /** What the timer's timeout does. */
    void tick() { ASSERT_TRUE(QMetaObject::invokeMethod(this, "queryNextRecord")); }

    Lines queries;
    std::function<void()> inQuery;
};

/** What a pointer to a virtual function holds: the function's place in the virtual table. */
template <typename Operation>
std::ptrdiff_t placeOf(Operation operation)
{
    std::ptrdiff_t place = 0;
    std::memcpy(&place, &operation, sizeof place);
    return place;
}

} // namespace

class ServiceDiscoveryTest : public testing::Test
{
protected:
    RecordingDiscovery discovery;
};

TEST_F(ServiceDiscoveryTest, IsEmptyAndWithoutParentWhenNew)
{
    EXPECT_EQ(discovery.parent(), nullptr);
    EXPECT_TRUE(discovery.services.isEmpty());
    EXPECT_TRUE(discovery.recordQueue.isEmpty());
    EXPECT_TRUE(discovery.nameList.isEmpty());
    EXPECT_FALSE(discovery.queryTimer.isActive());
    EXPECT_EQ(discovery.queryTimer.parent(), nullptr);
}

TEST_F(ServiceDiscoveryTest, MetaObjectListsSignalsAndSlotInTheirOrder)
{
    const QMetaObject* meta = discovery.metaObject();
    EXPECT_STREQ(meta->className(), "vd::ServiceDiscovery");
    const char* const expected[]
        = {"serviceFound(vd::SServiceInfo) serviceInfo",   "serviceAddress(vd::SServiceInfo) serviceInfo",
           "serviceText(vd::SServiceInfo) serviceInfo",    "serviceLost(QString) serviceName",
           "serviceLost(vd::SServiceInfo) serviceInfo",    "queryNextRecord() "};
    ASSERT_EQ(meta->methodCount() - meta->methodOffset(), 6);
    for (int i = 0; i < 6; ++i) {
        const QMetaMethod method = meta->method(meta->methodOffset() + i);
        const QByteArray parameters = method.parameterNames().join(',');
        EXPECT_EQ(method.methodSignature().toStdString() + " " + parameters.toStdString(), expected[i]);
        EXPECT_EQ(method.methodType(), i < 5 ? QMetaMethod::Signal : QMetaMethod::Slot);
    }
    EXPECT_EQ(meta->method(meta->methodOffset() + 5).access(), QMetaMethod::Private);
}

TEST_F(ServiceDiscoveryTest, MetaCallTakesItsSixMethodsAndReturnsTheRest)
{
    discovery.enqueue("P");
    void* arguments[] = {nullptr};
    const int offset = discovery.metaObject()->methodOffset();
    EXPECT_EQ(discovery.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 5, arguments), -1);
    EXPECT_EQ(discovery.takeQueries(), Lines{"P, _t._tcp"});
    EXPECT_EQ(discovery.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 6, arguments), 0);
    EXPECT_EQ(discovery.qt_metacall(QMetaObject::InvokeMetaMethod, offset + 7, arguments), 1);
}

TEST_F(ServiceDiscoveryTest, MetaCastAnswersForItsClass)
{
    EXPECT_EQ(discovery.qt_metacast("vd::ServiceDiscovery"), static_cast<vd::ServiceDiscovery*>(&discovery));
    EXPECT_EQ(discovery.qt_metacast("QObject"), static_cast<QObject*>(&discovery));
    EXPECT_EQ(discovery.qt_metacast("ServiceDiscovery"), nullptr);
}

TEST_F(ServiceDiscoveryTest, StartQueryAllRecordsWaits15Seconds)
{
    discovery.StartQueryAllRecords();
    EXPECT_TRUE(discovery.queryTimer.isActive());
    EXPECT_EQ(discovery.queryTimer.interval(), 15000);
    EXPECT_FALSE(discovery.queryTimer.isSingleShot());
}

TEST_F(ServiceDiscoveryTest, EveryTickSetsTheIntervalTo200MsEvenWithNothingToDo)
{
    discovery.StartQueryAllRecords();
    discovery.tick();
    EXPECT_EQ(discovery.queryTimer.interval(), 200);
    EXPECT_TRUE(discovery.queryTimer.isActive());
    EXPECT_EQ(discovery.takeQueries(), Lines());
}

TEST_F(ServiceDiscoveryTest, StartQueryAllRecordsAgainGoesBackTo15Seconds)
{
    discovery.StartQueryAllRecords();
    discovery.tick();
    discovery.StartQueryAllRecords();
    EXPECT_EQ(discovery.queryTimer.interval(), 15000);
    EXPECT_GT(discovery.queryTimer.remainingTime(), 14000);
}

TEST_F(ServiceDiscoveryTest, StopQueryAllRecordsEndsTheQueries)
{
    discovery.enqueue("P");
    discovery.StartQueryAllRecords();
    discovery.queryTimer.setInterval(1);
    discovery.StopQueryAllRecords();
    EXPECT_FALSE(discovery.queryTimer.isActive());
    QEventLoop loop;
    QTimer::singleShot(30, &loop, &QEventLoop::quit);
    loop.exec();
    EXPECT_EQ(discovery.takeQueries(), Lines());
}

TEST_F(ServiceDiscoveryTest, TimerQueriesOneRecordAtATimeoutAndThenEvery200Ms)
{
    discovery.enqueue("P");
    discovery.StartQueryAllRecords();
    discovery.queryTimer.setInterval(1);
    QElapsedTimer sinceFirst;
    QEventLoop loop;
    discovery.inQuery = [&] {
        if (discovery.queries.size() == 1)
            sinceFirst.start();
        else
            loop.quit();
    };
    QTimer patience;
    QObject::connect(&patience, &QTimer::timeout, &loop, &QEventLoop::quit);
    patience.start(2000);
    loop.exec();
    EXPECT_EQ(discovery.takeQueries(), (Lines{"P, _t._tcp", "P, _t._tcp"}));
    EXPECT_GE(sinceFirst.elapsed(), 180);
}

TEST_F(ServiceDiscoveryTest, OneEntryIsQueriedEveryTimeAndStays)
{
    discovery.enqueue("A");
    discovery.tick();
    discovery.tick();
    EXPECT_EQ(discovery.takeQueries(), (Lines{"A, _t._tcp", "A, _t._tcp"}));
    EXPECT_EQ(discovery.queueText(), "A");
}

TEST_F(ServiceDiscoveryTest, TwoEntriesAlternate)
{
    discovery.enqueue("A");
    discovery.enqueue("B");
    discovery.tick();
    discovery.tick();
    discovery.tick();
    EXPECT_EQ(discovery.takeQueries(), (Lines{"A, _t._tcp", "B, _t._tcp", "A, _t._tcp"}));
}

TEST_F(ServiceDiscoveryTest, WithThreeEntriesTheMiddleOneIsNeverQueried)
{
    discovery.enqueue("P");
    discovery.enqueue("Q");
    discovery.enqueue("R");
    discovery.tick();
    EXPECT_EQ(discovery.queueText(), "RQP");
    discovery.tick();
    EXPECT_EQ(discovery.queueText(), "PQR");
    discovery.tick();
    EXPECT_EQ(discovery.takeQueries(), (Lines{"P, _t._tcp", "R, _t._tcp", "P, _t._tcp"}));
}

TEST_F(ServiceDiscoveryTest, QueueIsSwappedAfterTheQuery)
{
    discovery.enqueue("A");
    discovery.enqueue("B");
    std::string during;
    discovery.inQuery = [&] { during = discovery.queueText(); };
    discovery.tick();
    EXPECT_EQ(during, "AB");
    EXPECT_EQ(discovery.queueText(), "BA");
}

TEST_F(ServiceDiscoveryTest, WhatTheQueryAppendsTakesPartInTheSwap)
{
    discovery.enqueue("A");
    discovery.enqueue("B");
    discovery.inQuery = [&] { discovery.enqueue("C"); };
    discovery.tick();
    EXPECT_EQ(discovery.queueText(), "CBA");
}

TEST_F(ServiceDiscoveryTest, QueueEmptiedByTheQueryIsLeftAlone)
{
    discovery.enqueue("A");
    discovery.inQuery = [&] { discovery.recordQueue.clear(); };
    discovery.tick();
    EXPECT_EQ(discovery.queueText(), "");
}

TEST_F(ServiceDiscoveryTest, ObjectDeletedByTheQueryIsNotTouched)
{
    RecordingDiscovery* deleted = new RecordingDiscovery;
    deleted->enqueue("A");
    deleted->enqueue("B");
    const QPointer<QObject> alive(deleted);
    deleted->inQuery = [deleted] { delete deleted; };
    deleted->tick();
    EXPECT_TRUE(alive.isNull());
}

TEST_F(ServiceDiscoveryTest, NamesAreHandedOverAsUtf8)
{
    discovery.enqueue("K\xc3\xbc" "che");
    discovery.tick();
    EXPECT_EQ(discovery.takeQueries(), Lines{"K\xc3\xbc" "che, _t._tcp"});
}

TEST_F(ServiceDiscoveryTest, AddressIsReadInNetworkOrder)
{
    const unsigned char data[] = {192, 168, 1, 10};
    EXPECT_EQ(discovery.getQHostAddress(data, 4), QHostAddress(QLatin1String("192.168.1.10")));
}

TEST_F(ServiceDiscoveryTest, AddressKeepsBytesWithTheHighBit)
{
    const unsigned char data[] = {255, 254, 253, 252};
    EXPECT_EQ(discovery.getQHostAddress(data, 4).toString(), QLatin1String("255.254.253.252"));
}

TEST_F(ServiceDiscoveryTest, FewerThanFourBytesGiveANullAddress)
{
    const unsigned char data[] = {192, 168, 1};
    EXPECT_TRUE(discovery.getQHostAddress(data, 3).isNull());
    EXPECT_TRUE(discovery.getQHostAddress(data, 0).isNull());
    EXPECT_TRUE(discovery.getQHostAddress(nullptr, 0).isNull());
    EXPECT_TRUE(discovery.getQHostAddress(nullptr, 4).isNull());
}

TEST_F(ServiceDiscoveryTest, ALongerPayloadIsReadFromItsFirstFourBytes)
{
    const unsigned char data[16] = {10, 1, 2, 3, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ(discovery.getQHostAddress(data, 16).toString(), QLatin1String("10.1.2.3"));
}

TEST_F(ServiceDiscoveryTest, TimeoutQueriesAtOnce)
{
    discovery.enqueue("P");
    ASSERT_TRUE(QMetaObject::invokeMethod(&discovery.queryTimer, "timeout"));
    EXPECT_EQ(discovery.takeQueries(), Lines{"P, _t._tcp"});
}

TEST_F(ServiceDiscoveryTest, NameAndTypeAreThoseOfTheFirstEntry)
{
    discovery.recordQueue.append(qMakePair(QStringLiteral("A"), QStringLiteral("_a._tcp")));
    discovery.recordQueue.append(qMakePair(QStringLiteral("B"), QStringLiteral("_b._tcp")));
    discovery.tick();
    EXPECT_EQ(discovery.takeQueries(), Lines{"A, _a._tcp"});
}

TEST_F(ServiceDiscoveryTest, TypesAreHandedOverAsUtf8)
{
    discovery.recordQueue.append(qMakePair(QStringLiteral("A"), QString::fromUtf8("_\xc3\xbc._tcp")));
    discovery.tick();
    EXPECT_EQ(discovery.takeQueries(), Lines{"A, _\xc3\xbc._tcp"});
}

TEST_F(ServiceDiscoveryTest, IntervalIsSetBeforeTheQuery)
{
    discovery.enqueue("A");
    discovery.StartQueryAllRecords();
    int during = 0;
    discovery.inQuery = [&] { during = discovery.queryTimer.interval(); };
    discovery.tick();
    EXPECT_EQ(during, 200);
}

TEST_F(ServiceDiscoveryTest, OperationsStandInTheVirtualTableInTheirOrder)
{
    typedef vd::ServiceDiscovery D;
    const std::ptrdiff_t first = placeOf(&D::BrowseServices);
    const std::ptrdiff_t places[] = {first,
                                     placeOf(&D::TerminateBrowsing),
                                     placeOf(&D::IsBrowsing),
                                     placeOf(&D::ResolveService),
                                     placeOf(&D::StartQueryRecords),
                                     placeOf(&D::StopQueryRecords),
                                     placeOf(&D::RegisterService),
                                     placeOf(&D::TerminateRegistration),
                                     placeOf(&D::IsRegistered)};
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(places[i], first + i * std::ptrdiff_t(sizeof(void*))) << i;
}

TEST_F(ServiceDiscoveryTest, IsAbstract)
{
    EXPECT_TRUE(std::is_abstract<vd::ServiceDiscovery>::value);
}
