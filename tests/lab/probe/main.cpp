// SPDX-License-Identifier: MIT
//
// vd-lab-probe [--receive-in-thread | --discover-in-thread] [--nested-loop MILLISECONDS [--nested-loop-at SIGNAL]]
//              [--managed [--grace MILLISECONDS] [--objects N]]
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
    QString nestedLoopAt;
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

/** A discovery object in a thread of its own. */
class ThreadOfDiscovery
{
public:
    explicit ThreadOfDiscovery(const Options& options)
    {
        m_inside.moveToThread(&m_thread);
        m_thread.start();
        inThread([&] { m_probed = make(options); });
    }
    ~ThreadOfDiscovery()
    {
        inThread([&] { m_probed.reset(); });
        m_thread.quit();
        m_thread.wait();
    }

    ProbedDiscovery* probed() const { return m_probed.get(); }

private:
    template <typename Action>
    void inThread(Action action)
    {
        QMetaObject::invokeMethod(&m_inside, action, Qt::BlockingQueuedConnection);
    }

    QThread m_thread;
    QObject m_inside;
    std::unique_ptr<ProbedDiscovery> m_probed;
};

int runWithDiscoveryInThread(const Options& options)
{
    const LogCapture log;
    SignalReporter reporter;
    const ThreadOfDiscovery thread(options);
    reporter.connectTo(thread.probed()->discovery(), Qt::AutoConnection);
    CommandReader commands(thread.probed());
    writeLine({{QStringLiteral("event"), QStringLiteral("ready")}});
    return QCoreApplication::exec();
}

int run(const Options& options, QThread* receivingThread)
{
    const LogCapture log;
    SignalReporter reporter;
    reporter.runNestedLoopOnce(options.nestedLoopAt, options.nestedLoopMs);
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
    const QCommandLineOption nestedLoopAt(QStringLiteral("nested-loop-at"), QString(), QStringLiteral("SIGNAL"),
                                          QStringLiteral("serviceFound"));
    const QCommandLineOption managed(QStringLiteral("managed"));
    const QCommandLineOption grace(QStringLiteral("grace"), QString(), QStringLiteral("MILLISECONDS"),
                                   QStringLiteral("-1"));
    const QCommandLineOption objects(QStringLiteral("objects"), QString(), QStringLiteral("N"));
    QCommandLineParser parser;
    const QCommandLineOption discoverInThread(QStringLiteral("discover-in-thread"));
    parser.addOptions({inThread, discoverInThread, nestedLoop, nestedLoopAt, managed, grace, objects});
    parser.process(application);

    QThread receiver;
    receiver.setObjectName(QStringLiteral("receiver"));
    const Options options = {parser.isSet(managed), parser.value(grace).toInt(), parser.value(objects).toInt(),
                             parser.value(nestedLoop).toInt(), parser.value(nestedLoopAt)};
    if (parser.isSet(discoverInThread))
        return runWithDiscoveryInThread(options);
    return run(options, parser.isSet(inThread) ? &receiver : nullptr);
}
