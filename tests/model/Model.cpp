// SPDX-License-Identifier: MIT
#include "model/Model.h"

#include <arpa/inet.h>

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/address.h>
#include <avahi-common/error.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <strings.h>
#include <tuple>
#include <utility>

namespace {

const std::string_view PREFIX = "AvahiServiceDiscovery::";

QString textOf(const char* bytes)
{
    return QString::fromUtf8(bytes);
}

bool isUtf8(const char* bytes)
{
    return !bytes || textOf(bytes).toUtf8() == QByteArray(bytes);
}

struct Range
{
    unsigned first;
    unsigned last;
};

/** Controls, what ends a line, and what changes the order of what is shown or is not seen. Joiners are needed. */
const Range HIDDEN[] = {
    {0x0, 0x1f},        {0x7f, 0x9f},       {0xad, 0xad},       {0x600, 0x605},     {0x61c, 0x61c},
    {0x6dd, 0x6dd},     {0x70f, 0x70f},     {0x8e2, 0x8e2},     {0x180e, 0x180e},   {0x200b, 0x200b},
    {0x200e, 0x200f},   {0x2028, 0x202e},   {0x2060, 0x2064},   {0x2066, 0x206f},   {0xfeff, 0xfeff},
    {0xfff9, 0xfffb},   {0x110bd, 0x110bd}, {0x110cd, 0x110cd}, {0x1bca0, 0x1bca3}, {0x1d173, 0x1d17a},
    {0xe0001, 0xe0001}, {0xe0020, 0xe007f},
};

bool isHidden(unsigned character)
{
    return std::any_of(std::begin(HIDDEN), std::end(HIDDEN), [character](const Range& range) {
        return range.first <= character && character <= range.last;
    });
}

std::string inDigits(unsigned character)
{
    char digits[16];
    if (character < 0x100)
        std::snprintf(digits, sizeof digits, "\\x%02x", character);
    else if (character < 0x10000)
        std::snprintf(digits, sizeof digits, "\\u%04x", character);
    else
        std::snprintf(digits, sizeof digits, "\\U%08x", character);
    return digits;
}

/** The first character of UTF-8, and how many bytes it takes. */
std::pair<unsigned, std::size_t> characterOf(std::string_view bytes)
{
    const unsigned lead = static_cast<unsigned char>(bytes[0]);
    const std::size_t size = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    unsigned character = size == 1 ? lead : lead & (0x7fu >> size);
    for (std::size_t i = 1; i < size; ++i)
        character = character << 6 | (static_cast<unsigned char>(bytes[i]) & 0x3fu);
    return {character, size};
}

/** As the log shows text of others, which must neither end a line nor steer a terminal nor stand in another order. */
std::string shown(const QString& text)
{
    const std::string bytes = text.toStdString();
    std::string line;
    for (std::size_t place = 0, size = 0; place < bytes.size(); place += size) {
        unsigned character = 0;
        std::tie(character, size) = characterOf(std::string_view(bytes).substr(place));
        line += isHidden(character) ? inDigits(character) : bytes.substr(place, size);
    }
    return line;
}

std::string shown(const char* text)
{
    return shown(textOf(text));
}

std::string quoted(const char* text)
{
    return text ? '"' + std::string(text) + '"' : "null";
}

std::string vendorKey(const char* label)
{
    return std::string(label) + "." VD_VENDOR_TXT_DOMAIN;
}

std::string snapKey(const char* label)
{
    return std::string(label) + ".snapserver.com";
}

bool isWebType(const char* type)
{
    return type && (!std::strcmp(type, "_http._tcp") || !std::strcmp(type, "_https._tcp"));
}

std::string addressText(const vocabulary::Address& address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address.protocol == AVAHI_PROTO_INET)
        inet_ntop(AF_INET, address.bytes.data(), text, sizeof text);
    else if (address.protocol == AVAHI_PROTO_INET6)
        inet_ntop(AF_INET6, address.bytes.data(), text, sizeof text);
    return text;
}

QString payloadText(const vocabulary::Payload& payload)
{
    if (!payload.bytes || payload.size < 4)
        return QString();
    std::string text;
    for (std::size_t i = 0; i < 4; ++i)
        text += (i ? "." : "") + std::to_string((*payload.bytes)[i]);
    return QString::fromStdString(text);
}

