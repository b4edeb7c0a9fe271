// Runtime and supervision: worker threads, the lock monitor, function guards, the monitor log.

#include "krdemo.h"

#include <krutils/KrFunctionGuard.h>
#include <krutils/KrFunctionGuardManager.h>
#include <krutils/KrMonitorAppender.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>
#include <krutils/KrObject.h>
#include <krutils/KrReadLocker.h>
#include <krutils/KrWriteLocker.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QMutex>
#include <QReadWriteLock>
#include <QThread>

#include <memory>
#include <thread>
#include <vector>

namespace krdemo {

namespace {

// A worker of the client: prices orders on its own thread.
class PricingWorker : public KrObject
{
    Q_OBJECT

public:
    explicit PricingWorker(const QString &name) : KrObject(true) { setThreadName(name); }

public Q_SLOTS:
    void slotPrice(const QString &symbol, double quantity, double price)
    {
        say("    %s\n",
            QStringLiteral("%1 x %2 @ %3 = %4, priced on thread \"%5\"")
                    .arg(symbol)
                    .arg(quantity)
                    .arg(price, 0, 'f', 2)
                    .arg(quantity * price, 0, 'f', 2)
                    .arg(QThread::currentThread()->objectName()));
    }
};

void settleTrades()
{
    KrFunctionGuard guard(QStringLiteral("supervision.cpp"), QStringLiteral("settleTrades"), false,
                          1);
    QThread::msleep(3000); // a settlement run that blocks far longer than its budget
}

// The lines of a text file, or none while it cannot be read.
QStringList fileLines(const QString &fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

void tourWorkerThreads()
{
    section("1. Worker threads (KrThread, KrObject)",
            "Two worker objects each get a named thread of their own. Look for \"thread started\" "
            "from\n"
            "each new thread, the orders priced on the workers' threads (not on \"main\"), and\n"
            "\"thread finished\" once the workers are destroyed.");
    auto equities = std::make_unique<PricingWorker>(QStringLiteral("EquityPricer"));
    auto futures = std::make_unique<PricingWorker>(QStringLiteral("FuturesPricer"));
    pumpEvents(100);
    QMetaObject::invokeMethod(equities.get(), "slotPrice",
                              Q_ARG(QString, QStringLiteral("600519.SH")), Q_ARG(double, 200),
                              Q_ARG(double, 1688.5));
    QMetaObject::invokeMethod(futures.get(), "slotPrice", Q_ARG(QString, QStringLiteral("IF2412")),
                              Q_ARG(double, 3), Q_ARG(double, 3912.4));
    QMetaObject::invokeMethod(equities.get(), "slotPrice",
                              Q_ARG(QString, QStringLiteral("000001.SZ")), Q_ARG(double, 5000),
                              Q_ARG(double, 11.37));
    pumpEvents(200);
    say("  Destroying the workers: each quits its thread and waits for it (1000 ms at most).\n");
    equities.reset();
    futures.reset();
    pumpEvents(200);
}

void tourLockMonitor()
{
    section("2. Lock monitor (KrMutexManager, KrMutexLocker, KrReadLocker, KrWriteLocker)",
            "The application starts the monitor once. From then on every lock taken through the\n"
            "library's wrappers is recorded with its call site until it is released, and a lock\n"
            "held for 60 seconds is reported as \"mutex lock time out , please check it\" with "
            "that\n"
            "call site.");
    KrMutexManager *monitor = KrMutexManager::getInstance();
    monitor->start();
    pumpEvents(100);

    QMutex orderBookMutex;
    QReadWriteLock quoteLock;
    QMap<QString, int> orderBook;
    double lastPrice = 100.0;
    say("  Four threads fill an order book through KrMutexLocker, two read quotes through\n"
        "  KrReadLocker while one writes them through KrWriteLocker ...\n");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2500; ++i) {
                KrMutexLocker locker(&orderBookMutex, QStringLiteral("supervision.cpp"), __LINE__,
                                     QStringLiteral("fillOrderBook"));
                orderBook[QStringLiteral("trader%1").arg(t)] += 1;
            }
        });
    }
    double lastSeen[2] = {0, 0};
    for (double &seen : lastSeen) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                KrReadLocker locker(&quoteLock, QStringLiteral("supervision.cpp"), __LINE__,
                                    QStringLiteral("readQuote"));
                seen = lastPrice;
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < 2000; ++i) {
            KrWriteLocker locker(&quoteLock, QStringLiteral("supervision.cpp"), __LINE__,
                                 QStringLiteral("writeQuote"));
            lastPrice += 0.01;
        }
    });
    for (std::thread &thread : threads)
        thread.join();
    int total = 0;
    for (int count : orderBook)
        total += count;
    say("  %s\n",
        QStringLiteral("Order book: %1 orders from %2 traders (expected 10000 from 4); "
                       "last quote %3 after 2000 writes;\n  the readers last saw %4 and %5.")
                .arg(total)
                .arg(orderBook.size())
                .arg(lastPrice, 0, 'f', 2)
                .arg(lastSeen[0], 0, 'f', 2)
                .arg(lastSeen[1], 0, 'f', 2));

    {
        KrMutexLocker held(&orderBookMutex, QStringLiteral("supervision.cpp"), __LINE__,
                           QStringLiteral("auditOrderBook"));
        say("  While auditOrderBook holds the mutex:   containsMutex = %s\n",
            monitor->containsMutex(&orderBookMutex) ? QStringLiteral("true")
                                                    : QStringLiteral("false"));
    }
    say("  After auditOrderBook released it:       containsMutex = %s\n",
        monitor->containsMutex(&orderBookMutex) ? QStringLiteral("true") : QStringLiteral("false"));
    say("  (A lock still held after 60 s would now be reported; the tour does not wait a "
        "minute.)\n");
}

