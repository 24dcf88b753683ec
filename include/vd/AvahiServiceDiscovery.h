// SPDX-License-Identifier: MIT
#ifndef VD_AVAHISERVICEDISCOVERY_H
#define VD_AVAHISERVICEDISCOVERY_H

#include <vd/ServiceDiscovery.h>

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>
#include <avahi-common/address.h>
#include <avahi-common/strlst.h>

#include <string>

namespace vd {

/** The domain that ends every TXT key of the maker's own devices, as in "ser_no.vandrel.com". */
extern const char VENDOR_TXT_DOMAIN[] Q_DECL_EXPORT;

/**
 * Discovery through the system's Avahi daemon.
 *
 * @code
 * vd::AvahiServiceDiscovery discovery;
 * QObject::connect(&discovery, SIGNAL(serviceFound(vd::SServiceInfo)), list, SLOT(add(vd::SServiceInfo)));
 * if (!discovery.BrowseServices("_http._tcp") || !discovery.BrowseServices("_https._tcp"))
 *     qWarning("Is avahi-daemon running?");
 * discovery.StartQueryAllRecords();
 * return application.exec();
 * @endcode
 *
 * Nothing talks to the daemon before the first BrowseServices(). Every call that makes or frees an Avahi
 * object waits for the daemon's answer: well under a millisecond as a rule, up to 25 s when the daemon hangs.
 * RegisterService() makes four of them, TerminateRegistration() two, UpdateTxtRecord() one.
 *
 * When the daemon stops or restarts, nothing is signalled and nothing recovers by itself: the log tells
 * of it (or AvahiClientStateChanged(), in a derived class), and TerminateBrowsing() followed by
 * BrowseServices() starts anew.
 *
 * Thread: as ServiceDiscovery. Several objects may live in several threads.
 *
 * Ownership: the object owns every Avahi object it makes. What stays until TerminateBrowsing(): resolvers of web
 * services without an address or without a vendor's TXT key, and those of long-lived queries but for the one that
 * StopQueryRecords() frees.
 */
class Q_DECL_EXPORT AvahiServiceDiscovery : public ServiceDiscovery
{
public:
    /** Makes an idle object. */
    AvahiServiceDiscovery();
    /** Ends everything as TerminateBrowsing() does. */
    ~AvahiServiceDiscovery() override;

    bool BrowseServices(const char* type) override;
    bool TerminateBrowsing() override;
    bool IsBrowsing() override;
    bool ResolveService(unsigned int interfaceIndex, const char* name, const char* type,
                        const char* domain) override;
    bool StartQueryRecords(const char* name, const char* type, bool longLiveQuery) override;
    void StopQueryRecords(const char* name, const char* type) override;
    bool RegisterService(const char* name, const char* type, const vd::SReconfigInfo& info) override;
    bool TerminateRegistration() override;
    bool IsRegistered() override;

protected:
    // Avahi's callbacks. Each casts userdata to the object and calls the handler of the same arguments.
    static void SAvahiClientStateChanged_callback(AvahiClient* client, AvahiClientState state, void* userdata);
    static void SServiceBrowse_callback(AvahiServiceBrowser* browser, AvahiIfIndex interface,
                                        AvahiProtocol protocol, AvahiBrowserEvent event, const char* name,
                                        const char* type, const char* domain, AvahiLookupResultFlags flags,
                                        void* userdata);
    static void SServiceResolve_callback(AvahiServiceResolver* resolver, AvahiIfIndex interface,
                                         AvahiProtocol protocol, AvahiResolverEvent event, const char* name,
                                         const char* type, const char* domain, const char* host_name,
                                         const AvahiAddress* address, uint16_t port, AvahiStringList* txt,
                                         AvahiLookupResultFlags flags, void* userdata);
    static void SAvahiRecordBrowser_callback(AvahiRecordBrowser* browser, AvahiIfIndex interface,
                                             AvahiProtocol protocol, AvahiBrowserEvent event, const char* name,
                                             uint16_t clazz, uint16_t type, const void* rdata, size_t size,
                                             AvahiLookupResultFlags flags, void* userdata);
    static void SEntryGroup_callback(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata);

    /** Logs the failure of the client; every other state is ignored. */
    virtual void AvahiClientStateChanged(AvahiClient* client, AvahiClientState state, void* userdata);

    /** Resolves a service that appeared; announces and forgets one that disappeared. */
    virtual void ServiceBrowse(AvahiServiceBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                               const char* name, const char* type, const char* domain,
                               AvahiLookupResultFlags flags, void* userdata);

    /** Fills the record of a resolved web service, signals what is new, and follows its addresses. */
    virtual void ServiceResolve(AvahiServiceResolver* resolver, int interface, int protocol,
                                AvahiResolverEvent event, const char* name, const char* type, const char* domain,
                                const char* host_name, const AvahiAddress* address, unsigned short port,
                                AvahiStringList* txt, AvahiLookupResultFlags flags, void* userdata);

    /** Adds an address to the record of the service on the host @p name, or notes its removal. */
    virtual void RecordBrowse(AvahiRecordBrowser* browser, int interface, int protocol, AvahiBrowserEvent event,
                              const char* name, unsigned short clazz, unsigned short type, const void* rdata,
                              unsigned long size, AvahiLookupResultFlags flags, void* userdata);

    /**
     * Logs the state of the published service, and leaves it at that: after a collision nothing is renamed and
     * nothing published.
     *
     * It may be called from inside RegisterService(). RegisterService(), UpdateTxtRecord() and
     * TerminateRegistration() fail there; do it by a queued call. An override must not run an event loop.
     */
    virtual void AvahiEntryGroupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata);

