// SPDX-License-Identifier: MIT
#ifndef VD_SERVICEDISCOVERY_H
#define VD_SERVICEDISCOVERY_H

#include <vd/MACAddress.h>

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QMetaType>
#include <QtCore/QObject>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QTimer>
#include <QtNetwork/QHostAddress>

#include <string>

namespace vd {

/** Values of the deviceKind members: one of them or 0, no flags. */
const quint32 DEVICE_KIND_VANDREL = 1;
const quint32 DEVICE_KIND_SNAP_SERVER = 1024;

/**
 * What is known of one discovered DNS-SD service. A value: copies are independent of each other.
 *
 * It is registered with Qt as "vd::SServiceInfo" when a ServiceDiscovery is made, so it may travel through queued
 * connections. Text is decoded as UTF-8; on Qt 4 by the codec for C strings, which a host sets to UTF-8.
 */
struct Q_DECL_EXPORT SServiceInfo
{
    /** Everything empty, false or 0, except port, which is 80. */
    SServiceInfo();

    /** DNS-SD service type, "_http._tcp" or "_https._tcp". */
    QString serviceType;
    /** Index of the network interface on which the service was resolved last, as in if_nametoindex(). */
    qint32 interfaceIndex;
    /** True after an address of the host was removed, false after one was added. */
    bool addressRemoved;
    /** Its changes are followed: set by a long-lived StartQueryRecords(), cleared by StopQueryRecords(). */
    bool longLiveQuery;
    /** DEVICE_KIND_VANDREL, DEVICE_KIND_SNAP_SERVER, or 0 for any other service. */
    quint32 deviceKind;
    /** DNS-SD service instance name. */
    QString serviceName;
    /** The host that offers the service, as its SRV record names it ("camera-7.local"). */
    QString hostName;
    /** The host whose address records are followed; the same name as hostName. */
    QString recordHostName;
    /**
     * The host's addresses as text, in the order in which they were learned. After an address was
     * removed (addressRemoved) this holds that one address and nothing else.
     */
    QStringList addresses;
    /** TCP port of the service. */
    quint16 port;
    /** True exactly when serviceType is "_https._tcp". */
    bool https;
    /** Carried for the host application; discovery never fills it. */
    MACAddress macAddress;
    /** 24-bit serial number, from the first three bytes of the vendor's serial key, first one highest. */
    quint32 serialNumber;
    /** Firmware or software version. */
    QString softwareVersion;
    /** Model, or the full name of the device. */
    QString modelName;
    /** An error that the device reports about itself. */
    QString errorText;
    /** Whose user data the device holds; DEVICE_KIND_VANDREL only. */
    QString userdataOwner;
    /** The device is in privacy mode; DEVICE_KIND_VANDREL only. */
    bool privacyMode;
    /** Total storage, in the device's own words; DEVICE_KIND_SNAP_SERVER only. */
    QString totalCapacity;
    /** Free storage, in the device's own words; DEVICE_KIND_SNAP_SERVER only. */
    QString freeCapacity;
    /** CRC-16 (qChecksum) of the first string of the TXT record, and of that one only. */
    quint16 txtChecksum;
};

/**
 * A network reconfiguration that ServiceDiscovery::RegisterService() publishes for a device to obey.
 *
 * A plain aggregate: `SReconfigInfo info = SReconfigInfo();` starts it with zeros.
 *
 * The IPv4 members are published as their four bytes lie in memory. To put 192.168.1.10 on the wire in
 * network order, store the result of inet_addr("192.168.1.10") or htonl(0xC0A8010A).
 */
struct Q_DECL_EXPORT SReconfigInfo
{
    /** User name on the device; at most 238 bytes as UTF-8, with the default domain of the keys, and none of them NUL. */
    QString userName;
    /**
     * Password on the device; at most 177 bytes as UTF-8, with the default domain of the keys. Published in Base64, so
     * readable by everyone on the link.
     */
    QString password;
    /** The low 24 bits are published, most significant byte first. */
    quint32 zephValue;
    /** New IPv4 address. */
    quint32 newIp;
    /** New IPv4 net mask. */
    quint32 netMask;
    /** Unused; hosts that declare the same record elsewhere have it too. */
    quint8 reservedFlag;
    /** Whether the device is to keep the settings over a restart. */
    bool save;
    /** As in SServiceInfo; the name servers are published for DEVICE_KIND_SNAP_SERVER only. */
    quint32 deviceKind;
    /** Unused; hosts that declare the same record elsewhere have it too. */
    quint32 reservedWord;
    /** IPv4 name servers; 0 for none. */
    quint32 dns1;
    quint32 dns2;
    quint32 dns3;
};

/** Names one service to resolve. */
struct Q_DECL_EXPORT SResolverInfo
{
    std::string serviceName;
    std::string serviceType;
    std::string domain;
};

/**
 * Finds network devices by DNS-SD and tells of them by signals: the interface that applications hold.
 *
 * @code
 * vd::ServiceDiscovery* discovery = new vd::AvahiServiceDiscovery;
 * QObject::connect(discovery, SIGNAL(serviceFound(vd::SServiceInfo)), window, SLOT(addDevice(vd::SServiceInfo)));
 * QObject::connect(discovery, SIGNAL(serviceLost(vd::SServiceInfo)), window, SLOT(removeDevice(vd::SServiceInfo)));
 * if (!discovery->BrowseServices("_http._tcp"))
 *     window->showNoDiscovery();
 * discovery->StartQueryAllRecords();
 * @endcode
 *
 * Thread: an object belongs to the thread that made it, which must run a Qt event loop. All operations
 * are called there and all signals are emitted there, synchronously from the event that caused them, or from an operation
 * that works it off. A slot may call any operation, or delete the object with deleteLater().
 *
 * Errors are reported by a false result and a message in the log (LogQt), never by an exception. Nothing
 * is retried.
 *
 * Names, types and domains cross the interface as NUL-terminated UTF-8 and are copied. What is not UTF-8 is
 * refused: the operation returns false.
 */
class Q_DECL_EXPORT ServiceDiscovery : public QObject
{
    Q_OBJECT

public:
    /** Makes an idle object without a parent and registers SServiceInfo with Qt. */
    ServiceDiscovery();
    ~ServiceDiscovery() override;

