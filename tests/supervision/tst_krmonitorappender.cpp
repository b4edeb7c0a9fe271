#include "KrTestSupport.h"
#include "supervision/KrMonitorAppender_p.h"

#include <krutils/KrMonitorAppender.h>

#include <QDir>
#include <QFile>
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

const QString appenderSource = QStringLiteral("shell/krutils/KrMonitorAppender");
const QString constructor = QStringLiteral("KrMonitorAppender::KrMonitorAppender");
const QString openFailedText = QStringLiteral("创建监控文件失败，进程ID：");
const QString monitorStartedText = QStringLiteral("监控进程启动！");
const QString monitorNotStartedText = QStringLiteral("监控进程未正常启动！");
const QString monitorProgram = QStringLiteral("PeltoMonitor.exe");

// A log line of the appender's as the child program prints it, after its type.
QString appenderLine(const QString &text, const QString &function = constructor)
{
    return appenderSource + QLatin1Char('|') + function + QLatin1Char(' ') + text;
}

// The time of the records, here and in the child program.
const QDateTime recordTime(QDate(2024, 12, 2), QTime(9, 30, 0, 125));

QString logDirectory()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/log");
}

// Removes the log directory next to the test program at exit, if this test created it, after
// the appender has deleted its file (atexit handlers run in the reverse order of registration).
QString createdLogDirectory;
void removeCreatedLogDirectory()
{
    QDir().rmdir(createdLogDirectory);
}

// Checks that each thread's records ("thread", "seq" in the content) arrived complete, intact
// and in the order sent.
void verifyPerThreadOrder(const QByteArrayList &lines, int threadCount, int perThread)
{
    QCOMPARE(lines.size(), threadCount * perThread);
    QVector<int> next(threadCount, 0);
    for (const QByteArray &line : lines) {
        QJsonParseError error;
        const QJsonObject record = QJsonDocument::fromJson(line, &error).object();
        QVERIFY2(error.error == QJsonParseError::NoError, line.constData());
        QCOMPARE(record.value(QLatin1String("type")).toString(), QStringLiteral("flood"));
        QCOMPARE(record.value(QLatin1String("time")).toString(),
                 QStringLiteral("2024-12-02 09:30:00.125"));
        const QJsonObject content = record.value(QLatin1String("content")).toObject();
        const int thread = content.value(QLatin1String("thread")).toInt(-1);
        QVERIFY2(thread >= 0 && thread < threadCount, line.constData());
        QCOMPARE(content.value(QLatin1String("seq")).toInt(-1), next[thread]);
        ++next[thread];
    }
}

