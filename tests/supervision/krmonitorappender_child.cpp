// The child process of tst_krmonitorappender. The appender is a per-process singleton whose
// construction (file, monitor program) and exit (draining, deleting the file) happen once per
// process, so each case runs in a process of its own. The test copies this program into a
// directory of its own first: the appender's log goes to "<application dir>/log".
//
//     krmonitorappender_child monitor             one synchronous record, then exit
//     krmonitorappender_child missing-log-dir     records sent with no log directory
//     krmonitorappender_child reopen sync|async   the log directory appears after start-up
//     krmonitorappender_child flood <threads> <records per thread> destroy-app|keep-app
//                                                 records from plain threads, then exit at once
//
// It prints what it observes as "key: value" lines on stdout; its log lines go to stderr in the
// format the test sets with QT_MESSAGE_PATTERN.

#include "supervision/KrMonitorAppender_p.h"

#include <krutils/KrMonitorAppender.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

namespace {

const QDateTime recordTime(QDate(2024, 12, 2), QTime(9, 30, 0, 125));

QString logDirectory()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/log");
}

void report(const char *key, const QString &value)
{
    std::printf("%s: %s\n", key, qUtf8Printable(value));
    std::fflush(stdout);
}

void reportLogFiles()
{
    report("log-files", QDir(logDirectory()).entryList(QDir::Files).join(QLatin1Char(' ')));
}

int monitor()
{
    KrMonitorAppender::GetInstance()->AppendMonitorInfo(QStringLiteral("started"), recordTime,
                                                        {{QStringLiteral("step"), 1}}, false);
    reportLogFiles();
    return 0;
}

int missingLogDirectory()
{
    KrMonitorAppender *appender = KrMonitorAppender::GetInstance();
    appender->AppendMonitorInfo(QStringLiteral("lost"), recordTime, {}, false);
    appender->AppendMonitorInfo(QStringLiteral("lost"), recordTime, {}, true);
    report("written",
           KrMonitorAppenderPrivate::waitForWritten(appender, 10000) ? QStringLiteral("true")
                                                                     : QStringLiteral("false"));
    report("log-dir-exists",
           QDir(logDirectory()).exists() ? QStringLiteral("true") : QStringLiteral("false"));
    return 0;
}

int reopen(bool async)
{
    KrMonitorAppender *appender = KrMonitorAppender::GetInstance();
    QDir().mkpath(logDirectory());
    appender->AppendMonitorInfo(QStringLiteral("reopened"), recordTime, {}, async);
    if (async && !KrMonitorAppenderPrivate::waitForWritten(appender, 10000))
        return 2;
    reportLogFiles();
    return 0;
}

// Each thread sends its records numbered from 0, then main returns at once.
int flood(int threadCount, int perThread)
{
    KrMonitorAppender *appender = KrMonitorAppender::GetInstance();
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([=] {
            for (int i = 0; i < perThread; ++i) {
                appender->AppendMonitorInfo(
                        QStringLiteral("flood"), recordTime,
                        {{QStringLiteral("thread"), t}, {QStringLiteral("seq"), i}}, true);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        return 1;
    const char *mode = argv[1];
    if (std::strcmp(mode, "flood") == 0 && argc == 5 && std::strcmp(argv[4], "keep-app") == 0) {
        // The application object is never destroyed: the appender then drains when it is
        // destroyed itself, at process exit.
        static int keptArgc = argc;
        new QCoreApplication(keptArgc, argv);
        return flood(std::atoi(argv[2]), std::atoi(argv[3]));
    }

    QCoreApplication app(argc, argv);
    if (std::strcmp(mode, "monitor") == 0)
        return monitor();
    if (std::strcmp(mode, "missing-log-dir") == 0)
        return missingLogDirectory();
    if (std::strcmp(mode, "reopen") == 0 && argc == 3)
        return reopen(std::strcmp(argv[2], "async") == 0);
    if (std::strcmp(mode, "flood") == 0 && argc == 5)
        return flood(std::atoi(argv[2]), std::atoi(argv[3]));
    return 1;
}
