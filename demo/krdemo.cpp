// krdemo: a console tour of krutils. Each section starts a service, puts it to work on real
// data and tells what to look for in the log lines it prints.

#include <krdefine/krdefine.h>
#include <krutils/CKrUUID.h>
#include <krutils/CompleteExceptionHandler.h>
#include <krutils/KrCommonUtils.h>
#include <krutils/KrExportExcelFile.h>
#include <krutils/KrFunctionGuard.h>
#include <krutils/KrFunctionGuardManager.h>
#include <krutils/KrMediaPlayer.h>
#include <krutils/KrMonitorAppender.h>
#include <krutils/KrMutex.h>
#include <krutils/KrMutexLocker.h>
#include <krutils/KrMutexManager.h>
#include <krutils/KrObject.h>
#include <krutils/KrParseInportExcelFile.h>
#include <krutils/KrReadLocker.h>
#include <krutils/KrShortcutMgr.h>
#include <krutils/KrThread.h>
#include <krutils/KrTokenBucket.h>
#include <krutils/KrWriteLocker.h>
#include <krutils/TreeModel.h>
#include <krutils/TreeView.h>

#include <QApplication>
#include <QAudioDeviceInfo>
#include <QDataStream>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMap>
#include <QMediaPlayer>
#include <QMutex>
#include <QNetworkInterface>
#include <QPointer>
#include <QReadWriteLock>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>
#include <QWidget>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

QMutex outputMutex;

void say(const char *format, const QString &argument = QString())
{
    QMutexLocker locker(&outputMutex);
    std::printf(format, qUtf8Printable(argument));
    std::fflush(stdout);
}

void section(const char *title, const char *what)
{
    say("\n%s\n", QString::fromUtf8(title));
    say("%s\n", QString(QString::fromUtf8(title).size(), QLatin1Char('-')));
    say("%s\n", QString::fromUtf8(what));
}

// Prints the library's log lines indented under the section, with level and thread.
void printLogLine(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    static const QMap<QtMsgType, const char *> levels = {{QtDebugMsg, "debug"},
                                                         {QtInfoMsg, "info"},
                                                         {QtWarningMsg, "WARNING"},
                                                         {QtCriticalMsg, "CRITICAL"},
                                                         {QtFatalMsg, "FATAL"}};
    QString thread = QThread::currentThread()->objectName();
    if (thread.isEmpty())
        thread = QThread::currentThread() == qApp->thread() ? QStringLiteral("main")
                                                            : QStringLiteral("(unnamed)");
    QMutexLocker locker(&outputMutex);
    std::printf("    log %-7s [%s] %s\n", levels.value(type, "?"), qUtf8Printable(thread),
                qUtf8Printable(text));
    std::fflush(stdout);
}

// Lets queued work (log lines of finished threads, deferred deletes) run on the main thread.
void pumpEvents(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

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
                KrMutexLocker locker(&orderBookMutex, QStringLiteral("krdemo.cpp"), __LINE__,
                                     QStringLiteral("fillOrderBook"));
                orderBook[QStringLiteral("trader%1").arg(t)] += 1;
            }
        });
    }
    double lastSeen[2] = {0, 0};
    for (double &seen : lastSeen) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                KrReadLocker locker(&quoteLock, QStringLiteral("krdemo.cpp"), __LINE__,
                                    QStringLiteral("readQuote"));
                seen = lastPrice;
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < 2000; ++i) {
            KrWriteLocker locker(&quoteLock, QStringLiteral("krdemo.cpp"), __LINE__,
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
        KrMutexLocker held(&orderBookMutex, QStringLiteral("krdemo.cpp"), __LINE__,
                           QStringLiteral("auditOrderBook"));
        pumpEvents(50); // reports reach the monitor through its event queue
        say("  While auditOrderBook holds the mutex:   containsMutex = %s\n",
            monitor->containsMutex(&orderBookMutex) ? QStringLiteral("true")
                                                    : QStringLiteral("false"));
    }
    pumpEvents(50);
    say("  After auditOrderBook released it:       containsMutex = %s\n",
        monitor->containsMutex(&orderBookMutex) ? QStringLiteral("true") : QStringLiteral("false"));
    say("  (A lock still held after 60 s would now be reported; the tour does not wait a "
        "minute.)\n");
}

void settleTrades()
{
    KrFunctionGuard guard(QStringLiteral("krdemo.cpp"), QStringLiteral("settleTrades"), false, 1);
    QThread::msleep(3000); // a settlement run that blocks far longer than its budget
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
        KrFunctionGuard guard(QStringLiteral("krdemo.cpp"), QStringLiteral("quickCheck"), false, 5);
        QThread::msleep(20);
    }
}

// --- Record utilities --------------------------------------------------------------------------

enum BlotterColumn { TradeId, Symbol, Side, Price, Quantity };

QMap<int, QVariantMap> trade(int id, const QString &symbol, const QString &side, double price,
                             int quantity)
{
    // as a table view fills its rows: displayed text under "0", the raw value under "256"
    const QString display = QStringLiteral("0"), raw = QStringLiteral("256");
    return {{TradeId, {{display, QString::number(id)}, {raw, id}}},
            {Symbol, {{display, symbol}}},
            {Side, {{display, side}}},
            {Price, {{display, QString::number(price, 'f', 2)}, {raw, price}}},
            {Quantity, {{display, QString::number(quantity)}, {raw, quantity}}}};
}