QByteArrayList nonEmptyLines(const QByteArray &text)
{
    QByteArrayList lines = text.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

// A run of the child program (krmonitorappender_child) from a copy in an application directory
// of its own, with a fake monitor program first on PATH or none at all.
class ChildRun
{
public:
    ChildRun(bool withLogDirectory, bool withMonitor) : m_withMonitor(withMonitor)
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(QDir().mkpath(binDirectory()));
        QVERIFY(QDir().mkpath(withLogDirectory ? logDirectory() : appDirectory()));
        QVERIFY(QFile::copy(QStringLiteral(KRMONITORAPPENDER_CHILD), program()));

        // The fake monitor program records the count of its arguments, then each on a line.
        QFile monitor(binDirectory() + QLatin1Char('/') + monitorProgram);
        QVERIFY(monitor.open(QIODevice::WriteOnly));
        monitor.write(QStringLiteral("#!/bin/sh\n"
                                     "{ echo \"$#\"; for a in \"$@\"; do echo \"$a\"; done; } "
                                     "> '%1.tmp' && mv '%1.tmp' '%1'\n")
                              .arg(monitorArgumentsFile())
                              .toUtf8());
        monitor.close();
        QVERIFY(monitor.setPermissions(monitor.permissions() | QFileDevice::ExeOwner));

        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        if (withMonitor)
            environment.insert(QStringLiteral("PATH"),
                               binDirectory() + QLatin1Char(':')
                                       + environment.value(QStringLiteral("PATH")));
        environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"),
                           QStringLiteral("%{type}|%{file}|%{message}"));
        environment.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("krutils.*=true"));
        environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
        m_process.setProcessEnvironment(environment);
    }

    QString appDirectory() const { return m_dir.path() + QStringLiteral("/app"); }
    QString binDirectory() const { return m_dir.path() + QStringLiteral("/bin"); }
    QString logDirectory() const { return appDirectory() + QStringLiteral("/log"); }
    QString program() const { return appDirectory() + QStringLiteral("/krmonitorappender_child"); }
    QString monitorArgumentsFile() const { return binDirectory() + QStringLiteral("/arguments"); }
    qint64 pid() const { return m_pid; }
    // The name the run's log file must have: "monitorLog_<pid>", no extension.
    QString logFileName() const { return QStringLiteral("monitorLog_%1").arg(m_pid); }

    // Runs the child to its end; fails unless it exits normally with status 0 within the time
    // limit (and, with a monitor program, the monitor has run).
    void run(const QStringList &arguments, int timeLimit = 30000)
    {
        m_process.start(program(), arguments);
        QVERIFY2(m_process.waitForStarted(10000), qPrintable(m_process.errorString()));
        m_pid = m_process.processId();
        if (!m_process.waitForFinished(timeLimit)) {
            m_process.kill();
            m_process.waitForFinished();
            QFAIL(qPrintable(QStringLiteral("the child did not end within %1 ms").arg(timeLimit)));
        }
        m_output = QString::fromUtf8(m_process.readAllStandardOutput());
        m_errors = QString::fromUtf8(m_process.readAllStandardError());
        QVERIFY2(m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0,
                 qPrintable(m_errors));
        // The detached monitor may outlive the child; the directory must not go before it is done.
        if (m_withMonitor)
            QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(monitorArgumentsFile()), 10000);
    }

    // The value of a "key: value" line the child printed.
    QString reported(const char *key) const
    {
        const QStringList values = linesAfter(m_output, QLatin1String(key) + QStringLiteral(": "));
        return values.isEmpty() ? QStringLiteral("(not reported)") : values.first();
    }

    // The child's log lines of a type ("info", "warning"), each as "<source file>|<text>".
    QStringList log(const QString &type) const
    {
        return linesAfter(m_errors, type + QLatin1Char('|'));
    }

    QByteArray logContent() const
    {
        QFile file(logDirectory() + QLatin1Char('/') + logFileName());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no log file)");
    }

private:
    static QStringList linesAfter(const QString &text, const QString &prefix)
    {
        QStringList found;
        for (const QString &line : text.split(QLatin1Char('\n'))) {
            if (line.startsWith(prefix))
                found.append(line.mid(prefix.size()));
        }
        return found;
    }

    const bool m_withMonitor;
    QTemporaryDir m_dir;
    QProcess m_process;
    qint64 m_pid = 0;
    QString m_output;
    QString m_errors;
};

} // namespace

// The appender of this process (its log next to the test program), and children of their own
// for what happens at construction and at exit.
class tst_KrMonitorAppender : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void runsOnItsOwnThread();
    void recordFormat_data();
    void recordFormat();
    void twoRecordsGiveTwoLines_data();
    void twoRecordsGiveTwoLines();
    void waitForWrittenAfterSeveralThreads_data();
    void waitForWrittenAfterSeveralThreads();
    void waitForWrittenOnItsOwnThread();

    void logFileAndMonitorProgram_data();
    void logFileAndMonitorProgram();
    void missingLogDirectory();
    void reopeningWarns_data();
    void reopeningWarns();
    void noRecordLostAtExit_data();
    void noRecordLostAtExit();

private:
    KrMonitorAppender *appender() const { return KrMonitorAppender::GetInstance(); }
    // What the appender wrote since the last call, as the stream's default codec reads it.
    QString newText();
    QByteArrayList newLines() { return nonEmptyLines(newText().toUtf8()); }

    QString m_logFile;
    qint64 m_readFrom = 0;
};

