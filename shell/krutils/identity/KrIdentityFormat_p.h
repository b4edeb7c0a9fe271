#ifndef KRIDENTITYFORMAT_P_H
#define KRIDENTITYFORMAT_P_H

// Internal: how KrCommonUtils writes the machine's identity facts (KrMachineIdentity_p.h) as
// the texts the client reports. Pure functions, apart from the system calls, so that the rules
// are tested on fixed values; defined in KrIdentityFormat.cpp and exported for the tests.

#include <krutils/krutils_export.h>

#include <QString>
#include <QStringList>

namespace KrIdentityFormat {

// EDX, then EAX, each upper-case hexadecimal without leading zeros.
KRUTILS_EXPORT QString cpuId(quint32 eax, quint32 edx);
// Upper-case hexadecimal without padding and "-" after the fourth digit, or after the last of
// fewer: 0x1A2B3C4D "1A2B-3C4D", 0xA2B3C4D "A2B3-C4D", 0x1234 "1234-", 0x12 "12-", 0 "0-".
KRUTILS_EXPORT QString volumeSerial(quint32 serial);
KRUTILS_EXPORT QString decimalSerial(quint32 serial);
// Whole GiB, rounded down.
KRUTILS_EXPORT long wholeGiB(quint64 bytes);
// The name without double quotes and apostrophes (other quotation marks stay).
KRUTILS_EXPORT QString fileSystemName(const QString &reported);
// The directory up to its first ":", or the whole directory when it has none.
KRUTILS_EXPORT QString systemDiskFlag(const QString &systemDirectory);
// The hardware address (colons removed) of the first of the interfaces, given as their hardware
// addresses in QNetworkInterface::allInterfaces() order, when ip is one of the host's address
// texts; empty otherwise.
KRUTILS_EXPORT QString firstInterfaceMac(const QStringList &interfaceHardwareAddresses,
                                         const QStringList &hostAddresses, const QString &ip);

} // namespace KrIdentityFormat

#endif // KRIDENTITYFORMAT_P_H
