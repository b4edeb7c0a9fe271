#ifndef KRREADLOCKER_H
#define KRREADLOCKER_H

#include <krutils/krutils_export.h>

#include <QString>

class QReadWriteLock;

/// A scope guard that holds a QReadWriteLock for reading, reported to the lock monitor like the
/// calls of KrMutex: it behaves like QReadLocker with a call site.
///
///     {
///         KrReadLocker locker(&m_lock, QStringLiteral("book.cpp"), __LINE__,
///                             QStringLiteral("Book::update"));
///         ...
///     } // released and reported here
///
/// A null lock makes a guard that holds nothing. unlock() may be called more than once; the lock
/// is released and reported exactly once.
///
/// A locker belongs to the thread that made it, as a QReadLocker does: it is not shared, and only
/// that thread calls unlock() or ends its scope.
class KRUTILS_EXPORT KrReadLocker
{
public:
    /// Takes `lock` with KrMutex::lockForRead() and the call site `first`, `line`, `second`.
    KrReadLocker(QReadWriteLock *lock, const QString &first, int line, const QString &second);
    ~KrReadLocker();

    /// Releases the lock and reports the release; later calls do nothing.
    void unlock();
    /// The guarded lock, also after unlock(); null for a guard made with a null lock.
    QReadWriteLock *readWriteLock() const
    {
        return reinterpret_cast<QReadWriteLock *>(m_value & ~quintptr(1));
    }

private:
    Q_DISABLE_COPY(KrReadLocker)

    quintptr m_value = 0; // the lock's address, with the lowest bit set while the lock is held
};

#endif // KRREADLOCKER_H
