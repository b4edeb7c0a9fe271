#include "KrWriteLocker.h"

#include "KrMutex.h"

#include <QReadWriteLock>

KrWriteLocker::KrWriteLocker(QReadWriteLock *lock, const QString &first, int line,
                             const QString &second)
{
    if (!lock)
        return;
    Q_ASSERT_X((reinterpret_cast<quintptr>(lock) & 1) == 0, "KrWriteLocker",
               "lock must be aligned");
    KrMutex::lockForWrite(lock, first, line, second);
    m_value = reinterpret_cast<quintptr>(lock) | 1;
}

KrWriteLocker::~KrWriteLocker()
{
    unlock();
}

void KrWriteLocker::unlock()
{
    if ((m_value & 1) == 0)
        return;
    m_value &= ~quintptr(1);
    KrMutex::unlockReadWrite(readWriteLock());
}
