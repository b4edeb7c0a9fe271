#include "KrReportFlow_p.h"

#include <QDeadlineTimer>

void KrReportFlow::stopCounting()
{
    m_counting.store(false, std::memory_order_relaxed);
    QMutexLocker locker(&m_mutex);
    m_stalled = true;
    m_drainedCondition.wakeAll();
}

void KrReportFlow::waitForDrain()
{
    QMutexLocker locker(&m_mutex);
    const QDeadlineTimer deadline(MaxPauseMs);
    // The backlog is read under the mutex that drained() takes before waking, so a drain that
    // happens between the sender's count and this wait is never missed.
    while (!m_stalled && m_outstanding.load(std::memory_order_relaxed) > LowWater) {
        if (!m_drainedCondition.wait(&m_mutex, deadline)) {
            m_stalled = true;
            return;
        }
    }
}

void KrReportFlow::drained()
{
    QMutexLocker locker(&m_mutex);
    if (m_counting.load(std::memory_order_relaxed))
        m_stalled = false;
    m_drainedCondition.wakeAll();
}
