#include "KrTokenBucket.h"

#include "runtime/KrLogging_p.h"

#include <QTimer>

#include <algorithm>

namespace {

// Takers that find an empty bucket deepen its debt, which the next refill wipes out. Long
// before a run of takes without any refill could wrap the counter, the debt is cut back to 0.
constexpr qint64 debtLimit = -(qint64(1) << 56);

qint64 available(qint64 tokens)
{
    return std::max<qint64>(tokens, 0);
}

} // namespace

KrTokenBucket::KrTokenBucket(int capacity, int refillCount, QObject *parent)
    : QObject(parent), m_capacity(capacity), m_tokens(capacity), m_refillCount(refillCount),
      m_refillTimer(new QTimer(this))
{
    m_refillTimer->setInterval(1000);
    connect(m_refillTimer, &QTimer::timeout, this, &KrTokenBucket::slotRefillTokens);
}

KrTokenBucket::~KrTokenBucket()
{
    if (m_refillTimer->isActive())
        m_refillTimer->stop();
}

int KrTokenBucket::consumeTokens(int count)
{
    qint64 before;
    if (count > 0) {
        before = m_tokens.fetch_sub(count);
        if (before < debtLimit) {
            qint64 debt = before - count;
            while (debt < 0 && !m_tokens.compare_exchange_weak(debt, 0)) { }
        }
    } else {
        // Taking nothing or a negative count puts tokens back, even beyond the capacity: the
        // new count starts from the tokens available, not from a debt.
        before = m_tokens.load();
        while (!m_tokens.compare_exchange_weak(before, available(before) - count)) { }
    }
    if (!m_refillPending.load() && !m_refillPending.exchange(true))
        QMetaObject::invokeMethod(this, &KrTokenBucket::slotStartRefillTimer, Qt::AutoConnection);
    return int(std::min<qint64>(available(before), count));
}

int KrTokenBucket::tryConsumeTokens(int count)
{
    return int(std::min<qint64>(available(m_tokens.load()), count));
}

void KrTokenBucket::slotStartRefillTimer()
{
    if (m_refillTimer->isActive())
        return;
    krDebug(KrTokenBucket) << "token bucket start refill";
    m_refillTimer->start();
}

void KrTokenBucket::slotRefillTokens()
{
    qint64 current = m_tokens.load();
    for (;;) {
        // A full bucket (after consumeTokens(0), or raised by a negative count) keeps its
        // timer: the next take that lowers it then needs no start request.
        if (available(current) >= m_capacity)
            return;
        const qint64 next = available(current) + m_refillCount;
        if (next < m_capacity) {
            if (!m_tokens.compare_exchange_weak(current, next))
                continue;
            emit signalTokenCountRenew();
            return;
        }
        // Cleared before the bucket is seen full, so that a take after the swap finds the
        // flag down and asks for the timer again; that request runs after this slot has
        // stopped the timer.
        m_refillPending.store(false);
        if (m_tokens.compare_exchange_weak(current, m_capacity))
            break;
    }
    krDebug(KrTokenBucket) << "token bucket refilled";
    m_refillTimer->stop();
    emit signalTokenCountRenew();
}
