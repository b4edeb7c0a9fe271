#include <krutils/KrMutex.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>
#include <krutils/KrReadLocker.h>
#include <krutils/KrWriteLocker.h>

#include <QReadWriteLock>
#include <QtTest>

#include <functional>
#include <memory>
#include <utility>

// Takes the test's lock through one of the wrappers; returns whether it took it.
using Take = std::function<bool()>;
Q_DECLARE_METATYPE(Take)

namespace {
const QString a = QStringLiteral("a.cpp");
const QString f = QStringLiteral("f");

// Whether anyone holds the lock right now, without waiting for it.
bool isHeld(QMutex *mutex)
{
    const bool free = mutex->tryLock();
    if (free)
        mutex->unlock();
    return !free;
}

bool isHeld(QReadWriteLock *lock)
{
    const bool free = lock->tryLockForWrite();
    if (free)
        lock->unlock();
    return !free;
}

// A report as the tests compare it: its kind, whether the lock was held as it was made, its text.
template<typename Lock>
QString describe(const char *kind, Lock *lock, Lock *expected, const QString &text = QString())
{
    if (lock != expected)
        return QStringLiteral("a report on another lock");
    return QStringLiteral("%1 while %2 %3")
            .arg(QLatin1String(kind), QLatin1String(isHeld(lock) ? "held" : "free"), text)
            .trimmed();
}

// How the lock stands when the wrapper is called: only a free lock is taken.
enum Given { FreeLock, HeldMutex, ReadLocked, WriteLocked, NoLock };
} // namespace

Q_DECLARE_METATYPE(Given)

// The lock wrappers, observed through the lock monitor's report signals. The monitor is not
// started here: the signals reach whoever connects to them all the same.
class tst_KrMutex : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void reportsAfterTheLockChanged_data();
    void reportsAfterTheLockChanged();

private:
    QMutex m_mutex;
    QReadWriteLock m_lock;
    std::function<void()> m_release; // set by the rows of the scope guards
    std::unique_ptr<QObject> m_context; // owns the observing connections of one row
    QStringList m_reports;
};

void tst_KrMutex::init()
{
    m_reports.clear();
    m_release = nullptr; // a guard left over by a failed row releases its lock
    m_context.reset(new QObject);
    KrMutexManager *monitor = KrMutexManager::getInstance();
    QObject *context = m_context.get();
    connect(monitor, &KrMutexManager::signalMutexLock, context, [this](QMutex *m, QString text) {
        m_reports << describe("mutex lock", m, &m_mutex, text);
    });
    connect(monitor, &KrMutexManager::signalMutexUnLock, context,
            [this](QMutex *m) { m_reports << describe("mutex unlock", m, &m_mutex); });
    connect(monitor, &KrMutexManager::signalReadWriteMutexLock, context,
            [this](QReadWriteLock *l, QString text) {
                m_reports << describe("read-write lock", l, &m_lock, text);
            });
    connect(monitor, &KrMutexManager::signalReadWriteMutexUnLock, context,
            [this](QReadWriteLock *l) { m_reports << describe("read-write unlock", l, &m_lock); });
}

