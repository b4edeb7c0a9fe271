// Record utilities and terminal information: filters, sorts and sums on a blotter, parameter
// files, what the client reports about its machine.

#include "krdemo.h"

#include <krdefine/krdefine.h>
#include <krutils/KrCommonUtils.h>

#include <QCoreApplication>
#include <QDir>
#include <QHostAddress>
#include <QNetworkInterface>

namespace krdemo {

namespace {

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

} // namespace

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

} // namespace krdemo