/** CRC-16 as of ISO 3309, the bits of each byte from the lowest one on. */
quint16 checksumOf(const std::string& bytes)
{
    unsigned crc = 0xffff;
    for (const char byte : bytes) {
        for (int bit = 0; bit < 8; ++bit) {
            const bool odd = (crc ^ (static_cast<unsigned char>(byte) >> bit)) & 1;
            crc = (crc >> 1) ^ (odd ? 0x8408u : 0u);
        }
    }
    return static_cast<quint16>(crc ^ 0xffff);
}

/** One that is not half of a pair. */
bool hasSurrogate(const QString& text)
{
    for (int i = 0; i < text.size(); ++i) {
        const bool isPair = text[i].isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate();
        if (!isPair && text[i].isSurrogate())
            return true;
        i += isPair ? 1 : 0;
    }
    return false;
}

std::string wordInMemory(quint32 value)
{
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    return std::string(bytes, sizeof bytes);
}

/** The bytes as the stand-in writes them. */
std::string visible(const std::string& bytes)
{
    std::string text;
    for (const char byte : bytes) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        text += byte > 0x1f && byte < 0x7f ? std::string(1, byte) : escaped;
    }
    return text;
}

std::string listOf(const std::vector<std::string>& strings)
{
    std::string text;
    for (const std::string& string : strings)
        text += (text.empty() ? "" : " ") + visible(string);
    return '[' + text + ']';
}

} // namespace

const State& Model::state()
{
    m_state.isBrowsing = !m_browsers.empty();
    m_state.browsers = m_browsers.size();
    m_state.isRegistered = m_group != 0;
    m_state.hasClient = m_client != 0;
    m_state.holdsResolver = m_longLiveResolver != 0;
    m_state.holdsRecordBrowser = m_longLiveRecordBrowser != 0;
    return m_state;
}

void Model::startAnew()
{
    m_state = State();
    m_longLiveResolver = 0;
    m_longLiveRecordBrowser = 0;
    m_group = 0;
    m_destroyed = false;
}

void Model::destroy()
{
    cleanUp();
    m_destroyed = true;
}

void Model::runOperation(const Step& step)
{
    const auto returns = [this](bool result) { seen.results.push_back(result); };
    switch (step.kind) {
    case Step::Browse:
        return returns(browseServices(step.type()));
    case Step::Terminate:
        return returns(terminateBrowsing());
    case Step::Cleanup:
        return cleanUp();
    case Step::Resolve:
        return returns(
            resolveService(static_cast<unsigned>(step.interface()), step.name(), step.type(), step.domain()));
    case Step::StartQuery:
        return returns(startQueryRecords(step.name(), step.type(), step[Step::LongLived]));
    case Step::StopQuery:
        return stopQueryRecords(step.name());
    case Step::Register:
        return returns(registerService(step.name(), step.type(), step.reconfiguration()));
    case Step::TerminateRegistration:
        return returns(terminateRegistration());
    case Step::Update:
    case Step::Add:
        return returns(updateTxtRecord(vocabulary::updates()[step[Step::Data]]));
    case Step::StartAll:
        m_state.interval = 15000;
        m_state.isTicking = true;
        return;
    case Step::StopAll:
        m_state.isTicking = false;
        return;
    case Step::Tick:
        return queryNextRecord();
    default:
        return destroy();
    }
}

void Model::runEvent(const Step& step)
{
    const auto choose = [&](ModelledAvahi::Kind kind) {
        targets.push_back(avahi.choose(kind, step[Step::Target]));
        return targets.back();
    };
    switch (step.kind) {
    case Step::ClientState:
        if (choose(ModelledAvahi::Client)) {
            runInHandler(step);
            clientStateChanged(step.event());
        }
        return;
    case Step::GroupState:
        if (choose(ModelledAvahi::Group)) {
            runInHandler(step);
            groupStateChanged(step.event());
        }
        return;
    case Step::BrowseEvent:
        if (const int browser = choose(ModelledAvahi::Browser))
            serviceBrowse(browser, step);
        return;
    case Step::ResolveEvent:
        if (const int resolver = choose(ModelledAvahi::Resolver))
            serviceResolve(resolver, step);
        return;
    default:
        if (const int browser = choose(ModelledAvahi::RecordBrowser))
            recordBrowse(browser, step);
    }
}