QVariantMap condition(const QString &compare, const QVariant &operand,
                      const QString &logic = QString())
{
    return {{Orvex_Fields::Infomation::compareOperator, compare},
            {Orvex_Fields::System::filterValue, operand},
            {Orvex_Fields::Infomation::logicOperator, logic}};
}

// The trades of the record sections, as a table view holds them.
QList<QMap<int, QVariantMap>> demoBlotter()
{
    return {
            trade(1, QStringLiteral("600519.SH"), QStringLiteral("Buy"), 1688.50, 200),
            trade(2, QStringLiteral("000001.SZ"), QStringLiteral("Sell"), 11.37, 5000),
            trade(3, QStringLiteral("IF2412"), QStringLiteral("Buy"), 3912.40, 3),
            trade(4, QStringLiteral("601318.SH"), QStringLiteral("Buy"), 42.18, 1200),
            trade(5, QStringLiteral("000001.SZ"), QStringLiteral("Buy"), 11.40, 300),
            trade(6, QStringLiteral("300750.SZ"), QStringLiteral("Sell"), 178.90, 800),
            trade(7, QStringLiteral("601318.SH"), QStringLiteral("Sell"), 42.25, 2500),
    };
}

// The columns of a trade line, aligned under tradeHeader().
QString tradeLine(const QString &id, const QString &symbol, const QString &side,
                  const QString &price, const QString &quantity)
{
    return QStringLiteral("%1 %2 %3 %4 %5")
            .arg(id, 4)
            .arg(symbol, -10)
            .arg(side, -5)
            .arg(price, 8)
            .arg(quantity, 6);
}

QString tradeHeader()
{
    return tradeLine(QStringLiteral("id"), QStringLiteral("symbol"), QStringLiteral("side"),
                     QStringLiteral("price"), QStringLiteral("qty"));
}

void printTrades(const QList<QMap<int, QVariantMap>> &trades)
{
    say("      %s\n", tradeHeader());
    for (const auto &row : trades) {
        auto text = [&](int column) {
            return row.value(column).value(QStringLiteral("0")).toString();
        };
        say("      %s\n",
            tradeLine(text(TradeId), text(Symbol), text(Side), text(Price), text(Quantity)));
    }
}

void tourRecordFilter()
{
    section("4. Record utilities (KrCommonUtils): filter, sort, summary row",
            "A trader's filter on a small blotter: each filtered column has groups of conditions\n"
            "(any group may pass), a condition compares the cell's raw value with QVariant's "
            "rules,\n"
            "and conditions of a group join left to right through and / or / not (\"and not\").");
    const QList<QMap<int, QVariantMap>> blotter = demoBlotter();
    say("  The blotter:\n");
    printTrades(blotter);

    using namespace Orvex_Values;
    const QMap<int, QList<QList<QVariantMap>>> filter {
            // price: between 10 and 50, or at least 1000
            {Price,
             {{condition(CompareOperator::greaterOrEqual, 10.0, LogicOperator::andOperator),
               condition(CompareOperator::lessOrEqual, 50.0)},
              {condition(CompareOperator::greaterOrEqual, 1000.0)}}},
            // quantity: at least 1000, but not exactly 5000
            {Quantity,
             {{condition(CompareOperator::greaterOrEqual, 1000, LogicOperator::notOperator),
               condition(CompareOperator::equal, 5000)}}},
    };
    say("\n  Filter: price in [10, 50] or price >= 1000; and quantity >= 1000 \"not\" quantity == "
        "5000\n");
    printTrades(KrCommonUtils::getMatchRecordListByFilterList(blotter, filter, {}));
    say("  (trades 4 and 7 pass; trade 2 has 5000 shares, trade 1 too few.)\n");

    QList<QMap<int, QVariantMap>> sorted = blotter;
    KrCommonUtils::sortTableViewRecordListByKeys(
            sorted, {{Side, Qt::DescendingOrder}, {Price, Qt::AscendingOrder}});
    say("\n  Sorted by side (descending), then price (ascending) within each side:\n");
    printTrades(sorted);

    const QMap<int, QVariantMap> sum = KrCommonUtils::getTableViewSumRecord(blotter, {TradeId});
    say("\n  Summary row (trade ids excluded; text columns have nothing to sum):\n");
    say("      %s\n",
        tradeLine(QStringLiteral("sum"), QString(), QString(),
                  QString::number(sum.value(Price).value(QStringLiteral("0")).toDouble(), 'f', 2),
                  QString::number(sum.value(Quantity).value(QStringLiteral("0")).toInt())));
}

