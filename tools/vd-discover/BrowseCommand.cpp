// SPDX-License-Identifier: MIT
#include "BrowseCommand.h"

#include "DeviceTable.h"
#include "EventJson.h"
#include "EventLine.h"
#include "ExitStatus.h"
#include "StandardStreams.h"

#include <QtCore/QDateTime>

#include <unistd.h>

namespace vd::discover {

namespace {

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
    , m_link(options.plain ? WatchedDiscovery::Plain : WatchedDiscovery::Managed, options.types,
             options.follow ? DaemonLink::KeepTrying : DaemonLink::GiveUp, QStringLiteral("browsing"))
    , m_end(signalDescriptor, [this] { endHungProcess(); })
{
    m_timeout.setSingleShot(true);
    connect(&m_timeout, &QTimer::timeout, this, [this] {
        m_isUnreachable = !m_link.isBrowsing();
        end();
    });
    connect(&m_output, &ResultOutput::readerLeft, this, &BrowseCommand::end);
    m_link.setOtherWork([this] { return m_output.isBusy(); });
    connectDevices();
    connectLink();
}

BrowseCommand::~BrowseCommand() = default;

void BrowseCommand::start()
{
    if (m_options.verbose)
        writeWholeLog();
    m_output.watchReader();
    m_link.open();
}

void BrowseCommand::connectDevices()
{
    const ServiceDiscovery* discovery = &m_link.discovery();
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
        // The table shows what was seen before. Who follows plain discovery is told anew once the daemon is back.
        if (m_options.follow && m_options.plain) {
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
    if (!m_options.follow && !m_timeout.isActive()) {
        m_timeout.start(m_options.timeoutMs);
        m_end.expectAfter(std::chrono::milliseconds(m_options.timeoutMs));
    }
    // From now on a daemon that goes is waited for, until the timeout.
    if (!m_options.plain)
        m_link.setPatience(DaemonLink::KeepTrying);
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
    m_output.write(bytes);
    if (m_output.isClosed())
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
    m_output.stopWatching();
    m_end.expectNow();
    // Queued, as this may be called from inside a signal of the discovery object.
    QMetaObject::invokeMethod(this, &BrowseCommand::finish, Qt::QueuedConnection);
}

void BrowseCommand::finish()
{
    m_end.begin();
    m_progress.hide();
    if (!m_output.isClosed())
        printTable();
    if (m_output.hasFailed())
        say(m_output.failureText());
    const int status = exitStatus();
    TimelyEnd::hurry([this] { m_link.close(); }, [status] { _exit(status); });
    Q_EMIT finished(status);
}

// Runs in another thread, while the object's own is blocked in a call to the daemon.
void BrowseCommand::endHungProcess()
{
    // Who waits for a slow reader of the output does not hang.
    if (m_output.isBusy() || !m_end.take())
        return;
    m_progress.erase();
    m_link.tellOfHangAtEnd();
    m_output.write(tableToPrint());
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

int BrowseCommand::exitStatus() const
{
    if (m_isUnreachable || !m_link.wasReached())
        return EXIT_UNREACHABLE;
    if (m_output.hasFailed())
        return EXIT_NOTHING_SEEN;
    return m_wasDeviceSeen ? EXIT_DEVICES_SEEN : EXIT_NOTHING_SEEN;
}

} // namespace vd::discover