void Model::runSetting(const Step& step)
{
    switch (step.kind) {
    case Step::FailNext:
        avahi.failNext(step.function(), step.error());
        return;
    case Step::SetError:
        avahi.error = step.error();
        return;
    case Step::LogLevel:
        m_logLevel = step.event();
        return;
    default:
        m_statesInside[step.function()] = &step;
    }
}

// What is noted.

void Model::log(std::initializer_list<std::string_view> pieces, int level)
{
    if (!isLogged(level))
        return;
    std::size_t size = 4;
    for (const std::string_view piece : pieces)
        size += piece.size();
    std::string line;
    line.reserve(size);
    line.append("[").append(std::to_string(level)).append("] ");
    for (const std::string_view piece : pieces)
        line.append(piece);
    seen.log.push_back(std::move(line));
}

void Model::emitSignal(const char* kind, const QString& key)
{
    const vd::SServiceInfo record = entry(key);
    seen.signalled.push_back(
        {kind, record, m_state.services, m_state.recordQueue, seen.log.size(), avahi.calls.size()});
    runInSlot();
}

bool Model::runInHandler(const Step& step)
{
    const int life = m_life;
    for (const Step& inner : step.inHandler)
        perform(inner);
    return m_life == life;
}

bool Model::stateInside(const std::string& function)
{
    const auto found = m_statesInside.find(function);
    if (found == m_statesInside.end())
        return true;
    const Step& step = *found->second;
    m_statesInside.erase(found);
    const bool goesOn = runInHandler(step);
    if (function != "client_new")
        groupStateChanged(step.event());
    else if (step.event() == AVAHI_ENTRY_GROUP_FAILURE)
        clientStateChanged(AVAHI_CLIENT_FAILURE);
    return goesOn;
}

// The client and its browsers.

bool Model::browseServices(const char* type)
{
    log({PREFIX, "BrowseServices() -> starting to browse for Bonjour services"});
    if (!m_client && !makeClient()) {
        log({PREFIX, "BrowseServices() ->  could not create Avahi client"});
        if (!m_makingClient)
            cleanUp();
        return false;
    }
    int browser = 0;
    // Avahi's D-Bus library would abort on any other type.
    if (type && isUtf8(type)) {
        browser = avahi.make(ModelledAvahi::Browser, m_client, "service_browser_new",
                             ", -1, -1, " + quoted(type) + ", null, 2");
    }
    if (!browser) {
        log({PREFIX, "BrowseServices() -> could not create Avahi Service Browser "});
        return false;
    }
    m_browsers.push_back(browser);
    return true;
}

bool Model::makeClient()
{
    if (m_makingClient)
        return false;
    const int client = avahi.make(ModelledAvahi::Client, 0, "client_new", "poll, 2");
    if (!client)
        return false;
    m_makingClient = true;
    const bool goesOn = stateInside("client_new");
    m_makingClient = false;
    if (goesOn)
        m_client = client;
    else
        avahi.releaseClient(client);
    return goesOn;
}

bool Model::terminateBrowsing()
{
    log({PREFIX, "TerminateBrowsing"});
    cleanUp();
    return true;
}

void Model::cleanUp()
{
    ++m_life;
    for (const int browser : m_browsers)
        avahi.release(ModelledAvahi::Browser, browser, "service_browser_free");
    m_browsers.clear();
    if (m_client && m_groupIsBusy)
        m_clientToFree = m_client;
    else if (m_client)
        avahi.releaseClient(m_client);
    m_groupIsBusy = m_groupIsBusy && !m_client;
    m_client = 0;
    m_state.txtRecord.clear();
    m_state.isTxtRecordTold = true;
    m_state.services.clear();
    m_state.recordQueue.clear();
}

void Model::clientStateChanged(int state)
{
    if (state == AVAHI_CLIENT_FAILURE)
        log({PREFIX, "SAvahiClient_callback() -> Avahi client failure"});
}

// Services that appear and disappear.

