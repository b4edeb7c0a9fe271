#include "KrFunctionGuardManager.h"

#include "KrMonitorCore_p.h"
#include "runtime/KrLogging_p.h"

#include <QMetaMethod>
#include <QStringBuilder>
#include <QVector>

#include <utility>

namespace {

enum ReportKind { Add, AddWithText, Delete };

// Guards are far rarer than locks: a small ring is drained long before it fills.
constexpr int RingSize = 1024;

QString guardText(const QString &first, const QString &second)
{
    const QLatin1String gap("                "); // sixteen spaces
    return first % gap % second;
}

} // namespace

KrFunctionGuardManager *KrFunctionGuardManager::getInstance()
{
    static KrFunctionGuardManager instance;
    return &instance;
}

KrFunctionGuardManager::KrFunctionGuardManager()
    : m_core(new KrMonitorCore(this, RingSize, [this](KrMonitorReport *reports, int count) {
          record(reports, count);
      }))
{
}

KrFunctionGuardManager::~KrFunctionGuardManager() = default;

void KrFunctionGuardManager::start()
{
    m_core->start<KrFunctionGuardManager>(QStringLiteral("KrFuctionGuardManager"));
}

void KrFunctionGuardManager::initManger()
{
    m_core->startRecording();
}

void KrFunctionGuardManager::reportAdd(QObject *guard, const QString &first, const QString &second,
                                       int iTime)
{
    if (m_core->isRecording())
        m_core->report(guard, Add, iTime, first, second);
    static const QMetaMethod addSignal
            = QMetaMethod::fromSignal(&KrFunctionGuardManager::signalFuctionGuardAdd);
    if (m_core->hasSignalConnected() && isSignalConnected(addSignal))
        emit signalFuctionGuardAdd(guard, guardText(first, second), iTime);
}

void KrFunctionGuardManager::FuctionGuardAdd(QObject *guard, const QString &text, int iTime)
{
    if (m_core->isRecording())
        m_core->report(guard, AddWithText, iTime, text);
    if (m_core->hasSignalConnected())
        emit signalFuctionGuardAdd(guard, text, iTime);
}

void KrFunctionGuardManager::FuctionGuardDelete(QObject *guard)
{
    if (m_core->isRecording())
        m_core->report(guard, Delete, 0, QString());
    if (m_core->hasSignalConnected())
        emit signalFuctionGuardDelete(guard);
}

void KrFunctionGuardManager::slotFuctionGuardAdd(QObject *guard, const QString &text, int iTime)
{
    KrMonitorCore::TableLock lock(*m_core);
    // A second add for the same guard keeps the first record (and its count-down).
    if (!m_guardTable.contains(guard))
        m_guardTable.insert(guard, {iTime > 0 ? iTime : m_defaultTimeOut, text});
}

void KrFunctionGuardManager::slotFuctionGuardDelete(QObject *guard)
{
    KrMonitorCore::TableLock lock(*m_core);
    m_guardTable.remove(guard);
}

void KrFunctionGuardManager::record(KrMonitorReport *reports, int count)
{
    for (KrMonitorReport *report = reports; report != reports + count; ++report) {
        auto *guard = static_cast<QObject *>(report->subject);
        if (report->kind == Delete) {
            m_guardTable.remove(guard);
        } else if (!m_guardTable.contains(guard)) { // a second add keeps the first record
            const int budget = report->number > 0 ? report->number : m_defaultTimeOut;
            m_guardTable.insert(guard,
                                {budget,
                                 report->kind == Add ? guardText(report->first, report->second)
                                                     : std::move(report->first)});
        }
    }
}

void KrFunctionGuardManager::timerEvent(QTimerEvent *)
{
    QVector<std::pair<QObject *, QString>> expired;
    {
        KrMonitorCore::TableLock lock(*m_core);
        for (auto it = m_guardTable.begin(); it != m_guardTable.end();) {
            if (--it->remaining < 0) {
                expired.append({it.key(), std::move(it->text)});
                it = m_guardTable.erase(it);
            } else {
                ++it;
            }
        }
    }
    // The guard may be being destroyed on its own thread right now: print its address only,
    // never anything read from the object.
    for (const auto &guard : qAsConst(expired))
        krWarning(KrFunctionGuardManager)
                << static_cast<const void *>(guard.first) << "fuctionGuard is over"
                << m_defaultTimeOut << "seconds, please check it" << guard.second;
}

void KrFunctionGuardManager::connectNotify(const QMetaMethod &signal)
{
    if (signal.methodIndex() >= staticMetaObject.methodOffset())
        m_core->setSignalConnected();
}