void tourParameterFile()
{
    section("5. Parameter files (KrCommonUtils::praseAlgoParamJsonFile)",
            "An algorithm plug-in describes its parameters in res/plugindata/algo/<name>.json, "
            "read\n"
            "relative to the current directory (the client's installation folder; here the "
            "demo's).");
    QDir::setCurrent(QCoreApplication::applicationDirPath());
    QList<QVariantMap> basic, initial, perform, report, log;
    QVariantMap monitorUi, createUi;
    const int code = KrCommonUtils::praseAlgoParamJsonFile(
            QStringLiteral("twap.json"), basic, initial, perform, report, log, monitorUi, createUi);
    say("  praseAlgoParamJsonFile(\"twap.json\") returned %s (0 parsed, -1 no text, -2 not JSON)\n",
        QString::number(code));
    auto describe = [](const char *title, const QList<QVariantMap> &params) {
        QStringList items;
        for (const QVariantMap &param : params)
            items << QStringLiteral("%1 = %2").arg(
                    param.value(QStringLiteral("label")).toString(),
                    param.value(QStringLiteral("default")).toString());
        say("    %s\n",
            QStringLiteral("%1: %2").arg(QLatin1String(title), items.join(QStringLiteral("; "))));
    };
    describe("basic", basic);
    describe("initial", initial);
    describe("perform", perform);
    say("    %s\n",
        QStringLiteral("report: %1 fields, log: %2, create UI: %3 x %4 \"%5\"")
                .arg(report.size())
                .arg(log.size())
                .arg(createUi.value(QStringLiteral("width")).toInt())
                .arg(createUi.value(QStringLiteral("height")).toInt())
                .arg(createUi.value(QStringLiteral("title")).toString()));
    const int missing = KrCommonUtils::praseAlgoParamJsonFile(
            QStringLiteral("vwap.json"), basic, initial, perform, report, log, monitorUi, createUi);
    say("  A plug-in without its file: praseAlgoParamJsonFile(\"vwap.json\") returned %s\n",
        QString::number(missing));
}

void tourTerminalInformation()
{
    section("12. Terminal information (KrCommonUtils)",
            "What the client reports about the machine it runs on. The operations were made for\n"
            "Windows, where a drive is its letter (\"C\"). On Linux a drive is any path on the "
            "volume, the\nfile system is the mount table's, the serial number is taken from the "
            "file system's id,\nand the system directory is \"/\".");
    say("  CPU id (CPUID leaf 1: EDX, then EAX, in hexadecimal): %s\n", KrCommonUtils::getCpuID());
    auto describeVolume = [](const QString &drive, const char *what) {
        say("  %s\n", QStringLiteral("the volume of %1 (%2)").arg(drive, QLatin1String(what)));
        say("    file system:   \"%s\"\n", KrCommonUtils::getDiskFileSysName(drive));
        say("    serial number: %s\n", KrCommonUtils::getDiskSerialNumber(drive));
        say("    total size:    %s GiB\n", QString::number(KrCommonUtils::getDiskTotalSize(drive)));
    };
    describeVolume(QStringLiteral("/"), "the root");
    describeVolume(QCoreApplication::applicationDirPath(), "the demo's directory");
    describeVolume(QStringLiteral("/no/such/volume"),
                   "no such path: no file system, 0 GiB, and serial 0");
    say("  system disk flag (the system directory up to its \":\"): %s\n",
        KrCommonUtils::getSystemDiskFlag());
    say("  hard disk number (the system volume's serial number in decimal): %s\n",
        KrCommonUtils::getHardDiskNumer());

    // The host's own address, as the client would know it: its first non-loopback IPv4 one.
    QString ownAddress = QStringLiteral("127.0.0.1");
    for (const QHostAddress &address : QNetworkInterface::allAddresses()) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol && !address.isLoopback()) {
            ownAddress = address.toString();
            break;
        }
    }
    say("  MAC address reported for this host's address %s\n",
        QStringLiteral("%1: %2").arg(ownAddress, KrCommonUtils::get_localmachine_mac(ownAddress)));
    auto describe = [](const QNetworkInterface &networkInterface) {
        return QStringLiteral("%1 (%2)").arg(networkInterface.humanReadableName(),
                                             networkInterface.hardwareAddress());
    };
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    QString holder = QStringLiteral("no interface");
    for (const QNetworkInterface &networkInterface : interfaces) {
        for (const QNetworkAddressEntry &entry : networkInterface.addressEntries()) {
            if (entry.ip().toString() == ownAddress)
                holder = describe(networkInterface);
        }
    }
    if (!interfaces.isEmpty()) {
        say("    %s\n",
            QStringLiteral("The address belongs to %1, but the first interface Qt lists is %2:\n"
                           "    its hardware address is the one reported, deliberately, whichever "
                           "interface holds the address.")
                    .arg(holder, describe(interfaces.first())));
    }
    say("  MAC address reported for 203.0.113.7, which this host does not have: \"%s\"\n",
        KrCommonUtils::get_localmachine_mac(QStringLiteral("203.0.113.7")));
}

// Order requests of three trading desks, sent through one shared token bucket.
struct OrderRequest
{
    QString desk;
    int number;
};

