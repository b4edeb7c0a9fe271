#ifndef KRBLOTTER_H
#define KRBLOTTER_H

// Generated data that looks like a trade blotter as the client's table views fill it: one cell
// record per column, the displayed text under "0" and, where the view keeps one, the raw value
// under "256" (or a code under "257", a flag under "263").

#include <QDateTime>
#include <QList>
#include <QMap>
#include <QRandomGenerator>
#include <QStringList>
#include <QVariant>

namespace KrBlotter {

enum Column {
    OrderId,
    Symbol,
    Side,
    Price,
    Quantity,
    Amount,
    Time,
    Account,
    Status,
    Fee,
    ColumnCount
};

inline QList<QMap<int, QVariantMap>> generate(int rowCount, quint32 seed = 1)
{
    QRandomGenerator random(seed);
    const QString display = QStringLiteral("0"), raw = QStringLiteral("256"),
                  code = QStringLiteral("257"), flag = QStringLiteral("263");
    const QStringList symbols {QStringLiteral("600519.SH"), QStringLiteral("000001.SZ"),
                               QStringLiteral("IF2412"),    QStringLiteral("IC2412"),
                               QStringLiteral("601318.SH"), QStringLiteral("300750.SZ")};
    const QStringList sides {QStringLiteral("Buy"), QStringLiteral("Sell")};
    const QStringList statuses {QStringLiteral("New"), QStringLiteral("Partly filled"),
                                QStringLiteral("Filled"), QStringLiteral("Cancelled")};
    const QDateTime open(QDate(2024, 11, 22), QTime(9, 30), Qt::UTC);

    QList<QMap<int, QVariantMap>> rows;
    rows.reserve(rowCount);
    for (int r = 0; r < rowCount; ++r) {
        const double price = random.bounded(10000) / 100.0;
        const int quantity = 100 * (1 + random.bounded(50));
        const QDateTime time = open.addSecs(random.bounded(4 * 3600));
        const int status = random.bounded(statuses.size());
        const double fee = price * quantity * 0.0003;
        QMap<int, QVariantMap> row;
        row.insert(OrderId, {{display, QString::number(r + 1)}, {raw, r + 1}});
        row.insert(Symbol, {{display, symbols.at(random.bounded(symbols.size()))}});
        row.insert(Side, {{display, sides.at(random.bounded(2))}});
        row.insert(Price, {{display, QString::number(price, 'f', 2)}, {raw, price}});
        row.insert(Quantity, {{display, QString::number(quantity)}, {raw, quantity}});
        row.insert(Amount,
                   {{display, QString::number(price * quantity, 'f', 2)}, {raw, price * quantity}});
        row.insert(Time, {{display, time.toString(QStringLiteral("hh:mm:ss"))}, {raw, time}});
        row.insert(Account,
                   {{display,
                     QStringLiteral("ACC%1").arg(random.bounded(20), 3, 10, QLatin1Char('0'))}});
        row.insert(Status, {{display, statuses.at(status)}, {code, status}, {flag, status == 3}});
        row.insert(Fee, {{display, QString::number(fee, 'f', 2)}, {raw, fee}});
        rows.append(row);
    }
    return rows;
}

} // namespace KrBlotter

#endif // KRBLOTTER_H
