#include "KrMutexLocker.h"

#include "KrMutex.h"

#include <QMutex>

KrMutexLocker::KrMutexLocker(QMutex *lock, const QString &first, int line, const QString &second)
{
    if (!lock)
        return;
    Q_ASSERT_X((reinterpret_cast<quintptr>(lock) & 1) == 0, "KrMutexLocker",
               "lock must be aligned");
    KrMutex::lock(lock, first, line, second);
    m_value = reinterpret_cast<quintptr>(lock) | 1;
}

KrMutexLocker::~KrMutexLocker()
{
    unlock();
}

void KrMutexLocker::unlock()
{
    if ((m_value & 1) == 0)
        return;
    m_value &= ~quintptr(1);
    KrMutex::unlock(mutex());
}
