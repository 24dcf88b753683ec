// SPDX-License-Identifier: MIT
#include "avahi/managed/BusSocketWatch.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <fstream>

class BusSocketWatchTest : public testing::Test
{
protected:
    BusSocketWatchTest()
    {
        QObject::connect(&watch, &vd::BusSocketWatch::appeared, [this] { ++news; });
        useAddress("unix:path=" + socket);
    }
    ~BusSocketWatchTest() override { qunsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    static void useAddress(const QString& address) { qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8()); }
    static void make(const QString& path) { std::ofstream(QFile::encodeName(path).constData()) << "there"; }

    bool turnOn()
    {
        watch.noteSocket();
        return watch.turnOn();
    }

    /** What was told until there was news, or nothing for long enough. */
    int newsAfter(int milliseconds)
    {
        QElapsedTimer waited;
        waited.start();
        while (news == 0 && waited.elapsed() < milliseconds)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        return news;
    }

    const QTemporaryDir folder;
    const QString socket = folder.filePath(QStringLiteral("bus"));
    vd::BusSocketWatch watch;
    int news = 0;
};

const int LONG_MS = 3000;
const int SHORT_MS = 100;

TEST_F(BusSocketWatchTest, TellsOfASocketThatAppears)
{
    EXPECT_TRUE(turnOn());
    make(socket);
    EXPECT_EQ(newsAfter(LONG_MS), 1);
    watch.look();
    EXPECT_EQ(news, 1);
}

TEST_F(BusSocketWatchTest, SaysNothingOfWhatElseIsInTheFolder)
{
    turnOn();
    make(folder.filePath(QStringLiteral("other")));
    EXPECT_EQ(newsAfter(SHORT_MS), 0);
}

TEST_F(BusSocketWatchTest, SaysNothingOfASocketThatGoes)
{
    make(socket);
    turnOn();
    QFile::remove(socket);
    EXPECT_EQ(newsAfter(SHORT_MS), 0);
    make(socket);
    EXPECT_EQ(newsAfter(LONG_MS), 1);
}

TEST_F(BusSocketWatchTest, TellsOfASocketThatTakesThePlaceOfAnother)
{
    make(socket);
    turnOn();
    const QString next = folder.filePath(QStringLiteral("next"));
    make(next);
    EXPECT_EQ(newsAfter(SHORT_MS), 0);
    ASSERT_EQ(std::rename(next.toUtf8().constData(), socket.toUtf8().constData()), 0);
    EXPECT_EQ(newsAfter(LONG_MS), 1);
}

TEST_F(BusSocketWatchTest, TellsWhenAskedOfASocketThatAppearedBeforeItWasTurnedOn)
{
    watch.noteSocket();
    make(socket);
    EXPECT_TRUE(watch.turnOn());
    EXPECT_EQ(news, 0);
    watch.look();
    EXPECT_EQ(news, 1);
}

TEST_F(BusSocketWatchTest, SaysNothingOnceTurnedOff)
{
    turnOn();
    watch.turnOff();
    make(socket);
    EXPECT_EQ(newsAfter(SHORT_MS), 0);
}

TEST_F(BusSocketWatchTest, FolderMayComeWithTheSocket)
{
    const QString later = folder.filePath(QStringLiteral("run/dbus"));
    useAddress("unix:path=" + later + "/bus");
    EXPECT_TRUE(turnOn());
    QDir().mkpath(later);
    EXPECT_EQ(newsAfter(SHORT_MS), 0);
    make(later + "/bus");
    EXPECT_EQ(newsAfter(LONG_MS), 1);
}

TEST_F(BusSocketWatchTest, FolderMayGoAndComeBack)
{
    const QString run = folder.filePath(QStringLiteral("run"));
    QDir().mkpath(run);
    useAddress("unix:path=" + run + "/bus");
    EXPECT_TRUE(turnOn());
    QDir().rmdir(run);
    EXPECT_EQ(newsAfter(SHORT_MS), 0);
    QDir().mkpath(run);
    EXPECT_EQ(newsAfter(SHORT_MS), 0);
    make(run + "/bus");
    EXPECT_EQ(newsAfter(LONG_MS), 1);
}

TEST_F(BusSocketWatchTest, ReadsTheAddressAsTheBusLibraryDoes)
{
    useAddress("tcp:host=x,path=/y;unix:abstract=z;unix:guid=1,path=" + folder.path()
               + "/b%75s;unix:path=/nowhere/bus");
    EXPECT_TRUE(turnOn());
    make(socket);
    EXPECT_EQ(newsAfter(LONG_MS), 1);
}

TEST_F(BusSocketWatchTest, BusThatListensElsewhereCannotBeWatched)
{
    for (const char* const address : {"unix:abstract=/tmp/x", "tcp:host=localhost,port=1", "unix:path=relative",
                                      "autolaunch:", "unix:"}) {
        useAddress(QString::fromLatin1(address));
        EXPECT_FALSE(turnOn()) << address;
        watch.look();
    }
    EXPECT_EQ(news, 0);
}

TEST_F(BusSocketWatchTest, DefaultIsTheUsualSocketOfTheMachine)
{
    qunsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    EXPECT_TRUE(turnOn());
    useAddress(QString());
    EXPECT_TRUE(turnOn());
}
