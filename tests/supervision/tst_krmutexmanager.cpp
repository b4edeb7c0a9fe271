#include "KrTestSupport.h"

#include <krutils/KrMutex.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>
#include <krutils/KrReadLocker.h>
#include <krutils/KrWriteLocker.h>

#include <QReadWriteLock>
#include <QSemaphore>
#include <QtTest>

#include <thread>

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
    void lockReleasedOnAnotherThread();
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
    QVERIFY(!monitor()->containsMutex(&mutex));
    {
        KrMutexLocker locker(&mutex, QStringLiteral("a.cpp"), 42, QStringLiteral("f"));
        KrWriteLocker writeLocker(&readWriteLock, QStringLiteral("a.cpp"), 43, QStringLiteral("f"));
        waitForQueuedReports(monitor());
        QVERIFY(monitor()->containsMutex(&mutex));
        QVERIFY(monitor()->containsReadWriteMutex(&readWriteLock));
        QVERIFY(!monitor()->containsReadWriteMutex(reinterpret_cast<QReadWriteLock *>(&mutex)));
    }
    waitForQueuedReports(monitor());
    QVERIFY(!monitor()->containsMutex(&mutex));
    QVERIFY(!monitor()->containsReadWriteMutex(&readWriteLock));
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
    waitForQueuedReports(monitor());

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
    waitForQueuedReports(monitor());
    QVERIFY(!isRecorded());
}

void tst_KrMutexManager::retakingRestartsTheCountDown()
{
    QMutex mutex(QMutex::Recursive);
    KrMutexLocker outer(&mutex, QStringLiteral("outer.cpp"), 1, QStringLiteral("outer"));
    waitForQueuedReports(monitor());
    sendTicks(monitor(), 30);

    KrMutex::lock(&mutex, QStringLiteral("inner.cpp"), 2, QStringLiteral("inner"));
    waitForQueuedReports(monitor());
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
    waitForQueuedReports(monitor());
    QVERIFY(monitor()->containsReadWriteMutex(&lock));

    sendTicks(monitor(), 60);
    const auto warnings = timeOutWarnings();
    QCOMPARE(warnings.size(), 1); // one record, taken over by the reader
    QVERIFY(warnings.first().text.endsWith(QLatin1String("r.cpp        2        reader")));
}

void tst_KrMutexManager::lockReleasedOnAnotherThread()
{
    QMutex mutex;
    std::thread([&] {
        KrMutex::lock(&mutex, QStringLiteral("t.cpp"), 1, QStringLiteral("taker"));
    }).join();
    waitForQueuedReports(monitor());
    QVERIFY(monitor()->containsMutex(&mutex));

    KrMutex::unlock(&mutex);
    waitForQueuedReports(monitor());
    QVERIFY(!monitor()->containsMutex(&mutex));
}

// A monitor that cannot record (here: its thread is blocked) slows a flooding thread down for a
// moment but never hangs it, and no report is lost: once the monitor runs again it catches up.
void tst_KrMutexManager::floodAgainstStalledMonitorDoesNotHang()
{
    QSemaphore stalled;
    QSemaphore resume;
    QMetaObject::invokeMethod(monitor(), [&] {
        stalled.release();
        resume.acquire();
    });
    stalled.acquire();

    QMutex mutex;
    const int pairs = 20000; // well past the point where the reporter is paced
    for (int i = 0; i < pairs; ++i)
        KrMutexLocker locker(&mutex, QStringLiteral("flood.cpp"), i, QStringLiteral("flood"));
    KrMutexLocker last(&mutex, QStringLiteral("flood.cpp"), pairs, QStringLiteral("last"));

    resume.release();
    waitForQueuedReports(monitor());
    QVERIFY(monitor()->containsMutex(&mutex)); // the last take, behind 40,000 other reports
    last.unlock();
    waitForQueuedReports(monitor());
    QVERIFY(!monitor()->containsMutex(&mutex));
}

QTEST_GUILESS_MAIN(tst_KrMutexManager)
#include "tst_krmutexmanager.moc"
