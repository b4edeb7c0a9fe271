#include "KrMutexManager.h"

#include "KrMonitorCore_p.h"
#include "runtime/KrLogging_p.h"

#include <QMetaMethod>
#include <QReadWriteLock>
#include <QStringBuilder>
#include <QStringList>
#include <QTimerEvent>

#include <vector>

namespace {

// What a report does, and to which table (ReadWrite set: the read-write table).
enum ReportKind { Take, TakeWithText, Release, ReadWrite = 4 };

// Reports in flight between two drains. A thread locking in a tight loop writes half of it in
// about 100 us, the monitor thread drains it meanwhile; 512 KiB.
constexpr int RingSize = 8192;

QString callSiteText(const QString &first, int line, const QString &second)
{
    const QLatin1String gap("        ");
    return first % gap % QString::number(line) % gap % second;
}

// A take sets the lock's record (and restarts its count-down), a release removes it.
template<typename Lock, typename Record>
void apply(QMap<Lock *, Record> &table, KrMonitorReport &report, int timeOut)
{
    Lock *lock = static_cast<Lock *>(report.subject);
    switch (report.kind & ~ReadWrite) {
    case Take:
        table.insert(lock, {timeOut, callSiteText(report.first, report.number, report.second)});
        break;
    case TakeWithText:
        table.insert(lock, {timeOut, std::move(report.first)});
        break;
    default:
        table.remove(lock);
    }
}

// Counts every record of the table down by one and moves out the texts of those whose time ran
// out, in key order.
template<typename Lock, typename Record>
void countDown(QMap<Lock *, Record> &table, QStringList &expired)
{
    for (auto it = table.begin(); it != table.end();) {
        if (--it->remaining == 0) {
            expired.append(std::move(it->text));
            it = table.erase(it);
        } else {
            ++it;
        }
    }
}

// The keys met so far in one batch of reports: open addressing over at least twice as many
// slots as the batch has reports.
class KeySet
{
public:
    explicit KeySet(int count)
    {
        while ((quintptr(1) << m_bits) < quintptr(count) * 2)
            ++m_bits;
        m_keys.assign(size_t(1) << m_bits, Empty);
    }

    // Adds the key; false when it was met before.
    bool insert(quintptr key)
    {
        const size_t mask = m_keys.size() - 1;
        size_t i = size_t((quint64(key) * 0x9E3779B97F4A7C15ull) >> (64 - m_bits));
        while (m_keys[i] != Empty) {
            if (m_keys[i] == key)
                return false;
            i = (i + 1) & mask;
        }
        m_keys[i] = key;
        return true;
    }

private:
    static constexpr quintptr Empty = ~quintptr(0); // no lock lives at the last address
    int m_bits = 1;
    std::vector<quintptr> m_keys;
};

} // namespace

KrMutexManager *KrMutexManager::getInstance()
{
    static KrMutexManager instance;
    return &instance;
}

KrMutexManager::KrMutexManager()
    : m_core(new KrMonitorCore(this, RingSize, [this](KrMonitorReport *reports, int count) {
          record(reports, count);
      }))
{
    qRegisterMetaType<QMutex *>("QMutex*");
    qRegisterMetaType<QReadWriteLock *>("QReadWriteLock*");
}

KrMutexManager::~KrMutexManager() = default;

void KrMutexManager::start()
{
    m_core->start<KrMutexManager>(QStringLiteral("KrMutexManager"));
}

void KrMutexManager::initManger()
{
    m_core->startRecording();
}

void KrMutexManager::reportLock(QMutex *mutex, const QString &first, int line,
                                const QString &second)
{
    if (m_core->isRecording())
        m_core->report(mutex, Take, line, first, second);
    static const QMetaMethod lockSignal = QMetaMethod::fromSignal(&KrMutexManager::signalMutexLock);
    if (m_core->hasSignalConnected() && isSignalConnected(lockSignal))
        emit signalMutexLock(mutex, callSiteText(first, line, second));
}

