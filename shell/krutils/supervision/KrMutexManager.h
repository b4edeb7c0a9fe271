#ifndef KRMUTEXMANAGER_H
#define KRMUTEXMANAGER_H

#include <krutils/krutils_export.h>

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>

#include <memory>

class QReadWriteLock;
class KrMonitorCore;
struct KrMonitorReport;

/// The process-wide monitor of the instrumented locks (KrMutex, KrMutexLocker, KrReadLocker,
/// KrWriteLocker).
///
/// It keeps one record for every lock that is currently held, counts each record down once a
/// second on a thread of its own ("KrMutexManager") and writes a warning with the call-site text
/// of a lock that has been held for 60 seconds:
///
///     mutex lock time out , please check it quotes.cpp        120        QuoteBook::update
///
/// It observes only; it never releases or breaks a lock. Each record is reported once and then
/// forgotten.
///
/// The application starts it once, early (the library never does):
///
///     KrMutexManager::getInstance()->start();
///
/// Before start() nothing is recorded and the lock wrappers skip their reports altogether. Once
/// it is started, a report costs its locker some tens of nanoseconds: it is handed to the monitor
/// without a queued signal and recorded, in the order the reports were made, before anything
/// reads the tables (the count-down each second, containsMutex()), so a query sees every lock
/// taken and released before it. A thread that floods the monitor with reports never waits for
/// the monitor thread, and the monitor's memory stays bounded. The report signals are emitted on
/// the reporting thread to whatever connects to them, whether or not the monitor is started.
///
/// The instance lives until the process exits; its destruction stops and joins the monitor thread.
class KRUTILS_EXPORT KrMutexManager : public QObject
{
    Q_OBJECT

public:
    /// The instance, created on the first call.
    static KrMutexManager *getInstance();

    /// Creates and starts the monitor thread. Call it once, from the application's start-up
    /// code; later calls do nothing.
    void start();

    /// Report a take or a release: recorded once the monitor is started, and emitted as the signal
    /// of the same name. Called from any thread, by the lock wrappers among others.
    ///@{
    void mutexLock(QMutex *mutex, const QString &text);
    void mutexUnLock(QMutex *mutex);
    void readWriteMutexLock(QReadWriteLock *lock, const QString &text);
    void readWriteMutexUnLock(QReadWriteLock *lock);
    ///@}

    /// Whether a record for the lock exists now; callable from any thread.
    ///@{
    bool containsMutex(QMutex *mutex);
    bool containsReadWriteMutex(QReadWriteLock *lock);
    ///@}

Q_SIGNALS:
    /// A lock taken (with its call-site text) or released, emitted on the locking thread to
    /// whatever connects to them.
    ///@{
    void signalMutexLock(QMutex *mutex, const QString &text);
    void signalMutexUnLock(QMutex *mutex);
    void signalReadWriteMutexLock(QReadWriteLock *lock, const QString &text);
    void signalReadWriteMutexUnLock(QReadWriteLock *lock);
    ///@}

public Q_SLOTS:
    /// initManger() runs on the monitor thread as it starts. The other slots record a report
    /// directly, after every report made before; they may be called from any thread.
    void initManger();
    /// Records a lock with 60 seconds to live, or forgets it.
    ///@{
    void slotMutexLock(QMutex *mutex, const QString &text);
    void slotMutexUnLock(QMutex *mutex);
    void slotReadWriteMutexLock(QReadWriteLock *lock, const QString &text);
    void slotReadWriteMutexUnLock(QReadWriteLock *lock);
    ///@}

protected:
    /// The count-down: each second every record loses a second, and those at 0 are reported.
    void timerEvent(QTimerEvent *event) override;
    /// Notes that the lock reports are listened to, so that the wrappers start reporting.
    void connectNotify(const QMetaMethod &signal) override;

private:
    KrMutexManager();
    ~KrMutexManager() override;
    Q_DISABLE_COPY(KrMutexManager)

    friend class KrMutex;
    // A take reported with its call site: the text is built only where it is used.
    void reportLock(QMutex *mutex, const QString &first, int line, const QString &second);
    void reportLock(QReadWriteLock *lock, const QString &first, int line, const QString &second);
    void record(KrMonitorReport *reports, int count);

    struct LockRecord
    {
        int remaining;
        QString text;
    };

    // Both tables are held under the core's table lock, by the slots, the queries and each scan.
    QMap<QMutex *, LockRecord> m_mutexTable;
    QMap<QReadWriteLock *, LockRecord> m_readWriteTable;
    const int m_timeOut = 60;
    // Declared last, so destroyed first: the monitor thread stops before the tables go.
    const std::unique_ptr<KrMonitorCore> m_core;
};

#endif // KRMUTEXMANAGER_H
