#include "KrMutexManager.h"

#include "KrReportFlow_p.h"
#include "runtime/KrLogging_p.h"
#include "runtime/KrMonitorThread_p.h"

#include <QMetaMethod>
#include <QReadWriteLock>
#include <QTimerEvent>

namespace {

// Counts every record of the table down by one and returns the locks whose time ran out.
template<typename Lock, typename Record> QVector<Lock *> countDown(QMap<Lock *, Record> &table)
{
    QVector<Lock *> expired;
    for (auto it = table.begin(); it != table.end(); ++it) {
        if (--it->remaining == 0)
            expired.append(it.key());
    }
    return expired;
}

} // namespace

KrMutexManager *KrMutexManager::getInstance()
{
    static KrMutexManager instance;
    return &instance;
}

KrMutexManager::KrMutexManager() : m_flow(new KrReportFlow)
{
    qRegisterMetaType<QMutex *>("QMutex*");
    qRegisterMetaType<QReadWriteLock *>("QReadWriteLock*");
}

KrMutexManager::~KrMutexManager()
{
    m_flow->stopCounting();
    KrMonitorThread::stop(m_thread);
}

void KrMutexManager::start()
{
    if (!m_thread)
        m_thread = KrMonitorThread::start(this, QStringLiteral("KrMutexManager"));
}

void KrMutexManager::initManger()
{
    connect(this, &KrMutexManager::signalMutexLock, this, &KrMutexManager::slotMutexLock);
    connect(this, &KrMutexManager::signalMutexUnLock, this, &KrMutexManager::slotMutexUnLock);
    connect(this, &KrMutexManager::signalReadWriteMutexLock, this,
            &KrMutexManager::slotReadWriteMutexLock);
    connect(this, &KrMutexManager::signalReadWriteMutexUnLock, this,
            &KrMutexManager::slotReadWriteMutexUnLock);
    m_flow->startCounting();
    KrMonitorThread::startTicking(this);
}

void KrMutexManager::mutexLock(QMutex *mutex, const QString &text)
{
    m_flow->admit();
    emit signalMutexLock(mutex, text);
}

void KrMutexManager::mutexUnLock(QMutex *mutex)
{
    m_flow->admit();
    emit signalMutexUnLock(mutex);
}

void KrMutexManager::readWriteMutexLock(QReadWriteLock *lock, const QString &text)
{
    m_flow->admit();
    emit signalReadWriteMutexLock(lock, text);
}

void KrMutexManager::readWriteMutexUnLock(QReadWriteLock *lock)
{
    m_flow->admit();
    emit signalReadWriteMutexUnLock(lock);
}

bool KrMutexManager::containsMutex(QMutex *mutex)
{
    QMutexLocker locker(&m_guard);
    return m_mutexTable.contains(mutex);
}

bool KrMutexManager::containsReadWriteMutex(QReadWriteLock *lock)
{
    QMutexLocker locker(&m_guard);
    return m_readWriteTable.contains(lock);
}

void KrMutexManager::slotMutexLock(QMutex *mutex, const QString &text)
{
    {
        QMutexLocker locker(&m_guard);
        m_mutexTable.insert(mutex, {m_timeOut, text});
    }
    m_flow->recorded();
}

void KrMutexManager::slotMutexUnLock(QMutex *mutex)
{
    {
        QMutexLocker locker(&m_guard);
        m_mutexTable.remove(mutex);
    }
    m_flow->recorded();
}

void KrMutexManager::slotReadWriteMutexLock(QReadWriteLock *lock, const QString &text)
{
    {
        QMutexLocker locker(&m_guard);
        m_readWriteTable.insert(lock, {m_timeOut, text});
    }
    m_flow->recorded();
}

void KrMutexManager::slotReadWriteMutexUnLock(QReadWriteLock *lock)
{
    {
        QMutexLocker locker(&m_guard);
        m_readWriteTable.remove(lock);
    }
    m_flow->recorded();
}

void KrMutexManager::timerEvent(QTimerEvent *)
{
    // The guard is held for the whole scan so that no report slips in between a count-down and
    // the removal of an expired record.
    QMutexLocker locker(&m_guard);
    const QVector<QMutex *> expiredMutexes = countDown(m_mutexTable);
    const QVector<QReadWriteLock *> expiredReadWriteLocks = countDown(m_readWriteTable);
    for (QMutex *mutex : expiredMutexes) {
        const QString text = m_mutexTable.take(mutex).text;
        krWarning(KrMutexManager) << "mutex lock time out , please check it" << text;
    }
    for (QReadWriteLock *lock : expiredReadWriteLocks) {
        const QString text = m_readWriteTable.take(lock).text;
        krWarning(KrMutexManager) << "mutex lock time out , please check it" << text;
    }
}

void KrMutexManager::connectNotify(const QMetaMethod &signal)
{
    if (signal.methodIndex() >= staticMetaObject.methodOffset())
        m_flow->setListened();
}

bool KrMutexManager::isReportListened() const
{
    return m_flow->isListened();
}
