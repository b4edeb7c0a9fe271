#ifndef KRMONITOREVENTDISPATCHER_P_H
#define KRMONITOREVENTDISPATCHER_P_H

#include <krutils/krutils_export.h>

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QVector>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

// Internal: the event dispatcher of the monitors' threads.
//
// A monitor thread receives a queued report for every lock taken and released in the process,
// and has nothing else to do but a one-second timer. Qt's default dispatcher on Linux (GLib)
// makes a system call to wake the thread for every single post, and a thread woken for each
// report contends with the reporters for the event queue on every event. This one wakes the
// thread only for the first post after it fell asleep, gives the rest of the burst BurstDelay to
// arrive, and then delivers the whole burst: a report reaches the monitor a few milliseconds
// late, and reporting costs far less. Timers are supported at millisecond resolution; socket
// notifiers are not (a monitor has no sockets).
class KRUTILS_EXPORT KrMonitorEventDispatcher
    : public QAbstractEventDispatcher // exported for the tests
{
public:
    static constexpr std::chrono::milliseconds BurstDelay {3};

    KrMonitorEventDispatcher();
    ~KrMonitorEventDispatcher() override;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;

    void registerSocketNotifier(QSocketNotifier *notifier) override;
    void unregisterSocketNotifier(QSocketNotifier *notifier) override;

    void registerTimer(int timerId, int interval, Qt::TimerType timerType,
                       QObject *object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject *object) override;
    QList<TimerInfo> registeredTimers(QObject *object) const override;
    int remainingTime(int timerId) override;

    void wakeUp() override;
    void interrupt() override;
    void flush() override;

private:
    struct Timer
    {
        int id;
        int interval;
        Qt::TimerType type;
        QObject *object;
        qint64 due; // on m_clock, in ms
    };

    bool activateDueTimers();
    qint64 nextTimerDue() const;

    // The timer list is touched only on the dispatcher's own thread.
    QVector<Timer> m_timers;
    QElapsedTimer m_clock;

    std::atomic<bool> m_wakePending {false};
    std::atomic<bool> m_interrupted {false};
    std::mutex m_sleepMutex;
    std::condition_variable m_sleep;
};

#endif // KRMONITOREVENTDISPATCHER_P_H
