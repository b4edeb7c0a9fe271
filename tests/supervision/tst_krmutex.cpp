#include "KrTestSupport.h"

#include <krutils/KrMutex.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>
#include <krutils/KrReadLocker.h>
#include <krutils/KrWriteLocker.h>

#include <QReadWriteLock>
#include <QSignalSpy>
#include <QtTest>

#include <functional>
#include <memory>

using LockAction = std::function<bool()>;
Q_DECLARE_METATYPE(LockAction)

namespace {
const QString first = QStringLiteral("a.cpp");
const QString second = QStringLiteral("f");
const QString callSite = QStringLiteral("a.cpp        42        f");

// Whether a lock is held by anyone right now, without waiting for it.
bool isHeld(QMutex *mutex)
{
    if (!mutex->tryLock())
        return true;
    mutex->unlock();
    return false;
}

bool isHeld(QReadWriteLock *lock)
{
    if (!lock->tryLockForWrite())
        return true;
    lock->unlock();
    return false;
}

template<typename Guard, typename Lock> QVector<bool> heldAcrossUnlocks(Guard &guard, Lock *lock)
{
    QVector<bool> held {isHeld(lock)};
    guard.unlock();
    held.append(isHeld(lock));
    guard.unlock();
    held.append(isHeld(lock));
    return held;
}
} // namespace

// The lock wrappers, observed through the monitor's report signals (the monitor itself is not
// started in this test).
class tst_KrMutex : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void reportsAfterTheLockChanged_data();
    void reportsAfterTheLockChanged();
    void failedTryReportsNothing_data();
    void failedTryReportsNothing();
    void guardOverNullHoldsNothing();
    void guardReleasesAndReportsOnce_data();
    void guardReleasesAndReportsOnce();

private:
    struct Observation
    {
        QVector<bool> heldAtLockReport;
        QVector<bool> heldAtUnlockReport;
        QStringList texts;
    };

    QMutex m_mutex;
    QReadWriteLock m_readWriteLock;
    std::unique_ptr<QObject> m_context; // owns the observing connections of one test
    Observation m_seen;
    int m_mutexReports = 0;
    int m_readWriteReports = 0;
};

void tst_KrMutex::init()
{
    m_context.reset(new QObject);
    m_seen = {};
    m_mutexReports = m_readWriteReports = 0;
    KrMutexManager *monitor = KrMutexManager::getInstance();
    connect(monitor, &KrMutexManager::signalMutexLock, m_context.get(),
            [this](QMutex *mutex, const QString &text) {
                QCOMPARE(mutex, &m_mutex);
                m_seen.heldAtLockReport.append(isHeld(mutex));
                m_seen.texts.append(text);
                ++m_mutexReports;
            });
    connect(monitor, &KrMutexManager::signalMutexUnLock, m_context.get(), [this](QMutex *mutex) {
        m_seen.heldAtUnlockReport.append(isHeld(mutex));
        ++m_mutexReports;
    });
    connect(monitor, &KrMutexManager::signalReadWriteMutexLock, m_context.get(),
            [this](QReadWriteLock *lock, const QString &text) {
                QCOMPARE(lock, &m_readWriteLock);
                m_seen.heldAtLockReport.append(isHeld(lock));
                m_seen.texts.append(text);
                ++m_readWriteReports;
            });
    connect(monitor, &KrMutexManager::signalReadWriteMutexUnLock, m_context.get(),
            [this](QReadWriteLock *lock) {
                m_seen.heldAtUnlockReport.append(isHeld(lock));
                ++m_readWriteReports;
            });
}

void tst_KrMutex::cleanup()
{
    m_context.reset();
}

void tst_KrMutex::reportsAfterTheLockChanged_data()
{
    QTest::addColumn<LockAction>("take");
    QTest::addColumn<bool>("readWrite");

    QMutex *m = &m_mutex;
    QReadWriteLock *rw = &m_readWriteLock;
    QTest::newRow("lock") << LockAction([m] {
        KrMutex::lock(m, first, 42, second);
        return true;
    }) << false;
    QTest::newRow("trylock") << LockAction([m] {
        return KrMutex::trylock(m, 100, first, 42, second);
    }) << false;
    QTest::newRow("lockForRead") << LockAction([rw] {
        KrMutex::lockForRead(rw, first, 42, second);
        return true;
    }) << true;
    QTest::newRow("lockForWrite") << LockAction([rw] {
        KrMutex::lockForWrite(rw, first, 42, second);
        return true;
    }) << true;
    QTest::newRow("tryLockForRead")
            << LockAction([rw] { return KrMutex::tryLockForRead(rw, first, 42, second); }) << true;
    QTest::newRow("tryLockForRead timeout")
            << LockAction([rw] { return KrMutex::tryLockForRead(rw, 100, first, 42, second); })
            << true;
    QTest::newRow("tryLockForWrite")
            << LockAction([rw] { return KrMutex::tryLockForWrite(rw, first, 42, second); }) << true;
    QTest::newRow("tryLockForWrite timeout")
            << LockAction([rw] { return KrMutex::tryLockForWrite(rw, 100, first, 42, second); })
            << true;
}