void KrMutexManager::reportLock(QReadWriteLock *lock, const QString &first, int line,
                                const QString &second)
{
    if (m_core->isRecording())
        m_core->report(lock, Take | ReadWrite, line, first, second);
    static const QMetaMethod lockSignal
            = QMetaMethod::fromSignal(&KrMutexManager::signalReadWriteMutexLock);
    if (m_core->hasSignalConnected() && isSignalConnected(lockSignal))
        emit signalReadWriteMutexLock(lock, callSiteText(first, line, second));
}

void KrMutexManager::mutexLock(QMutex *mutex, const QString &text)
{
    if (m_core->isRecording())
        m_core->report(mutex, TakeWithText, 0, text);
    if (m_core->hasSignalConnected())
        emit signalMutexLock(mutex, text);
}

void KrMutexManager::mutexUnLock(QMutex *mutex)
{
    if (m_core->isRecording())
        m_core->report(mutex, Release, 0, QString());
    if (m_core->hasSignalConnected())
        emit signalMutexUnLock(mutex);
}

void KrMutexManager::readWriteMutexLock(QReadWriteLock *lock, const QString &text)
{
    if (m_core->isRecording())
        m_core->report(lock, TakeWithText | ReadWrite, 0, text);
    if (m_core->hasSignalConnected())
        emit signalReadWriteMutexLock(lock, text);
}

void KrMutexManager::readWriteMutexUnLock(QReadWriteLock *lock)
{
    if (m_core->isRecording())
        m_core->report(lock, Release | ReadWrite, 0, QString());
    if (m_core->hasSignalConnected())
        emit signalReadWriteMutexUnLock(lock);
}

bool KrMutexManager::containsMutex(QMutex *mutex)
{
    KrMonitorCore::TableLock lock(*m_core);
    return m_mutexTable.contains(mutex);
}

bool KrMutexManager::containsReadWriteMutex(QReadWriteLock *lock)
{
    KrMonitorCore::TableLock tableLock(*m_core);
    return m_readWriteTable.contains(lock);
}

void KrMutexManager::slotMutexLock(QMutex *mutex, const QString &text)
{
    KrMonitorCore::TableLock lock(*m_core);
    m_mutexTable.insert(mutex, {m_timeOut, text});
}

void KrMutexManager::slotMutexUnLock(QMutex *mutex)
{
    KrMonitorCore::TableLock lock(*m_core);
    m_mutexTable.remove(mutex);
}

void KrMutexManager::slotReadWriteMutexLock(QReadWriteLock *lock, const QString &text)
{
    KrMonitorCore::TableLock tableLock(*m_core);
    m_readWriteTable.insert(lock, {m_timeOut, text});
}

void KrMutexManager::slotReadWriteMutexUnLock(QReadWriteLock *lock)
{
    KrMonitorCore::TableLock tableLock(*m_core);
    m_readWriteTable.remove(lock);
}

void KrMutexManager::record(KrMonitorReport *reports, int count)
{
    // Whatever a lock's record was, its take sets it and its release removes it: of a batch,
    // each lock's last report alone decides. A flood of lock/unlock pairs on a few locks thus
    // costs a few table operations per batch, not two per pair.
    KeySet decided(count);
    for (int i = count - 1; i >= 0; --i) {
        KrMonitorReport &report = reports[i];
        const bool readWrite = report.kind & ReadWrite;
        if (!decided.insert(quintptr(report.subject) | quintptr(readWrite)))
            continue;
        if (readWrite)
            apply(m_readWriteTable, report, m_timeOut);
        else
            apply(m_mutexTable, report, m_timeOut);
    }
}

void KrMutexManager::timerEvent(QTimerEvent *)
{
    QStringList expired;
    {
        // The tables are held for the whole scan so that no report slips in between a
        // count-down and the removal of an expired record. The warnings are written after, so
        // that a slow log never holds up a reporter that drains.
        KrMonitorCore::TableLock lock(*m_core);
        countDown(m_mutexTable, expired);
        countDown(m_readWriteTable, expired);
    }
    for (const QString &text : qAsConst(expired))
        krWarning(KrMutexManager) << "mutex lock time out , please check it" << text;
}

void KrMutexManager::connectNotify(const QMetaMethod &signal)
{
    if (signal.methodIndex() >= staticMetaObject.methodOffset())
        m_core->setSignalConnected();
}
