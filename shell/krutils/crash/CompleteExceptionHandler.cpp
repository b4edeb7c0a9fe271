#include "CompleteExceptionHandler.h"

#include "CrashHandler_p.h"
#include "KrCrashRoutine_p.h"
#include "runtime/KrLogging_p.h"
#include "supervision/KrMonitorAppender_p.h"
#include <krutils/KrMonitorAppender.h>

#include <krdefine/krdefine.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QThread>

namespace ClientMonitor = Orvex_Values::ClientMonitor;

namespace {

// How long the routine waits for the appender thread to have written a record.
constexpr int RecordWriteTimeoutMs = 3000;

// The handler a kind of event stands for: its function name, which begins its log line, and its
// text.
struct HandlerNames
{
    const char *function;
    const char *text;
};

HandlerNames namesOf(KrCrash::Handler handler)
{
    switch (handler) {
    case KrCrash::Handler::Seh:
        break;
    case KrCrash::Handler::SigAbrt:
        return {"catched_sigabrt_handler", "catch signal abort exception"};
    case KrCrash::Handler::Terminate:
        return {"catched_terminate_handler", "catch terminate exception"};
    case KrCrash::Handler::Unexpected:
        return {"catched_unexpected_handler", "catch unexpected exception"};
    case KrCrash::Handler::PureCall:
        return {"catched_pure_call_handler", "catch pure call exception"};
    case KrCrash::Handler::NewFailure:
        return {"catched_new_handler", "catch new exception"};
    case KrCrash::Handler::SigInt:
        return {"catched_sigint_handler", "catch signal int exception"};
    case KrCrash::Handler::SigFpe:
        return {"catched_sigfpe_handler", "catch signal fpe exception"};
    case KrCrash::Handler::InvalidParameter:
        return {"catched_invalid_parameter_handler", "catch invalid parameter exception"};
    }
    return {"catched_seh_handler", "catch seh exception"};
}

// The layer's own lines (the stack walk's) go to the library's log like every other line.
void forwardLayerLine(KrCrash::LogLevel level, const char *source, const char *function,
                      const char *text)
{
    QMessageLogger logger(source, 0, function, lcKrutils().categoryName());
    if (level == KrCrash::LogLevel::Warning) {
        if (lcKrutils().isWarningEnabled())
            logger.warning().noquote() << function << QString::fromUtf8(text);
    } else if (lcKrutils().isDebugEnabled()) {
        logger.debug().noquote() << function << QString::fromUtf8(text);
    }
}

QThread *crashingThread(const KrCrash::CrashEvent &event)
{
    if (event.threadTag)
        return static_cast<QThread *>(event.threadTag);
    return event.inCrashingThread ? QThread::currentThread() : nullptr;
}

// Sends one record and waits until the appender thread has written it, so that it is in the file
// before the process ends. A crash of the appender thread itself stops that thread in the
// handler: then the record is written from here.
void sendRecord(const KrCrash::CrashEvent &event, const QMap<QString, QVariant> &record)
{
    KrMonitorAppender *appender = KrMonitorAppender::GetInstance();
    const bool appenderCrashed
            = crashingThread(event) == KrMonitorAppenderPrivate::thread(appender);
    appender->AppendMonitorInfo(ClientMonitor::TagDump, QDateTime::currentDateTime(), record,
                                !appenderCrashed);
    if (!appenderCrashed
        && !KrMonitorAppenderPrivate::waitForWritten(appender, RecordWriteTimeoutMs))
        krWarning(CompleteExceptionHandler)
                << "monitor record not written within" << RecordWriteTimeoutMs << "ms";
}

QString hex8(quint32 value)
{
    return QString::asprintf("%08X", value);
}

bool HandleException(const KrCrash::CrashEvent &event, const QString &desc, bool createDump)
{
    krDebug(CompleteExceptionHandler) << "enter exception handler";
    krDebug(CompleteExceptionHandler) << "packing crash map";
    QMap<QString, QVariant> record;
    const QThread *thread = crashingThread(event);
    record.insert(ClientMonitor::TagThreadId, QVariant::fromValue<quint64>(event.threadId));
    record.insert(ClientMonitor::TagThreadName, thread ? thread->objectName() : QString());
    record.insert(ClientMonitor::TagDmpDesc, desc);
    krDebug(CompleteExceptionHandler) << "packing crash map";
    // Sent before anything that could fail, so the description reaches the monitor in any case.
    sendRecord(event, record);

    if (createDump) {
        krDebug(CompleteExceptionHandler) << "begin create dump file";
        const QString fileName = QStringLiteral("trelk_dump-%1.dmp")
                                         .arg(QDateTime::currentDateTime().toString(
                                                 QStringLiteral("yyyyMMddhhmmss")));
        const KrCrash::DumpResult dump
                = KrCrash::writeDumpFile(fileName.toLocal8Bit().constData(), event);
        krDebug(CompleteExceptionHandler) << "end create dump file";
        if (!dump.created) {
            // The placeholder stays unfilled, as the monitor's operators know the text.
            krWarning(CompleteExceptionHandler) << "EXCEPTION"
                                                << "创建dump文件失败，原因：%d";
        } else {
            krDebug(CompleteExceptionHandler) << "begin write dump file";
            KrCrash::pruneDumpFiles(QCoreApplication::applicationDirPath().toStdString());
            krDebug(CompleteExceptionHandler) << "end write dump file";
        }
    }

    if (!event.record) {
        krDebug(CompleteExceptionHandler) << "exception info null";
        sendRecord(event, record);
        return false;
    }

    krDebug(CompleteExceptionHandler) << "begin get crash info";
    // The address is cut to its low 32 bits on purpose: the monitor reads eight digits.
    const QString errorCode = hex8(event.record->code);
    const QString address = hex8(static_cast<quint32>(event.record->address));
    const QString flags = hex8(event.record->flags);
    krDebug(CompleteExceptionHandler) << "end get crash info";
    QString crashText = QStringLiteral("\nErrorCode: %1\n").arg(errorCode)
            + QStringLiteral("Address: %1\n").arg(address)
            + QStringLiteral("Flags: %1\n").arg(flags);
    krDebug(CompleteExceptionHandler) << "packing crash map";
    record.insert(ClientMonitor::TagDmpErrorCode, errorCode);
    record.insert(ClientMonitor::TagDmpFlag, flags);
    krDebug(CompleteExceptionHandler) << "packing crash map";

    krDebug(CompleteExceptionHandler) << "begin get call stack";
    const std::vector<KrCrash::CallStackInfo> frames = KrCrash::GetCallStack(event);
    krDebug(CompleteExceptionHandler) << "end get call stack";
    crashText += QStringLiteral("CallStack: \n");
    for (const KrCrash::CallStackInfo &frame : frames)
        crashText += QString::fromStdString(KrCrash::frameLine(frame));

    record.insert(ClientMonitor::TagCallStack, crashText);
    krWarning(CompleteExceptionHandler) << crashText.toUtf8().constData();
    sendRecord(event, record);
    return true;
}

bool crashRoutine(const KrCrash::CrashEvent &event)
{
    return KrCrashRoutine::handleEvent(event);
}

} // namespace

