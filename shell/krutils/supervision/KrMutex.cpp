#include "KrMutex.h"

#include "KrMutexManager.h"

#include <QMutex>
#include <QReadWriteLock>

void KrMutex::lock(QMutex *mutex, const QString &first, int line, const QString &second)
{
    mutex->lock();
    KrMutexManager::getInstance()->reportLock(mutex, first, line, second);
}

bool KrMutex::trylock(QMutex *mutex, int timeout, const QString &first, int line,
                      const QString &second)
{
    const bool taken = mutex->tryLock(timeout);
    if (taken)
        KrMutexManager::getInstance()->reportLock(mutex, first, line, second);
    return taken;
}

void KrMutex::lockForRead(QReadWriteLock *lock, const QString &first, int line,
                          const QString &second)
{
    lock->lockForRead();
    KrMutexManager::getInstance()->reportLock(lock, first, line, second);
}

void KrMutex::lockForWrite(QReadWriteLock *lock, const QString &first, int line,
                           const QString &second)
{
    lock->lockForWrite();
    KrMutexManager::getInstance()->reportLock(lock, first, line, second);
}

bool KrMutex::tryLockForRead(QReadWriteLock *lock, const QString &first, int line,
                             const QString &second)
{
    const bool taken = lock->tryLockForRead();
    if (taken)
        KrMutexManager::getInstance()->reportLock(lock, first, line, second);
    return taken;
}

bool KrMutex::tryLockForRead(QReadWriteLock *lock, int timeout, const QString &first, int line,
                             const QString &second)
{
    const bool taken = lock->tryLockForRead(timeout);
    if (taken)
        KrMutexManager::getInstance()->reportLock(lock, first, line, second);
    return taken;
}

bool KrMutex::tryLockForWrite(QReadWriteLock *lock, const QString &first, int line,
                              const QString &second)
{
    const bool taken = lock->tryLockForWrite();
    if (taken)
        KrMutexManager::getInstance()->reportLock(lock, first, line, second);
    return taken;
}

bool KrMutex::tryLockForWrite(QReadWriteLock *lock, int timeout, const QString &first, int line,
                              const QString &second)
{
    const bool taken = lock->tryLockForWrite(timeout);
    if (taken)
        KrMutexManager::getInstance()->reportLock(lock, first, line, second);
    return taken;
}

void KrMutex::unlock(QMutex *mutex)
{
    mutex->unlock();
    KrMutexManager::getInstance()->mutexUnLock(mutex);
}

void KrMutex::unlockReadWrite(QReadWriteLock *lock)
{
    lock->unlock();
    KrMutexManager::getInstance()->readWriteMutexUnLock(lock);
}
