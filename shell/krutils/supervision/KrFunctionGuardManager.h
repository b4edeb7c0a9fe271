#ifndef KRFUNCTIONGUARDMANAGER_H
#define KRFUNCTIONGUARDMANAGER_H

#include <krutils/krutils_export.h>

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>

class KrReportFlow;
class KrThread;

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
/// Guards reach the monitor as queued signals; its table is touched only on its own thread. The
/// instance lives until the process exits; its destruction stops and joins the monitor thread.
class KRUTILS_EXPORT KrFunctionGuardManager : public QObject
{
    Q_OBJECT

public:
    /// The instance, created on the first call.
    static KrFunctionGuardManager *getInstance();

    /// Creates and starts the monitor thread. Call it once, from the application's start-up
    /// code; later calls do nothing.
    void start();

    /// Emit signalFuctionGuardAdd and signalFuctionGuardDelete; called from any thread.
    ///@{
    void FuctionGuardAdd(QObject *guard, const QString &text, int iTime);
    void FuctionGuardDelete(QObject *guard);
    ///@}

Q_SIGNALS:
    /// A guard created (with its text and budget in seconds) or destroyed. Once the monitor
    /// runs, each reaches the slot of the same name on the monitor thread.
    ///@{
    void signalFuctionGuardAdd(QObject *guard, const QString &text, int iTime);
    void signalFuctionGuardDelete(QObject *guard);
    ///@}

public Q_SLOTS:
    /// The slots run on the monitor thread. This one runs first, as the thread starts: it
    /// connects the signals to the slots and starts the once-a-second count-down.
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
    // Whether anything listens to the guard reports, so that guards can skip building texts.
    bool isReportListened() const;

    struct GuardRecord
    {
        int remaining;
        QString text;
    };

    QMap<QObject *, GuardRecord> m_guardTable;
    const int m_defaultTimeOut = 60;
    QPointer<KrThread> m_thread; // the thread deletes itself once it has finished
    const std::unique_ptr<KrReportFlow> m_flow;
};

#endif // KRFUNCTIONGUARDMANAGER_H
