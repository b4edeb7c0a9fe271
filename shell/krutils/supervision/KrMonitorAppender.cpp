#include "KrMonitorAppender.h"

#include "KrMonitorAppender_p.h"
#include "runtime/KrLogging_p.h"
#include <krutils/KrThread.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSemaphore>
#include <QTextStream>

#include <memory>

namespace {

constexpr QIODevice::OpenMode fileMode = QIODevice::WriteOnly | QIODevice::Text;

QByteArray recordJson(const QString &type, const QDateTime &time,
                      const QMap<QString, QVariant> &dataMap)
{
    QJsonObject record;
    record.insert(QStringLiteral("type"), type);
    record.insert(QStringLiteral("time"), time.toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")));
    if (!dataMap.isEmpty())
        record.insert(QStringLiteral("content"), QJsonObject::fromVariantMap(dataMap));
    return QJsonDocument(record).toJson(QJsonDocument::Compact);
}

} // namespace

KrMonitorAppender *KrMonitorAppender::GetInstance()
{
    static KrMonitorAppender instance;
    return &instance;
}

KrMonitorAppender::KrMonitorAppender()
{
    const qint64 pid = QCoreApplication::applicationPid();
    // One pass over the pattern, so that a "%" in the directory's name is left alone.
    m_file.setFileName(QStringLiteral("%1%2log%2monitorLog_%3")
                               .arg(QCoreApplication::applicationDirPath(),
                                    QString(QDir::separator()), QString::number(pid)));
    if (!m_file.open(fileMode))
        krWarning(KrMonitorAppender) << "创建监控文件失败，进程ID：" << pid;

    m_process = new QProcess;
    m_process->setProgram(QStringLiteral("PeltoMonitor.exe"));
    m_process->setArguments({QString::number(pid)});
    if (m_process->startDetached()) {
        krInfo(KrMonitorAppender) << "监控进程启动！";
        m_monitorStarted = true;
    } else {
        m_monitorStarted = false;
        krWarning(KrMonitorAppender) << "监控进程未正常启动！";
    }

    m_thread = new KrThread;
    m_thread->setObjectName(QStringLiteral("KrMonitorAppenderThread"));
    moveToThread(m_thread);
    m_thread->start(QThread::InheritPriority);
    connect(this, &KrMonitorAppender::signalAppendData, this, &KrMonitorAppender::slotAppendData);

    // Qt's global statics (the calendars behind QDateTime::toString, the text codecs) are
    // destroyed at exit in the reverse order of their first use, and this instance takes its turn
    // in that order where its construction ended. When the application object is never
    // destroyed, the thread still writes while the exit handlers run: a record formatted here
    // makes what the write path uses outlive this instance. (Without it, records written at exit
    // lost their time, or the process crashed.)
    QByteArray sample;
    QTextStream(&sample) << recordJson(QString(), QDateTime::currentDateTime(),
                                       {{QString(), QString()}});

    // Once the QCoreApplication is gone, Qt delivers no queued call to a thread that QThread
    // started, and the records still queued would be dropped. Post routines run first thing in
    // the application object's destructor, while delivery still works: the thread writes what is
    // queued there and stops.
    qAddPostRoutine([] { GetInstance()->stopThread(); });
}

KrMonitorAppender::~KrMonitorAppender()
{
    if (m_thread)
        stopThread();
    if (m_file.isOpen())
        m_file.close();
    if (m_monitorStarted)
        m_process->close(); // the detached monitor program keeps running
    else
        m_file.remove(); // no one will read it
}

void KrMonitorAppender::stopThread()
{
    if (!m_thread->isRunning())
        return;
    if (QCoreApplication::instance()) {
        // Queued behind every record sent so far: the event loop writes them all, then ends.
        QMetaObject::invokeMethod(
                this, [this] { m_thread->quit(); }, Qt::QueuedConnection);
    } else {
        // Nothing queued can be delivered any more (see the constructor), and a queued quit
        // would never arrive.
        m_thread->quit();
    }
    m_thread->wait();
}

int KrMonitorAppender::AppendMonitorInfo(const QString &type, const QDateTime &time,
                                         const QMap<QString, QVariant> &dataMap, bool bAsync)
{
    if (bAsync)
        emit signalAppendData(type, time, dataMap);
    else
        slotAppendData(type, time, dataMap);
    return 0;
}

void KrMonitorAppender::slotAppendData(const QString &type, const QDateTime &time,
                                       const QMap<QString, QVariant> &dataMap)
{
    const QByteArray json = recordJson(type, time, dataMap);
    if (!m_file.isOpen()) {
        // The sense of this test is kept as the client has always had it: the warning comes
        // with a reopening that succeeded, and a failed one is silent.
        if (m_file.open(fileMode))
            krWarning(KrMonitorAppender)
                    << "创建监控文件失败，进程ID：" << QCoreApplication::applicationPid();
    }
    // A record that finds the file still closed is lost silently; writing it anyway would only
    // make the device log its own warning for every such record.
    if (!m_file.isOpen())
        return;
    // The stream is flushed as it goes out of scope, so every record reaches the file at once.
    QTextStream stream(&m_file);
    stream << json << '\n';
}

bool KrMonitorAppenderPrivate::waitForWritten(KrMonitorAppender *appender, int msecs)
{
    QThread *thread = appender->m_thread;
    // On its own thread the marker could only run after this call returned; on a stopped thread
    // it never runs.
    if (QThread::currentThread() == thread || !thread->isRunning())
        return false;
    // Posted behind every record sent before this call, from whichever thread; shared, so that
    // a marker that runs after the time-out still has its semaphore.
    const auto written = std::make_shared<QSemaphore>();
    QMetaObject::invokeMethod(
            appender, [written] { written->release(); }, Qt::QueuedConnection);
    return written->tryAcquire(1, msecs);
}

QThread *KrMonitorAppenderPrivate::thread(KrMonitorAppender *appender)
{
    return appender->m_thread;
}
