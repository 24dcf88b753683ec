// SPDX-License-Identifier: MIT
#include <vd/MACAddress.h>

#include <QtCore/QByteArray>
#include <QtCore/QLatin1Char>
#include <QtCore/QStringList>

#include <algorithm>

namespace vd {

MACAddress::MACAddress()
{
    std::fill(m_bytes, m_bytes + BYTE_COUNT, quint8(0));
}

MACAddress::MACAddress(const quint8 (&bytes)[BYTE_COUNT])
{
    std::copy(bytes, bytes + BYTE_COUNT, m_bytes);
}

QString MACAddress::toString() const
{
    QStringList pairs;
    for (int i = 0; i < BYTE_COUNT; ++i)
        pairs << QString::number(m_bytes[i], 16).rightJustified(2, QLatin1Char('0'));
    return pairs.join(QString(QLatin1Char(':')));
}

} // namespace vd