void tourTokenBucket()
{
    section("6. Token bucket (KrTokenBucket)",
            "Three desks send 4 orders each at once through one bucket of 5 tokens that gets 3 "
            "tokens back\nper second. Orders without a token wait for signalTokenCountRenew and "
            "retry.");
    auto *throttleThread = new KrThread;
    throttleThread->setObjectName(QStringLiteral("OrderThrottle"));
    auto *bucket = new KrTokenBucket(5, 3);
    bucket->moveToThread(throttleThread);
    throttleThread->start();

    QMutex waitingMutex;
    QList<OrderRequest> waiting;
    auto send = [&](const OrderRequest &order, const char *when) {
        const bool granted = bucket->consumeTokens(1) == 1;
        say("    %s\n",
            QStringLiteral("%1 order %2 %3: %4")
                    .arg(order.desk)
                    .arg(order.number)
                    .arg(QLatin1String(when),
                         granted ? QStringLiteral("sent") : QStringLiteral("no token, waits")));
        return granted;
    };

    // The burst: each desk sends from its own thread.
    std::vector<std::thread> desks;
    for (const QString &desk :
         {QStringLiteral("desk-A"), QStringLiteral("desk-B"), QStringLiteral("desk-C")}) {
        desks.emplace_back([&, desk] {
            for (int number = 1; number <= 4; ++number) {
                const OrderRequest order {desk, number};
                if (!send(order, "at once")) {
                    QMutexLocker locker(&waitingMutex);
                    waiting.append(order);
                }
            }
        });
    }
    for (std::thread &desk : desks)
        desk.join();

    QEventLoop loop;
    QElapsedTimer clock;
    clock.start();
    QObject::connect(bucket, &KrTokenBucket::signalTokenCountRenew, &loop, [&] {
        say("  after %s s: tokens came back\n", QString::number(clock.elapsed() / 1000.0, 'f', 1));
        QMutexLocker locker(&waitingMutex);
        while (!waiting.isEmpty() && send(waiting.first(), "retried"))
            waiting.removeFirst();
        if (waiting.isEmpty())
            loop.quit();
    });
    say("  %s orders wait for tokens.\n", QString::number(waiting.size()));
    loop.exec();
    say("  All 12 orders sent after %s s: 5 at once, then 3 per second.\n",
        QString::number(clock.elapsed() / 1000.0, 'f', 1));

    QMetaObject::invokeMethod(bucket, &QObject::deleteLater);
    QObject::connect(throttleThread, &QThread::finished, throttleThread, &QObject::deleteLater);
    throttleThread->quit();
    throttleThread->wait();
}

void tourIds()
{
    section("7. Order ids (CKrUUID)",
            "After login the client sets the user's name; every id carries it.");
    CKrUUID *ids = CKrUUID::GetInstance();
    say("  before login:  %s\n", ids->GetUuid());
    ids->setLoginName(QStringLiteral("trader01"));
    for (int i = 0; i < 3; ++i)
        say("  order id:      %s\n", ids->GetUuid());
    constexpr int count = 200000;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i)
        ids->GetUuid();
    say("  %s\n",
        QStringLiteral("%1 ids in %2 ms on one thread")
                .arg(count)
                .arg(clock.nsecsElapsed() / 1e6, 0, 'f', 0));
}

// A position: code, quantity, price; its market value is what the walks add up.
class PositionItem : public Utils::TreeItem
{
public:
    PositionItem(const QString &code, int quantity, double price)
        : Utils::TreeItem({code, QString::number(quantity), QString::number(price, 'f', 2)}),
          marketValue(quantity * price)
    {
    }
    const double marketValue;
};

// A strategy loads its positions only when someone looks inside it.
class StrategyItem : public Utils::TreeItem
{
public:
    StrategyItem(const QString &name, QList<PositionItem *> positions)
        : Utils::TreeItem({name}), m_positions(std::move(positions))
    {
        setLazy(true);
    }
    ~StrategyItem() override { qDeleteAll(m_positions); }

    void populate() override
    {
        say("    (strategy %s loads its positions now)\n", data(0, Qt::DisplayRole).toString());
        for (PositionItem *position : qAsConst(m_positions))
            appendChild(position);
        m_positions.clear();
    }

private:
    QList<PositionItem *> m_positions;
};

// Prints the tree indented by level and adds each account's market value on the way back up.
class ValuationVisitor : public Utils::TreeItemVisitor
{
public:
    void visit(Utils::TreeItem *item) override
    {
        if (level() == 1) // the root
            return;
        QStringList columns;
        for (int column = 0; column < 3; ++column)
            columns << item->data(column, Qt::DisplayRole).toString();
        say("  %s\n",
            QString(4 * (level() - 2), QLatin1Char(' '))
                    + columns.join(QLatin1String("  ")).trimmed());
        if (auto position = dynamic_cast<PositionItem *>(item))
            accountValue += position->marketValue;
    }
    void postVisit(Utils::TreeItem *item) override
    {
        if (item->level() == 1) {
            say("  %s\n",
                QStringLiteral("  = market value of %1: %2")
                        .arg(item->data(0, Qt::DisplayRole).toString())
                        .arg(accountValue, 0, 'f', 2));
            accountValue = 0;
        }
    }

private:
    double accountValue = 0;
};

