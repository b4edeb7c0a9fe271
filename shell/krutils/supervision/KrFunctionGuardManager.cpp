#include "KrFunctionGuardManager.h"

#include "KrReportFlow_p.h"
#include "runtime/KrLogging_p.h"
#include "runtime/KrMonitorThread_p.h"

#include <QMetaMethod>
#include <QVector>

KrFunctionGuardManager *KrFunctionGuardManager::getInstance()
{
    static KrFunctionGuardManager instance;
    return &instance;
}

KrFunctionGuardManager::KrFunctionGuardManager() : m_flow(new KrReportFlow)
{
}

KrFunctionGuardManager::~KrFunctionGuardManager()
{
    m_flow->stopCounting();
    KrMonitorThread::stop(m_thread);
}

void KrFunctionGuardManager::start()
{
    if (!m_thread)
        m_thread = KrMonitorThread::start(this, QStringLiteral("KrFuctionGuardManager"));
}

void KrFunctionGuardManager::initManger()
{
    connect(this, &KrFunctionGuardManager::signalFuctionGuardAdd, this,
            &KrFunctionGuardManager::slotFuctionGuardAdd);
    connect(this, &KrFunctionGuardManager::signalFuctionGuardDelete, this,
            &KrFunctionGuardManager::slotFuctionGuardDelete);
    m_flow->startCounting();
    KrMonitorThread::startTicking(this);
}

void KrFunctionGuardManager::FuctionGuardAdd(QObject *guard, const QString &text, int iTime)
{
    m_flow->admit();
    emit signalFuctionGuardAdd(guard, text, iTime);
}

void KrFunctionGuardManager::FuctionGuardDelete(QObject *guard)
{
    m_flow->admit();
    emit signalFuctionGuardDelete(guard);
}

void KrFunctionGuardManager::slotFuctionGuardAdd(QObject *guard, const QString &text, int iTime)
{
    // A second add for the same guard keeps the first record (and its count-down).
    if (!m_guardTable.contains(guard))
        m_guardTable.insert(guard, {iTime > 0 ? iTime : m_defaultTimeOut, text});
    m_flow->recorded();
}

void KrFunctionGuardManager::slotFuctionGuardDelete(QObject *guard)
{
    m_guardTable.remove(guard);
    m_flow->recorded();
}

void KrFunctionGuardManager::timerEvent(QTimerEvent *)
{
    QVector<QObject *> expired;
    for (auto it = m_guardTable.begin(); it != m_guardTable.end(); ++it) {
        if (--it->remaining < 0)
            expired.append(it.key());
    }
    for (QObject *guard : expired) {
        const QString text = m_guardTable.take(guard).text;
        // The guard may be being destroyed on its own thread right now: print its address only,
        // never anything read from the object.
        krWarning(KrFunctionGuardManager)
                << static_cast<const void *>(guard) << "fuctionGuard is over" << m_defaultTimeOut
                << "seconds, please check it" << text;
    }
}

void KrFunctionGuardManager::connectNotify(const QMetaMethod &signal)
{
    if (signal.methodIndex() >= staticMetaObject.methodOffset())
        m_flow->setListened();
}

bool KrFunctionGuardManager::isReportListened() const
{
    return m_flow->isListened();
}
