// SPDX-License-Identifier: MIT
//
// vd-lab-probe [--receive-in-thread] [--nested-loop MILLISECONDS]
//
// A host application for tests: standard input steers a discovery object, and standard output tells what it
// answers, logs and signals, all as JSON lines in the order in which it happened. It ends with its input.
#include "CommandReader.h"
#include "LogLines.h"
#include "SignalReporter.h"

#include <vd/LogQt.h>

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QThread>

namespace {

const int LOG_EVERYTHING = 1;

/** The library's log goes to standard output as long as this lives. */
class LogCapture
{
public:
    LogCapture() : m_stream(&m_lines)
    {
        vd::LogQt::setLogLevel(LOG_EVERYTHING);
        vd::LogQt::setStream(&m_stream);
    }
    ~LogCapture() { vd::LogQt::setStream(nullptr); }

private:
    Q_DISABLE_COPY(LogCapture)

    LogLines m_lines;
    QTextStream m_stream;
};

int run(int nestedLoopMs, QThread* receivingThread)
{
    const LogCapture log;
    SignalReporter reporter;
    reporter.runNestedLoopOnce(nestedLoopMs);
    ProbeDiscovery discovery;
    reporter.connectTo(&discovery, receivingThread ? Qt::QueuedConnection : Qt::DirectConnection);
    if (receivingThread) {
        reporter.moveToThread(receivingThread);
        receivingThread->start();
    }
    CommandReader commands(&discovery);

    writeLine({{QStringLiteral("event"), QStringLiteral("ready")}});
    const int status = QCoreApplication::exec();
    if (receivingThread) {
        receivingThread->quit();
        receivingThread->wait();
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QCommandLineOption inThread(QStringLiteral("receive-in-thread"));
    const QCommandLineOption nestedLoop(QStringLiteral("nested-loop"), QString(), QStringLiteral("MILLISECONDS"));
    QCommandLineParser parser;
    parser.addOptions({inThread, nestedLoop});
    parser.process(application);

    QThread receiver;
    receiver.setObjectName(QStringLiteral("receiver"));
    return run(parser.value(nestedLoop).toInt(), parser.isSet(inThread) ? &receiver : nullptr);
}