void tourTreeModel()
{
    section("9. Tree model and views (Utils::TreeModel, TreeItem, TreeItemVisitor, "
            "UntypedTreeLevelItems, Utils::TreeView)",
            "Accounts, strategies and positions in one model; a strategy loads its positions "
            "lazily,\nthe first time anything asks for its rows.");
    Utils::TreeModel model;
    model.setHeader({QStringLiteral("Name"), QStringLiteral("Quantity"), QStringLiteral("Price")});
    const struct
    {
        const char *account;
        const char *strategy;
        QList<PositionItem *> positions;
    } books[] = {
            {"ACC-001 Alpha Fund",
             "Index arbitrage",
             {new PositionItem(QStringLiteral("510300.SH"), 20000, 3.87),
              new PositionItem(QStringLiteral("IF2412"), -2, 3921.40)}},
            {"ACC-001 Alpha Fund",
             "Market making",
             {new PositionItem(QStringLiteral("600519.SH"), 300, 1528.00)}},
            {"ACC-002 Beta Capital", "Trend", {}},
            {"ACC-002 Beta Capital",
             "Pairs",
             {new PositionItem(QStringLiteral("601318.SH"), 5000, 42.15),
              new PositionItem(QStringLiteral("601601.SH"), -4000, 27.30)}},
    };
    QMap<QString, Utils::TreeItem *> accounts;
    for (const auto &book : books) {
        const QString account = QString::fromUtf8(book.account);
        if (!accounts.contains(account)) {
            accounts.insert(account, new Utils::TreeItem({account}));
            model.rootItem()->appendChild(accounts.value(account));
        }
        accounts.value(account)->appendChild(
                new StrategyItem(QString::fromUtf8(book.strategy), book.positions));
    }

    say("\n  Level 1 (accounts):   %s\n", [&] {
        QStringList names;
        for (Utils::TreeItem *item : model.untypedLevelItems(1))
            names << item->data(0, Qt::DisplayRole).toString();
        return names.join(QLatin1String(", "));
    }());
    say("  Level 2 (strategies): %s\n", [&] {
        QStringList names;
        for (Utils::TreeItem *item : model.untypedLevelItems(2))
            names << item->data(0, Qt::DisplayRole).toString();
        return names.join(QLatin1String(", "));
    }());
    say("  Level 3 (positions), walking into every strategy:\n");
    QStringList positions;
    for (Utils::TreeItem *item : model.untypedLevelItems(3))
        positions << item->data(0, Qt::DisplayRole).toString();
    say("  %s\n", positions.join(QLatin1String(", ")));

    say("\n  The whole tree, walked with a visitor that values each account:\n");
    ValuationVisitor valuation;
    model.rootItem()->walkTree(&valuation);

    // A view on the model: the model asks it to expand, Return activates the current row.
    Utils::TreeView view;
    view.setModel(&model);
    QObject::connect(&model, &Utils::TreeModel::requestExpansion, &view, &QTreeView::expand);
    QObject::connect(&view, &QAbstractItemView::activated, [](const QModelIndex &index) {
        say("  activated in the view: %s\n", index.data().toString());
    });
    view.resize(480, 300);
    view.show();
    Utils::TreeItem *alpha = accounts.first();
    alpha->expand();
    alpha->child(0)->expand();
    QStringList visible;
    for (QModelIndex index = model.index(0, 0); index.isValid(); index = view.indexBelow(index))
        visible << QString(2 * (model.itemFromIndex(index)->level() - 1), QLatin1Char(' '))
                        + index.data().toString();
    say("\n  Rows a trader sees after the model asked the view to expand \"%s\" and its first "
        "strategy:\n",
        alpha->data(0, Qt::DisplayRole).toString());
    for (const QString &row : qAsConst(visible))
        say("    | %s\n", row);
    view.setCurrentIndex(alpha->child(0)->child(1)->index());
    QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    QApplication::sendEvent(&view, &enter);

    say("\n  A position closed: the model takes the item out and hands it over.\n");
    Utils::TreeItem *closed = alpha->child(0)->child(1);
    model.removeItem(closed);
    say("  %s\n",
        QStringLiteral("taken out: %1; the strategy now has %2 row(s)")
                .arg(closed->data(0, Qt::DisplayRole).toString())
                .arg(alpha->child(0)->rowCount()));
    delete closed;

    say("\n  Misuse is reported, not fatal (QTC_FATAL_ASSERTS makes it fatal):\n");
    model.removeItem(model.rootItem());
}

// Waits, with the main thread's events running, until `done` holds (or ten seconds pass).
bool waitUntil(const std::function<bool()> &done)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < 10000)
        pumpEvents(10);
    return done();
}