void tst_KrMutex::reportsAfterTheLockChanged_data()
{
    QTest::addColumn<Take>("take");
    QTest::addColumn<bool>("readWrite");
    QTest::addColumn<Given>("given");

    const auto taken = [](std::function<void()> call) {
        return Take([call] {
            call();
            return true;
        });
    };
    const Take lock = taken([this] { KrMutex::lock(&m_mutex, a, 42, f); });
    const Take trylock([this] { return KrMutex::trylock(&m_mutex, 10, a, 42, f); });
    const Take lockForRead = taken([this] { KrMutex::lockForRead(&m_lock, a, 42, f); });
    const Take lockForWrite = taken([this] { KrMutex::lockForWrite(&m_lock, a, 42, f); });
    const Take tryRead([this] { return KrMutex::tryLockForRead(&m_lock, a, 42, f); });
    const Take tryReadFor([this] { return KrMutex::tryLockForRead(&m_lock, 10, a, 42, f); });
    const Take tryWrite([this] { return KrMutex::tryLockForWrite(&m_lock, a, 42, f); });
    const Take tryWriteFor([this] { return KrMutex::tryLockForWrite(&m_lock, 10, a, 42, f); });

    QTest::newRow("lock") << lock << false << FreeLock;
    QTest::newRow("trylock") << trylock << false << FreeLock;
    QTest::newRow("lockForRead") << lockForRead << true << FreeLock;
    QTest::newRow("lockForWrite") << lockForWrite << true << FreeLock;
    QTest::newRow("tryLockForRead") << tryRead << true << FreeLock;
    QTest::newRow("tryLockForRead, time-out") << tryReadFor << true << FreeLock;
    QTest::newRow("tryLockForWrite") << tryWrite << true << FreeLock;
    QTest::newRow("tryLockForWrite, time-out") << tryWriteFor << true << FreeLock;
    QTest::newRow("trylock fails") << trylock << false << HeldMutex;
    QTest::newRow("tryLockForRead fails") << tryRead << true << WriteLocked;
    QTest::newRow("tryLockForRead, time-out, fails") << tryReadFor << true << WriteLocked;
    QTest::newRow("tryLockForWrite fails") << tryWrite << true << ReadLocked;
    QTest::newRow("tryLockForWrite, time-out, fails") << tryWriteFor << true << ReadLocked;

    // A guard is unlocked twice, then destroyed: the lock is released and reported once.
    QTest::newRow("KrMutexLocker") << Take([this] {
        auto guard = std::make_shared<KrMutexLocker>(&m_mutex, a, 42, f);
        m_release = [this, guard] {
            guard->unlock();
            guard->unlock();
            QCOMPARE(guard->mutex(), &m_mutex);
        };
        return guard->mutex() == &m_mutex;
    }) << false << FreeLock;
    QTest::newRow("KrReadLocker") << Take([this] {
        auto guard = std::make_shared<KrReadLocker>(&m_lock, a, 42, f);
        m_release = [guard] {
            guard->unlock();
            guard->unlock();
        };
        return guard->readWriteLock() == &m_lock;
    }) << true << FreeLock;
    QTest::newRow("KrWriteLocker") << Take([this] {
        auto guard = std::make_shared<KrWriteLocker>(&m_lock, a, 42, f);
        m_release = [guard] {
            guard->unlock();
            guard->unlock();
        };
        return guard->readWriteLock() == &m_lock;
    }) << true << FreeLock;
    QTest::newRow("guards over no lock") << Take([] {
        KrMutexLocker mutexLocker(nullptr, a, 42, f);
        KrReadLocker readLocker(nullptr, a, 42, f);
        KrWriteLocker writeLocker(nullptr, a, 42, f);
        mutexLocker.unlock();
        readLocker.unlock();
        writeLocker.unlock();
        return mutexLocker.mutex() || readLocker.readWriteLock() || writeLocker.readWriteLock();
    }) << false << NoLock;
}

void tst_KrMutex::reportsAfterTheLockChanged()
{
    QFETCH(Take, take);
    QFETCH(bool, readWrite);
    QFETCH(Given, given);

    if (given == HeldMutex)
        m_mutex.lock(); // plain Qt calls: not reported
    else if (given == ReadLocked)
        m_lock.lockForRead();
    else if (given == WriteLocked)
        m_lock.lockForWrite();
    const bool taken = take();
    if (given == HeldMutex)
        m_mutex.unlock();
    else if (given == ReadLocked || given == WriteLocked)
        m_lock.unlock();
    QCOMPARE(taken, given == FreeLock);

    if (taken && m_release)
        std::exchange(m_release, nullptr)();
    else if (taken && readWrite)
        KrMutex::unlockReadWrite(&m_lock);
    else if (taken)
        KrMutex::unlock(&m_mutex);
    const QString kind = QLatin1String(readWrite ? "read-write " : "mutex ");
    const QStringList reports {kind + QStringLiteral("lock while held a.cpp        42        f"),
                               kind + QStringLiteral("unlock while free")};
    QCOMPARE(m_reports, taken ? reports : QStringList());
}

QTEST_GUILESS_MAIN(tst_KrMutex)
#include "tst_krmutex.moc"
