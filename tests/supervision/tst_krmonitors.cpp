#include "KrTestSupport.h"

#include <krutils/KrFunctionGuard.h>
#include <krutils/KrFunctionGuardManager.h>
#include <krutils/KrMutex.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>
#include <krutils/KrWriteLocker.h>

#include <QReadWriteLock>
#include <QSemaphore>
#include <QSignalSpy>
#include <QtTest>

#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace {
const QString a = QStringLiteral("a.cpp");
const QString f = QStringLiteral("f");

KrMutexManager *locks()
{
    return KrMutexManager::getInstance();
}

KrFunctionGuardManager *guards()
{
    return KrFunctionGuardManager::getInstance();
}

// One second passes for both monitors, `count` times.
void tick(int count)
{
    sendTicks(locks(), count);
    sendTicks(guards(), count);
}

// The library's warnings so far, each as "<source file>: <text>".
QStringList warnings(const MessageCapture &capture)
{
    QStringList found;
    for (const CapturedMessage &message : capture.matching(QtWarningMsg, QString())) {
        if (message.category == QLatin1String("krutils"))
            found << message.file + QStringLiteral(": ") + message.text;
    }
    return found;
}

// What the reports of a count-down row are about. Whatever a row leaves held is released
// without a report as the row ends (a lock that is tried first is free after one unlock).
struct Subjects
{
    ~Subjects()
    {
        mutex.tryLock();
        mutex.unlock();
        lock.tryLockForWrite();
        lock.unlock();
    }
    QMutex mutex;
    QReadWriteLock lock;
    std::unique_ptr<KrFunctionGuard> guard;
};
} // namespace

using Reports = std::function<void(Subjects &)>;
Q_DECLARE_METATYPE(Reports)

// The two monitors, started; their own one-second timers are stopped and the tests deliver the
// ticks.
class tst_KrMonitors : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void countDown_data();
    void countDown();
    void queriesSeeEveryEarlierReport();
    void floodAgainstStalledMonitorDoesNotHang_data();
    void floodAgainstStalledMonitorDoesNotHang();
    void guardLogsEntryAndExit();
};

void tst_KrMonitors::initTestCase()
{
    MessageCapture capture;
    locks()->start();
    locks()->start(); // a second start changes nothing
    guards()->start();
    const QVector<QPair<QObject *, QString>> monitors {
            {locks(), QStringLiteral("KrMutexManager")},
            {guards(), QStringLiteral("KrFuctionGuardManager")}};
    for (const auto &[monitor, name] : monitors) {
        QVERIFY(monitor->thread() != QThread::currentThread());
        QVERIFY(monitor->thread()->isRunning());
        QCOMPARE(monitor->thread()->objectName(), name);
        QList<int> intervals; // the once-a-second count-down
        runOnThreadOf(monitor, [&intervals, monitor = monitor] {
            const auto timers = QAbstractEventDispatcher::instance()->registeredTimers(monitor);
            for (const auto &timer : timers)
                intervals << timer.interval;
        });
        QCOMPARE(intervals, QList<int> {1000});
        stopOwnTimers(monitor);
    }
    QCOMPARE(capture.matching(QtWarningMsg, QString()).size(), 0);
}