void Model::serviceBrowse(int browser, const Step& step)
{
    if (!runInHandler(step))
        return;
    const int life = m_life;
    const std::string prefix = "AvahiServiceDiscovery::ServiceBrowse() -> ";
    switch (step.event()) {
    case AVAHI_BROWSER_NEW:
        log({prefix, "Browsing: ", shown(step.name()), " type: ", shown(step.type()),
             " domain: ", shown(step.domain())});
        resolveService(static_cast<unsigned>(step.interface()), step.name(), step.type(), step.domain());
        return;
    case AVAHI_BROWSER_REMOVE:
        return removeService(step, life);
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        return log({prefix, "cache exhausted - service restarting might help!"});
    case AVAHI_BROWSER_ALL_FOR_NOW:
        return log({prefix, "all for now"});
    case AVAHI_BROWSER_FAILURE:
        if (isLogged(1)) {
            avahi.calls.push_back("service_browser_get_client("
                                  + ModelledAvahi::nameOf(ModelledAvahi::Browser, browser) + ')');
            log({prefix, "Avahi Browser error: ", avahi_strerror(avahi.clientErrno(m_client))});
        }
        return;
    default:
        return;
    }
}

void Model::removeService(const Step& step, int life)
{
    const QString key = textOf(step.name());
    if (!m_state.services.contains(key))
        return;
    log({PREFIX, "ServiceBrowse() -> removing service: ", shown(m_state.services.value(key).serviceName),
         " type: ", shown(step.type()), " domain: ", shown(step.domain())});
    emitSignal("lost", key);
    if (m_life != life)
        return;
    m_state.services.remove(m_state.services.value(key).recordHostName);
    m_state.services.remove(key);
    m_state.recordQueue.removeAll(qMakePair(key, textOf(step.type())));
}

// Resolving.

bool Model::resolveService(unsigned interface, const char* name, const char* type, const char* domain)
{
    log({PREFIX, "ResolveService () -> trying to resolve service: ", shown(name)});
    const auto fails = [&](int error) {
        log({PREFIX, "ResolveService() -> failed create AvahiServiceResolver ", shown(name),
             " error: ", avahi_strerror(error)});
        return false;
    };
    if (!type || !isUtf8(type) || !isUtf8(name) || !isUtf8(domain))
        return fails(AVAHI_ERR_INVALID_ARGUMENT);
    if (!m_client)
        return fails(AVAHI_ERR_BAD_STATE);
    const int resolver = avahi.make(ModelledAvahi::Resolver, m_client, "service_resolver_new",
                                    ", " + std::to_string(static_cast<int>(interface)) + ", -1, " + quoted(name)
                                        + ", " + quoted(type) + ", " + quoted(domain) + ", -1, 2");
    if (!resolver)
        return fails(isLogged(1) ? avahi.clientErrno(m_client) : 0);
    if (entry(textOf(name)).longLiveQuery)
        m_longLiveResolver = resolver;
    return true;
}

void Model::serviceResolve(int resolver, const Step& step)
{
    if (!runInHandler(step))
        return;
    const int life = m_life;
    const QString key = textOf(step.name());
    if (step.event() == AVAHI_RESOLVER_FAILURE && isEndOfFailedResolve(step))
        return endResolve(key, resolver);
    if (!isWebType(step.type()))
        return endResolve(key, resolver);
    storeBasics(step);
    if (!readVendor(step))
        return;
    if (!step.address())
        return log({PREFIX, "ServiceResolve() -> resolved service without Ip-Address"}, 4);
    const std::vector<const std::string*> txt = step.txt();
    const quint16 checksum = txt.empty() ? quint16(0) : checksumOf(*txt.front());
    log({PREFIX, "ServiceResolve() -> CHECKSUM ", std::to_string(checksum),
         std::to_string(entry(key).txtChecksum)});
    if (!announce(key, addressText(*step.address()), checksum, life))
        return;
    followHost(step);
    endResolve(key, resolver);
}

bool Model::isEndOfFailedResolve(const Step& step)
{
    if (isLogged(1)) {
        log({PREFIX, "ServiceResolve() -> failed to resolve service: ", shown(step.name()),
             " type: ", shown(step.type()), " domain: ", shown(step.domain()),
             " error: ", avahi_strerror(avahi.clientErrno(m_client))});
    }
    const QString host = textOf(step[Step::HostIsName] ? step.name() : step.host());
    return avahi.clientErrno(m_client) == AVAHI_ERR_TIMEOUT && !m_state.services.contains(host);
}