void tst_KrMutex::reportsAfterTheLockChanged()
{
    QFETCH(LockAction, take);
    QFETCH(bool, readWrite);

    QVERIFY(take());
    if (readWrite)
        KrMutex::unlockReadWrite(&m_readWriteLock);
    else
        KrMutex::unlock(&m_mutex);

    QCOMPARE(readWrite ? m_readWriteReports : m_mutexReports, 2);
    QCOMPARE(readWrite ? m_mutexReports : m_readWriteReports, 0);
    QCOMPARE(m_seen.texts, QStringList {callSite});
    QCOMPARE(m_seen.heldAtLockReport, QVector<bool> {true});
    QCOMPARE(m_seen.heldAtUnlockReport, QVector<bool> {false});
}

void tst_KrMutex::failedTryReportsNothing_data()
{
    QTest::addColumn<LockAction>("hold");
    QTest::addColumn<LockAction>("tryTake");
    QTest::addColumn<LockAction>("release");

    QMutex *m = &m_mutex;
    QReadWriteLock *rw = &m_readWriteLock;
    const LockAction holdMutex([m] {
        m->lock();
        return true;
    });
    const LockAction releaseMutex([m] {
        m->unlock();
        return true;
    });
    const LockAction holdForRead([rw] {
        rw->lockForRead();
        return true;
    });
    const LockAction holdForWrite([rw] {
        rw->lockForWrite();
        return true;
    });
    const LockAction releaseReadWrite([rw] {
        rw->unlock();
        return true;
    });

    QTest::newRow("trylock") << holdMutex << LockAction([m] {
        return KrMutex::trylock(m, 10, first, 42, second);
    }) << releaseMutex;
    QTest::newRow("tryLockForRead") << holdForWrite << LockAction([rw] {
        return KrMutex::tryLockForRead(rw, first, 42, second);
    }) << releaseReadWrite;
    QTest::newRow("tryLockForRead timeout") << holdForWrite << LockAction([rw] {
        return KrMutex::tryLockForRead(rw, 10, first, 42, second);
    }) << releaseReadWrite;
    QTest::newRow("tryLockForWrite") << holdForRead << LockAction([rw] {
        return KrMutex::tryLockForWrite(rw, first, 42, second);
    }) << releaseReadWrite;
    QTest::newRow("tryLockForWrite timeout") << holdForRead << LockAction([rw] {
        return KrMutex::tryLockForWrite(rw, 10, first, 42, second);
    }) << releaseReadWrite;
}

void tst_KrMutex::failedTryReportsNothing()
{
    QFETCH(LockAction, hold);
    QFETCH(LockAction, tryTake);
    QFETCH(LockAction, release);

    hold(); // plain Qt call: not reported
    const bool taken = tryTake();
    release();
    QVERIFY(!taken);
    QCOMPARE(m_mutexReports + m_readWriteReports, 0);
}

void tst_KrMutex::guardOverNullHoldsNothing()
{
    {
        KrMutexLocker mutexLocker(nullptr, first, 42, second);
        KrReadLocker readLocker(nullptr, first, 42, second);
        KrWriteLocker writeLocker(nullptr, first, 42, second);
        QCOMPARE(mutexLocker.mutex(), nullptr);
        QCOMPARE(readLocker.readWriteLock(), nullptr);
        QCOMPARE(writeLocker.readWriteLock(), nullptr);
        mutexLocker.unlock();
        readLocker.unlock();
    }
    QCOMPARE(m_mutexReports + m_readWriteReports, 0);
}

void tst_KrMutex::guardReleasesAndReportsOnce_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("KrMutexLocker") << 0;
    QTest::newRow("KrReadLocker") << 1;
    QTest::newRow("KrWriteLocker") << 2;
}

void tst_KrMutex::guardReleasesAndReportsOnce()
{
    QFETCH(int, kind);

    // held while alive, released by the first unlock(), never released twice
    const QVector<bool> expected {true, false, false};
    if (kind == 0) {
        KrMutexLocker guard(&m_mutex, first, 42, second);
        QCOMPARE(guard.mutex(), &m_mutex);
        QCOMPARE(heldAcrossUnlocks(guard, &m_mutex), expected);
        QCOMPARE(guard.mutex(), &m_mutex);
    } else if (kind == 1) {
        KrReadLocker guard(&m_readWriteLock, first, 42, second);
        QCOMPARE(guard.readWriteLock(), &m_readWriteLock);
        QCOMPARE(heldAcrossUnlocks(guard, &m_readWriteLock), expected);
    } else {
        KrWriteLocker guard(&m_readWriteLock, first, 42, second);
        QCOMPARE(guard.readWriteLock(), &m_readWriteLock);
        QCOMPARE(heldAcrossUnlocks(guard, &m_readWriteLock), expected);
    }
    // one lock and one unlock report, whatever the guard's destructor did after unlock()
    QCOMPARE(m_mutexReports + m_readWriteReports, 2);
    QCOMPARE(m_seen.heldAtLockReport, QVector<bool> {true});
    QCOMPARE(m_seen.heldAtUnlockReport, QVector<bool> {false});
    QCOMPARE(m_seen.texts, QStringList {callSite});
}

QTEST_GUILESS_MAIN(tst_KrMutex)
#include "tst_krmutex.moc"
