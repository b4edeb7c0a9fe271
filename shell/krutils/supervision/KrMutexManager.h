#ifndef KRMUTEXMANAGER_H
#define KRMUTEXMANAGER_H

#include <krutils/krutils_export.h>

#include <QMap>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>

class QReadWriteLock;
class KrReportFlow;
class KrThread;

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
/// Before start() nothing is recorded and the lock wrappers skip their reports altogether.
/// Reports reach the monitor as queued signals, so lockers never wait for it; a record appears
/// shortly after its lock is taken and disappears shortly after it is released. A thread that
/// floods the monitor with reports faster than it can record them is paced so that the monitor's
/// memory stays bounded (see the lock wrappers for the costs).
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

    /// Each emits the signal of the same name; called from any thread by the lock wrappers.
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
    /// A lock taken (with its call-site text) or released. Once the monitor runs, each reaches
    /// the slot of the same name on the monitor thread; before start() nothing listens.
    ///@{
    void signalMutexLock(QMutex *mutex, const QString &text);
    void signalMutexUnLock(QMutex *mutex);
    void signalReadWriteMutexLock(QReadWriteLock *lock, const QString &text);
    void signalReadWriteMutexUnLock(QReadWriteLock *lock);
    ///@}

public Q_SLOTS:
    /// The slots run on the monitor thread. This one runs first, as the thread starts: it
    /// connects the signals to the slots and starts the once-a-second count-down.
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
    // Whether anything listens to the lock reports, so that lockers can skip building texts.
    bool isReportListened() const;

    struct LockRecord
    {
        int remaining;
        QString text;
    };

    QMutex m_guard; // over both tables; held by the slots, the queries and each whole scan
    QMap<QMutex *, LockRecord> m_mutexTable;
    QMap<QReadWriteLock *, LockRecord> m_readWriteTable;
    const int m_timeOut = 60;
    QPointer<KrThread> m_thread; // the thread deletes itself once it has finished
    const std::unique_ptr<KrReportFlow> m_flow;
};

#endif // KRMUTEXMANAGER_H
