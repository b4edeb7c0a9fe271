#ifndef KRREPORTFLOW_P_H
#define KRREPORTFLOW_P_H

#include <QMutex>
#include <QWaitCondition>

#include <atomic>

// Internal: the traffic rules of a monitor's queued reports (lock monitor, function-guard
// monitor).
//
// Reports are queued signals to the monitor's thread. Two things keep them cheap and bounded:
//
// - Nothing is reported while nothing listens: until a receiver connects to the monitor's report
//   signals, reporters skip building texts and emitting (isListened()).
// - The monitor keeps up. Each queued report costs its sender about a microsecond; a sender that
//   reports faster than the monitor can record (a tight lock/unlock loop on several threads)
//   would otherwise grow the monitor's event queue without limit. Once the monitor's own slots
//   are connected (startCounting()), every report is counted in, every recorded one counted
//   out, and a sender that finds more than HighWater reports outstanding waits until the monitor
//   has worked the backlog down to LowWater. Ordinary use never comes near the mark. A monitor
//   that does not drain within MaxPauseMs (stopped, or stuck in a slow log handler) stops the
//   pacing until it drains again, so no sender ever hangs on it.
class KrReportFlow
{
public:
    static constexpr int HighWater = 8192;
    static constexpr int LowWater = 1024;
    static constexpr int MaxPauseMs = 200;

    bool isListened() const { return m_listened.load(std::memory_order_relaxed); }
    void setListened() { m_listened.store(true, std::memory_order_relaxed); }

    void startCounting() { m_counting.store(true, std::memory_order_release); }
    void stopCounting();

    // Before a report is emitted, on the sender's thread.
    void admit()
    {
        if (!m_counting.load(std::memory_order_relaxed))
            return;
        if (m_outstanding.fetch_add(1, std::memory_order_relaxed) >= HighWater)
            waitForDrain();
    }

    // After a report has been recorded, on the monitor's thread.
    void recorded()
    {
        if (m_outstanding.fetch_sub(1, std::memory_order_relaxed) == LowWater + 1)
            drained();
    }

    int outstanding() const { return m_outstanding.load(std::memory_order_relaxed); }

private:
    void waitForDrain();
    void drained();

    std::atomic<bool> m_listened {false};
    std::atomic<bool> m_counting {false};
    std::atomic<int> m_outstanding {0};

    QMutex m_mutex; // guards the two fields below and the wait
    QWaitCondition m_drainedCondition;
    bool m_stalled = false;
};

#endif // KRREPORTFLOW_P_H
