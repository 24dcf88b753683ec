// SPDX-License-Identifier: MIT
#include "support/LogMessage.h"

#include <QtCore/QDateTime>
#include <QtCore/QRegularExpression>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

class LogMessageTest : public testing::Test
{
protected:
    LogMessageTest() : stream(&text)
    {
        vd::LogQt::setStream(&stream);
        vd::LogQt::setLogLevel(1);
    }

    ~LogMessageTest() override
    {
        vd::LogQt::setStream(nullptr);
        vd::LogQt::setLogLevel(4);
    }

    QString text;
    QTextStream stream;
};

TEST(LogQt, ThresholdIsFourAtFirst)
{
    EXPECT_EQ(vd::LogQt::logLevel(), 4);
}

TEST(LogQt, WritesToStandardErrorAtFirst)
{
    testing::internal::CaptureStderr();
    vd::logMessage(4, "to standard error");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_EQ(written.substr(written.find('[')), "[4] to standard error\n");
}

TEST_F(LogMessageTest, WritesOneLineWithTimeAndLevel)
{
    vd::logMessage(1, "text");
    const QRegularExpression line(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z \\[1\\] text\n$"));
    EXPECT_TRUE(line.match(text).hasMatch()) << text.toStdString();
}

TEST_F(LogMessageTest, WritesWhatIsAtOrAboveTheThreshold)
{
    vd::LogQt::setLogLevel(3);
    vd::logMessage(2, "below");
    vd::logMessage(3, "at");
    vd::logMessage(4, "above");
    EXPECT_FALSE(text.contains(QLatin1String("below")));
    EXPECT_TRUE(text.contains(QLatin1String("[3] at\n")));
    EXPECT_TRUE(text.contains(QLatin1String("[4] above\n")));
}

TEST_F(LogMessageTest, MakesNoPiecesBelowTheThreshold)
{
    vd::LogQt::setLogLevel(2);
    bool made = false;
    vd::logMessage(1, [&](QTextStream&) { made = true; });
    EXPECT_FALSE(made);
}

TEST_F(LogMessageTest, MakesNoPiecesWithoutAStream)
{
    vd::LogQt::setStream(nullptr);
    bool made = false;
    vd::logMessage(4, [&](QTextStream&) { made = true; });
    EXPECT_FALSE(made);
}

TEST_F(LogMessageTest, RestoresTheNumberFlags)
{
    stream.setNumberFlags(QTextStream::ShowBase | QTextStream::ForceSign);
    vd::logMessage(1, [](QTextStream& out) { out.setNumberFlags(QTextStream::UppercaseDigits); });
    EXPECT_EQ(stream.numberFlags(), QTextStream::ShowBase | QTextStream::ForceSign);
}

TEST_F(LogMessageTest, KeepsLinesWholeWhenSeveralThreadsLog)
{
    const int threads = 8;
    const int messages = 200;
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([t] {
            for (int m = 0; m < messages; ++m) {
                vd::logMessage(1, [&](QTextStream& out) {
                    out << "thread " << QString::number(t) << " message " << QString::number(m) << " end";
                });
            }
        });
    }
    for (std::thread& thread : running)
        thread.join();
    const QRegularExpression line(QStringLiteral("^\\S+ \\[1\\] thread \\d message \\d+ end$"));
    QStringList lines = text.split(QLatin1Char('\n'));
    EXPECT_TRUE(lines.takeLast().isEmpty());
    ASSERT_EQ(lines.size(), threads * messages);
    for (const QString& written : lines)
        ASSERT_TRUE(line.match(written).hasMatch()) << written.toStdString();
}

TEST_F(LogMessageTest, ThresholdAndStreamMayChangeWhileOthersLog)
{
    std::thread logging([] {
        for (int i = 0; i < 500; ++i)
            vd::logMessage(1, "text");
    });
    for (int i = 0; i < 500; ++i) {
        vd::LogQt::setLogLevel(i % 2);
        vd::LogQt::setStream(i % 3 ? &stream : nullptr);
    }
    logging.join();
    vd::LogQt::setStream(&stream);
    vd::LogQt::setLogLevel(1);
    text.clear();
    vd::logMessage(1, "still works");
    EXPECT_TRUE(text.contains(QLatin1String("[1] still works\n")));
}

TEST_F(LogMessageTest, WritesTheTimeInUtc)
{
    const QDateTime before = QDateTime::currentDateTimeUtc();
    vd::logMessage(1, "text");
    const QDateTime written = QDateTime::fromString(text.section(QLatin1Char(' '), 0, 0), Qt::ISODateWithMs);
    EXPECT_EQ(written.timeSpec(), Qt::UTC);
    EXPECT_GE(written, before);
    EXPECT_LE(written, QDateTime::currentDateTimeUtc());
}

TEST_F(LogMessageTest, WritesTheLevelWhateverTheStreamsNumberFormat)
{
    stream.setNumberFlags(QTextStream::ForceSign | QTextStream::ShowBase);
    stream.setIntegerBase(2);
    vd::logMessage(4, "text");
    EXPECT_TRUE(text.contains(QLatin1String(" [4] text\n"))) << text.toStdString();
}

TEST_F(LogMessageTest, PrefixWithoutAStreamIsNone)
{
    vd::LogQt::setStream(nullptr);
    vd::LogQt::pre(4);
    EXPECT_EQ(text, QString());
}
