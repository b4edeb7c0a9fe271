#include "KrTestSupport.h"
#include "supervision/KrMonitorAppender_p.h"

#include <krutils/KrMonitorAppender.h>

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSemaphore>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtTest>

#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace {
const QString openFailed = QStringLiteral("创建监控文件失败，进程ID： %1");
const QString monitorStarted = QStringLiteral("监控进程启动！");
const QString monitorNotStarted = QStringLiteral("监控进程未正常启动！");
const QString monitorProgram = QStringLiteral("PeltoMonitor.exe");
const QDateTime recordTime(QDate(2024, 12, 2), QTime(9, 30, 0, 125));

// An appender's log line as the child prints it, after its type.
QString appenderLine(const QString &text, const char *function = "KrMonitorAppender")
{
    return QStringLiteral("shell/krutils/KrMonitorAppender|KrMonitorAppender::%1 %2")
            .arg(QLatin1String(function), text);
}

QByteArrayList nonEmptyLines(const QByteArray &text)
{
    QByteArrayList lines = text.split('\n');
    lines.removeAll(QByteArray());
    return lines;
}

// Checks that each thread's "flood" records ("thread", "seq" in the content) arrived complete,
// intact and in the order sent.
void verifyPerThreadOrder(const QByteArrayList &lines, int threadCount, int perThread)
{
    QCOMPARE(lines.size(), threadCount * perThread);
    QVector<int> next(threadCount, 0);
    for (const QByteArray &line : lines) {
        const QJsonObject record = QJsonDocument::fromJson(line).object();
        QVERIFY2(record.value(QLatin1String("type")) == QLatin1String("flood"), line.constData());
        const QJsonObject content = record.value(QLatin1String("content")).toObject();
        const int thread = content.value(QLatin1String("thread")).toInt(-1);
        QVERIFY2(thread >= 0 && thread < threadCount, line.constData());
        QCOMPARE(content.value(QLatin1String("seq")).toInt(-1), next[thread]++);
    }
}

QString createdLogDirectory; // removed at exit, after the appender deleted its file
void removeCreatedLogDirectory()
{
    QDir().rmdir(createdLogDirectory);
}
} // namespace

// The appender of this process (its log next to the test program), and child processes of their
// own for what happens at construction and at exit.
class tst_KrMonitorAppender : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void recordFormat_data();
    void recordFormat();
    void waitForWritten_data();
    void waitForWritten();
    void childProcess_data();
    void childProcess();

private:
    KrMonitorAppender *appender() const { return KrMonitorAppender::GetInstance(); }
    QString newText(); // what the appender wrote since the last call

    QString m_logFile;
    qint64 m_readFrom = 0;
};

void tst_KrMonitorAppender::initTestCase()
{
    QVERIFY2(QStandardPaths::findExecutable(monitorProgram).isEmpty(),
             "a PeltoMonitor.exe on PATH would be started by the tests");
    const QString logDirectory = QCoreApplication::applicationDirPath() + QStringLiteral("/log");
    if (!QFileInfo::exists(logDirectory)) { // the appender does not create it
        QVERIFY(QDir().mkpath(logDirectory));
        createdLogDirectory = logDirectory;
        std::atexit(removeCreatedLogDirectory);
    }
    MessageCapture capture;
    QThread *thread = KrMonitorAppenderPrivate::thread(appender());
    QCOMPARE(appender()->thread(), thread);
    QVERIFY(thread != QThread::currentThread() && thread->isRunning());
    QCOMPARE(thread->objectName(), QStringLiteral("KrMonitorAppenderThread"));
    m_logFile = QStringLiteral("%1/monitorLog_%2")
                        .arg(logDirectory)
                        .arg(QCoreApplication::applicationPid());
    QVERIFY2(QFileInfo(m_logFile).isFile(), qPrintable(m_logFile));
    QCOMPARE(QFileInfo(m_logFile).size(), 0);
    QCOMPARE(capture.matching(QtWarningMsg, QStringLiteral("创建监控文件失败")).size(), 0);
}

QString tst_KrMonitorAppender::newText()
{
    QFile file(m_logFile);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(m_readFrom))
        return QStringLiteral("(cannot read %1)").arg(m_logFile);
    const QByteArray bytes = file.readAll();
    m_readFrom += bytes.size();
    return QTextCodec::codecForLocale()->toUnicode(bytes);
}

