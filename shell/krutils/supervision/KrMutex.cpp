#include "KrMutex.h"

#include "KrMutexManager.h"

#include <QMutex>
#include <QReadWriteLock>
#include <QStringBuilder>

namespace {

QString callSiteText(const QString &first, int line, const QString &second)
{
    const QLatin1String gap("        ");
    return first % gap % QString::number(line) % gap % second;
}

} // namespace

void KrMutex::reportLock(QMutex *mutex, const QString &first, int line, const QString &second)
{
    KrMutexManager *monitor = KrMutexManager::getInstance();
    if (monitor->isReportListened())
        monitor->mutexLock(mutex, callSiteText(first, line, second));
}

void KrMutex::reportLock(QReadWriteLock *lock, const QString &first, int line,
                         const QString &second)
{
    KrMutexManager *monitor = KrMutexManager::getInstance();
    if (monitor->isReportListened())
        monitor->readWriteMutexLock(lock, callSiteText(first, line, second));
}

void KrMutex::lock(QMutex *mutex, const QString &first, int line, const QString &second)
{
    mutex->lock();
    reportLock(mutex, first, line, second);
}

bool KrMutex::trylock(QMutex *mutex, int timeout, const QString &first, int line,
                      const QString &second)
{
    const bool taken = mutex->tryLock(timeout);
    if (taken)
        reportLock(mutex, first, line, second);
    return taken;
}

void KrMutex::lockForRead(QReadWriteLock *lock, const QString &first, int line,
                          const QString &second)
{
    lock->lockForRead();
    reportLock(lock, first, line, second);
}

void KrMutex::lockForWrite(QReadWriteLock *lock, const QString &first, int line,
                           const QString &second)
{
    lock->lockForWrite();
    reportLock(lock, first, line, second);
}

bool KrMutex::tryLockForRead(QReadWriteLock *lock, const QString &first, int line,
                             const QString &second)
{
    const bool taken = lock->tryLockForRead();
    if (taken)
        reportLock(lock, first, line, second);
    return taken;
}

bool KrMutex::tryLockForRead(QReadWriteLock *lock, int timeout, const QString &first, int line,
                             const QString &second)
{
    const bool taken = lock->tryLockForRead(timeout);
    if (taken)
        reportLock(lock, first, line, second);
    return taken;
}

bool KrMutex::tryLockForWrite(QReadWriteLock *lock, const QString &first, int line,
                              const QString &second)
{
    const bool taken = lock->tryLockForWrite();
    if (taken)
        reportLock(lock, first, line, second);
    return taken;
}

bool KrMutex::tryLockForWrite(QReadWriteLock *lock, int timeout, const QString &first, int line,
                              const QString &second)
{
    const bool taken = lock->tryLockForWrite(timeout);
    if (taken)
        reportLock(lock, first, line, second);
    return taken;
}

void KrMutex::unlock(QMutex *mutex)
{
    mutex->unlock();
    KrMutexManager *monitor = KrMutexManager::getInstance();
    if (monitor->isReportListened())
        monitor->mutexUnLock(mutex);
}

void KrMutex::unlockReadWrite(QReadWriteLock *lock)
{
    lock->unlock();
    KrMutexManager *monitor = KrMutexManager::getInstance();
    if (monitor->isReportListened())
        monitor->readWriteMutexUnLock(lock);
}
