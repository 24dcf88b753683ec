// SPDX-License-Identifier: MIT
#include "BrowseCommand.h"

#include "Deadline.h"
#include "DeviceTable.h"
#include "EventJson.h"
#include "EventLine.h"
#include "ExitStatus.h"
#include "StandardStreams.h"

#include <vd/LogQt.h>

#include <QtCore/QDateTime>
#include <QtCore/QSocketNotifier>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace vd::discover {

namespace {

const int LOG_EVERYTHING = 1;
// How long a daemon that hangs may delay the end, when all results are out.
const std::chrono::milliseconds PATIENCE_AT_END(1000);
// How long it may delay the results from when the run should end.
const std::chrono::milliseconds PATIENCE_BEFORE_END(1500);

bool isPipe(int descriptor)
{
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

QString adviceForNothing(const QStringList& types)
{
    const QStringList recognised = BrowseOptions().types;
    for (const QString& type : types) {
        if (recognised.contains(type))
            return QStringLiteral("try a longer --timeout");
    }
    return QStringLiteral("they are recognised by the types ") + recognised.join(QStringLiteral(" and "))
           + QStringLiteral(" only");
}

} // namespace

BrowseCommand::BrowseCommand(const BrowseOptions& options, int signalDescriptor)
    : m_options(options)
    // The log would be glued to the progress line.
    , m_progress(options.follow ? 0 : options.timeoutMs,
                 options.verbose ? Progress::Never : Progress::WhereRedrawable)
    , m_link(options.types, options.follow ? DaemonLink::KeepTrying : DaemonLink::GiveUp)
    , m_signalDeadline(signalDescriptor, PATIENCE_BEFORE_END, [this] { endHungProcess(); })
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, &BrowseCommand::end);
    connectDevices();
    connectLink();
}

BrowseCommand::~BrowseCommand() = default;

void BrowseCommand::start()
{
    if (m_options.verbose)
        LogQt::setLogLevel(LOG_EVERYTHING);
    watchForClosedOutput();
    m_link.open();
}

// A reader that goes away is noticed by the next line only, which may be hours away with --follow.
void BrowseCommand::watchForClosedOutput()
{
    if (!isPipe(STDOUT_FILENO))
        return;
    m_closedOutput = new QSocketNotifier(STDOUT_FILENO, QSocketNotifier::Exception, this);
    connect(m_closedOutput, &QSocketNotifier::activated, this, [this] {
        m_outputError = EPIPE;
        end();
    });
}

void BrowseCommand::connectDevices()
{
    const WatchedDiscovery* discovery = &m_link.discovery();
    connect(discovery, &ServiceDiscovery::serviceFound, this,
            [this](const SServiceInfo& service) { handle(EventKind::Found, service); });
    connect(discovery, &ServiceDiscovery::serviceAddress, this,
            [this](const SServiceInfo& service) { handle(EventKind::Address, service); });
    connect(discovery, &ServiceDiscovery::serviceText, this,
            [this](const SServiceInfo& service) { handle(EventKind::Text, service); });
    connect(discovery, qOverload<SServiceInfo>(&ServiceDiscovery::serviceLost), this,
            [this](const SServiceInfo& service) { handle(EventKind::Lost, service); });
}

void BrowseCommand::connectLink()
{
    connect(&m_link, &DaemonLink::browsing, this, &BrowseCommand::beginCollecting);
    connect(&m_link, &DaemonLink::notice, this, &BrowseCommand::say);
    connect(&m_link, &DaemonLink::broken, this, [this] {
        m_progress.hide();
        // The table shows what was seen before; who follows is told anew once the daemon is back.
        if (m_options.follow) {
            const std::lock_guard<std::mutex> lock(m_knownMutex);
            m_known.clear();
        }
    });
    connect(&m_link, &DaemonLink::gaveUp, this, [this] {
        m_isUnreachable = true;
        end();
    });
}

void BrowseCommand::beginCollecting()
{
    if (m_isEnding)
        return;
    if (!m_options.follow) {
        m_timeout.start(m_options.timeoutMs);
        const auto latest = std::chrono::milliseconds(m_options.timeoutMs) + PATIENCE_BEFORE_END;
        m_timeoutDeadline.reset(new Deadline(latest, [this] { endHungProcess(); }));
    }
    if (m_options.requery)
        m_link.discovery().StartQueryAllRecords();
    m_progress.setDeviceCount(m_known.count());
    m_progress.show();
}

