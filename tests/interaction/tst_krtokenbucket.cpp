#include "KrTestSupport.h"

#include <krutils/KrTokenBucket.h>

#include <QScopeGuard>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <thread>

namespace {

QTimer *refillTimerOf(KrTokenBucket *bucket)
{
    return bucket->findChild<QTimer *>();
}

// One tick of the bucket's running refill timer, delivered as the timer event itself.
void tick(KrTokenBucket *bucket)
{
    QTimer *timer = refillTimerOf(bucket);
    int timerId = -1;
    runOnThreadOf(bucket, [&] { timerId = timer->isActive() ? timer->timerId() : -1; });
    QVERIFY2(timerId > 0, "the refill timer is not running");
    sendTimerEvents(timer, timerId);
}

bool refillRunning(KrTokenBucket *bucket)
{
    bool running = false;
    runOnThreadOf(bucket, [&] { running = refillTimerOf(bucket)->isActive(); });
    return running;
}

// Every tokens the bucket holds now (it may hold more than its capacity).
int tokensIn(KrTokenBucket *bucket)
{
    return bucket->tryConsumeTokens(std::numeric_limits<int>::max());
}

// Counts the queued calls that reach an object.
class QueuedCallCounter : public QObject
{
public:
    int calls = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::MetaCall)
            ++calls;
        return false;
    }
};

} // namespace

// The token bucket on the test thread, its refill ticks delivered by the tests; and on a
// thread of its own, taken from other threads.
class tst_KrTokenBucket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void burstThenRefillOncePerSecond();
    void takingNothingStartsTheTimer();
    void negativeCountPutsTokensBack();
    void tryConsumeTakesNothing_data();
    void tryConsumeTakesNothing();
    void logsStartAndFill();
    void takesFromOtherThreadsPostOneStartRequest();
    void neverBelowCapacityWithTheTimerStopped();
};

void tst_KrTokenBucket::burstThenRefillOncePerSecond()
{
    KrTokenBucket bucket(10, 3);
    QSignalSpy renewed(&bucket, &KrTokenBucket::signalTokenCountRenew);
    QVERIFY(!refillRunning(&bucket));

    QCOMPARE(bucket.consumeTokens(4), 4);
    QCOMPARE(bucket.consumeTokens(8), 6); // a partial grant empties the bucket
    QCOMPARE(bucket.tryConsumeTokens(5), 0);
    QVERIFY(refillRunning(&bucket));

    const QList<int> expected {3, 6, 9, 10};
    for (int second = 0; second < expected.size(); ++second) {
        tick(&bucket);
        QCOMPARE(tokensIn(&bucket), expected.at(second));
        QCOMPARE(renewed.count(), second + 1);
        QCOMPARE(refillRunning(&bucket), second + 1 < expected.size());
    }
    QCOMPARE(bucket.consumeTokens(10), 10);
    QVERIFY(refillRunning(&bucket));
}

void tst_KrTokenBucket::takingNothingStartsTheTimer()
{
    KrTokenBucket bucket(10, 3);
    QSignalSpy renewed(&bucket, &KrTokenBucket::signalTokenCountRenew);
    QCOMPARE(bucket.consumeTokens(0), 0);
    QCOMPARE(tokensIn(&bucket), 10);
    QVERIFY(refillRunning(&bucket));

    // A full bucket's ticks neither signal nor stop the timer...
    tick(&bucket);
    tick(&bucket);
    QCOMPARE(renewed.count(), 0);
    QVERIFY(refillRunning(&bucket));
    // ... until a take lowers it and a refill fills it again.
    QCOMPARE(bucket.consumeTokens(4), 4);
    tick(&bucket);
    QCOMPARE(tokensIn(&bucket), 9);
    tick(&bucket);
    QCOMPARE(tokensIn(&bucket), 10);
    QCOMPARE(renewed.count(), 2);
    QVERIFY(!refillRunning(&bucket));
}

void tst_KrTokenBucket::negativeCountPutsTokensBack()
{
    KrTokenBucket bucket(10, 3);
    QSignalSpy renewed(&bucket, &KrTokenBucket::signalTokenCountRenew);
    QCOMPARE(bucket.consumeTokens(-2), -2);
    QCOMPARE(tokensIn(&bucket), 12); // beyond the capacity
    tick(&bucket);
    QCOMPARE(tokensIn(&bucket), 12);
    QCOMPARE(renewed.count(), 0);
    QVERIFY(refillRunning(&bucket));

    // From an empty bucket whose takers asked for more than it had, the count starts at 0.
    QCOMPARE(bucket.consumeTokens(15), 12);
    QCOMPARE(bucket.consumeTokens(5), 0);
    QCOMPARE(bucket.consumeTokens(-1), -1);
    QCOMPARE(tokensIn(&bucket), 1);
}

