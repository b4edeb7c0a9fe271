#include "KrReadLocker.h"

#include "KrMutex.h"

#include <QReadWriteLock>

KrReadLocker::KrReadLocker(QReadWriteLock *lock, const QString &first, int line,
                           const QString &second)
{
    if (!lock)
        return;
    Q_ASSERT_X((reinterpret_cast<quintptr>(lock) & 1) == 0, "KrReadLocker", "lock must be aligned");
    KrMutex::lockForRead(lock, first, line, second);
    m_value = reinterpret_cast<quintptr>(lock) | 1;
}

KrReadLocker::~KrReadLocker()
{
    unlock();
}

void KrReadLocker::unlock()
{
    if ((m_value & 1) == 0)
        return;
    m_value &= ~quintptr(1);
    KrMutex::unlockReadWrite(readWriteLock());
}
