#include "KrTestSupport.h"

#include <krutils/KrMutex.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>
#include <krutils/KrReadLocker.h>
#include <krutils/KrWriteLocker.h>

#include <QReadWriteLock>
#include <QSemaphore>
#include <QSignalSpy>
#include <QtTest>

#include <functional>
#include <thread>
#include <vector>

using Reports = std::function<void(QMutex *)>;
Q_DECLARE_METATYPE(Reports)

namespace {
const QString timeOutText = QStringLiteral("mutex lock time out , please check it");
}

// The started lock monitor. Its own one-second timer is stopped; the tests deliver the ticks.
class tst_KrMutexManager : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void runsOnItsOwnThread();
    void recordFollowsTheLock();
    void warnsOnceAfterSixtyTicks_data();
    void warnsOnceAfterSixtyTicks();
    void retakingRestartsTheCountDown();
    void readAndWriteLocksShareOneRecord();
    void lastReportOfALockDecides_data();
    void lastReportOfALockDecides();
    void lockReleasedOnAnotherThread();
    void floodAgainstStalledMonitorDoesNotHang_data();
    void floodAgainstStalledMonitorDoesNotHang();

private:
    KrMutexManager *monitor() const { return KrMutexManager::getInstance(); }
    QVector<CapturedMessage> timeOutWarnings() const
    {
        return m_capture->matching(QtWarningMsg, timeOutText);
    }

    std::unique_ptr<MessageCapture> m_capture;
};

void tst_KrMutexManager::initTestCase()
{
    monitor()->start();
    monitor()->start(); // a second start changes nothing
    QTRY_VERIFY(monitor()->thread() != QThread::currentThread());
    stopOwnTimers(monitor());
}

void tst_KrMutexManager::init()
{
    m_capture.reset(new MessageCapture);
}

void tst_KrMutexManager::cleanup()
{
    m_capture.reset();
}

void tst_KrMutexManager::runsOnItsOwnThread()
{
    QThread *thread = monitor()->thread();
    QCOMPARE(thread->objectName(), QStringLiteral("KrMutexManager"));
    QVERIFY(thread->isRunning());
}

void tst_KrMutexManager::recordFollowsTheLock()
{
    QMutex mutex;
    QReadWriteLock readWriteLock;
    QSignalSpy lockReports(monitor(), &KrMutexManager::signalMutexLock);
    QSignalSpy unlockReports(monitor(), &KrMutexManager::signalReadWriteMutexUnLock);
    QVERIFY(!monitor()->containsMutex(&mutex));
    {
        KrMutexLocker locker(&mutex, QStringLiteral("a.cpp"), 42, QStringLiteral("f"));
        KrWriteLocker writeLocker(&readWriteLock, QStringLiteral("a.cpp"), 43, QStringLiteral("f"));
        QVERIFY(monitor()->containsMutex(&mutex));
        QVERIFY(monitor()->containsReadWriteMutex(&readWriteLock));
        QVERIFY(!monitor()->containsReadWriteMutex(reinterpret_cast<QReadWriteLock *>(&mutex)));
    }
    QVERIFY(!monitor()->containsMutex(&mutex));
    QVERIFY(!monitor()->containsReadWriteMutex(&readWriteLock));

    // whoever connects to the report signals still gets every report, on the reporting thread
    QCOMPARE(lockReports.size(), 1);
    QCOMPARE(lockReports.first().at(1).toString(), QStringLiteral("a.cpp        42        f"));
    QCOMPARE(unlockReports.size(), 1);
}

void tst_KrMutexManager::warnsOnceAfterSixtyTicks_data()
{
    QTest::addColumn<bool>("readWrite");
    QTest::newRow("mutex") << false;
    QTest::newRow("read-write lock") << true;
}

