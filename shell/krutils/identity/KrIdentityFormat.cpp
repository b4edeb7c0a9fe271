// How the machine's identity facts are written as the texts the client reports.

#include "KrIdentityFormat_p.h"

QString KrIdentityFormat::cpuId(quint32 eax, quint32 edx)
{
    return QString::number(edx, 16).toUpper() + QString::number(eax, 16).toUpper();
}

QString KrIdentityFormat::volumeSerial(quint32 serial)
{
    // QString::insert() past the end would pad with spaces; a short serial keeps its one dash
    // right after its digits instead.
    QString text = QString::number(serial, 16).toUpper();
    text.insert(qMin(4, text.size()), QLatin1Char('-'));
    return text;
}

QString KrIdentityFormat::decimalSerial(quint32 serial)
{
    return QString::number(serial);
}

long KrIdentityFormat::wholeGiB(quint64 bytes)
{
    return static_cast<long>(bytes >> 30);
}

QString KrIdentityFormat::fileSystemName(const QString &reported)
{
    QString name = reported;
    name.remove(QLatin1Char('"'));
    name.remove(QLatin1Char('\''));
    return name;
}

QString KrIdentityFormat::systemDiskFlag(const QString &systemDirectory)
{
    return systemDirectory.left(systemDirectory.indexOf(QLatin1Char(':')));
}

QString KrIdentityFormat::firstInterfaceMac(const QStringList &interfaceHardwareAddresses,
                                            const QStringList &hostAddresses, const QString &ip)
{
    // Each interface in turn would be asked whether ip is among the host's addresses, all of
    // them, not its own: so either the first one answers, or none does.
    if (ip.isEmpty() || interfaceHardwareAddresses.isEmpty() || !hostAddresses.contains(ip))
        return QString();
    QString mac = interfaceHardwareAddresses.first();
    mac.remove(QLatin1Char(':'));
    return mac;
}
