// The child process of tst_krmonitorappender: the appender's construction (file, monitor
// program) and its end at exit happen once per process. The test copies this program into an
// application directory of its own first, since the appender's log goes to "<that dir>/log".
//
//     krmonitorappender_child <records per thread> [sync] [late] [keep-app]
//
// It prints the log directory's files as the appender starts ("log-files: ..."); with "late" it
// makes the log directory only then; with "sync" it writes one synchronous record; then four plain
// threads send their records asynchronously, numbered from 0, and main returns at once. With
// "keep-app" the application object is never destroyed. Log lines go to stderr in the format the
// test sets with QT_MESSAGE_PATTERN.

#include <krutils/KrMonitorAppender.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

int main(int argc, char **argv)
{
    if (argc < 2)
        return 1;
    const QByteArrayList options(argv + 2, argv + argc);
    static int appArgc = argc;
    auto *app = new QCoreApplication(appArgc, argv);
    const std::unique_ptr<QCoreApplication> destroyedAsMainReturns(
            options.contains("keep-app") ? nullptr : app);

    KrMonitorAppender *appender = KrMonitorAppender::GetInstance();
    const QString logDirectory = QCoreApplication::applicationDirPath() + QStringLiteral("/log");
    const QStringList files = QDir(logDirectory).entryList(QDir::Files);
    std::printf("log-files: %s\n", qUtf8Printable(files.join(QLatin1Char(' '))));
    std::fflush(stdout);
    if (options.contains("late"))
        QDir().mkpath(logDirectory);

    const QDateTime recordTime(QDate(2024, 1, 5), QTime(23, 8, 9, 7));
    if (options.contains("sync"))
        appender->AppendMonitorInfo(QStringLiteral("sync"), recordTime,
                                    {{QStringLiteral("step"), 1}}, false);
    const int perThread = std::atoi(argv[1]);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([=] {
            for (int i = 0; i < perThread; ++i)
                appender->AppendMonitorInfo(
                        QStringLiteral("flood"), recordTime,
                        {{QStringLiteral("thread"), t}, {QStringLiteral("seq"), i}}, true);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    return 0;
}