void tst_KrMutexManager::warnsOnceAfterSixtyTicks()
{
    QFETCH(bool, readWrite);
    QMutex mutex;
    QReadWriteLock readWriteLock;
    auto isRecorded = [&] {
        return readWrite ? monitor()->containsReadWriteMutex(&readWriteLock)
                         : monitor()->containsMutex(&mutex);
    };
    if (readWrite)
        KrMutex::lockForRead(&readWriteLock, QStringLiteral("a.cpp"), 42, QStringLiteral("f"));
    else
        KrMutex::lock(&mutex, QStringLiteral("a.cpp"), 42, QStringLiteral("f"));

    sendTicks(monitor(), 59);
    QVERIFY(timeOutWarnings().isEmpty());
    QVERIFY(isRecorded());

    sendTicks(monitor(), 1);
    const auto warnings = timeOutWarnings();
    QCOMPARE(warnings.size(), 1);
    QCOMPARE(warnings.first().text,
             QStringLiteral("KrMutexManager::timerEvent mutex lock time out , please check it "
                            "a.cpp        42        f"));
    QCOMPARE(warnings.first().file, QStringLiteral("shell/krutils/KrMutexManager"));
    QVERIFY(!isRecorded()); // reported once, then forgotten

    sendTicks(monitor(), 120);
    QCOMPARE(timeOutWarnings().size(), 1);

    // the late release finds nothing to remove
    if (readWrite)
        KrMutex::unlockReadWrite(&readWriteLock);
    else
        KrMutex::unlock(&mutex);
    QVERIFY(!isRecorded());
}

void tst_KrMutexManager::retakingRestartsTheCountDown()
{
    QMutex mutex(QMutex::Recursive);
    KrMutexLocker outer(&mutex, QStringLiteral("outer.cpp"), 1, QStringLiteral("outer"));
    sendTicks(monitor(), 30);

    KrMutex::lock(&mutex, QStringLiteral("inner.cpp"), 2, QStringLiteral("inner"));
    sendTicks(monitor(), 59);
    QVERIFY(timeOutWarnings().isEmpty());

    sendTicks(monitor(), 1);
    const auto warnings = timeOutWarnings();
    QCOMPARE(warnings.size(), 1);
    QVERIFY(warnings.first().text.endsWith(QLatin1String("inner.cpp        2        inner")));

    mutex.unlock(); // the inner take, unreported: the record is already gone
}

void tst_KrMutexManager::readAndWriteLocksShareOneRecord()
{
    QReadWriteLock lock;
    KrMutex::lockForWrite(&lock, QStringLiteral("w.cpp"), 1, QStringLiteral("writer"));
    lock.unlock(); // released without a report: the writer's record stays
    KrReadLocker reader(&lock, QStringLiteral("r.cpp"), 2, QStringLiteral("reader"));
    QVERIFY(monitor()->containsReadWriteMutex(&lock));

    sendTicks(monitor(), 60);
    const auto warnings = timeOutWarnings();
    QCOMPARE(warnings.size(), 1); // one record, taken over by the reader
    QVERIFY(warnings.first().text.endsWith(QLatin1String("r.cpp        2        reader")));
}

// Reports are recorded in batches; whatever the batch, the table ends in the state of each lock's
// last report.
void tst_KrMutexManager::lastReportOfALockDecides_data()
{
    QTest::addColumn<Reports>("reports");
    QTest::addColumn<QString>("warning"); // after 60 ticks; empty: none

    QTest::newRow("taken, released, taken again") << Reports([](QMutex *mutex) {
        KrMutex::lock(mutex, QStringLiteral("a.cpp"), 1, QStringLiteral("first"));
        KrMutex::unlock(mutex);
        KrMutex::lock(mutex, QStringLiteral("a.cpp"), 2, QStringLiteral("again"));
        mutex->unlock(); // unreported: the record stays
    }) << QStringLiteral("a.cpp        2        again");
    QTest::newRow("taken and released twice") << Reports([](QMutex *mutex) {
        for (int i = 0; i < 2; ++i)
            KrMutexLocker locker(mutex, QStringLiteral("a.cpp"), i, QStringLiteral("twice"));
    }) << QString();
    QTest::newRow("reported with whole texts") << Reports([](QMutex *mutex) {
        KrMutexManager::getInstance()->mutexLock(mutex, QStringLiteral("whole text one"));
        KrMutexManager::getInstance()->mutexUnLock(mutex);
        KrMutexManager::getInstance()->mutexLock(mutex, QStringLiteral("whole text two"));
    }) << QStringLiteral("whole text two");
    QTest::newRow("a mutex released after a read-write take at its address")
            << Reports([](QMutex *mutex) {
                   KrMutexManager::getInstance()->readWriteMutexLock(
                           reinterpret_cast<QReadWriteLock *>(mutex),
                           QStringLiteral("read-write text"));
                   KrMutexLocker locker(mutex, QStringLiteral("a.cpp"), 3, QStringLiteral("m"));
               })
            << QStringLiteral("read-write text");
}

