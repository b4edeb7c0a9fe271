#include "KrMonitorCore_p.h"

#include <QAbstractEventDispatcher>
#include <QThread>

struct alignas(64) KrMonitorCore::Slot // a cache line each: neighbours belong to other reporters
{
    // The ticket this slot is free for; that ticket + 1 once its report is written. Draining the
    // report frees the slot for the ticket one round later.
    std::atomic<quint64> sequence {0};
    KrMonitorReport report;
};

KrMonitorCore::KrMonitorCore(QObject *monitor, int ringSize, Recorder recorder)
    : m_monitor(monitor), m_recorder(std::move(recorder)), m_ringSize(quint64(ringSize))
{
    Q_ASSERT(ringSize >= 2 && (ringSize & (ringSize - 1)) == 0);
}

KrMonitorCore::~KrMonitorCore()
{
    m_state.fetch_and(~Recording, std::memory_order_relaxed);
    if (m_thread) {
        m_thread->quit();
        m_thread->wait();
    }
}

void KrMonitorCore::startRecording()
{
    if (isRecording())
        return;
    {
        QMutexLocker locker(&m_tableMutex);
        m_ring.reset(new Slot[m_ringSize]);
        for (quint64 i = 0; i < m_ringSize; ++i)
            m_ring[i].sequence.store(i, std::memory_order_relaxed);
    }
    m_state.fetch_or(Recording, std::memory_order_release);

    QObject *monitor = m_monitor;
    monitor->startTimer(1000, Qt::CoarseTimer);
    // The monitor's timers are stopped on its thread as that finishes: the monitor itself is
    // destroyed at exit on another thread, which may not stop them.
    QObject::connect(
            monitor->thread(), &QThread::finished, monitor,
            [monitor] {
                const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(monitor);
                for (const auto &timer : timers)
                    monitor->killTimer(timer.timerId);
            },
            Qt::DirectConnection);
}

void KrMonitorCore::report(void *subject, int kind, int number, const QString &first,
                           const QString &second)
{
    // Tickets follow the order of the reports: a report that happened after another (its lock
    // was handed over, say) draws a later ticket.
    const quint64 ticket = m_tail.fetch_add(1, std::memory_order_relaxed);
    Slot &slot = m_ring[ticket & (m_ringSize - 1)];
    while (slot.sequence.load(std::memory_order_acquire) != ticket)
        makeRoom();
    KrMonitorReport &entry = slot.report;
    entry.subject = subject;
    entry.kind = kind;
    entry.number = number;
    entry.first = first;
    entry.second = second;
    slot.sequence.store(ticket + 1, std::memory_order_release);
    if ((ticket & (m_ringSize / 2 - 1)) == 0)
        requestDrain();
}

void KrMonitorCore::makeRoom()
{
    // The ring is full: drain it on this thread rather than wait for the monitor thread, which
    // may be busy or blocked. If another thread drains already, or the oldest report is still
    // being written, give way for a moment.
    int drained = 0;
    if (m_tableMutex.tryLock()) {
        drained = drainLocked(Drain::Published);
        m_tableMutex.unlock();
    }
    if (drained == 0)
        QThread::yieldCurrentThread();
}

void KrMonitorCore::requestDrain()
{
    if (m_drainRequested.exchange(true, std::memory_order_relaxed))
        return;
    QMetaObject::invokeMethod(
            m_monitor,
            [this] {
                m_drainRequested.store(false, std::memory_order_relaxed);
                QMutexLocker locker(&m_tableMutex);
                drainLocked(Drain::Published);
            },
            Qt::QueuedConnection);
}

int KrMonitorCore::drainLocked(Drain how)
{
    if (!m_ring)
        return 0;
    // Up to the tail, the drain also waits for reporters that drew their tickets but are still
    // writing: a reader of the tables sees every report made before it. A reporter waiting for
    // room gets its slot before the drain reaches its ticket.
    const quint64 end
            = how == Drain::UpToTail ? m_tail.load(std::memory_order_acquire) : m_head + m_ringSize;
    const quint64 mask = m_ringSize - 1;
    while (m_head != end) {
        Slot &slot = m_ring[m_head & mask];
        if (slot.sequence.load(std::memory_order_acquire) != m_head + 1) {
            if (how == Drain::Published)
                break;
            QThread::yieldCurrentThread();
            continue;
        }
        m_batch.push_back(std::move(slot.report));
        slot.sequence.store(m_head + m_ringSize, std::memory_order_release);
        ++m_head;
    }
    const int count = int(m_batch.size());
    if (count > 0) {
        m_recorder(m_batch.data(), count);
        m_batch.clear();
    }
    return count;
}

KrMonitorCore::TableLock::TableLock(KrMonitorCore &core) : m_locker(&core.m_tableMutex)
{
    core.drainLocked(Drain::UpToTail);
}