void tst_KrMonitorAppender::initTestCase()
{
    QVERIFY2(QStandardPaths::findExecutable(monitorProgram).isEmpty(),
             "a PeltoMonitor.exe on PATH would be started by the tests");
    // The appender does not create its log directory.
    if (!QFileInfo::exists(logDirectory())) {
        QVERIFY(QDir().mkpath(logDirectory()));
        createdLogDirectory = logDirectory();
        std::atexit(removeCreatedLogDirectory);
    }

    MessageCapture capture;
    appender();
    m_logFile = QStringLiteral("%1/log/monitorLog_%2")
                        .arg(QCoreApplication::applicationDirPath())
                        .arg(QCoreApplication::applicationPid());
    QVERIFY2(QFileInfo(m_logFile).isFile(), qPrintable(m_logFile));
    QCOMPARE(QFileInfo(m_logFile).size(), 0);
    QVERIFY(capture.matching(QtWarningMsg, openFailedText).isEmpty());
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

void tst_KrMonitorAppender::runsOnItsOwnThread()
{
    QThread *thread = KrMonitorAppenderPrivate::thread(appender());
    QVERIFY(thread);
    QCOMPARE(appender()->thread(), thread);
    QVERIFY(thread != QThread::currentThread());
    QVERIFY(thread->isRunning());
    QCOMPARE(thread->objectName(), QStringLiteral("KrMonitorAppenderThread"));
}

void tst_KrMonitorAppender::recordFormat_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QDateTime>("time");
    QTest::addColumn<QVariantMap>("dataMap");
    QTest::addColumn<bool>("async");
    QTest::addColumn<QString>("line");

    const auto add = [](const char *name, const QString &type, const QDateTime &time,
                        const QVariantMap &dataMap, const QString &line) {
        QTest::addRow("%s, synchronous", name) << type << time << dataMap << false << line;
        QTest::addRow("%s, asynchronous", name) << type << time << dataMap << true << line;
    };
    add("empty map has no content", QStringLiteral("heartbeat"), recordTime, {},
        QStringLiteral(R"({"time":"2024-12-02 09:30:00.125","type":"heartbeat"})"));
    add("flat map", QStringLiteral("order"), recordTime,
        {{QStringLiteral("symbol"), QStringLiteral("IF2412")}, {QStringLiteral("qty"), 3}},
        QStringLiteral(R"({"content":{"qty":3,"symbol":"IF2412"},)"
                       R"("time":"2024-12-02 09:30:00.125","type":"order"})"));
    add("nested map and list", QStringLiteral("book"), recordTime,
        {{QStringLiteral("quote"),
          QVariantMap {{QStringLiteral("bid"), 3911.8}, {QStringLiteral("ask"), 3912.4}}},
         {QStringLiteral("levels"), QVariantList {1, QStringLiteral("two"), 3.5}}},
        QStringLiteral(R"({"content":{"levels":[1,"two",3.5],"quote":{"ask":3912.4,"bid":3911.8}},)"
                       R"("time":"2024-12-02 09:30:00.125","type":"book"})"));
    add("variant kinds", QStringLiteral("variants"), recordTime,
        {{QStringLiteral("ok"), true},
         {QStringLiteral("none"), QVariant()},
         {QStringLiteral("threadId"), QVariant::fromValue<quint64>(140234567890)},
         {QStringLiteral("ratio"), -0.25},
         {QStringLiteral("when"), QDateTime(QDate(2024, 1, 5), QTime(7, 8, 9, 7), Qt::UTC)}},
        QStringLiteral(R"({"content":{"none":null,"ok":true,"ratio":-0.25,)"
                       R"("threadId":140234567890,"when":"2024-01-05T07:08:09.007Z"},)"
                       R"("time":"2024-12-02 09:30:00.125","type":"variants"})"));
    add("Chinese text and quotes", QStringLiteral("dump"), recordTime,
        {{QStringLiteral("desc"), QStringLiteral("崩溃 \"catch seh exception\"")}},
        QStringLiteral(R"({"content":{"desc":"崩溃 \"catch seh exception\""},)"
                       R"("time":"2024-12-02 09:30:00.125","type":"dump"})"));
    add("time fields zero-padded, 24-hour clock", QStringLiteral("clock"),
        QDateTime(QDate(2024, 1, 5), QTime(23, 8, 9, 7)), {},
        QStringLiteral(R"({"time":"2024-01-05 23:08:09.007","type":"clock"})"));
    add("UTC time written as given, no zone", QStringLiteral("clock"),
        QDateTime(QDate(2024, 6, 1), QTime(0, 0), Qt::UTC), {},
        QStringLiteral(R"({"time":"2024-06-01 00:00:00.000","type":"clock"})"));
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
    const QString text = newText();
    QCOMPARE(text, line + QLatin1Char('\n'));

    // The content is what QJsonObject::fromVariantMap makes of the map.
    const QJsonObject record = QJsonDocument::fromJson(text.toUtf8()).object();
    QCOMPARE(record.contains(QLatin1String("content")), !dataMap.isEmpty());
    if (!dataMap.isEmpty())
        QCOMPARE(record.value(QLatin1String("content")).toObject(),
                 QJsonObject::fromVariantMap(dataMap));
}

