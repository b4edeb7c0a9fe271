#ifndef KRTOKENBUCKET_H
#define KRTOKENBUCKET_H

#include <krutils/krutils_export.h>

#include <QObject>

#include <atomic>

class QTimer;

/// A rate limiter for request senders: the bucket holds up to `capacity` tokens, callers take
/// tokens before doing rate-limited work, and once a second `refillCount` tokens go back until
/// the bucket is full again.
///
///     KrTokenBucket bucket(20, 5);                  // 20 requests at once, then 5 per second
///     const int granted = bucket.consumeTokens(3);
///     if (granted < 3)
///         ...                                       // a short grant: hold the rest back
///
/// Taking never blocks: a caller is told how many tokens it got, possibly fewer than it asked
/// for (the bucket is then empty), and decides itself what to do. signalTokenCountRenew() tells
/// waiting callers that tokens came back.
///
/// Threads: consumeTokens() and tryConsumeTokens() may be called from any thread. The refill
/// timer and the slots run on the bucket's own thread (the thread it was created on or moved
/// to), which needs a running event loop. The timer runs only while the bucket is below its
/// capacity; a full bucket costs nothing.
///
/// Counts are not checked: consumeTokens(0) takes nothing but still starts the refill timer,
/// and a negative count returns that count and puts tokens back, even beyond the capacity.
class KRUTILS_EXPORT KrTokenBucket : public QObject
{
    Q_OBJECT

public:
    /// A full bucket of `capacity` tokens that gets `refillCount` tokens back each second.
    explicit KrTokenBucket(int capacity, int refillCount, QObject *parent = nullptr);
    ~KrTokenBucket() override;

    /// Takes up to `count` tokens and returns how many were granted: the smaller of `count`
    /// and the tokens available. Starts the refill timer if it is not running.
    int consumeTokens(int count);

    /// How many tokens consumeTokens(count) would grant now; takes nothing.
    int tryConsumeTokens(int count);

Q_SIGNALS:
    /// Emitted on the bucket's thread after each refill that added tokens.
    void signalTokenCountRenew();

private Q_SLOTS:
    void slotRefillTokens();
    void slotStartRefillTimer();

private:
    Q_DISABLE_COPY(KrTokenBucket)

    const int m_capacity;
    // The tokens available, or a debt below zero that counts as none. A take pays with one
    // atomic subtraction (two request senders meeting on a mutex would cost each other several
    // times an uncontended lock); refills and takes of zero or fewer tokens swap in the new
    // count with compare-and-swap.
    std::atomic<qint64> m_tokens;
    const int m_refillCount;
    QTimer *const m_refillTimer;
    // A start of the refill timer was requested and the bucket has not been full since, so the
    // timer runs or is about to. Takers then skip the request, which from another thread would
    // cost a queued call each; a refill that fills the bucket clears it before its last swap.
    std::atomic<bool> m_refillPending {false};
};

#endif // KRTOKENBUCKET_H
