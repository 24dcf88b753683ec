// SPDX-License-Identifier: MIT
//
// vd-lab-probe [--receive-in-thread] [--nested-loop MILLISECONDS] [--managed [--grace MILLISECONDS] [--objects N]]
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

#include <memory>

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

struct Options
{
    bool managed;
    int graceMs;
    int objects;
    int nestedLoopMs;
};

std::unique_ptr<ProbedDiscovery> makeManaged(const Options& options)
{
    typedef vd::ManagedServiceDiscovery Managed;
    std::unique_ptr<ProbeDiscovery<Managed>> made(new ProbeDiscovery<Managed>);
    if (options.graceMs >= 0)
        made->setGracePeriod(options.graceMs);
    if (options.objects > 0)
        made->setObjectLimit(options.objects);
    QObject::connect(made.get(), &Managed::stateChanged, [](Managed::State state) {
        writeLine({{QStringLiteral("event"), QStringLiteral("state")}, {QStringLiteral("state"), int(state)}});
    });
    return made;
}

std::unique_ptr<ProbedDiscovery> make(const Options& options)
{
    if (options.managed)
        return makeManaged(options);
    return std::unique_ptr<ProbedDiscovery>(new ProbeDiscovery<vd::AvahiServiceDiscovery>);
}

int run(const Options& options, QThread* receivingThread)
{
    const LogCapture log;
    SignalReporter reporter;
    reporter.runNestedLoopOnce(options.nestedLoopMs);
    const std::unique_ptr<ProbedDiscovery> probed = make(options);
    reporter.connectTo(probed->discovery(), receivingThread ? Qt::QueuedConnection : Qt::DirectConnection);
    if (receivingThread) {
        reporter.moveToThread(receivingThread);
        receivingThread->start();
    }
    CommandReader commands(probed.get());

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
    const QCommandLineOption managed(QStringLiteral("managed"));
    const QCommandLineOption grace(QStringLiteral("grace"), QString(), QStringLiteral("MILLISECONDS"),
                                   QStringLiteral("-1"));
    const QCommandLineOption objects(QStringLiteral("objects"), QString(), QStringLiteral("N"));
    QCommandLineParser parser;
    parser.addOptions({inThread, nestedLoop, managed, grace, objects});
    parser.process(application);

    QThread receiver;
    receiver.setObjectName(QStringLiteral("receiver"));
    const Options options = {parser.isSet(managed), parser.value(grace).toInt(), parser.value(objects).toInt(),
                             parser.value(nestedLoop).toInt()};
    return run(options, parser.isSet(inThread) ? &receiver : nullptr);
}
