#include "KrFunctionGuard.h"

#include "KrFunctionGuardManager.h"
#include "runtime/KrLogging_p.h"

#include <QDateTime>

struct KrFunctionGuardPrivate
{
    QString first;
    QString second;
    qint64 start = 0; // ms since the epoch, taken after the entry line
    bool flag = false;
};

KrFunctionGuard::KrFunctionGuard(const QString &first, const QString &second, bool flag,
                                 int timeout)
    : d(new KrFunctionGuardPrivate {first, second, 0, flag})
{
    krDebug(KrFunctionGuard) << "KrFuctionGuard enter" << first << second << this;
    d->start = QDateTime::currentMSecsSinceEpoch();
    KrFunctionGuardManager::getInstance()->reportAdd(this, first, second, timeout);
}

KrFunctionGuard::~KrFunctionGuard()
{
    const qint64 elapsed = QDateTime::currentMSecsSinceEpoch() - d->start;
    krDebug(KrFunctionGuard) << "~KrFuctionGuard exit , time elapsed " << elapsed << d->first
                             << d->second << this;
    KrFunctionGuardManager::getInstance()->FuctionGuardDelete(this);
}

bool KrFunctionGuard::flag() const
{
    return d->flag;
}