void tst_KrMonitorAppender::recordFormat_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<QVariantMap>("dataMap");
    QTest::addColumn<bool>("async");
    QTest::addColumn<QString>("line");

    QTest::newRow("empty map has no content; UTC time written as given, no zone")
            << QStringLiteral("clock") << QDateTime(QDate(2024, 6, 1), QTime(0, 0), Qt::UTC)
            << QVariantMap() << false
            << QStringLiteral(R"({"time":"2024-06-01 00:00:00.000","type":"clock"})");
    QTest::newRow("nested map, list, variant kinds, Chinese text and quotes")
            << QStringLiteral("book") << recordTime
            << QVariantMap {{QStringLiteral("quote"),
                             QVariantMap {{QStringLiteral("bid"), 3911.8}}},
                            {QStringLiteral("levels"),
                             QVariantList {1, QStringLiteral("two"), 3.5}},
                            {QStringLiteral("ok"), true},
                            {QStringLiteral("none"), QVariant()},
                            {QStringLiteral("id"), QVariant::fromValue<quint64>(140234567890)},
                            {QStringLiteral("desc"), QStringLiteral("崩溃 \"catch seh\"")},
                            {QStringLiteral("when"),
                             QDateTime(QDate(2024, 1, 5), QTime(7, 8, 9, 7), Qt::UTC)}}
            << true
            << QStringLiteral(R"({"content":{"desc":"崩溃 \"catch seh\"","id":140234567890,)"
                              R"("levels":[1,"two",3.5],"none":null,"ok":true,)"
                              R"("quote":{"bid":3911.8},"when":"2024-01-05T07:08:09.007Z"},)"
                              R"("time":"2024-12-02 09:30:00.125","type":"book"})");
}

void tst_KrMonitorAppender::recordFormat()
{
    QFETCH(QString, type);
    QFETCH(QDateTime, time);
    QFETCH(QVariantMap, dataMap);
    QFETCH(bool, async);
    QFETCH(QString, line);

    QCOMPARE(appender()->AppendMonitorInfo(type, time, dataMap, async), 0);
    if (async)
        QVERIFY(KrMonitorAppenderPrivate::waitForWritten(appender(), 10000));
    QCOMPARE(newText(), line + QLatin1Char('\n'));
}

void tst_KrMonitorAppender::waitForWritten_data()
{
    QTest::addColumn<int>("waiter");
    QTest::newRow("waiting on the test thread") << 0;
    QTest::newRow("waiting on a thread Qt did not start") << 1;
    QTest::newRow("waiting on the appender's thread: gives up at once") << 2;
}

// Every record sent before the call is in the file once it returns true. On the appender's own
// thread it could only wait for itself: it gives up at once instead of waiting out its time-out
// (half of which is the test's limit).
void tst_KrMonitorAppender::waitForWritten()
{
    QFETCH(int, waiter);
    const int threadCount = 4;
    const int perThread = waiter == 2 ? 0 : 2000;
    std::vector<std::thread> senders;
    for (int t = 0; t < threadCount; ++t) {
        senders.emplace_back([this, t, perThread] {
            for (int i = 0; i < perThread; ++i)
                appender()->AppendMonitorInfo(
                        QStringLiteral("flood"), recordTime,
                        {{QStringLiteral("thread"), t}, {QStringLiteral("seq"), i}}, true);
        });
    }
    for (std::thread &sender : senders)
        sender.join();

    struct Outcome
    {
        QSemaphore done;
        bool written = false;
    };
    const auto outcome = std::make_shared<Outcome>(); // outlives a call that hangs
    const auto wait = [outcome] {
        outcome->written
                = KrMonitorAppenderPrivate::waitForWritten(KrMonitorAppender::GetInstance(), 60000);
        outcome->done.release();
    };
    if (waiter == 0)
        wait();
    else if (waiter == 1)
        std::thread(wait).detach();
    else
        QMetaObject::invokeMethod(appender(), wait, Qt::QueuedConnection);
    QVERIFY2(outcome->done.tryAcquire(1, 30000), "it waits for its own thread");
    QCOMPARE(outcome->written, waiter != 2);
    verifyPerThreadOrder(nonEmptyLines(newText().toUtf8()), threadCount, perThread);
}

// A run of the child program (see krmonitorappender_child.cpp) from a copy in an application
// directory of its own, with a fake monitor program first on PATH or none at all.
void tst_KrMonitorAppender::childProcess_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("withLogDirectory");
    QTest::addColumn<bool>("withMonitor");
    QTest::addColumn<QStringList>("warnings"); // %1: the child's pid
    QTest::addColumn<QByteArray>(
            "kept"); // the log file left after exit; "flood": 4 threads' records

    const QByteArray syncLine(
            R"({"content":{"step":1},"time":"2024-01-05 23:08:09.007","type":"sync"})"
            "\n");
    const QString reopened = appenderLine(openFailed, "slotAppendData");
    QTest::newRow("monitor program started, file kept")
            << QStringList {"0", "sync"} << true << true << QStringList() << syncLine;
    QTest::newRow("no monitor program: file deleted at exit")
            << QStringList {"0", "sync"} << true << false
            << QStringList(appenderLine(monitorNotStarted)) << QByteArray();
    // reported once, at construction; the records are lost without a word, no directory made
    QTest::newRow("no log directory")
            << QStringList {"5", "sync"} << false << false
            << QStringList {appenderLine(openFailed), appenderLine(monitorNotStarted)}
            << QByteArray();
    // The next record reopens the file; the open-failure warning, whose test is kept inverted,
    // comes with that successful reopening.
    QTest::newRow("log directory made late, synchronous record")
            << QStringList {"0", "sync", "late"} << false << true
            << QStringList {appenderLine(openFailed), reopened} << syncLine;
    QTest::newRow("log directory made late, asynchronous records")
            << QStringList {"3", "late"} << false << true
            << QStringList {appenderLine(openFailed), reopened} << QByteArray("flood");
    // main returns as soon as the records are sent: none is lost at exit
    QTest::newRow("flood, application object destroyed as main returns")
            << QStringList {"25000"} << true << true << QStringList() << QByteArray("flood");
    QTest::newRow("flood, application object never destroyed")
            << QStringList {"25000", "keep-app"} << true << true << QStringList()
            << QByteArray("flood");
}