void tst_KrTokenBucket::tryConsumeTakesNothing_data()
{
    QTest::addColumn<int>("taken");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("answer");

    QTest::newRow("full, asking less") << 0 << 3 << 3;
    QTest::newRow("full, asking more") << 0 << 20 << 10;
    QTest::newRow("part taken") << 7 << 5 << 3;
    QTest::newRow("empty") << 10 << 1 << 0;
    QTest::newRow("asking nothing") << 2 << 0 << 0;
    QTest::newRow("negative count") << 2 << -4 << -4;
}

void tst_KrTokenBucket::tryConsumeTakesNothing()
{
    QFETCH(int, taken);
    QFETCH(int, count);
    QFETCH(int, answer);

    KrTokenBucket bucket(10, 3);
    bucket.consumeTokens(taken);
    const bool running = refillRunning(&bucket);
    QCOMPARE(bucket.tryConsumeTokens(count), answer);
    QCOMPARE(bucket.tryConsumeTokens(count), answer);
    QCOMPARE(tokensIn(&bucket), 10 - taken);
    QCOMPARE(refillRunning(&bucket), running);
}

void tst_KrTokenBucket::logsStartAndFill()
{
    MessageCapture capture;
    KrTokenBucket bucket(4, 4);
    bucket.consumeTokens(1);
    bucket.consumeTokens(1); // the timer runs: no second start
    tick(&bucket);

    QStringList lines;
    for (const CapturedMessage &message : capture.messages()) {
        QCOMPARE(message.type, QtDebugMsg);
        QCOMPARE(message.file, QStringLiteral("shell/krutils/KrTokenBucket"));
        lines << message.text;
    }
    QCOMPARE(
            lines,
            QStringList({QStringLiteral("KrTokenBucket::slotStartRefillTimer token bucket start "
                                        "refill"),
                         QStringLiteral("KrTokenBucket::slotRefillTokens token bucket refilled")}));
}

void tst_KrTokenBucket::takesFromOtherThreadsPostOneStartRequest()
{
    KrTokenBucket bucket(100, 10);
    QueuedCallCounter counter;
    bucket.installEventFilter(&counter);

    std::thread taker([&] {
        for (int i = 0; i < 1000; ++i)
            bucket.consumeTokens(1);
    });
    taker.join();
    QCoreApplication::sendPostedEvents(&bucket);
    QCOMPARE(counter.calls, 1);
    QVERIFY(refillRunning(&bucket));
    QCOMPARE(tokensIn(&bucket), 0);

    // Once the bucket is full again, the next take asks for the timer again.
    for (int i = 0; i < 10; ++i)
        tick(&bucket);
    QVERIFY(!refillRunning(&bucket));
    std::thread([&] { bucket.consumeTokens(1); }).join();
    QCoreApplication::sendPostedEvents(&bucket);
    QCOMPARE(counter.calls, 2);
    QVERIFY(refillRunning(&bucket));
}

void tst_KrTokenBucket::neverBelowCapacityWithTheTimerStopped()
{
    // Each round two takers take one token each, at random moments around a tick that fills
    // the bucket. Once the queued start requests have run, a bucket below capacity must have
    // its timer running, whatever the interleaving was.
    QThread bucketThread;
    bucketThread.start();
    auto *bucket = new KrTokenBucket(4, 4);
    bucket->moveToThread(&bucketThread);
    const auto stop = qScopeGuard([&] {
        QMetaObject::invokeMethod(bucket, &QObject::deleteLater);
        bucketThread.quit();
        bucketThread.wait();
    });
    QRandomGenerator random(20261122);

    for (int round = 0; round < 2000 && !QTest::currentTestFailed(); ++round) {
        bucket->consumeTokens(1);
        waitForQueuedReports(bucket);
        std::atomic<bool> go {false};
        auto takeAfter = [&](int spins) {
            return [&go, bucket, spins] {
                while (!go.load()) { }
                for (volatile int spin = 0; spin < spins; ++spin) { }
                bucket->consumeTokens(1);
            };
        };
        std::thread first(takeAfter(random.bounded(4000)));
        std::thread second(takeAfter(random.bounded(4000)));
        QMetaObject::invokeMethod(bucket, [&] {
            go = true;
            QTimer *timer = refillTimerOf(bucket);
            QTimerEvent event(timer->timerId());
            QCoreApplication::sendEvent(timer, &event);
        });
        first.join();
        second.join();
        waitForQueuedReports(bucket);
        if (tokensIn(bucket) < 4)
            QVERIFY2(refillRunning(bucket), qPrintable(QStringLiteral("round %1").arg(round)));
        while (tokensIn(bucket) < 4 && !QTest::currentTestFailed())
            tick(bucket);
    }
}

QTEST_GUILESS_MAIN(tst_KrTokenBucket)
#include "tst_krtokenbucket.moc"