void Model::storeBasics(const Step& step)
{
    vd::SServiceInfo& info = entry(textOf(step.name()));
    info.interfaceIndex = step.interface();
    info.serviceType = textOf(step.type());
    info.serviceName = textOf(step.name());
    info.hostName = textOf(step[Step::HostIsName] ? step.name() : step.host());
    info.recordHostName = info.hostName;
    info.port = step.port();
    info.https = !std::strcmp(step.type(), "_https._tcp");
}

bool Model::announce(const QString& key, const std::string& address, quint16 checksum, int life)
{
    const QString text = QString::fromStdString(address);
    if (entry(key).addresses.isEmpty()) {
        entry(key).addresses.append(text);
        emitSignal("found", key);
        if (m_life != life)
            return false;
        entry(key).txtChecksum = checksum;
        return true;
    }
    if (!entry(key).addresses.contains(text)) {
        entry(key).addresses.append(text);
        emitSignal("address", key);
        return m_life == life;
    }
    if (entry(key).txtChecksum == checksum)
        return true;
    entry(key).txtChecksum = checksum;
    emitSignal("text", key);
    return m_life == life;
}

void Model::followHost(const Step& step)
{
    const QString key = textOf(step.name());
    const char* const host = step[Step::HostIsName] ? step.name() : step.host();
    // Null for both is one and the same pointer, too.
    if (!step[Step::HostIsName] && (step.name() || step.host())) {
        vd::SServiceInfo hostEntry;
        hostEntry.serviceName = key;
        m_state.services.insert(textOf(host), hostEntry);
    }
    m_state.recordQueue.append(qMakePair(key, textOf(step.type())));
    int browser = 0;
    if (host) {
        browser = avahi.make(ModelledAvahi::RecordBrowser, m_client, "record_browser_new",
                             ", " + std::to_string(step.interface()) + ", " + std::to_string(step.protocol())
                                 + ", " + quoted(host) + ", 1, 1, 0");
    }
    if (!browser && isLogged(1)) {
        log({PREFIX, "ServiceResolve() -> failed to create record browser ", shown(step.name()),
             " error: ", avahi_strerror(avahi.clientErrno(m_client))});
    }
    if (entry(key).longLiveQuery)
        m_longLiveRecordBrowser = browser;
}

void Model::endResolve(const QString& key, int resolver)
{
    // It may be gone: a slot may have stopped the query.
    if (!entry(key).longLiveQuery && avahi.isLive(ModelledAvahi::Resolver, resolver))
        avahi.release(ModelledAvahi::Resolver, resolver, "service_resolver_free");
}

// TXT records.

bool Model::readVendor(const Step& step)
{
    const QString key = textOf(step.name());
    const std::vector<const std::string*> txt = step.txt();
    const std::string whose
        = shown(step.name()) + " type: " + shown(step.type()) + " domain: " + shown(step.domain());
    if (find(txt, vendorKey("ser_no"))) {
        log({PREFIX, "ServiceResolve() -> resolving Vandrel service: ", whose});
        entry(key).deviceKind = 1;
        readSerial(key, txt, vendorKey("ser_no"), "ser_no_" VD_VENDOR_TXT_DOMAIN);
        entry(key).modelName = valueOf(txt, vendorKey("full_name"));
        entry(key).softwareVersion = valueOf(txt, vendorKey("fs_vers"));
        entry(key).errorText = valueOf(txt, vendorKey("error"));
        entry(key).userdataOwner = valueOf(txt, vendorKey("userdata_owner"));
        entry(key).privacyMode = valueOf(txt, vendorKey("privacy_mode")) == QLatin1String("T");
        return true;
    }
    if (find(txt, snapKey("ser_no"))) {
        log({PREFIX, "ServiceResolve() -> resolving SNAP SERVER service", whose});
        entry(key).deviceKind = 1024;
        readSerial(key, txt, snapKey("ser_no"), snapKey("ser_no"));
        entry(key).modelName = valueOf(txt, snapKey("model"));
        entry(key).softwareVersion = valueOf(txt, snapKey("sw_version"));
        entry(key).errorText = valueOf(txt, snapKey("error"));
        entry(key).totalCapacity = valueOf(txt, snapKey("totalcapacity"));
        entry(key).freeCapacity = valueOf(txt, snapKey("freecapacity"));
        return true;
    }
    log({PREFIX, "ServiceResolve() -> resolving AXIS service: ", whose});
    log({"BTW: not yet implemented!"});
    return false;
}