void tst_KrMonitorAppender::twoRecordsGiveTwoLines_data()
{
    QTest::addColumn<bool>("async");
    QTest::newRow("synchronous") << false;
    QTest::newRow("asynchronous") << true;
}

void tst_KrMonitorAppender::twoRecordsGiveTwoLines()
{
    QFETCH(bool, async);
    appender()->AppendMonitorInfo(QStringLiteral("first"), recordTime, {{QStringLiteral("n"), 1}},
                                  async);
    appender()->AppendMonitorInfo(QStringLiteral("second"), recordTime, {}, async);
    if (async)
        QVERIFY(KrMonitorAppenderPrivate::waitForWritten(appender(), 10000));

    QCOMPARE(newText(),
             QStringLiteral(R"({"content":{"n":1},"time":"2024-12-02 09:30:00.125","type":"first"})"
                            "\n"
                            R"({"time":"2024-12-02 09:30:00.125","type":"second"})"
                            "\n"));
}

void tst_KrMonitorAppender::waitForWrittenAfterSeveralThreads_data()
{
    QTest::addColumn<bool>("fromPlainThread");
    QTest::newRow("waiting on the test thread") << false;
    QTest::newRow("waiting on a thread Qt did not start") << true;
}

void tst_KrMonitorAppender::waitForWrittenAfterSeveralThreads()
{
    QFETCH(bool, fromPlainThread);
    const int threadCount = 4;
    const int perThread = 2000;
    std::vector<std::thread> senders;
    for (int t = 0; t < threadCount; ++t) {
        senders.emplace_back([this, t] {
            for (int i = 0; i < perThread; ++i)
                appender()->AppendMonitorInfo(
                        QStringLiteral("flood"), recordTime,
                        {{QStringLiteral("thread"), t}, {QStringLiteral("seq"), i}}, true);
        });
    }
    for (std::thread &sender : senders)
        sender.join();

    bool written = false;
    if (fromPlainThread) {
        std::thread waiter(
                [&] { written = KrMonitorAppenderPrivate::waitForWritten(appender(), 10000); });
        waiter.join();
    } else {
        written = KrMonitorAppenderPrivate::waitForWritten(appender(), 10000);
    }
    QVERIFY(written);
    // Nothing more is waited for: every record is in the file once waitForWritten returns.
    verifyPerThreadOrder(newLines(), threadCount, perThread);
}

// On its own thread the call could only wait for itself: it gives up at once instead of waiting
// out its time-out (half of which is the test's limit).
void tst_KrMonitorAppender::waitForWrittenOnItsOwnThread()
{
    struct Outcome
    {
        QSemaphore done;
        bool written = true;
    };
    const auto outcome = std::make_shared<Outcome>(); // outlives a call that hangs
    QMetaObject::invokeMethod(
            appender(),
            [outcome] {
                outcome->written = KrMonitorAppenderPrivate::waitForWritten(
                        KrMonitorAppender::GetInstance(), 60000);
                outcome->done.release();
            },
            Qt::QueuedConnection);
    QVERIFY2(outcome->done.tryAcquire(1, 30000), "it waits for its own thread");
    QVERIFY(!outcome->written);
}

void tst_KrMonitorAppender::logFileAndMonitorProgram_data()
{
    QTest::addColumn<bool>("withMonitor");
    QTest::newRow("monitor program on PATH: started, file kept") << true;
    QTest::newRow("no monitor program: file deleted at exit") << false;
}