    /**
     * Frees every Avahi object and forgets every service; calling it again is harmless.
     * entryGroup, longLiveResolver and longLiveRecordBrowser keep their values, which are dangling then.
     */
    void cleanupAvahiMembers();

    /** The value of @p key in @p list as text; empty when there is no such key or it has no value. */
    QString getAvahiStringListValue(AvahiStringList* list, const char* key);

    /**
     * Reads the maker's keys, each ending in "." + VENDOR_TXT_DOMAIN: ser_no (three raw bytes, most
     * significant first), full_name, fs_vers, error, userdata_owner, privacy_mode ("T" for true).
     * A missing text key empties its member.
     */
    void GetVandrelTxtRecord(SServiceInfo& info, AvahiStringList* list);

    /**
     * Reads Snap Server's keys, each ending in ".snapserver.com": ser_no (three raw bytes, most
     * significant first), model, sw_version, error, totalcapacity, freecapacity.
     * A missing text key empties its member.
     */
    void GetSnapServerTxtRecord(SServiceInfo& info, AvahiStringList* list);

    /**
     * Recognises the vendor by its serial key, sets the device's kind and reads its keys.
     * @return false, and only a message written, when there is neither vendor's key.
     */
    bool readVendorTxtRecord(SServiceInfo& info, const char* name, const char* type, const char* domain,
                             AvahiStringList* txt);

    /** Reads nothing: nothing is known of Axis' keys. */
    void GetAxisTxtRecord(SServiceInfo& info, AvahiStringList* list);

    /**
     * Rebuilds txtRecord from @p info. Always true.
     *
     * Each string is a label, ".", VENDOR_TXT_DOMAIN, "=" and a value, on the wire in this order:
     *
     * | label | value |
     * |---|---|
     * | DNS1, DNS2, DNS3 | 4 raw bytes; each for DEVICE_KIND_SNAP_SERVER only, and only when not 0 |
     * | ZEPH | 3 raw bytes, the low 24 bits of zephValue, most significant first |
     * | USER | text |
     * | PWD | Base64 of the password, with padding |
     * | NEWIP, MASK | 4 raw bytes |
     * | SAVE | "T" or "F" |
     *
     * The 4 bytes are those of the member as they lie in memory. Text is UTF-8 (with Qt 4, of the codec for C
     * strings).
     */
    bool CreateTxtRecord(const vd::SReconfigInfo& info);

    /**
     * Replaces the whole TXT record of the published service by the one string @p txt, of at most 255 bytes. Leaves
     * txtRecord as it is.
     * @return false when nothing is published, the string is null or too long, or the daemon refuses, as it does after
     * a RegisterService() for another name that failed; the log then has Avahi's error code.
     */
    bool UpdateTxtRecord(const char* txt);

    /** The same as UpdateTxtRecord(): it replaces, it does not add. */
    bool AddTxtRecord(const char* txt);

    /** Whether entryGroup is neither null nor dangling. */
    bool hasEntryGroup() const;

    /** The one client, made by the first BrowseServices(). */
    AvahiClient* client;
    /** In order of creation. */
    QList<AvahiServiceBrowser*> serviceBrowsers;
    /** The resolver kept last for a long-lived query. Dangling after TerminateBrowsing(). */
    AvahiServiceResolver* longLiveResolver;
    /** The address browser opened last for a long-lived query. Dangling once that query has ended. */
    AvahiRecordBrowser* longLiveRecordBrowser;
    /** Unused; for classes that derive from this one. */
    QList<vd::SResolverInfo> resolvers;
    /** The published service. Dangling after TerminateBrowsing(), or when it could not be freed without an error. */
    AvahiEntryGroup* entryGroup;
    /** Of the last RegisterService(), be it successful or not. */
    std::string registeredName;
    std::string registeredType;
    /** What CreateTxtRecord() built last. Owned. */
    AvahiStringList* txtRecord;

private:
    Q_DISABLE_COPY(AvahiServiceDiscovery)

    class HandlerScope;
    class EntryGroupCall;

    bool makeClient(const AvahiPoll* poll, const HandlerScope& scope);
    void removeService(const char* name, const char* type, const char* domain);
    void removeFromQueue(const QString& name, const QString& type);
    bool isResolveFailureFinal(const char* name, const char* type, const char* domain, const char* host_name);
    void announceResolved(const QString& key, const QString& address, quint16 checksum, const HandlerScope& scope);
    void followAddresses(int interface, int protocol, const char* name, const char* type, const char* host_name);
    void endResolve(const QString& key, const HandlerScope& scope);
    void addAddress(const QString& key, const QString& address);
    bool markAddressRemoved(const QString& key, const QString& address);
    void freeResolver(AvahiServiceResolver* resolver);
    void freeClient(AvahiClient* freed);
    bool makeEntryGroup();
    bool addToEntryGroup(int refusal);
    int addService(const std::string& name, const std::string& type);
    bool commitEntryGroup();
    int updatePublishedTxt(const char* txt);
    int resetEntryGroup();
    int freeEntryGroup();

    // What slots and overrides have freed must not be touched again; the members above keep their values then and so
    // cannot tell. Nor must they interfere with what Avahi is at work on.
    HandlerScope* innermostHandler;
    EntryGroupCall* runningGroupCall;
    AvahiServiceResolver* freedLongLiveResolver;
    AvahiEntryGroup* freedEntryGroup;
    bool releasing;
    bool makingClient;
};

} // namespace vd

#endif
