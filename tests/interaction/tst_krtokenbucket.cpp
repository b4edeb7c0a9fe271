#include "KrTestSupport.h"

#include <krutils/KrTokenBucket.h>

#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <climits>
#include <thread>
#include <tuple>

namespace {

constexpr int Tick = INT_MIN; // a step that delivers one refill tick instead of taking

// (count, expected, running): takes `count` tokens and expects that grant, or with Tick delivers
// a tick and expects that many tokens in the bucket; then expects the refill timer running or not.
using Steps = QVector<std::tuple<int, int, bool>>;

bool refilling(KrTokenBucket &bucket)
{
    return bucket.findChild<QTimer *>()->isActive();
}

// One tick of the running refill timer, delivered as the timer event itself.
void tick(KrTokenBucket &bucket)
{
    QTimer *timer = bucket.findChild<QTimer *>();
    QVERIFY2(timer->isActive(), "the refill timer is not running");
    QCOMPARE(timer->interval(), 1000);
    sendTimerEvents(timer, timer->timerId());
}

// All the tokens the bucket holds now (it may hold more than its capacity).
int tokensIn(KrTokenBucket &bucket)
{
    return bucket.tryConsumeTokens(INT_MAX);
}

// Counts the queued calls that reach an object.
struct QueuedCallCounter : QObject
{
    int calls = 0;
    bool eventFilter(QObject *, QEvent *event) override
    {
        return calls += event->type() == QEvent::MetaCall, false;
    }
};

} // namespace

Q_DECLARE_METATYPE(Steps)

// The bucket lives on the test thread, which delivers its refill ticks; takers are on this or
// other threads.
class tst_KrTokenBucket : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takeAndRefill_data()
    {
        QTest::addColumn<Steps>("steps"); // on a bucket of 10 that gets 3 back a second
        QTest::addColumn<int>("renewals");

        QTest::newRow("a burst, then refills up to the capacity; a take restarts the timer")
                << Steps {{4, 4, true},    {8, 6, true},    {5, 0, true},      {Tick, 3, true},
                          {Tick, 6, true}, {Tick, 9, true}, {Tick, 10, false}, {10, 10, true}}
                << 4;
        QTest::newRow("taking nothing starts the timer; a full bucket's ticks neither signal nor "
                      "stop it")
                << Steps {{0, 0, true}, {Tick, 10, true}, {Tick, 10, true},
                          {4, 4, true}, {Tick, 9, true},  {Tick, 10, false}}
                << 2;
        QTest::newRow("a negative count puts tokens back, beyond the capacity")
                << Steps {{-2, -2, true}, {Tick, 12, true}} << 0;
        QTest::newRow("after takes beyond the tokens, the count starts again from 0")
                << Steps {{15, 10, true}, {5, 0, true}, {-1, -1, true}, {Tick, 4, true}} << 1;
    }

    void takeAndRefill()
    {
        QFETCH(Steps, steps);
        QFETCH(int, renewals);

        MessageCapture capture;
        KrTokenBucket bucket(10, 3);
        QSignalSpy renewed(&bucket, &KrTokenBucket::signalTokenCountRenew);
        bool running = false;
        QStringList logs; // the timer's start and stop are logged
        for (const auto &[count, expected, runningAfter] : qAsConst(steps)) {
            if (count == Tick) {
                tick(bucket);
                QCOMPARE(tokensIn(bucket), expected);
            } else {
                // The offer takes nothing and leaves the timer alone.
                QCOMPARE(bucket.tryConsumeTokens(count), expected);
                QCOMPARE(refilling(bucket), running);
                QCOMPARE(bucket.consumeTokens(count), expected);
            }
            QCOMPARE(refilling(bucket), runningAfter);
            if (runningAfter != running) {
                logs << QLatin1String(
                        running ? "KrTokenBucket::slotRefillTokens token bucket refilled"
                                : "KrTokenBucket::slotStartRefillTimer token bucket "
                                  "start refill");
            }
            running = runningAfter;
        }
        QCOMPARE(renewed.count(), renewals);
        QStringList logged;
        for (const CapturedMessage &message : capture.messages())
            logged << message.text;
        QCOMPARE(logged, logs);
    }

    void takesFromOtherThreadsPostOneStartRequest()
    {
        KrTokenBucket bucket(100, 10);
        QueuedCallCounter counter;
        bucket.installEventFilter(&counter);
        std::thread([&] {
            for (int i = 0; i < 1000; ++i)
                bucket.consumeTokens(1);
        }).join();
        QCoreApplication::sendPostedEvents(&bucket);
        QCOMPARE(counter.calls, 1);
        QVERIFY(refilling(bucket));
        QCOMPARE(tokensIn(bucket), 0);

        // Once the bucket is full again, the next take asks for the timer again.
        for (int i = 0; i < 10; ++i)
            tick(bucket);
        QVERIFY(!refilling(bucket));
        std::thread([&] { bucket.consumeTokens(1); }).join();
        QCoreApplication::sendPostedEvents(&bucket);
        QCOMPARE(counter.calls, 2);
        QVERIFY(refilling(bucket));
    }

    void takeWhileTheFillingTickRuns()
    {
        // A take from another thread just as the tick that fills the bucket writes its log line
        // (the bucket seen full, the timer not yet stopped) must leave the timer running.
        KrTokenBucket bucket(4, 4);
        MessageCapture capture;
        capture.onMessage = [&](const CapturedMessage &message) {
            if (message.text.endsWith(QLatin1String("token bucket refilled")))
                std::thread([&] { bucket.consumeTokens(1); }).join();
        };
        bucket.consumeTokens(1);
        tick(bucket);
        QCoreApplication::sendPostedEvents(&bucket); // the taker's start request
        QCOMPARE(tokensIn(bucket), 3);
        QVERIFY(refilling(bucket));
    }
};

QTEST_GUILESS_MAIN(tst_KrTokenBucket)
#include "tst_krtokenbucket.moc"