void tourWorkbooks()
{
    section("10. Workbooks (KrExportExcelFile, KrParseInportExcelFile)",
            "The blotter of section 4 goes to an .xlsx workbook on the exporter's own thread, and\n"
            "comes back through the importer on its own thread, keyed by the header row.");
    QList<QVariantMap> trades;
    const QDateTime opening(QDate(2024, 11, 20), QTime(9, 30));
    for (const auto &row : demoBlotter()) {
        // the raw value where the view has one, else the text shown
        const auto cell = [&](int column) {
            const QVariantMap roles = row.value(column);
            return roles.value(QStringLiteral("256"), roles.value(QStringLiteral("0")));
        };
        trades.append({{QStringLiteral("id"), cell(TradeId)},
                       {QStringLiteral("symbol"), cell(Symbol)},
                       {QStringLiteral("side"), cell(Side)},
                       {QStringLiteral("price"), cell(Price)},
                       {QStringLiteral("qty"), cell(Quantity)},
                       {QStringLiteral("time"), opening.addSecs(97 * cell(TradeId).toInt())}});
    }
    const QMap<QString, QList<QVariantMap>> sheets {
            {QStringLiteral("Trades"), trades},
            {QStringLiteral("Desk"),
             {{{QStringLiteral("desk"), QStringLiteral("Equities")},
               {QStringLiteral("trader"), QStringLiteral("trader01")}}}}};
    const QString fileName = QDir::temp().filePath(QStringLiteral("krdemo_blotter.xlsx"));

    QString exportInfo;
    bool exported = false;
    auto exporter = new KrExportExcelFile;
    QObject::connect(exporter, &KrExportExcelFile::exportFileFinished, qApp,
                     [&](bool result, const QString &, const QString &info) {
                         exported = true;
                         exportInfo = result ? info : QStringLiteral("failed: ") + info;
                     });
    emit exporter->signalSetSheetDetailList(fileName, sheets);
    waitUntil([&] { return exported; });
    say("  exported to %s\n",
        QStringLiteral("%1 (%2 bytes): %3")
                .arg(QDir::toNativeSeparators(fileName))
                .arg(QFileInfo(fileName).size())
                .arg(exportInfo));

    QMap<QString, QList<QVariantMap>> read;
    bool imported = false;
    auto importer = new KrParseInportExcelFile;
    QObject::connect(importer, &KrParseInportExcelFile::parseFileFinished, qApp,
                     [&](bool, const QString &, const QMap<QString, QList<QVariantMap>> &list) {
                         imported = true;
                         read = list;
                     });
    importer->setFileName(fileName);
    waitUntil([&] { return imported; });
    importer->deleteLater();

    say("  imported sheets: %s\n", read.keys().join(QLatin1String(", ")));
    say("      %s\n", tradeHeader() + QStringLiteral(" time (type)"));
    const QList<QVariantMap> back = read.value(QStringLiteral("Trades"));
    int matching = 0;
    for (int i = 0; i < back.size(); ++i) {
        const QVariantMap &record = back.at(i);
        say("      %s\n",
            tradeLine(record.value(QStringLiteral("id")).toString(),
                      record.value(QStringLiteral("symbol")).toString(),
                      record.value(QStringLiteral("side")).toString(),
                      QString::number(record.value(QStringLiteral("price")).toDouble(), 'f', 2),
                      record.value(QStringLiteral("qty")).toString())
                    + QStringLiteral(" %1 (%2)")
                              .arg(record.value(QStringLiteral("time"))
                                           .toDateTime()
                                           .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")),
                                   QString::fromLatin1(
                                           record.value(QStringLiteral("time")).typeName())));
        bool same = i < trades.size();
        for (auto it = record.cbegin(); same && it != record.cend(); ++it) {
            const QVariant original = trades.at(i).value(it.key());
            same = it.key() == QLatin1String("time")
                    ? it.value().toDateTime().toString(Qt::ISODate).left(19)
                            == original.toDateTime().toString(Qt::ISODate).left(19)
                    : it.value().toString() == original.toString();
        }
        matching += same;
    }
    say("  %s\n",
        QStringLiteral("%1 of %2 rows match the blotter (numbers come back as double, "
                       "date-times as their wall-clock value)")
                .arg(matching)
                .arg(trades.size()));
    QFile::remove(fileName);
}

// The lines of a text file, or none while it cannot be read.
QStringList fileLines(const QString &fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
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

// A short alert: a tone that fades out, as a 16-bit PCM mono 44.1 kHz WAV file.
bool writeAlertSound(const QString &fileName, double frequency, int milliseconds)
{
    constexpr quint32 rate = 44100;
    const quint32 samples = rate * milliseconds / 1000;
    QFile file(fileName);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QDataStream out(&file);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + 2 * samples);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(1) << quint16(1) << rate << quint32(2 * rate) << quint16(2)
        << quint16(16);
    out.writeRawData("data", 4);
    out << quint32(2 * samples);
    for (quint32 i = 0; i < samples; ++i) {
        const double fade = 1.0 - double(i) / samples;
        out << qint16(12000 * fade * std::sin(2 * M_PI * frequency * i / rate));
    }
    return out.status() == QDataStream::Ok;
}