void tst_KrMutexManager::lastReportOfALockDecides()
{
    QFETCH(Reports, reports);
    QFETCH(QString, warning);

    QMutex mutex;
    reports(&mutex);
    sendTicks(monitor(), 60);
    const auto warnings = timeOutWarnings();
    QCOMPARE(warnings.size(), warning.isEmpty() ? 0 : 1);
    if (!warning.isEmpty())
        QVERIFY2(warnings.first().text.endsWith(warning), qPrintable(warnings.first().text));
}

void tst_KrMutexManager::lockReleasedOnAnotherThread()
{
    QMutex mutex;
    std::thread([&] {
        KrMutex::lock(&mutex, QStringLiteral("t.cpp"), 1, QStringLiteral("taker"));
    }).join();
    QVERIFY(monitor()->containsMutex(&mutex));

    KrMutex::unlock(&mutex);
    QVERIFY(!monitor()->containsMutex(&mutex));

    // handed over again and again with no reader in between: no release overtakes its take
    for (int i = 0; i < 200; ++i) {
        std::thread([&] {
            KrMutex::lock(&mutex, QStringLiteral("t.cpp"), 2, QStringLiteral("taker"));
        }).join();
        KrMutex::unlock(&mutex);
    }
    QVERIFY(!monitor()->containsMutex(&mutex));
}

// A monitor whose thread cannot record (here: it is blocked) never hangs threads that flood it,
// and no report is lost.
void tst_KrMutexManager::floodAgainstStalledMonitorDoesNotHang_data()
{
    QTest::addColumn<int>("threads");
    QTest::newRow("one thread") << 1;
    QTest::newRow("two threads") << 2;
}

void tst_KrMutexManager::floodAgainstStalledMonitorDoesNotHang()
{
    QFETCH(int, threads);
    QSemaphore stalled;
    QSemaphore resume;
    QMetaObject::invokeMethod(monitor(), [&] {
        stalled.release();
        resume.acquire();
    });
    stalled.acquire();

    QMutex mutexes[2];
    QMutex &mutex = mutexes[0];
    const int pairs = 20000; // many times what the monitor holds between two drains
    std::vector<std::thread> flooders;
    for (int t = 0; t < threads; ++t) {
        flooders.emplace_back([&, t] {
            for (int i = 0; i < pairs; ++i)
                KrMutexLocker locker(&mutexes[t], QStringLiteral("flood.cpp"), i,
                                     QStringLiteral("flood"));
        });
    }
    for (std::thread &flooder : flooders)
        flooder.join();
    KrMutexLocker last(&mutex, QStringLiteral("flood.cpp"), pairs, QStringLiteral("last"));

    resume.release();
    QVERIFY(monitor()->containsMutex(&mutex)); // the last take, behind all the other reports
    QVERIFY(!monitor()->containsMutex(&mutexes[1]));
    last.unlock();
    QVERIFY(!monitor()->containsMutex(&mutex));
    waitForQueuedReports(monitor()); // the monitor thread is done with the semaphores
}

QTEST_GUILESS_MAIN(tst_KrMutexManager)
#include "tst_krmutexmanager.moc"
