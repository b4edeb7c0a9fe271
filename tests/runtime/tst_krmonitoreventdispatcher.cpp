#include "KrTestSupport.h"

#include "runtime/KrMonitorEventDispatcher_p.h"

#include <QSemaphore>
#include <QThread>
#include <QTimer>
#include <QtTest>

#include <atomic>

namespace {

// Counts its timer events on its own thread; optionally stops a timer from inside its event.
class TickCounter : public QObject
{
public:
    std::atomic<int> ticks {0};
    int stopAfter = -1;

protected:
    void timerEvent(QTimerEvent *event) override
    {
        if (++ticks == stopAfter)
            killTimer(event->timerId());
    }
};

} // namespace

// The event dispatcher of the monitor threads, on a thread of its own.
class tst_KrMonitorEventDispatcher : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void deliversPostsInOrder();
    void quitEndsTheThreadPromptly();
    void timersFireUntilStopped();
    void reportsRegisteredTimers();

private:
    std::unique_ptr<QThread> m_thread;
    std::unique_ptr<TickCounter> m_counter;
};

void tst_KrMonitorEventDispatcher::init()
{
    m_thread.reset(new QThread);
    m_thread->setEventDispatcher(new KrMonitorEventDispatcher);
    m_counter.reset(new TickCounter);
    m_counter->moveToThread(m_thread.get());
    m_thread->start();
}

void tst_KrMonitorEventDispatcher::cleanup()
{
    m_thread->quit();
    QVERIFY(m_thread->wait(5000));
    m_counter.reset();
    m_thread.reset();
}

void tst_KrMonitorEventDispatcher::deliversPostsInOrder()
{
    QVector<int> seen;
    QThread *ranOn = nullptr;
    for (int i = 0; i < 1000; ++i)
        QMetaObject::invokeMethod(m_counter.get(), [&seen, i] { seen.append(i); });
    runOnThreadOf(m_counter.get(), [&] { ranOn = QThread::currentThread(); });
    QCOMPARE(ranOn, m_thread.get());
    QCOMPARE(seen.size(), 1000);
    QVERIFY(std::is_sorted(seen.begin(), seen.end()));
}

void tst_KrMonitorEventDispatcher::quitEndsTheThreadPromptly()
{
    // The thread sleeps without timers until something wakes it; quit() must.
    runOnThreadOf(m_counter.get(), [] {});
    m_thread->quit();
    QVERIFY(m_thread->wait(5000));
}

void tst_KrMonitorEventDispatcher::timersFireUntilStopped()
{
    m_counter->stopAfter = 3;
    runOnThreadOf(m_counter.get(), [this] { m_counter->startTimer(5); });
    QTRY_COMPARE(m_counter->ticks.load(), 3);

    // a single-shot QTimer on the same thread
    std::atomic<int> singleShots {0};
    runOnThreadOf(m_counter.get(),
                  [&] { QTimer::singleShot(5, m_counter.get(), [&] { ++singleShots; }); });
    QTRY_COMPARE(singleShots.load(), 1);

    // the timer stopped from inside its own event never fired again
    QTest::qWait(30);
    runOnThreadOf(m_counter.get(), [] {});
    QCOMPARE(m_counter->ticks.load(), 3);
    QCOMPARE(singleShots.load(), 1);
}

void tst_KrMonitorEventDispatcher::reportsRegisteredTimers()
{
    int remaining = -2;
    int timerCount = -1;
    int afterKill = -1;
    runOnThreadOf(m_counter.get(), [&] {
        const int id = m_counter->startTimer(60000, Qt::CoarseTimer);
        auto *dispatcher = QAbstractEventDispatcher::instance();
        const auto timers = dispatcher->registeredTimers(m_counter.get());
        timerCount = timers.size();
        remaining = dispatcher->remainingTime(id);
        m_counter->killTimer(id);
        afterKill = dispatcher->registeredTimers(m_counter.get()).size();
    });
    QCOMPARE(timerCount, 1);
    QVERIFY(remaining > 50000 && remaining <= 60000);
    QCOMPARE(afterKill, 0);
}

QTEST_GUILESS_MAIN(tst_KrMonitorEventDispatcher)
#include "tst_krmonitoreventdispatcher.moc"