void tst_KrMonitors::countDown_data()
{
    QTest::addColumn<Reports>("reports");
    QTest::addColumn<int>("quietTicks"); // ticks after the reports that pass without a warning
    QTest::addColumn<QString>("warning"); // at the next tick; empty: none

    const auto lockWarning = [](const char *callSite) {
        return QStringLiteral("shell/krutils/KrMutexManager: KrMutexManager::timerEvent mutex lock "
                              "time out , please check it ")
                + QLatin1String(callSite);
    };
    const auto guardWarning = [](const char *text) {
        return QStringLiteral("shell/krutils/KrFunctionGuardManager: KrFunctionGuardManager::"
                              "timerEvent <guard> fuctionGuard is over 60 seconds, please check "
                              "it ")
                + QLatin1String(text);
    };
    const auto guardFor = [](int timeout) {
        return Reports([timeout](Subjects &s) {
            s.guard.reset(new KrFunctionGuard(QStringLiteral("Risk"), QStringLiteral("recalculate"),
                                              false, timeout));
        });
    };

    QTest::newRow("mutex") << Reports([](Subjects &s) { KrMutex::lock(&s.mutex, a, 42, f); }) << 59
                           << lockWarning("a.cpp        42        f");
    QTest::newRow("read-write lock")
            << Reports([](Subjects &s) { KrMutex::lockForRead(&s.lock, a, 42, f); }) << 59
            << lockWarning("a.cpp        42        f");
    QTest::newRow("taken again after 30 s: the count-down restarts") << Reports([](Subjects &s) {
        KrMutex::lock(&s.mutex, QStringLiteral("outer.cpp"), 1, QStringLiteral("outer"));
        s.mutex.unlock(); // unreported: the record stays
        tick(30);
        KrMutex::lock(&s.mutex, QStringLiteral("inner.cpp"), 2, QStringLiteral("inner"));
    }) << 59 << lockWarning("inner.cpp        2        inner");
    QTest::newRow("read and write share one record") << Reports([](Subjects &s) {
        KrMutex::lockForWrite(&s.lock, QStringLiteral("w.cpp"), 1, QStringLiteral("writer"));
        s.lock.unlock();
        KrMutex::lockForRead(&s.lock, QStringLiteral("r.cpp"), 2, QStringLiteral("reader"));
    }) << 59 << lockWarning("r.cpp        2        reader");
    // Reports are recorded in batches; the table ends in the state of each lock's last report.
    QTest::newRow("taken, released, taken again") << Reports([](Subjects &s) {
        KrMutex::lock(&s.mutex, a, 1, QStringLiteral("first"));
        KrMutex::unlock(&s.mutex);
        KrMutex::lock(&s.mutex, a, 2, QStringLiteral("again"));
    }) << 59 << lockWarning("a.cpp        2        again");
    QTest::newRow("taken and released twice") << Reports([](Subjects &s) {
        for (int i = 0; i < 2; ++i)
            KrMutexLocker locker(&s.mutex, a, i, f);
    }) << 59 << QString();
    QTest::newRow("reported with whole texts") << Reports([](Subjects &s) {
        locks()->mutexLock(&s.mutex, QStringLiteral("whole text one"));
        locks()->mutexUnLock(&s.mutex);
        locks()->mutexLock(&s.mutex, QStringLiteral("whole text two"));
    }) << 59 << lockWarning("whole text two");
    QTest::newRow("a mutex released after a read-write take at its address")
            << Reports([](Subjects &s) {
                   locks()->readWriteMutexLock(reinterpret_cast<QReadWriteLock *>(&s.mutex),
                                               QStringLiteral("read-write text"));
                   KrMutexLocker locker(&s.mutex, a, 3, f);
               })
            << 59 << lockWarning("read-write text");

    // A guard's budget of N seconds is reported at the (N+1)-th tick, stating the default 60.
    const char *guardText = "Risk                recalculate";
    QTest::newRow("guard of 5 s") << guardFor(5) << 5 << guardWarning(guardText);
    QTest::newRow("guard of 1 s") << guardFor(1) << 1 << guardWarning(guardText);
    QTest::newRow("guard of 0 s: 60 s") << guardFor(0) << 60 << guardWarning(guardText);
    QTest::newRow("guard of -3 s: 60 s") << guardFor(-3) << 60 << guardWarning(guardText);
    QTest::newRow("a second add keeps the first record") << Reports([](Subjects &s) {
        s.guard.reset(new KrFunctionGuard(QStringLiteral("First"), QStringLiteral("text"), 0, 2));
        guards()->FuctionGuardAdd(s.guard.get(), QStringLiteral("Second text"), 100);
    }) << 2 << guardWarning("First                text");
    QTest::newRow("guard ended in time") << Reports([guardFor](Subjects &s) {
        guardFor(1)(s);
        tick(1);
        s.guard.reset();
    }) << 59 << QString();
}

void tst_KrMonitors::countDown()
{
    QFETCH(Reports, reports);
    QFETCH(int, quietTicks);
    QFETCH(QString, warning);

    MessageCapture capture;
    Subjects s;
    reports(s);
    tick(quietTicks);
    QCOMPARE(warnings(capture), QStringList());

    tick(1);
    const QStringList found = warnings(capture);
    warning.replace(QLatin1String("<guard>"),
                    QStringLiteral("0x%1").arg(quintptr(s.guard.get()), 0, 16));
    QCOMPARE(found, warning.isEmpty() ? QStringList() : QStringList(warning));

    // reported once, then forgotten
    tick(100);
    QCOMPARE(warnings(capture), found);
    QVERIFY(!locks()->containsMutex(&s.mutex));
    QVERIFY(!locks()->containsReadWriteMutex(&s.lock));
}

