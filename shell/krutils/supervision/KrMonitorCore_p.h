#ifndef KRMONITORCORE_P_H
#define KRMONITORCORE_P_H

#include "runtime/KrThread.h"

#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

// Internal: one report to a monitor, as a reporter hands it over. What the fields mean is the
// monitor's own business (its kinds, its texts).
struct KrMonitorReport
{
    void *subject = nullptr; // the lock or the guard
    int kind = 0;
    int number = 0; // a line, a time budget
    QString first;
    QString second;
};

// Internal: what the two monitors (locks, function guards) have in common. Each keeps its
// tables, its texts and the scan of its one-second tick; the core gives it a thread of its own,
// the tick, the lock over its tables, and the road of a report from any thread into them.
//
// Reports do not travel as queued signals, which cost their sender microseconds each. A reporter
// draws a ticket and writes its report into that slot of a ring of fixed size, in ticket order,
// which follows the order in which the reports were made (a lock released on another thread is
// reported after it was taken). The ring is drained into the monitor's tables, in that order,
// whenever the tables are read (TableLock: the tick, the queries) and by the monitor thread each
// time half a ring has been written, so that the ring rarely fills. When it does fill (a flood
// of reports, or a monitor thread that is busy or blocked), the reporter drains it itself: the
// memory stays bounded, no report is lost, and a reporter never depends on the monitor thread
// (at most it waits out a drain in progress).
class KrMonitorCore
{
public:
    // Applies a batch of reports, oldest first, to the monitor's tables; called with the table
    // lock held, on whichever thread drains. The reports may be moved from.
    using Recorder = std::function<void(KrMonitorReport *reports, int count)>;

    KrMonitorCore(QObject *monitor, int ringSize, Recorder recorder);
    // Stops recording, then stops the monitor thread and waits for it without a time limit.
    ~KrMonitorCore();

    // Moves the monitor into a new, started KrThread of the given name; Monitor::initManger runs
    // first thing on that thread and calls startRecording(). The thread deletes itself once it
    // has finished. Later calls do nothing.
    template<typename Monitor> void start(const QString &name);

    // On the monitor thread: from now on reports are recorded and the monitor's timerEvent()
    // runs once a second.
    void startRecording();
    // Marks the monitor's report signals as connected outside the monitor (sticky).
    void setSignalConnected() { m_state.fetch_or(SignalConnected, std::memory_order_relaxed); }

    bool isRecording() const { return m_state.load(std::memory_order_acquire) & Recording; }
    bool hasSignalConnected() const
    {
        return m_state.load(std::memory_order_relaxed) & SignalConnected;
    }

    // Any thread, while recording. The texts are shared, not copied.
    void report(void *subject, int kind, int number, const QString &first,
                const QString &second = QString());

    // Holds the lock over the monitor's tables for its scope, with every report made before it
    // already recorded. Work done under it should be short: reporters may wait for it when the
    // ring is full (log after releasing it).
    class TableLock
    {
    public:
        explicit TableLock(KrMonitorCore &core);

    private:
        Q_DISABLE_COPY(TableLock)
        QMutexLocker m_locker;
    };

private:
    enum State { Recording = 1, SignalConnected = 2 };
    enum class Drain { Published, UpToTail };
    struct Slot;

    int drainLocked(Drain how); // returns the number of reports recorded
    void makeRoom();
    void requestDrain();

    QObject *const m_monitor;
    const Recorder m_recorder;
    const quint64 m_ringSize; // a power of two
    std::unique_ptr<Slot[]> m_ring; // allocated by startRecording()
    std::atomic<int> m_state {0};
    alignas(64) std::atomic<quint64> m_tail {0}; // the next ticket
    alignas(64) std::atomic<bool> m_drainRequested {false};

    QMutex m_tableMutex; // over the monitor's tables, the ring's head and the batch
    quint64 m_head = 0; // the oldest ticket not yet drained
    std::vector<KrMonitorReport> m_batch;
    QPointer<KrThread> m_thread;
};

template<typename Monitor> void KrMonitorCore::start(const QString &name)
{
    if (m_thread)
        return;
    auto *monitor = static_cast<Monitor *>(m_monitor);
    auto *thread = new KrThread;
    thread->setObjectName(name);
    monitor->moveToThread(thread);
    QObject::connect(thread, &QThread::started, monitor, &Monitor::initManger,
                     Qt::DirectConnection);
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    m_thread = thread;
    thread->start(QThread::InheritPriority);
}

#endif // KRMONITORCORE_P_H