void tourAlertSounds()
{
    section("13. Alert sounds (KrMediaPlayer)",
            "An order fill is announced twice in a row, then a price alert and a sound that was "
            "never\ninstalled. The player works on its own thread \"KrMediaPlayer\": the first "
            "request starts the\nfill sound, the repeat while it plays is dropped, the price "
            "alert waits its turn, and the\nmissing file is logged as \"file is not exist\".");
    QTemporaryDir folder;
    const QString fill = folder.filePath(QStringLiteral("fill.wav"));
    const QString price = folder.filePath(QStringLiteral("price.wav"));
    if (!writeAlertSound(fill, 880, 600) || !writeAlertSound(price, 1320, 400)) {
        say("  Could not write the alert sounds into %s; skipped.\n", folder.path());
        return;
    }
    const QAudioDeviceInfo output = QAudioDeviceInfo::defaultOutputDevice();

    KrMediaPlayer *alerts = KrMediaPlayer::getInstance();
    alerts->initMediaPlay();
    // Only the demo looks at the player itself, to tell what was heard; the client just asks.
    QMediaPlayer *player = nullptr;
    QMetaObject::invokeMethod(
            alerts, [&] { player = alerts->findChild<QMediaPlayer *>(); },
            Qt::BlockingQueuedConnection);
    QObject watcher;
    QElapsedTimer clock;
    clock.start();
    bool played = false, finished = false, failed = false;
    int sounds = 0;
    QObject::connect(player, &QMediaPlayer::currentMediaChanged, &watcher,
                     [&](const QMediaContent &media) {
                         const QString name = media.request().url().fileName();
                         if (name.isEmpty()) // the playlist itself, as it is set up
                             return;
                         ++sounds;
                         say("  %s\n",
                             QStringLiteral("%1 s: playing %2")
                                     .arg(clock.elapsed() / 1000.0, 0, 'f', 1)
                                     .arg(name));
                     });
    QObject::connect(player, &QMediaPlayer::stateChanged, &watcher, [&](QMediaPlayer::State state) {
        played = played || state == QMediaPlayer::PlayingState;
        finished = played && state == QMediaPlayer::StoppedState;
    });
    QObject::connect(player, QOverload<QMediaPlayer::Error>::of(&QMediaPlayer::error), &watcher,
                     [&] { failed = finished = true; });

    alerts->playSignalMusic(fill);
    alerts->playSignalMusic(fill);
    alerts->playSignalMusic(price);
    alerts->playSignalMusic(folder.filePath(QStringLiteral("margin-call.wav")));
    waitUntil([&] { return finished; });
    say("  %s\n",
        QStringLiteral("%1 s: the player stopped; %2 sound(s) played.")
                .arg(clock.elapsed() / 1000.0, 0, 'f', 1)
                .arg(sounds));
    if (failed)
        say("  The sound back end reported an error (the log line above), so the alerts stayed "
            "silent;\n  the player takes the next request all the same.\n");
    else if (output.isNull())
        say("  No sound device or sound server here: GStreamer played the alerts into a silent "
            "sink,\n  in real time, so the order of events above is the same.\n");
    else
        say("  The alerts went to the sound output \"%s\".\n", output.deviceName());
}

// Notes which key presses reach a widget past the filters installed after it.
class KeyWitness : public QObject
{
public:
    QList<int> pressesSeen;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::KeyPress)
            pressesSeen << static_cast<QKeyEvent *>(event)->key();
        return false;
    }
};

// What a keyboard sends for one key with modifiers: the modifier presses, the key, the
// releases in reverse order.
void typeKey(QWidget *target, Qt::Key key, Qt::KeyboardModifiers modifiers, const QString &text)
{
    const QList<QPair<Qt::KeyboardModifier, Qt::Key>> modifierKeys {
            {Qt::ShiftModifier, Qt::Key_Shift},
            {Qt::ControlModifier, Qt::Key_Control},
            {Qt::AltModifier, Qt::Key_Alt},
            {Qt::MetaModifier, Qt::Key_Meta}};
    auto send = [target](QEvent::Type type, Qt::Key sent, Qt::KeyboardModifiers held,
                         const QString &sentText) {
        QKeyEvent event(type, sent, held, sentText);
        QCoreApplication::sendEvent(target, &event);
    };
    for (const auto &modifier : modifierKeys) {
        if (modifiers & modifier.first)
            send(QEvent::KeyPress, modifier.second, modifiers, QString());
    }
    send(QEvent::KeyPress, key, modifiers, text);
    send(QEvent::KeyRelease, key, modifiers, text);
    for (auto modifier = modifierKeys.crbegin(); modifier != modifierKeys.crend(); ++modifier) {
        if (modifiers & modifier->first)
            send(QEvent::KeyRelease, modifier->second, modifiers, QString());
    }
}

void tourShortcuts()
{
    section("8. Shortcuts (KrShortcutMgr)",
            "An order page registers itself and its edit field, then declares F2 (buy), Ctrl+S "
            "(sell) and the\ntwo-key Ctrl+K, Ctrl+C (cancel all). Keys typed into the edit "
            "field fire the page's shortcuts;\nannouncements arrive from "
            "\"ShortcutSenderThread\" after the key event has returned.");
    QWidget page;
    page.setObjectName(QStringLiteral("orderPage"));
    auto *edit = new QLineEdit(&page);
    KeyWitness witness; // installed first, so it runs after the manager's filter
    edit->installEventFilter(&witness);
    KrShortcutMgr *shortcuts = KrShortcutMgr::instance();
    shortcuts->RegisterObject(&page, {edit}, QStringLiteral("orders#1"), QStringLiteral("trade"));
    const QString &create = Orvex_Values::AlterType::create;
    shortcuts->AlterShortcutInfo(&page, create, QKeySequence(Qt::Key_F2), 1,
                                 {{QStringLiteral("action"), QStringLiteral("buy")}});
    shortcuts->AlterShortcutInfo(&page, create, QKeySequence(Qt::CTRL + Qt::Key_S), 2,
                                 {{QStringLiteral("action"), QStringLiteral("sell")}});
    shortcuts->AlterShortcutInfo(&page, create,
                                 QKeySequence(Qt::CTRL + Qt::Key_K, Qt::CTRL + Qt::Key_C), 3,
                                 {{QStringLiteral("action"), QStringLiteral("cancel all")}});
    say("  Declaring F2 a second time is refused:\n");
    shortcuts->AlterShortcutInfo(&page, create, QKeySequence(Qt::Key_F2), 9, {});

    QEventLoop loop;
    QObject::connect(shortcuts, &KrShortcutMgr::signalShortcutTriggered, &loop,
                     [](QObject *obj, int id, const QVariantMap &infoMap,
                        const QString &pluginInstId, const QString &menuId) {
                         say("    %s\n",
                             QStringLiteral("fired: id %1 \"%2\" on %3 (%4 / %5), received on "
                                            "thread \"%6\"")
                                     .arg(id)
                                     .arg(infoMap.value(QStringLiteral("action")).toString(),
                                          obj->objectName(), pluginInstId, menuId,
                                          QThread::currentThread()->objectName()));
                     });
    auto type = [&](const char *what, Qt::Key key, Qt::KeyboardModifiers modifiers,
                    const QString &text = QString()) {
        witness.pressesSeen.clear();
        typeKey(edit, key, modifiers, text);
        say("  typed %s\n",
            QStringLiteral("%1: %2").arg(
                    QLatin1String(what),
                    witness.pressesSeen.contains(key)
                            ? QStringLiteral("the key reached the edit field")
                            : QStringLiteral("the key was taken by the manager")));
        pumpEvents(50);
    };
    type("F2", Qt::Key_F2, Qt::NoModifier);
    type("Shift+F2 (Shift is ignored)", Qt::Key_F2, Qt::ShiftModifier);
    type("Ctrl+S", Qt::Key_S, Qt::ControlModifier);
    type("Ctrl+K (the first of two keys)", Qt::Key_K, Qt::ControlModifier);
    type("Ctrl+C within the second", Qt::Key_C, Qt::ControlModifier);
    type("the letter x", Qt::Key_X, Qt::NoModifier, QStringLiteral("x"));
    type("Ctrl+C alone (copy, no shortcut)", Qt::Key_C, Qt::ControlModifier);
    say("  The edit field now reads \"%s\".\n", edit->text());
    shortcuts->UnregisterObject(&page);
}

