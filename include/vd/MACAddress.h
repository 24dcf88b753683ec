// SPDX-License-Identifier: MIT
#ifndef VD_MACADDRESS_H
#define VD_MACADDRESS_H

#include <QtCore/QString>
#include <QtCore/QtGlobal>

namespace vd {

/**
 * A 6-byte hardware address, by default 00:00:00:00:00:00.
 *
 * Discovery only carries it from record to record. A host that has its own hardware-address type
 * supplies that one instead (see docs/building.md); the library then needs nothing of it but a default
 * constructor, copying and assignment.
 */
class Q_DECL_EXPORT MACAddress
{
public:
    /** The number of bytes in an address. */
    static const int BYTE_COUNT = 6;

    /** The empty address, six zero bytes. */
    MACAddress();

    /** Copies BYTE_COUNT bytes, the first transmitted one first. */
    explicit MACAddress(const quint8 (&bytes)[BYTE_COUNT]);

    /** Lower-case hexadecimal with colons, "00:1b:44:11:3a:b7". */
    QString toString() const;

private:
    quint8 m_bytes[BYTE_COUNT];
};

} // namespace vd

#endif
