#include "CKrUUID.h"

#include <QDateTime>
#include <QNetworkInterface>
#include <QStringList>
#include <QUuid>

#include <algorithm>

CKrUUID *CKrUUID::GetInstance()
{
    static CKrUUID instance;
    return &instance;
}

CKrUUID::CKrUUID(QObject *parent)
    : QObject(parent), sequence(0), lastTime(QTime::currentTime().msecsSinceStartOfDay())
{
}

QString CKrUUID::GetUuid()
{
    // Id128 is the braces-less, hyphen-less lower-case form in one step.
    return loginName % QLatin1Char('-')
            % QString::fromLatin1(QUuid::createUuid().toByteArray(QUuid::Id128));
}

QString CKrUUID::getLoginName() const
{
    return loginName;
}

void CKrUUID::setLoginName(const QString &name)
{
    loginName = name;
}

QString CKrUUID::GetDataTime()
{
    const QString stamp
            = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMddhhmmsszzz"));
    // The clock is read again after the text was formed: the sequence follows this second
    // reading, so two stamps with the same text can still end in 0 each.
    const int now = QTime::currentTime().msecsSinceStartOfDay();
    if (now != lastTime) {
        lastTime = now;
        sequence = 0;
    } else {
        ++sequence;
    }
    return stamp + QString::number(sequence);
}

QString CKrUUID::GetMac()
{
    QList<InterfaceFacts> interfaces;
    const auto all = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : all) {
        interfaces.append({interface.flags().testFlag(QNetworkInterface::IsUp),
                           interface.flags().testFlag(QNetworkInterface::IsLoopBack),
                           interface.hardwareAddress()});
    }
    return joinHardwareAddresses(interfaces);
}

QString CKrUUID::joinHardwareAddresses(const QList<InterfaceFacts> &interfaces)
{
    static const QString zeroByte = QStringLiteral("00");
    QString joined;
    for (const InterfaceFacts &interface : interfaces) {
        if (!interface.isUp || interface.isLoopBack)
            continue;
        const QStringList parts = interface.hardwareAddress.split(QLatin1Char(':'));
        const bool allZero = parts.size() == 6
                && std::all_of(parts.cbegin(), parts.cend(),
                               [](const QString &part) { return part == zeroByte; });
        if (allZero)
            continue;
        for (const QString &part : parts)
            joined += part;
    }
    return joined;
}