void tst_KrMonitors::queriesSeeEveryEarlierReport()
{
    QMutex mutex;
    QReadWriteLock lock;
    {
        KrMutexLocker locker(&mutex, a, 42, f);
        KrWriteLocker writer(&lock, a, 43, f);
        QVERIFY(locks()->containsMutex(&mutex));
        QVERIFY(locks()->containsReadWriteMutex(&lock));
        QVERIFY(!locks()->containsReadWriteMutex(reinterpret_cast<QReadWriteLock *>(&mutex)));
    }
    QVERIFY(!locks()->containsMutex(&mutex));
    QVERIFY(!locks()->containsReadWriteMutex(&lock));

    // Taken on one thread and released on another, again and again with no query in between:
    // no release overtakes its take.
    for (int i = 0; i < 200; ++i) {
        std::thread([&] { KrMutex::lock(&mutex, a, i, f); }).join();
        if (i == 0)
            QVERIFY(locks()->containsMutex(&mutex));
        KrMutex::unlock(&mutex);
    }
    QVERIFY(!locks()->containsMutex(&mutex));
}

// A monitor whose thread cannot record (here: it is blocked) never hangs threads that flood it,
// and no report is lost.
void tst_KrMonitors::floodAgainstStalledMonitorDoesNotHang_data()
{
    QTest::addColumn<int>("threads");
    QTest::newRow("one thread") << 1;
    QTest::newRow("two threads") << 2;
}

void tst_KrMonitors::floodAgainstStalledMonitorDoesNotHang()
{
    QFETCH(int, threads);
    QSemaphore stalled;
    QSemaphore resume;
    QMetaObject::invokeMethod(locks(), [&] {
        stalled.release();
        resume.acquire();
    });
    stalled.acquire();

    QMutex mutexes[2];
    const int pairs = 20000; // many times what the monitor holds between two drains
    std::vector<std::thread> flooders;
    for (int t = 0; t < threads; ++t) {
        flooders.emplace_back([&, t] {
            for (int i = 0; i < pairs; ++i)
                KrMutexLocker locker(&mutexes[t], a, i, f);
        });
    }
    for (std::thread &flooder : flooders)
        flooder.join();
    KrMutexLocker last(&mutexes[0], a, pairs, f);

    resume.release();
    QVERIFY(locks()->containsMutex(&mutexes[0])); // the last take, behind all the other reports
    QVERIFY(!locks()->containsMutex(&mutexes[1]));
    last.unlock();
    QVERIFY(!locks()->containsMutex(&mutexes[0]));
    waitForQueuedReports(locks()); // the monitor thread is done with the semaphores
}

void tst_KrMonitors::guardLogsEntryAndExit()
{
    // A slow log sink delays the entry line; the guard's clock starts after it. Both ends are
    // read on the guard's own clock (whole milliseconds of wall time): the guard's start comes
    // after afterEntry and its end before afterExit, so whatever the machine's load, its elapsed
    // time cannot exceed theirs, while a clock started before the entry line would add the delay.
    MessageCapture capture;
    qint64 afterEntry = 0;
    capture.onMessage = [&](const CapturedMessage &message) {
        if (message.text.contains(QLatin1String("KrFuctionGuard enter"))) {
            QThread::msleep(400);
            afterEntry = QDateTime::currentMSecsSinceEpoch();
        }
    };
    QSignalSpy added(guards(), &KrFunctionGuardManager::signalFuctionGuardAdd);
    QSignalSpy deleted(guards(), &KrFunctionGuardManager::signalFuctionGuardDelete);
    QString name;
    {
        KrFunctionGuard guard(QStringLiteral("OrderBook"), QStringLiteral("rebuild"), true, 5);
        QVERIFY(guard.flag());
        name = QStringLiteral("OrderBook rebuild KrFunctionGuard(0x%1)")
                       .arg(quintptr(&guard), 0, 16);
    }
    const qint64 afterExit = QDateTime::currentMSecsSinceEpoch();

    const auto lines = capture.matching(QtDebugMsg, QStringLiteral("KrFuctionGuard"));
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines[0].file, QStringLiteral("shell/krutils/KrFunctionGuard"));
    QCOMPARE(lines[0].text, "KrFunctionGuard::KrFunctionGuard KrFuctionGuard enter " + name);
    const QString exit = QStringLiteral("KrFunctionGuard::~KrFunctionGuard ~KrFuctionGuard exit , "
                                        "time elapsed  ");
    const qint64 elapsed = lines[1].text.mid(exit.size()).section(' ', 0, 0).toLongLong();
    QCOMPARE(lines[1].text, exit + QString::number(elapsed) + QLatin1Char(' ') + name);
    QVERIFY(afterEntry > 0);
    QVERIFY2(elapsed <= afterExit - afterEntry, qPrintable(lines[1].text));

    // whoever connects to the report signals gets every report
    QCOMPARE(added.size(), 1);
    QCOMPARE(added.first().mid(1),
             QVariantList({QStringLiteral("OrderBook                rebuild"), 5}));
    QCOMPARE(deleted.size(), 1);
}

QTEST_GUILESS_MAIN(tst_KrMonitors)
#include "tst_krmonitors.moc"