void BrowseCommand::handle(EventKind kind, const SServiceInfo& service)
{
    if (m_isEnding)
        return;
    const DeviceEvent event = {kind, QDateTime::currentDateTimeUtc(), service};
    const SServiceInfo before = m_known.device(service.serviceName);
    {
        const std::lock_guard<std::mutex> lock(m_knownMutex);
        if (!m_known.apply(event))
            return;
        if (kind == EventKind::Found)
            m_wasDeviceSeen = true;
    }

    m_progress.setDeviceCount(m_known.count());
    printEvent(event, before);
    if (kind == EventKind::Found && m_options.longLived)
        startLongLivedQuery(service.serviceName);
    if (m_options.count > 0 && m_known.count() >= m_options.count)
        end();
}

void BrowseCommand::printEvent(const DeviceEvent& event, const SServiceInfo& before)
{
    if (m_options.format == OutputFormat::Json)
        print(jsonLine(event));
    else if (m_options.follow)
        print(eventLine(event, before, m_known.device(event.service.serviceName), terminalWidth(STDOUT_FILENO)));
}

void BrowseCommand::startLongLivedQuery(const QString& serviceName)
{
    // Not from inside the signal: the resolver that led to it would be kept as well as the new one.
    const auto query = [this, serviceName] {
        if (m_isEnding || !m_known.contains(serviceName))
            return;
        const QByteArray type = m_known.device(serviceName).serviceType.toUtf8();
        m_link.discovery().StartQueryRecords(serviceName.toUtf8().constData(), type.constData(), true);
    };
    QMetaObject::invokeMethod(this, query, Qt::QueuedConnection);
}

void BrowseCommand::print(const QByteArray& bytes)
{
    m_progress.hide();
    m_isPrinting = true;
    m_outputError = writeAll(STDOUT_FILENO, bytes);
    m_isPrinting = false;
    if (m_outputError != 0)
        end();
    else if (!m_isEnding)
        m_progress.show();
}

void BrowseCommand::say(const QString& message)
{
    m_progress.hide();
    reportError(message);
}

void BrowseCommand::end()
{
    if (m_isEnding)
        return;
    m_isEnding = true;
    m_timeout.stop();
    if (m_closedOutput)
        m_closedOutput->setEnabled(false);
    m_endDeadline.reset(new Deadline(PATIENCE_BEFORE_END, [this] { endHungProcess(); }));
    // Queued, as this may be called from inside a signal of the discovery object.
    QMetaObject::invokeMethod(this, &BrowseCommand::finish, Qt::QueuedConnection);
}

void BrowseCommand::finish()
{
    // Too late: endHungProcess() is at it.
    while (m_isEndTaken.exchange(true))
        pause();
    m_progress.hide();
    if (m_outputError == 0)
        printTable();
    // A reader that has seen enough is no failure, nor is it one not to have had a reader.
    if (m_outputError != 0 && m_outputError != EPIPE && m_outputError != EBADF) {
        say(QStringLiteral("the results cannot be written: ")
            + QString::fromLocal8Bit(std::strerror(m_outputError)) + QStringLiteral("; write them elsewhere"));
    }
    const int status = exitStatus();
    closeLink(status);
    Q_EMIT finished(status);
}

// Runs in another thread, while the object's own is blocked in a call to the daemon.
void BrowseCommand::endHungProcess()
{
    // Who waits for a slow reader of the output does not hang.
    if (m_isPrinting || m_isEndTaken.exchange(true))
        return;
    m_progress.erase();
    m_link.tellOfHangAtEnd();
    if (m_outputError == 0)
        m_outputError = writeAll(STDOUT_FILENO, tableToPrint());
    _exit(exitStatus());
}

/** Nothing unless a table was asked for and there are devices. */
QByteArray BrowseCommand::tableToPrint() const
{
    if (m_options.format != OutputFormat::Table || m_options.follow)
        return QByteArray();
    const std::lock_guard<std::mutex> lock(m_knownMutex);
    return deviceTable(m_known.devices(), terminalWidth(STDOUT_FILENO));
}

void BrowseCommand::printTable()
{
    if (m_options.format != OutputFormat::Table || m_options.follow)
        return;
    const QByteArray table = tableToPrint();
    if (!table.isEmpty())
        print(table);
    else if (!m_isUnreachable && isRedrawable(STDERR_FILENO))
        say(QStringLiteral("no devices found; ") + adviceForNothing(m_options.types));
}

void BrowseCommand::closeLink(int status)
{
    const Deadline deadline(PATIENCE_AT_END, [status] { _exit(status); });
    m_link.close();
}

int BrowseCommand::exitStatus() const
{
    if (m_isUnreachable || !m_link.wasReached())
        return EXIT_UNREACHABLE;
    if (m_outputError != 0 && m_outputError != EPIPE && m_outputError != EBADF)
        return EXIT_NOTHING_SEEN;
    return m_wasDeviceSeen ? EXIT_DEVICES_SEEN : EXIT_NOTHING_SEEN;
}

} // namespace vd::discover
