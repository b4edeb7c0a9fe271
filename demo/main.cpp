#include "krdemo.h"

#include <krutils/CompleteExceptionHandler.h>

#include <QApplication>
#include <QDir>
#include <QThread>

int main(int argc, char **argv)
{
    // The shortcut section needs widgets; on a machine without a display they are drawn
    // nowhere.
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    qInstallMessageHandler(krdemo::printLogLine);
    QThread::currentThread()->setObjectName(QStringLiteral("main"));

    // As the client does at start-up. The monitor log goes into the "log" folder beside the
    // program, which the appender expects to exist.
    QDir(QCoreApplication::applicationDirPath()).mkpath(QStringLiteral("log"));
    set_process_exception_handlers();
    set_thread_exception_handlers();
    if (argc > 1 && qstrcmp(argv[1], "crash") == 0)
        return krdemo::crashOnPurpose(argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString());

    using namespace krdemo;
    say("krutils demo\n"
        "============\n"
        "Lines starting with \"log\" are the library's own log output (level, [thread], text).\n");
    tourWorkerThreads();
    tourLockMonitor();
    tourFunctionGuard();
    tourRecordFilter();
    tourParameterFile();
    tourTokenBucket();
    tourIds();
    tourShortcuts();
    tourTreeModel();
    tourWorkbooks();
    tourMonitorLog();
    tourTerminalInformation();
    tourAlertSounds();
    say("\nDone. The monitors stop with the process.\n"
        "To see the crash handlers at work: krdemo crash <kind> (krdemo crash help lists the "
        "kinds).\n");
    return 0;
}