const std::string* Model::find(const std::vector<const std::string*>& txt, const std::string& key) const
{
    for (const std::string* string : txt) {
        // Avahi compares up to a NUL, and without regard to case.
        const bool isBare = !strcasecmp(string->c_str(), key.c_str());
        const bool isKey = !strncasecmp(string->c_str(), key.c_str(), key.size());
        if (isBare || (isKey && string->c_str()[key.size()] == '='))
            return string;
    }
    return nullptr;
}

QString Model::valueOf(const std::vector<const std::string*>& txt, const std::string& key)
{
    const std::string* const found = find(txt, key);
    if (!found)
        return QString();
    const std::size_t equalsSign = found->find('=');
    if (equalsSign == std::string::npos) {
        log({"TXTRecord ERROR parsing ", key});
        return QString();
    }
    const QString value = textOf(found->c_str() + equalsSign + 1);
    log({"TXTRecord parsed ", key, ": ", shown(value)});
    return value;
}

void Model::readSerial(const QString& service, const std::vector<const std::string*>& txt, const std::string& key,
                       const std::string& logged)
{
    const std::string& found = *find(txt, key);
    const std::size_t equalsSign = found.find('=');
    if (equalsSign == std::string::npos)
        return;
    quint32 serial = 0;
    // Bytes that are missing count as 0.
    for (std::size_t i = equalsSign + 1; i < equalsSign + 4; ++i)
        serial = serial * 256 + (i < found.size() ? static_cast<unsigned char>(found[i]) : 0u);
    entry(service).serialNumber = serial;
    log({"\t\t", logged, " ", shown(found.c_str() + equalsSign + 1)});
}

// Queries of addresses.

bool Model::startQueryRecords(const char* name, const char* type, bool longLived)
{
    if (isLogged(1)) {
        log({PREFIX, "StartQueryRecords () -> ", shown(name), " on ", shown(entry(textOf(name)).recordHostName),
             " longLiveQuery ", longLived ? "1" : "0"});
    }
    if (longLived)
        entry(textOf(name)).longLiveQuery = true;
    return resolveService(0xffffffff, name, type, "local");
}

void Model::stopQueryRecords(const char* name)
{
    log({PREFIX, "StopQueryRecords () -> unregistering long live query: ", shown(name)});
    if (m_state.services.contains(textOf(name)))
        entry(textOf(name)).longLiveQuery = false;
    if (m_longLiveResolver && avahi.isLive(ModelledAvahi::Resolver, m_longLiveResolver))
        avahi.release(ModelledAvahi::Resolver, m_longLiveResolver, "service_resolver_free");
    m_longLiveResolver = 0;
}

void Model::queryNextRecord()
{
    m_state.interval = 200;
    if (m_state.recordQueue.isEmpty())
        return;
    const QPair<QString, QString> head = m_state.recordQueue.first();
    startQueryRecords(head.first.toUtf8().constData(), head.second.toUtf8().constData(), false);
    m_state.recordQueue.swapItemsAt(0, m_state.recordQueue.size() - 1);
}

void Model::recordBrowse(int browser, const Step& step)
{
    if (!runInHandler(step))
        return;
    log({PREFIX, "RecordBrowse() -> trying to resolve records from ", shown(step.host())});
    const QString address = payloadText(step.data());
    const QString key = entry(textOf(step.host())).serviceName;
    switch (step.event()) {
    case AVAHI_BROWSER_NEW:
        return addressAppears(step, key, address);
    case AVAHI_BROWSER_REMOVE:
        return addressDisappears(step, key, address);
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        log({PREFIX, "RecordBrowse() -> ", shown(step.host()),
             " avahi cache exhausted  - service restarting might help!"});
        break;
    case AVAHI_BROWSER_FAILURE:
        if (isLogged(1)) {
            avahi.calls.push_back("record_browser_get_client("
                                  + ModelledAvahi::nameOf(ModelledAvahi::RecordBrowser, browser) + ')');
            log({PREFIX, "RecordBrowse() -> Avahi Browser error: ", avahi_strerror(avahi.clientErrno(m_client))});
        }
        break;
    default:
        break;
    }
    endQuery(key, browser);
}