void tourFunctionGuard()
{
    section("3. Function guard (KrFunctionGuard, KrFunctionGuardManager)",
            "settleTrades() carries a guard with a 1-second budget and runs for 3 seconds. Look "
            "for\n"
            "its entry line, then the monitor's \"fuctionGuard is over\" warning written on "
            "thread\n"
            "\"KrFuctionGuardManager\" while the function is still running (it states the "
            "monitor's\n"
            "default of 60 seconds, whatever the guard's budget), then its exit line with the\n"
            "elapsed milliseconds.");
    KrFunctionGuardManager::getInstance()->start();
    pumpEvents(100);
    settleTrades();
    say("  A guard that finishes within its budget is only logged on entry and exit:\n");
    {
        KrFunctionGuard guard(QStringLiteral("supervision.cpp"), QStringLiteral("quickCheck"),
                              false, 5);
        QThread::msleep(20);
    }
}

void tourMonitorLog()
{
    section("11. Monitor log (KrMonitorAppender)",
            "Diagnostic records (crash reports among them) go as JSON lines into\n"
            "log/monitorLog_<pid> beside the program, for the monitor program PeltoMonitor.exe "
            "that the\nappender starts on first use (here at start-up, with the crash handlers): "
            "look for \"监控进程启动！\" (started) or\n"
            "\"监控进程未正常启动！\" (not found on PATH). Without a monitor the log file is "
            "deleted again\nat exit, since no one would read it.");
    // main() created the log directory at start-up: the appender does not create it.
    const QString logDirectory = QCoreApplication::applicationDirPath() + QStringLiteral("/log");
    KrMonitorAppender *appender = KrMonitorAppender::GetInstance();
    const QString logFile = QStringLiteral("%1/monitorLog_%2")
                                    .arg(logDirectory)
                                    .arg(QCoreApplication::applicationPid());
    say("  One record with an empty map, written at once on \"main\" (bAsync false), then two\n"
        "  heartbeats sent asynchronously, written later on \"KrMonitorAppenderThread\":\n");
    appender->AppendMonitorInfo(QStringLiteral("session opened"), QDateTime::currentDateTime(), {},
                                false);
    appender->AppendMonitorInfo(
            QStringLiteral("heartbeat"), QDateTime::currentDateTime(),
            {{QStringLiteral("desk"), QStringLiteral("equities")}, {QStringLiteral("orders"), 12}},
            true);
    appender->AppendMonitorInfo(QStringLiteral("heartbeat"), QDateTime::currentDateTime(),
                                {{QStringLiteral("desk"), QStringLiteral("futures")},
                                 {QStringLiteral("orders"), 3},
                                 {QStringLiteral("latencyMs"), 1.8}},
                                true);
    waitUntil([&] { return fileLines(logFile).size() == 3; });
    say("  %s now holds (members in key order; no \"content\" for the empty map):\n", logFile);
    for (const QString &line : fileLines(logFile))
        say("    %s\n", line);
}

} // namespace krdemo

#include "supervision.moc"
