#include "KrMonitorEventDispatcher_p.h"

#include "KrLogging_p.h"

#include <QCoreApplication>
#include <QTimerEvent>

#include <algorithm>
#include <chrono>
#include <limits>

KrMonitorEventDispatcher::KrMonitorEventDispatcher()
{
    m_clock.start();
}

KrMonitorEventDispatcher::~KrMonitorEventDispatcher() = default;

bool KrMonitorEventDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    m_interrupted.store(false, std::memory_order_relaxed);
    emit awake();
    // Cleared before delivering, so a post that misses this delivery sets it again and wakes
    // the sleep below.
    m_wakePending.store(false, std::memory_order_relaxed);
    QCoreApplication::sendPostedEvents();
    const bool timersFired = activateDueTimers();

    if (!flags.testFlag(QEventLoop::WaitForMoreEvents) || timersFired
        || m_interrupted.load(std::memory_order_relaxed))
        return timersFired;

    emit aboutToBlock();
    std::unique_lock<std::mutex> lock(m_sleepMutex);
    const auto posted = [this] { return m_wakePending.load(std::memory_order_relaxed); };
    const auto interrupted = [this] { return m_interrupted.load(std::memory_order_relaxed); };
    const qint64 due = nextTimerDue();
    if (due == std::numeric_limits<qint64>::max()) {
        m_sleep.wait(lock, [&] { return posted() || interrupted(); });
    } else {
        const auto untilDue
                = std::chrono::milliseconds(std::max<qint64>(0, due - m_clock.elapsed()));
        m_sleep.wait_for(lock, untilDue, [&] { return posted() || interrupted(); });
    }
    // Woken by a post: let the rest of its burst arrive, then deliver the burst in one go.
    if (posted() && !interrupted())
        m_sleep.wait_for(lock, BurstDelay, interrupted);
    return true;
}

bool KrMonitorEventDispatcher::hasPendingEvents()
{
    return m_wakePending.load(std::memory_order_relaxed);
}

void KrMonitorEventDispatcher::registerSocketNotifier(QSocketNotifier *)
{
    krWarning(KrMonitorEventDispatcher) << "socket notifiers are not supported on a monitor thread";
}

void KrMonitorEventDispatcher::unregisterSocketNotifier(QSocketNotifier *)
{
}

void KrMonitorEventDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType,
                                             QObject *object)
{
    m_timers.append({timerId, interval, timerType, object, m_clock.elapsed() + interval});
}

bool KrMonitorEventDispatcher::unregisterTimer(int timerId)
{
    const auto it = std::find_if(m_timers.begin(), m_timers.end(),
                                 [timerId](const Timer &timer) { return timer.id == timerId; });
    if (it == m_timers.end())
        return false;
    m_timers.erase(it);
    return true;
}

bool KrMonitorEventDispatcher::unregisterTimers(QObject *object)
{
    const auto end = std::remove_if(m_timers.begin(), m_timers.end(), [object](const Timer &timer) {
        return timer.object == object;
    });
    const bool found = end != m_timers.end();
    m_timers.erase(end, m_timers.end());
    return found;
}

QList<QAbstractEventDispatcher::TimerInfo>
KrMonitorEventDispatcher::registeredTimers(QObject *object) const
{
    QList<TimerInfo> timers;
    for (const Timer &timer : m_timers) {
        if (timer.object == object)
            timers.append(TimerInfo(timer.id, timer.interval, timer.type));
    }
    return timers;
}

int KrMonitorEventDispatcher::remainingTime(int timerId)
{
    for (const Timer &timer : m_timers) {
        if (timer.id == timerId)
            return int(std::max<qint64>(0, timer.due - m_clock.elapsed()));
    }
    return -1;
}

void KrMonitorEventDispatcher::wakeUp()
{
    // Called by every post to this thread: one atomic read while a wake-up is already pending.
    if (m_wakePending.load(std::memory_order_relaxed)
        || m_wakePending.exchange(true, std::memory_order_relaxed))
        return;
    std::lock_guard<std::mutex> lock(m_sleepMutex);
    m_sleep.notify_one();
}

void KrMonitorEventDispatcher::interrupt()
{
    m_interrupted.store(true, std::memory_order_relaxed);
    std::lock_guard<std::mutex> lock(m_sleepMutex);
    m_sleep.notify_one();
}

void KrMonitorEventDispatcher::flush()
{
}

bool KrMonitorEventDispatcher::activateDueTimers()
{
    const qint64 now = m_clock.elapsed();
    QVector<int> due;
    for (Timer &timer : m_timers) {
        if (timer.due <= now) {
            due.append(timer.id);
            // the next period counts from now: a late timer does not fire in bursts
            timer.due = now + std::max(1, timer.interval);
        }
    }
    // A timer event may stop or start timers; deliver only to those still registered.
    for (int id : qAsConst(due)) {
        const auto it = std::find_if(m_timers.cbegin(), m_timers.cend(),
                                     [id](const Timer &timer) { return timer.id == id; });
        if (it == m_timers.cend())
            continue;
        QTimerEvent event(id);
        QCoreApplication::sendEvent(it->object, &event);
    }
    return !due.isEmpty();
}

qint64 KrMonitorEventDispatcher::nextTimerDue() const
{
    qint64 due = std::numeric_limits<qint64>::max();
    for (const Timer &timer : m_timers)
        due = std::min(due, timer.due);
    return due;
}