namespace KrCrashRoutine {

QString handlerText(KrCrash::Handler handler)
{
    return QString::fromLatin1(namesOf(handler).text);
}

QString description(const KrCrash::CrashEvent &event)
{
    if (event.handler == KrCrash::Handler::SigFpe)
        return QStringLiteral("catch signal float-point exception:%1, %2")
                .arg(event.signalNumber)
                .arg(event.subCode);
    QString text = handlerText(event.handler);
    if (event.handler == KrCrash::Handler::InvalidParameter) {
        for (const char *given : {event.expression, event.function, event.file}) {
            if (given)
                text += QString::fromUtf8(given) + QLatin1Char(' ');
        }
        if (event.line != 0)
            text += QString::number(event.line);
    }
    return text;
}

bool handleEvent(const KrCrash::CrashEvent &event)
{
    KrCrash::setLogSink(forwardLayerLine);
    // Log lines name their thread; the reporting thread is a plain one that Qt adopts.
    if (!event.inCrashingThread && QThread::currentThread()->objectName().isEmpty())
        QThread::currentThread()->setObjectName(QStringLiteral("KrCrashReporter"));
    const char *function = namesOf(event.handler).function;
    if (lcKrutils().isWarningEnabled())
        QMessageLogger("shell/krutils/CompleteExceptionHandler", 0, function,
                       lcKrutils().categoryName())
                        .warning()
                        .noquote()
                << function << "EXCEPTION" << handlerText(event.handler);
    return HandleException(event, description(event), KrCrash::dumpWanted(event.handler));
}

} // namespace KrCrashRoutine

void set_process_exception_handlers()
{
    // The appender's file, thread and monitor program are set up now rather than in the middle of
    // a crash, when the process may be short of memory or hold the locks they need.
    if (QCoreApplication::instance())
        KrMonitorAppender::GetInstance();
    KrCrash::installProcessHandlers(crashRoutine);
}

void set_thread_exception_handlers()
{
    KrCrash::installThreadHandlers(QThread::currentThread(), crashRoutine);
}
