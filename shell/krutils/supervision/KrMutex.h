#ifndef KRMUTEX_H
#define KRMUTEX_H

#include <krutils/krutils_export.h>

#include <QString>

class QMutex;
class QReadWriteLock;

/// Instrumented locking: each call takes or releases a QMutex or QReadWriteLock and then reports
/// it to the lock monitor (KrMutexManager), which warns about locks held for 60 seconds.
///
/// Every locking call takes the call site as a first text, a line and a second text, usually the
/// file, the line and the function; the monitor logs them as one text:
/// "quotes.cpp        120        QuoteBook::update". The lock is always taken (or released)
/// first and reported after, so no report is made while the caller waits for a lock. The try
/// functions report only when they succeed; timeouts are in milliseconds, as in Qt. Locks are
/// never checked for null.
///
/// Costs: while the monitor is not started the report is skipped (no text is built), which keeps
/// a lock/unlock pair within a few times a plain QMutexLocker pair. Once it is started, a report
/// is handed to the monitor in some tens of nanoseconds, and the call-site text is built only
/// when the monitor records the lock for good. Pass the texts as QStringLiteral (or other shared
/// QStrings) so that they are not converted on every call.
///
/// Prefer the scope guards KrMutexLocker, KrReadLocker and KrWriteLocker.
class KRUTILS_EXPORT KrMutex
{
public:
    /// Locks `mutex`, waiting as long as it takes, then reports the lock.
    static void lock(QMutex *mutex, const QString &first, int line, const QString &second);
    /// Tries to lock `mutex` within `timeout` milliseconds (QMutex::tryLock()); reports the lock
    /// and returns true when it got it.
    static bool trylock(QMutex *mutex, int timeout, const QString &first, int line,
                        const QString &second);
    /// Locks `lock` for reading, waiting as long as it takes, then reports the lock.
    static void lockForRead(QReadWriteLock *lock, const QString &first, int line,
                            const QString &second);
    /// Locks `lock` for writing, waiting as long as it takes, then reports the lock.
    static void lockForWrite(QReadWriteLock *lock, const QString &first, int line,
                             const QString &second);
    /// Tries to lock `lock` for reading, at once or within `timeout` milliseconds; reports the
    /// lock and returns true when it got it.
    ///@{
    static bool tryLockForRead(QReadWriteLock *lock, const QString &first, int line,
                               const QString &second);
    static bool tryLockForRead(QReadWriteLock *lock, int timeout, const QString &first, int line,
                               const QString &second);
    ///@}
    /// Tries to lock `lock` for writing, at once or within `timeout` milliseconds; reports the
    /// lock and returns true when it got it.
    ///@{
    static bool tryLockForWrite(QReadWriteLock *lock, const QString &first, int line,
                                const QString &second);
    static bool tryLockForWrite(QReadWriteLock *lock, int timeout, const QString &first, int line,
                                const QString &second);
    ///@}
    /// Unlocks `mutex`, then reports the release.
    static void unlock(QMutex *mutex);
    /// Unlocks `lock`, held for reading or for writing, then reports the release.
    static void unlockReadWrite(QReadWriteLock *lock);
};

#endif // KRMUTEX_H