// `krdemo crash <kind>`: ends the demo the hard way, so that a newcomer sees what the crash
// handlers leave behind.
namespace crashes {
volatile int zero = 0;
volatile int hundred = 100;
volatile int sink = 0;
int *volatile nowhere = nullptr;

__attribute__((noinline)) void writeThroughNull()
{
    *nowhere = 1;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winfinite-recursion" // endless on purpose
__attribute__((noinline)) int recurseForever(int depth)
{
    volatile char frame[512];
    frame[depth % sizeof frame] = 1;
    return recurseForever(depth + 1) + frame[0];
}
#pragma GCC diagnostic pop

__attribute__((noinline)) void throwUncaught()
{
    throw std::runtime_error("an exception nobody catches");
}

const QMap<QString, std::function<void()>> &kinds()
{
    static const QMap<QString, std::function<void()>> all = {
            {QStringLiteral("null-write"), [] { writeThroughNull(); }},
            {QStringLiteral("abort"), [] { std::abort(); }},
            {QStringLiteral("divide"), [] { sink = hundred / zero; }},
            {QStringLiteral("trap"), [] { __builtin_trap(); }},
            {QStringLiteral("stack-overflow"), [] { sink = recurseForever(0); }},
            {QStringLiteral("exception"), [] { throwUncaught(); }},
            {QStringLiteral("thread"),
             [] {
                 auto *thread = new KrThread;
                 thread->setObjectName(QStringLiteral("DemoWorker"));
                 auto *worker = new QObject;
                 worker->moveToThread(thread);
                 thread->start(QThread::InheritPriority);
                 QMetaObject::invokeMethod(
                         worker, [] { writeThroughNull(); }, Qt::QueuedConnection);
                 QThread::sleep(60);
             }},
    };
    return all;
}
} // namespace crashes

int crashOnPurpose(const QString &kind)
{
    const auto &kinds = crashes::kinds();
    if (!kinds.contains(kind)) {
        say("usage: krdemo crash <kind>, with <kind> one of: %s\n",
            kinds.keys().join(QStringLiteral(", ")));
        return 2;
    }
    section("Crash interception",
            "set_process_exception_handlers() and set_thread_exception_handlers() are installed; "
            "now\n"
            "the demo crashes on purpose. The handler's log lines follow, then the process ends "
            "with\n"
            "the signal it would have ended with anyway.");
    say("    monitor log: %s\n",
        QStringLiteral("%1/log/monitorLog_%2")
                .arg(QCoreApplication::applicationDirPath())
                .arg(QCoreApplication::applicationPid()));
    say("    dump file:   %s\n",
        QDir::currentPath()
                + QStringLiteral("/trelk_dump-<yyyyMMddhhmmss>.dmp (abort, faults, exceptions)"));
    say("    crashing:    %s\n\n", kind);
    kinds.value(kind)();
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    // The shortcut section needs widgets; on a machine without a display they are drawn
    // nowhere.
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")
        && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    qInstallMessageHandler(printLogLine);
    QThread::currentThread()->setObjectName(QStringLiteral("main"));

    // As the client does at start-up. The monitor log goes into the "log" folder beside the
    // program, which the appender expects to exist.
    QDir(QCoreApplication::applicationDirPath()).mkpath(QStringLiteral("log"));
    set_process_exception_handlers();
    set_thread_exception_handlers();
    if (argc > 1 && qstrcmp(argv[1], "crash") == 0)
        return crashOnPurpose(argc > 2 ? QString::fromLocal8Bit(argv[2]) : QString());

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

#include "krdemo.moc"
