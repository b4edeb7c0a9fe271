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
    : QObject(parent), capacity(capacity), tokens(capacity), refillCount(refillCount),
      refillTimer(new QTimer(this))
{
    refillTimer->setInterval(1000);
    connect(refillTimer, &QTimer::timeout, this, &KrTokenBucket::slotRefillTokens);
}

KrTokenBucket::~KrTokenBucket()
{
    if (refillTimer->isActive())
        refillTimer->stop();
}

int KrTokenBucket::consumeTokens(int count)
{
    qint64 before;
    if (count > 0) {
        before = tokens.fetch_sub(count);
        if (before < debtLimit) {
            qint64 debt = before - count;
            while (debt < 0 && !tokens.compare_exchange_weak(debt, 0)) { }
        }
    } else {
        // Taking nothing or a negative count puts tokens back, even beyond the capacity: the
        // new count starts from the tokens available, not from a debt.
        before = tokens.load();
        while (!tokens.compare_exchange_weak(before, available(before) - count)) { }
    }
    if (!refillPending.load() && !refillPending.exchange(true))
        QMetaObject::invokeMethod(this, &KrTokenBucket::slotStartRefillTimer, Qt::AutoConnection);
    return int(std::min<qint64>(available(before), count));
}

int KrTokenBucket::tryConsumeTokens(int count)
{
    return int(std::min<qint64>(available(tokens.load()), count));
}

void KrTokenBucket::slotStartRefillTimer()
{
    if (refillTimer->isActive())
        return;
    krDebug(KrTokenBucket) << "token bucket start refill";
    refillTimer->start();
}

void KrTokenBucket::slotRefillTokens()
{
    qint64 current = tokens.load();
    for (;;) {
        // A full bucket (after consumeTokens(0), or raised by a negative count) keeps its
        // timer: the next take that lowers it then needs no start request.
        if (available(current) >= capacity)
            return;
        const qint64 next = available(current) + refillCount;
        if (next < capacity) {
            if (!tokens.compare_exchange_weak(current, next))
                continue;
            emit signalTokenCountRenew();
            return;
        }
        // Cleared before the bucket is seen full, so that a take after the swap finds the
        // flag down and asks for the timer again; that request runs after this slot has
        // stopped the timer.
        refillPending.store(false);
        if (tokens.compare_exchange_weak(current, capacity))
            break;
    }
    krDebug(KrTokenBucket) << "token bucket refilled";
    refillTimer->stop();
    emit signalTokenCountRenew();
}
