// Workbooks: the blotter exported to an .xlsx file and imported again.

#include "krdemo.h"

#include <krutils/KrExportExcelFile.h>
#include <krutils/KrParseInportExcelFile.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace krdemo {

namespace {

using SheetDetailList = QMap<QString, QList<QVariantMap>>;

// The blotter as the records of a sheet: the raw value where the view has one, else the text
// shown, and the time of the trade.
QList<QVariantMap> blotterRecords()
{
    QList<QVariantMap> trades;
    const QDateTime opening(QDate(2024, 11, 20), QTime(9, 30));
    for (const auto &row : demoBlotter()) {
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
    return trades;
}

// Writes the workbook on the exporter's thread and waits for it; what the exporter reported.
QString exportWorkbook(const QString &fileName, const SheetDetailList &sheets)
{
    QString exportInfo;
    bool exported = false;
    QObject receiver; // the reports stop with this function
    auto exporter = new KrExportExcelFile;
    QObject::connect(exporter, &KrExportExcelFile::exportFileFinished, &receiver,
                     [&](bool result, const QString &, const QString &info) {
                         exported = true;
                         exportInfo = result ? info : QStringLiteral("failed: ") + info;
                     });
    emit exporter->signalSetSheetDetailList(fileName, sheets);
    waitUntil([&] { return exported; });
    return exportInfo;
}

// Reads the workbook on the importer's thread and waits for it.
SheetDetailList importWorkbook(const QString &fileName)
{
    SheetDetailList read;
    bool imported = false;
    QObject receiver; // the reports stop with this function
    auto importer = new KrParseInportExcelFile;
    QObject::connect(importer, &KrParseInportExcelFile::parseFileFinished, &receiver,
                     [&](bool, const QString &, const SheetDetailList &list) {
                         imported = true;
                         read = list;
                     });
    importer->setFileName(fileName);
    waitUntil([&] { return imported; });
    importer->deleteLater();
    return read;
}

// A record read back as a trade line, with its time and the type the time came back as.
QString importedLine(const QVariantMap &record)
{
    const QVariant time = record.value(QStringLiteral("time"));
    return tradeLine(record.value(QStringLiteral("id")).toString(),
                     record.value(QStringLiteral("symbol")).toString(),
                     record.value(QStringLiteral("side")).toString(),
                     QString::number(record.value(QStringLiteral("price")).toDouble(), 'f', 2),
                     record.value(QStringLiteral("qty")).toString())
            + QStringLiteral(" %1 (%2)")
                      .arg(time.toDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss")),
                           QString::fromLatin1(time.typeName()));
}

// Whether every value read back shows as the one written (date-times to the second).
bool sameRecord(const QVariantMap &record, const QVariantMap &original)
{
    for (auto it = record.cbegin(); it != record.cend(); ++it) {
        const QVariant written = original.value(it.key());
        const bool same = it.key() == QLatin1String("time")
                ? it.value().toDateTime().toString(Qt::ISODate).left(19)
                        == written.toDateTime().toString(Qt::ISODate).left(19)
                : it.value().toString() == written.toString();
        if (!same)
            return false;
    }
    return true;
}

} // namespace

void tourWorkbooks()
{
    section("10. Workbooks (KrExportExcelFile, KrParseInportExcelFile)",
            "The blotter of section 4 goes to an .xlsx workbook on the exporter's own thread, and\n"
            "comes back through the importer on its own thread, keyed by the header row.");
    const QList<QVariantMap> trades = blotterRecords();
    const SheetDetailList sheets {{QStringLiteral("Trades"), trades},
                                  {QStringLiteral("Desk"),
                                   {{{QStringLiteral("desk"), QStringLiteral("Equities")},
                                     {QStringLiteral("trader"), QStringLiteral("trader01")}}}}};
    const QString fileName = QDir::temp().filePath(QStringLiteral("krdemo_blotter.xlsx"));

    const QString exportInfo = exportWorkbook(fileName, sheets);
    say("  exported to %s\n",
        QStringLiteral("%1 (%2 bytes): %3")
                .arg(QDir::toNativeSeparators(fileName))
                .arg(QFileInfo(fileName).size())
                .arg(exportInfo));

    const SheetDetailList read = importWorkbook(fileName);
    say("  imported sheets: %s\n", read.keys().join(QLatin1String(", ")));
    say("      %s\n", tradeHeader() + QStringLiteral(" time (type)"));
    const QList<QVariantMap> back = read.value(QStringLiteral("Trades"));
    int matching = 0;
    for (int i = 0; i < back.size(); ++i) {
        say("      %s\n", importedLine(back.at(i)));
        matching += i < trades.size() && sameRecord(back.at(i), trades.at(i));
    }
    say("  %s\n",
        QStringLiteral("%1 of %2 rows match the blotter (numbers come back as double, "
                       "date-times as their wall-clock value)")
                .arg(matching)
                .arg(trades.size()));
    QFile::remove(fileName);
}

} // namespace krdemo
