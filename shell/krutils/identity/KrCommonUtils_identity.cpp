// KrCommonUtils: the terminal information, the machine's facts (KrMachineIdentity_p.h) written
// as the client reports them (KrIdentityFormat_p.h).

#include "KrIdentityFormat_p.h"
#include "KrMachineIdentity_p.h"

#include <krutils/KrCommonUtils.h>

#include <QHostAddress>
#include <QNetworkInterface>

#include <string>

namespace {

std::string toSystemText(const QString &text)
{
    return text.toUtf8().toStdString();
}

QString fromSystemText(const std::string &text)
{
    return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

} // namespace

QString KrCommonUtils::getCpuID()
{
    const KrMachine::CpuSignature signature = KrMachine::cpuSignature();
    return signature.ok ? KrIdentityFormat::cpuId(signature.eax, signature.edx) : QString();
}

QString KrCommonUtils::getDiskFileSysName(QString drive)
{
    const KrMachine::VolumeInfo volume = KrMachine::driveVolume(toSystemText(drive));
    return volume.ok ? KrIdentityFormat::fileSystemName(fromSystemText(volume.fileSystemName))
                     : QString();
}

QString KrCommonUtils::getDiskSerialNumber(QString drive)
{
    return KrIdentityFormat::volumeSerial(KrMachine::driveVolume(toSystemText(drive)).serialNumber);
}

long KrCommonUtils::getDiskTotalSize(QString drive)
{
    const KrMachine::DiskSize size = KrMachine::driveSize(toSystemText(drive));
    return size.ok ? KrIdentityFormat::wholeGiB(size.totalBytes) : 0;
}

QString KrCommonUtils::getHardDiskNumer()
{
    const KrMachine::SystemDirectory directory = KrMachine::systemDirectory(512);
    if (!directory.ok)
        return QString();
    const QString root = fromSystemText(directory.path).left(3); // "C:\" ("/" on Linux)
    return KrIdentityFormat::decimalSerial(KrMachine::rootVolume(toSystemText(root)).serialNumber);
}

QString KrCommonUtils::getSystemDiskFlag()
{
    const KrMachine::SystemDirectory directory = KrMachine::systemDirectory(260);
    return directory.ok ? KrIdentityFormat::systemDiskFlag(fromSystemText(directory.path))
                        : QString();
}

QString KrCommonUtils::get_localmachine_mac(QString ip)
{
    if (ip.isEmpty())
        return QString();
    QStringList hardwareAddresses;
    for (const QNetworkInterface &networkInterface : QNetworkInterface::allInterfaces())
        hardwareAddresses << networkInterface.hardwareAddress();
    QStringList hostAddresses;
    for (const QHostAddress &address : QNetworkInterface::allAddresses())
        hostAddresses << address.toString();
    return KrIdentityFormat::firstInterfaceMac(hardwareAddresses, hostAddresses, ip);
}