void Model::addressAppears(const Step& step, const QString& key, const QString& address)
{
    if (!entry(key).addresses.contains(address)) {
        entry(key).addresses.append(address);
        entry(key).addressRemoved = false;
        emitSignal("address", key);
    }
    log({PREFIX, "RecordBrowse() -> ", shown(step.host()), " found inetAddr: ", shown(address)});
}

void Model::addressDisappears(const Step& step, const QString& key, const QString& address)
{
    if (!entry(key).addresses.contains(address))
        return;
    entry(key).addresses = QStringList(address);
    entry(key).addressRemoved = true;
    emitSignal("address", key);
    log({PREFIX, "RecordBrowse() -> ", shown(step.host()), " removing inetAddr: ", shown(address)});
}

void Model::endQuery(const QString& key, int browser)
{
    if (!entry(key).longLiveQuery && avahi.isLive(ModelledAvahi::RecordBrowser, browser))
        avahi.release(ModelledAvahi::RecordBrowser, browser, "record_browser_free");
}

// Publishing.

bool Model::hasGroup() const
{
    return m_group && avahi.isLive(ModelledAvahi::Group, m_group);
}

bool Model::registerService(const char* name, const char* type, const vd::SReconfigInfo& info)
{
    if (m_groupIsBusy) {
        log({PREFIX, "RegisterService () -> could not register entry group!"});
        return false;
    }
    m_state.registeredName = name ? name : "";
    m_state.registeredType = type ? type : "";
    log({PREFIX, "RegisterService() -> registering service ", shown(name), " type: ", shown(type)});
    m_state.isTxtRecordTold = isFitForTxt(info);
    if (!m_state.isTxtRecordTold)
        return false;
    createTxtRecord(info);
    return (hasGroup() || makeGroup()) && addToGroup(name, type) && commitGroup();
}

bool Model::isFitForTxt(const vd::SReconfigInfo& info)
{
    const auto refuses = [this](const char* reason, const std::string& key) {
        log({PREFIX, "RegisterService() -> value ", reason, ": ", key});
        return false;
    };
    const std::string user = vendorKey("USER");
    const std::string password = vendorKey("PWD");
    if (hasSurrogate(info.userName))
        return refuses("holds what cannot be encoded", user);
    if (info.userName.contains(QChar(0)))
        return refuses("holds a NUL", user);
    if (user.size() + 1 + static_cast<std::size_t>(info.userName.toUtf8().size()) > 255)
        return refuses("too long for a TXT record", user);
    if (hasSurrogate(info.password))
        return refuses("holds what cannot be encoded", password);
    if (password.size() + 1 + static_cast<std::size_t>(info.password.toUtf8().toBase64().size()) > 255)
        return refuses("too long for a TXT record", password);
    return true;
}

void Model::createTxtRecord(const vd::SReconfigInfo& info)
{
    std::vector<std::string>& list = m_state.txtRecord;
    list.clear();
    // Avahi's lists grow at their head.
    const auto add = [&list](const char* label, const std::string& value) {
        list.insert(list.begin(), vendorKey(label) + '=' + value);
    };
    if (info.deviceKind == 1024) {
        if (info.dns1)
            add("DNS1", wordInMemory(info.dns1));
        if (info.dns2)
            add("DNS2", wordInMemory(info.dns2));
        if (info.dns3)
            add("DNS3", wordInMemory(info.dns3));
    }
    const char zeph[] = {static_cast<char>(info.zephValue >> 16), static_cast<char>(info.zephValue >> 8),
                         static_cast<char>(info.zephValue)};
    add("ZEPH", std::string(zeph, sizeof zeph));
    add("USER", info.userName.toUtf8().toStdString());
    add("PWD", info.password.toUtf8().toBase64().toStdString());
    add("NEWIP", wordInMemory(info.newIp));
    add("MASK", wordInMemory(info.netMask));
    add("SAVE", info.save ? "T" : "F");
}

bool Model::makeGroup()
{
    const auto fails = [this] {
        log({PREFIX, "RegisterService () -> could not register entry group!"});
        return false;
    };
    if (!m_client)
        return fails();
    const int group = avahi.make(ModelledAvahi::Group, m_client, "entry_group_new", "");
    if (group && !workOnGroup("entry_group_new"))
        return fails();
    m_group = group;
    return group || fails();
}

