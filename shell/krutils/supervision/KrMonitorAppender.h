#ifndef KRMONITORAPPENDER_H
#define KRMONITORAPPENDER_H

#include <krutils/krutils_export.h>

#include <QFile>
#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

class QDateTime;
class QProcess;
class KrThread;

/// The monitor log: monitor records (crash reports, and whatever else the application reports)
/// written as one compact JSON object per line into a per-process file that the external monitor
/// program "PeltoMonitor.exe" reads.
///
/// The file is `"<application dir>/log/monitorLog_<pid>"` (native separators, no extension),
/// truncated when the instance is created. The "log" directory must exist by then: it is not
/// created here, and when the file cannot be opened the records are lost (a warning says so
/// once). A record reads
///
///     {"content":{"symbol":"IF2412"},"time":"2024-12-02 09:30:00.125","type":"heartbeat"}
///
/// with "content" (the data map, as QJsonObject::fromVariantMap gives it) left out when the map
/// is empty.
///
/// The instance is created on first GetInstance(), from any thread, and lives until the process
/// exits. Creating it also starts "PeltoMonitor.exe" detached, found as QProcess finds a relative
/// program name, with the process id as its only argument; if it cannot be started the log file is
/// deleted at exit, since no one will read it.
///
///     KrMonitorAppender::GetInstance()->AppendMonitorInfo(
///             QStringLiteral("heartbeat"), QDateTime::currentDateTime(),
///             {{QStringLiteral("symbol"), QStringLiteral("IF2412")}}, true);
///
/// Threads: the appender lives on a thread of its own ("KrMonitorAppenderThread"). An
/// asynchronous record (bAsync true) is a queued signal: the caller does not wait, and the records
/// of each sending thread are written in the order they were sent. A synchronous record is written
/// at once on the caller's thread, without any lock against the appender's thread or other callers;
/// it is meant for the crash path, where the appender's thread may no longer run.
///
/// Exit: no record sent before a normal exit is lost. Records still queued when the
/// QCoreApplication is destroyed are written before it is gone (Qt delivers no queued signal once
/// it is), and the thread then stops; if the application object is never destroyed, the same
/// happens when this instance is destroyed at process exit. Records sent asynchronously after that
/// are lost; send them synchronously.
class KRUTILS_EXPORT KrMonitorAppender : public QObject
{
    Q_OBJECT

public:
    /// The instance, created on the first call; see the class description for what that starts.
    static KrMonitorAppender *GetInstance();

    /// Writes the record now on the calling thread (bAsync false) or emits signalAppendData and
    /// lets the appender's thread write it (bAsync true). Returns 0.
    int AppendMonitorInfo(const QString &type, const QDateTime &time,
                          const QMap<QString, QVariant> &dataMap, bool bAsync);

    /// Writes one record; runs on the appender's thread for the records sent asynchronously.
    void slotAppendData(const QString &type, const QDateTime &time,
                        const QMap<QString, QVariant> &dataMap);

Q_SIGNALS:
    /// An asynchronous record on its way to slotAppendData() on the appender's thread.
    void signalAppendData(const QString &type, const QDateTime &time,
                          const QMap<QString, QVariant> &dataMap);

private:
    KrMonitorAppender();
    ~KrMonitorAppender() override;
    Q_DISABLE_COPY(KrMonitorAppender)

    friend class KrMonitorAppenderPrivate;
    // Lets the thread write every record queued so far, then stops it and waits for it.
    void stopThread();

    QFile m_file;
    KrThread *m_thread = nullptr;
    QProcess *m_process = nullptr; // created once, never deleted
    bool m_monitorStarted = false;
};

#endif // KRMONITORAPPENDER_H
