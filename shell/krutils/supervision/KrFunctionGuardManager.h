#ifndef KRFUNCTIONGUARDMANAGER_H
#define KRFUNCTIONGUARDMANAGER_H

#include <krutils/krutils_export.h>

#include <QMap>
#include <QObject>
#include <QString>

#include <memory>

class KrMonitorCore;
struct KrMonitorReport;

/// The process-wide monitor of the function guards (KrFunctionGuard).
///
/// It keeps one record per live guard, counts each down once a second on a thread of its own
/// ("KrFuctionGuardManager") and, when a guard has outlived its budget, writes a warning that
/// names the guard and its text; the guard is then forgotten. A budget of N seconds is reported
/// at the (N+1)-th tick. It observes only.
///
/// The application starts it once, early (the library never does):
///
///     KrFunctionGuardManager::getInstance()->start();
///
/// Guards reach the monitor the way locks reach the lock monitor (KrMutexManager): handed over
/// without a queued signal, recorded in order before each count-down, with the report signals
/// emitted on the guard's thread to whatever connects to them. The instance lives until the
/// process exits; its destruction stops and joins the monitor thread.
class KRUTILS_EXPORT KrFunctionGuardManager : public QObject
{
    Q_OBJECT

public:
    /// The instance, created on the first call.
    static KrFunctionGuardManager *getInstance();

    /// Creates and starts the monitor thread. Call it once, from the application's start-up
    /// code; later calls do nothing.
    void start();

    /// Report a guard's start and end: recorded once the monitor is started, and emitted as
    /// signalFuctionGuardAdd and signalFuctionGuardDelete. Called from any thread.
    ///@{
    void FuctionGuardAdd(QObject *guard, const QString &text, int iTime);
    void FuctionGuardDelete(QObject *guard);
    ///@}

Q_SIGNALS:
    /// A guard created (with its text and budget in seconds) or destroyed, emitted on the guard's
    /// thread to whatever connects to them.
    ///@{
    void signalFuctionGuardAdd(QObject *guard, const QString &text, int iTime);
    void signalFuctionGuardDelete(QObject *guard);
    ///@}

public Q_SLOTS:
    /// initManger() runs on the monitor thread as it starts. The other slots record a report
    /// directly, after every report made before; they may be called from any thread.
    void initManger();
    /// Records a guard with its budget (60 seconds when `iTime` <= 0), or forgets it. A second
    /// record for the same guard keeps the first one and its count-down.
    void slotFuctionGuardAdd(QObject *guard, const QString &text, int iTime);
    /// Forgets the guard.
    void slotFuctionGuardDelete(QObject *guard);

protected:
    /// The count-down: each second every record loses a second, and those past their budget
    /// are reported.
    void timerEvent(QTimerEvent *event) override;
    /// Notes that the guard reports are listened to, so that the guards start reporting.
    void connectNotify(const QMetaMethod &signal) override;

private:
    KrFunctionGuardManager();
    ~KrFunctionGuardManager() override;
    Q_DISABLE_COPY(KrFunctionGuardManager)

    friend class KrFunctionGuard;
    // A guard's start reported with its two texts: the guard text is built only where it is used.
    void reportAdd(QObject *guard, const QString &first, const QString &second, int iTime);
    void record(KrMonitorReport *reports, int count);

    struct GuardRecord
    {
        int remaining;
        QString text;
    };

    QMap<QObject *, GuardRecord> m_guardTable; // under the core's table lock
    const int m_defaultTimeOut = 60;
    // Declared last, so destroyed first: the monitor thread stops before the table goes.
    const std::unique_ptr<KrMonitorCore> m_core;
};

#endif // KRFUNCTIONGUARDMANAGER_H