void tst_KrMonitorAppender::childProcess()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, withLogDirectory);
    QFETCH(bool, withMonitor);
    QFETCH(QStringList, warnings);
    QFETCH(QByteArray, kept);

    QTemporaryDir dir;
    const QString app = dir.path() + QStringLiteral("/app");
    const QString bin = dir.path() + QStringLiteral("/bin");
    const QString log = app + QStringLiteral("/log");
    const QString program = app + QStringLiteral("/krmonitorappender_child");
    const QString monitorArguments = bin + QStringLiteral("/arguments");
    QVERIFY(QDir().mkpath(bin) && QDir().mkpath(withLogDirectory ? log : app));
    QVERIFY(QFile::copy(QStringLiteral(KRMONITORAPPENDER_CHILD), program));
    // The fake monitor program records the count of its arguments, then each on a line.
    QFile monitor(bin + QLatin1Char('/') + monitorProgram);
    QVERIFY(monitor.open(QIODevice::WriteOnly));
    monitor.write(
            QStringLiteral("#!/bin/sh\n{ echo \"$#\"; for a in \"$@\"; do echo \"$a\"; done; } "
                           "> '%1.tmp' && mv '%1.tmp' '%1'\n")
                    .arg(monitorArguments)
                    .toUtf8());
    monitor.close();
    QVERIFY(monitor.setPermissions(monitor.permissions() | QFileDevice::ExeOwner));

    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (withMonitor)
        environment.insert(QStringLiteral("PATH"),
                           bin + QLatin1Char(':') + environment.value(QStringLiteral("PATH")));
    environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"),
                       QStringLiteral("%{type}|%{file}|%{message}"));
    environment.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("krutils.*=true"));
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    QVERIFY2(process.waitForStarted(10000), qPrintable(process.errorString()));
    const QString pid = QString::number(process.processId());
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished();
        QFAIL("the child did not end in time");
    }
    const QString errors = QString::fromUtf8(process.readAllStandardError());
    QVERIFY2(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0,
             qPrintable(errors));
    // the detached monitor may outlive the child; the directory must not go before it is done
    if (withMonitor)
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(monitorArguments), 10000);

    QStringList logged[2];
    for (const QString &line : errors.split(QLatin1Char('\n'))) {
        for (int warning = 0; warning < 2; ++warning) {
            const QString prefix = QLatin1String(warning ? "warning|" : "info|");
            if (line.startsWith(prefix))
                logged[warning] << line.mid(prefix.size());
        }
    }
    QCOMPARE(logged[0], withMonitor ? QStringList(appenderLine(monitorStarted)) : QStringList());
    QCOMPARE(logged[1], warnings.replaceInStrings(QStringLiteral("%1"), pid));

    // While the child ran, "<its dir>/log" held exactly its file (if it existed at start).
    const QString logFile = QStringLiteral("monitorLog_") + pid;
    QCOMPARE(QString::fromUtf8(process.readAllStandardOutput()),
             QStringLiteral("log-files: %1\n").arg(withLogDirectory ? logFile : QString()));
    QCOMPARE(QFileInfo::exists(log),
             withLogDirectory || arguments.contains(QStringLiteral("late")));
    if (withMonitor) { // started with the pid as its only argument
        QFile file(monitorArguments);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(file.readAll()), QStringLiteral("1\n%1\n").arg(pid));
    }
    QCOMPARE(QDir(log).entryList(QDir::Files),
             kept.isEmpty() ? QStringList() : QStringList(logFile));
    QFile file(log + QLatin1Char('/') + logFile);
    if (kept == "flood" && file.open(QIODevice::ReadOnly))
        verifyPerThreadOrder(nonEmptyLines(file.readAll()), 4, arguments.first().toInt());
    else if (!kept.isEmpty() && file.open(QIODevice::ReadOnly))
        QCOMPARE(file.readAll(), kept);
}

QTEST_GUILESS_MAIN(tst_KrMonitorAppender)
#include "tst_krmonitorappender.moc"