void tst_KrMonitorAppender::logFileAndMonitorProgram()
{
    QFETCH(bool, withMonitor);
    ChildRun child(true, withMonitor);
    if (QTest::currentTestFailed())
        return;
    child.run({QStringLiteral("monitor")});
    if (QTest::currentTestFailed())
        return;

    // While the child ran, "<its dir>/log" held exactly its file.
    QCOMPARE(child.reported("log-files"), child.logFileName());
    const QStringList kept = QDir(child.logDirectory()).entryList(QDir::Files);
    if (withMonitor) {
        QCOMPARE(child.log(QStringLiteral("info")), QStringList(appenderLine(monitorStartedText)));
        QCOMPARE(child.log(QStringLiteral("warning")), QStringList());
        // Started with the pid as its only argument.
        QFile arguments(child.monitorArgumentsFile());
        QVERIFY(arguments.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(arguments.readAll()),
                 QStringLiteral("1\n%1\n").arg(child.pid()));
        QCOMPARE(kept, QStringList(child.logFileName()));
        QCOMPARE(child.logContent(),
                 QByteArray(R"({"content":{"step":1},"time":"2024-12-02 09:30:00.125",)"
                            R"("type":"started"})"
                            "\n"));
    } else {
        QCOMPARE(child.log(QStringLiteral("info")), QStringList());
        QCOMPARE(child.log(QStringLiteral("warning")),
                 QStringList(appenderLine(monitorNotStartedText)));
        QCOMPARE(kept, QStringList());
    }
}

// Reported once, at construction; the records themselves are lost without a word, and the
// directory is not created.
void tst_KrMonitorAppender::missingLogDirectory()
{
    ChildRun child(false, false);
    if (QTest::currentTestFailed())
        return;
    child.run({QStringLiteral("missing-log-dir")});
    if (QTest::currentTestFailed())
        return;

    const QString openFailed = openFailedText + QLatin1Char(' ') + QString::number(child.pid());
    QCOMPARE(child.log(QStringLiteral("warning")),
             QStringList({appenderLine(openFailed), appenderLine(monitorNotStartedText)}));
    QCOMPARE(child.reported("written"), QStringLiteral("true"));
    QCOMPARE(child.reported("log-dir-exists"), QStringLiteral("false"));
    QVERIFY(!QFileInfo::exists(child.logDirectory()));
}

void tst_KrMonitorAppender::reopeningWarns_data()
{
    QTest::addColumn<bool>("async");
    QTest::newRow("synchronous record") << false;
    QTest::newRow("asynchronous record") << true;
}

// The log directory appears after start-up: the next record reopens the file, and the
// open-failure warning, whose test is kept inverted, comes with that successful reopening.
void tst_KrMonitorAppender::reopeningWarns()
{
    QFETCH(bool, async);
    ChildRun child(false, true);
    if (QTest::currentTestFailed())
        return;
    child.run({QStringLiteral("reopen"), async ? QStringLiteral("async") : QStringLiteral("sync")});
    if (QTest::currentTestFailed())
        return;

    const QString openFailed = openFailedText + QLatin1Char(' ') + QString::number(child.pid());
    QCOMPARE(child.log(QStringLiteral("warning")),
             QStringList({appenderLine(openFailed),
                          appenderLine(openFailed,
                                       QStringLiteral("KrMonitorAppender::slotAppendData"))}));
    QCOMPARE(child.reported("log-files"), child.logFileName());
    QCOMPARE(child.logContent(),
             QByteArray(R"({"time":"2024-12-02 09:30:00.125","type":"reopened"})"
                        "\n"));
}

void tst_KrMonitorAppender::noRecordLostAtExit_data()
{
    QTest::addColumn<QString>("application");
    QTest::newRow("application object destroyed as main returns") << QStringLiteral("destroy-app");
    QTest::newRow("application object never destroyed") << QStringLiteral("keep-app");
}

// 4 plain threads send 25,000 records each asynchronously, and main returns as soon as they are
// sent. With a monitor program the file is kept: it must hold every record.
void tst_KrMonitorAppender::noRecordLostAtExit()
{
    QFETCH(QString, application);
    const int threadCount = 4;
    const int perThread = 25000;
    ChildRun child(true, true);
    if (QTest::currentTestFailed())
        return;
    child.run({QStringLiteral("flood"), QString::number(threadCount), QString::number(perThread),
               application},
              120000);
    if (QTest::currentTestFailed())
        return;
    verifyPerThreadOrder(nonEmptyLines(child.logContent()), threadCount, perThread);
}

QTEST_GUILESS_MAIN(tst_KrMonitorAppender)

#include "tst_krmonitorappender.moc"