    /**
     * Starts to browse for services of @p type, for example "_http._tcp", on all interfaces.
     * @return true when a browser for it exists now. Each call adds one; a type that is browsed twice
     * delivers every event twice.
     */
    virtual bool BrowseServices(const char* type) = 0;

    /** Stops everything: browsing, resolving, queries and publishing. What was known is forgotten. */
    virtual bool TerminateBrowsing() = 0;

    /** True while at least one browser exists. */
    virtual bool IsBrowsing() = 0;

    /**
     * Starts to resolve one service instance. What comes of it arrives later, by signals.
     * @param interfaceIndex as in if_nametoindex(), or 0xFFFFFFFF for every interface
     * @param domain usually "local"; null for the default domain
     * @return true when the request was made.
     */
    virtual bool ResolveService(unsigned int interfaceIndex, const char* name, const char* type,
                                const char* domain)
        = 0;

    /**
     * Resolves one service instance again, in the domain "local" on every interface, and so reads its
     * TXT and address records again.
     * @param longLiveQuery true keeps the query open, so that later changes are reported as they happen,
     * until StopQueryRecords(). False leaves a query that is kept open as it is.
     * @return what ResolveService() returned.
     */
    virtual bool StartQueryRecords(const char* name, const char* type, bool longLiveQuery) = 0;

    /**
     * Ends the long-lived query of one service. Of the resolvers that are kept open the last one is released, be it
     * this service's or not; the address query ends by itself soon after.
     */
    virtual void StopQueryRecords(const char* name, const char* type) = 0;

    /**
     * Publishes a service whose TXT record carries @p info, at port 80 of this host, on all interfaces. Needs a
     * successful BrowseServices() before. Everyone on the link can read the record, the password included.
     *
     * There is one published service at a time: withdraw it by TerminateRegistration() before you publish another
     * one, or the same one with other values.
     * @return true when the service was handed to the responder, which announces it later. After false, if
     * IsRegistered(), call TerminateRegistration() before you register again. A record that the device could not read
     * as it is meant is refused, and what was published before stays.
     */
    virtual bool RegisterService(const char* name, const char* type, const vd::SReconfigInfo& info) = 0;

    /**
     * Withdraws the published service. To be called before TerminateBrowsing().
     * @return true when nothing is published any more; false when the responder failed to withdraw it.
     */
    virtual bool TerminateRegistration() = 0;

    /**
     * True from a RegisterService() that reached the responder, be it successful or not, to a successful
     * TerminateRegistration(). TerminateBrowsing() doesn't change the answer; a RegisterService() after it, which the
     * responder fails, does.
     */
    virtual bool IsRegistered() = 0;

    /**
     * Starts to query the known services again, one every 200 ms, the first after 15000 ms.
     *
     * Each query is made for the service at the head of a queue, and then the first and the last
     * entry of the queue change places. With three or more entries, those between are not reached.
     */
    void StartQueryAllRecords();

    /** Ends what StartQueryAllRecords() started. */
    void StopQueryAllRecords();

    /**
     * Reads the payload of an address record.
     * @param data an IPv4 address in network order, and any bytes behind it, which are ignored
     * @param size the number of bytes at @p data
     * @return a null address when there are fewer than four bytes.
     */
    QHostAddress getQHostAddress(const unsigned char* data, unsigned long size);

Q_SIGNALS:
    /**
     * A service has its first address. The record holds that address; its txtChecksum is still the one
     * from before, 0 for a new service.
     */
    void serviceFound(vd::SServiceInfo serviceInfo);

    /**
     * An address was added (addressRemoved is false, addresses holds all that are known) or removed
     * (addressRemoved is true, addresses holds the removed one only).
     */
    void serviceAddress(vd::SServiceInfo serviceInfo);

    /** The first string of the TXT record of a known service changed, at an address already known. */
    void serviceText(vd::SServiceInfo serviceInfo);

    /** Never emitted; declared for classes that derive from this one. */
    void serviceLost(QString serviceName);

    /** A service disappeared. This is what was known of it. */
    void serviceLost(vd::SServiceInfo serviceInfo);

private Q_SLOTS:
    void queryNextRecord();

protected:
    /**
     * The service table. A service stands under its instance name; beside it stands an entry under the
     * name of its host, of which only serviceName is set, so that an address record, which knows no more
     * than the host, finds its service.
     */
    QMap<QString, vd::SServiceInfo> services;

    /** (instance name, service type) of the services to query again. Filled at every resolve. */
    QList<QPair<QString, QString>> recordQueue;

    /** Unused; for classes that derive from this one. */
    QList<QString> nameList;

    /** Drives queryNextRecord(). */
    QTimer queryTimer;

private:
    Q_DISABLE_COPY(ServiceDiscovery)
};

} // namespace vd

Q_DECLARE_METATYPE(vd::SServiceInfo)

#endif
