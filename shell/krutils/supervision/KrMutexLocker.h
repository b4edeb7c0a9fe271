#ifndef KRMUTEXLOCKER_H
#define KRMUTEXLOCKER_H

#include <krutils/krutils_export.h>

#include <QString>

class QMutex;

/// A scope guard over a QMutex, reported to the lock monitor like the calls of KrMutex:
/// it behaves like QMutexLocker with a call site.
///
///     {
///         KrMutexLocker locker(&m_lock, QStringLiteral("book.cpp"), __LINE__,
///                              QStringLiteral("Book::update"));
///         ...
///     } // released and reported here
///
/// A null lock makes a guard that holds nothing. unlock() may be called more than once; the lock
/// is released and reported exactly once.
///
/// A locker belongs to the thread that made it, as a QMutexLocker does: it is not shared, and only
/// that thread calls unlock() or ends its scope.
class KRUTILS_EXPORT KrMutexLocker
{
public:
    /// Takes `lock` with KrMutex::lock() and the call site `first`, `line`, `second`.
    KrMutexLocker(QMutex *lock, const QString &first, int line, const QString &second);
    ~KrMutexLocker();

    /// Releases the lock and reports the release; later calls do nothing.
    void unlock();
    /// The guarded lock, also after unlock(); null for a guard made with a null lock.
    QMutex *mutex() const { return reinterpret_cast<QMutex *>(m_value & ~quintptr(1)); }

private:
    Q_DISABLE_COPY(KrMutexLocker)

    quintptr m_value = 0; // the lock's address, with the lowest bit set while the lock is held
};

#endif // KRMUTEXLOCKER_H