bool Model::addToGroup(const char* name, const char* type)
{
    int error = AVAHI_OK;
    if (!name || !isUtf8(name)) {
        error = AVAHI_ERR_INVALID_SERVICE_NAME;
    } else if (!type || !isUtf8(type)) {
        error = AVAHI_ERR_INVALID_SERVICE_TYPE;
    } else {
        error = callOnGroup("entry_group_add_service_strlst", ", -1, -1, 320, " + quoted(name) + ", "
                                                                  + quoted(type) + ", null, null, 80, "
                                                                  + listOf(m_state.txtRecord));
    }
    if (error) {
        log({PREFIX, "RegisterService() -> failed to register service", shown(name), " type: ", shown(type),
             " errorcode: ", std::to_string(error)});
    }
    return !error;
}

bool Model::commitGroup()
{
    const int error = callOnGroup("entry_group_commit");
    if (error) {
        log({PREFIX, "RegisterService() -> failed to commit entry group; errorcode: ", std::to_string(error)});
    }
    return !error;
}

bool Model::updateTxtRecord(const char* txt)
{
    const std::string& name = m_state.registeredName;
    const std::string& type = m_state.registeredType;
    int error = AVAHI_OK;
    if (!hasGroup() || m_groupIsBusy) {
        error = AVAHI_ERR_BAD_STATE;
    } else if (!txt || std::strlen(txt) > 255) {
        error = AVAHI_ERR_INVALID_ARGUMENT;
    } else if (!isUtf8(name.c_str())) {
        error = AVAHI_ERR_INVALID_SERVICE_NAME;
    } else if (!isUtf8(type.c_str())) {
        error = AVAHI_ERR_INVALID_SERVICE_TYPE;
    } else {
        error = callOnGroup("entry_group_update_service_txt", ", -1, -1, 256, " + quoted(name.c_str()) + ", "
                                                                  + quoted(type.c_str()) + ", \"local\", "
                                                                  + listOf({txt}));
    }
    if (error)
        log({PREFIX, "UpdateTxtRecord () -> could not update text record; errorcode: ", std::to_string(error)});
    else
        log({PREFIX, "UpdateTxtRecord () -> updated txt record: ", shown(txt)});
    return !error;
}

bool Model::terminateRegistration()
{
    if (m_groupIsBusy) {
        log({PREFIX, "TerminateRegistration() -> could not reset registration; errorcode: -2"});
        return false;
    }
    if (!hasGroup()) {
        // It went with its client, or Avahi has freed it and reported an error none the less.
        m_group = 0;
        return true;
    }
    const int resetError = callOnGroup("entry_group_reset");
    if (resetError) {
        log({PREFIX,
             "TerminateRegistration() -> could not reset registration; errorcode: ", std::to_string(resetError)});
        return false;
    }
    log({PREFIX, "TerminateRegistration () -> performed entry group reset"});
    const int group = m_group;
    const int freeError = callOnGroup("entry_group_free");
    avahi.forget(ModelledAvahi::Group, group);
    if (freeError) {
        log({PREFIX, "TerminateRegistration() -> could not terminate registration; errorcode: ",
             std::to_string(freeError)});
        return false;
    }
    log({PREFIX, "TerminateRegistration () -> performed entry group reset"});
    m_group = 0;
    return true;
}

int Model::callOnGroup(const std::string& function, const std::string& arguments)
{
    avahi.calls.push_back(function + '(' + ModelledAvahi::nameOf(ModelledAvahi::Group, m_group) + arguments + ')');
    const int error = avahi.isToFail(function) ? avahi.error : AVAHI_OK;
    return workOnGroup(function) ? error : AVAHI_ERR_BAD_STATE;
}

bool Model::workOnGroup(const std::string& function)
{
    m_groupIsBusy = true;
    if (stateInside(function)) {
        m_groupIsBusy = false;
        return true;
    }
    avahi.releaseClient(m_clientToFree);
    return false;
}

void Model::groupStateChanged(int state)
{
    static const char* const names[] = {"uncommitted", "registering", "established", "collision", "failure"};
    if (state >= 0 && state <= AVAHI_ENTRY_GROUP_FAILURE)
        log({PREFIX, "AvahiEntryGroupChanged() -> entry group ", names[state]});
}
