// The two workbook classes end to end: KrParseInportExcelFile reading workbooks made with the
// workbook layer's writer, and KrExportExcelFile writing workbooks that the reader and Python's
// openpyxl read back.

#include "KrTestSupport.h"
#include "workbook/KrXlsxWriter_p.h"

#include <krutils/KrExportExcelFile.h>
#include <krutils/KrParseInportExcelFile.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

using SheetDetailList = QMap<QString, QList<QVariantMap>>;

using Cells = QMap<QPair<int, int>, QVariant>; // by 1-based row and column

namespace {

bool writeWorkbook(const QString &fileName, const QVector<QPair<QString, Cells>> &sheets)
{
    KrXlsxWriter writer(fileName);
    for (const auto &sheet : sheets) {
        if (!writer.addSheet(sheet.first))
            return false;
        for (auto cell = sheet.second.cbegin(); cell != sheet.second.cend(); ++cell) {
            if (!writer.writeCell(cell.key().first, cell.key().second, *cell))
                return false;
        }
    }
    return writer.save();
}

// Waits for `condition` while events run; a time-out fails the running test.
bool waitFor(const std::function<bool()> &condition, const char *what)
{
    if (QTest::qWaitFor(condition, 30000))
        return true;
    QTest::qFail(what, __FILE__, __LINE__);
    return false;
}

// What one import or export reported, collected on the test's thread.
struct Outcome
{
    int count = 0;
    bool result = false;
    QString fileName;
    QString info;
    SheetDetailList sheets;
    QString thread; // the emitting thread's name
};

// Parses `fileName` with a new importer and waits for the result; the importer is deleted
// afterwards and its thread stops.
const Cells kv = {{{1, 1}, "k"}, {{2, 1}, "v"}}; // a header and one record

Outcome runImport(const QString &fileName)
{
    Outcome outcome;
    QObject context;
    auto import = new KrParseInportExcelFile;
    QPointer<QThread> thread = import->thread();
    QObject::connect(import, &KrParseInportExcelFile::parseFileFinished, &context,
                     [&](bool ok, const QString &name, const SheetDetailList &sheets) {
                         ++outcome.count;
                         outcome.result = ok;
                         outcome.fileName = name;
                         outcome.sheets = sheets;
                     });
    QObject::connect(
            import, &KrParseInportExcelFile::parseFileFinished, import,
            [&] { outcome.thread = QThread::currentThread()->objectName(); }, Qt::DirectConnection);
    import->setFileName(fileName);
    waitFor([&] { return outcome.count > 0; }, "no parseFileFinished");
    import->deleteLater();
    waitFor([&] { return thread.isNull(); }, "the importer's thread did not end");
    return outcome;
}

} // namespace

class tst_KrExcelFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void importRecordsByHeader_data();
    void importRecordsByHeader();
    void importFiles_data();
    void importFiles();
    void importRefusesAnOversizedSheet();
    void importAgainWithANewName();

    void exportRoundTrip();
    void exportCases_data();
    void exportCases();

private:
    QString path(const QString &name) const { return m_dir.filePath(name); }
    Outcome runExport(const QString &fileName, const SheetDetailList &sheets);
    QJsonObject describe(const QString &fileName);

    QTemporaryDir m_dir;
    QString m_script;
};

void tst_KrExcelFiles::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_script = QFINDTESTDATA("xlsx_describe.py");
    QVERIFY(!m_script.isEmpty());
}

void tst_KrExcelFiles::importRecordsByHeader_data()
{
    QTest::addColumn<Cells>("cells");
    QTest::addColumn<QList<QVariantMap>>("records");

    const QVariant empty;
    QTest::newRow("typed values, an empty cell")
            << Cells({{{1, 1}, "code"},
                      {{1, 2}, "qty"},
                      {{1, 3}, "buy"},
                      {{1, 4}, "day"},
                      {{2, 1}, "600519.SH"},
                      {{2, 2}, 300},
                      {{2, 3}, true},
                      {{2, 4}, QDate(2024, 3, 1)},
                      {{3, 1}, "000001.SZ"},
                      {{3, 3}, false}})
            << QList<QVariantMap>(
                       {{{"code", "600519.SH"},
                         {"qty", 300.0},
                         {"buy", true},
                         {"day", QDate(2024, 3, 1)}},
                        {{"code", "000001.SZ"}, {"qty", empty}, {"buy", false}, {"day", empty}}});
    // The writer gives every QDateTime the format yyyy-mm-dd hh:mm:ss.
    const QDateTime open(QDate(2024, 3, 1), QTime(9, 30), Qt::UTC);
    const QDateTime midnight(QDate(2024, 3, 2), QTime(0, 0), Qt::UTC);
    QTest::newRow("a date-time column keeps its type at midnight")
            << Cells({{{1, 1}, "at"}, {{2, 1}, open}, {{3, 1}, midnight}})
            << QList<QVariantMap>({{{"at", open}}, {{"at", midnight}}});
    QTest::newRow("header only") << Cells({{{1, 1}, "code"}, {{1, 2}, "qty"}})
                                 << QList<QVariantMap>();
    QTest::newRow("empty sheet") << Cells() << QList<QVariantMap>();
    QTest::newRow("empty header cells share the key \"\", the rightmost wins")
            << Cells({{{1, 1}, "code"},
                      {{1, 3}, 7},
                      {{2, 1}, "a"},
                      {{2, 2}, "left"},
                      {{2, 4}, "right"}})
            << QList<QVariantMap>({{{"code", "a"}, {"", "right"}, {"7", empty}}});
    QTest::newRow("a repeated header text takes the rightmost column")
            << Cells({{{1, 1}, "px"}, {{1, 2}, "px"}, {{2, 1}, 1.5}, {{2, 2}, 2.5}})
            << QList<QVariantMap>({{{"px", 2.5}}});
    // Cells in C2:E4: three columns and three rows, read from A1: the header A1:C1 is empty
    // (one key "", column C), the records are rows 2 and 3, so D2, E3 and C4 are never read.
    QTest::newRow("a range starting at C2 is read from A1")
            << Cells({{{2, 3}, "c2"}, {{2, 4}, "d2"}, {{3, 5}, "e3"}, {{4, 3}, "c4"}})
            << QList<QVariantMap>({{{"", "c2"}}, {{"", empty}}});
    QTest::newRow("sparse rows keep their place")
            << Cells({{{1, 1}, "k"}, {{2, 1}, "first"}, {{5, 1}, "fifth"}})
            << QList<QVariantMap>(
                       {{{"k", "first"}}, {{"k", empty}}, {{"k", empty}}, {{"k", "fifth"}}});
}

void tst_KrExcelFiles::importRecordsByHeader()
{
    QFETCH(Cells, cells);
    QFETCH(QList<QVariantMap>, records);

    const QString fileName = path(QStringLiteral("records.xlsx"));
    QVERIFY(writeWorkbook(fileName,
                          {{QStringLiteral("Zeta"), {{{1, 1}, QStringLiteral("z")}}},
                           {QStringLiteral("Orders"), cells}}));
    const Outcome outcome = runImport(fileName);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.fileName, fileName);
    QCOMPARE(outcome.thread, QStringLiteral("KrParseInportExcelFile"));
    // Keyed by name, so "Orders" comes before "Zeta" whatever the workbook order.
    QCOMPARE(outcome.sheets.keys(), QStringList({"Orders", "Zeta"}));
    QCOMPARE(outcome.sheets.value(QStringLiteral("Zeta")), QList<QVariantMap>());
    const QList<QVariantMap> read = outcome.sheets.value(QStringLiteral("Orders"));
    QCOMPARE(read.size(), records.size());
    for (int i = 0; i < records.size(); ++i) {
        QCOMPARE(read.at(i).keys(), records.at(i).keys());
        for (const QString &key : records.at(i).keys()) {
            const QVariant value = read.at(i).value(key);
            QCOMPARE(value.userType(), records.at(i).value(key).userType());
            QCOMPARE(value, records.at(i).value(key));
        }
    }
}

void tst_KrExcelFiles::importFiles_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("content"); // "workbook": a good one; empty: no file at all
    QTest::addColumn<int>("sheets");
    QTest::addColumn<QString>("warning"); // empty: none

    // Only the name decides: the same good workbook under every name.
    const QByteArray good("workbook");
    QTest::newRow("xlsx") << "orders.xlsx" << good << 1 << "";
    QTest::newRow("upper case") << "orders.XLSX" << good << 0 << "";
    QTest::newRow("two dots") << "report.2024.xlsx" << good << 0 << "";
    QTest::newRow("csv") << "orders.csv" << good << 0 << "";
    QTest::newRow("missing") << "bad.xlsx" << QByteArray() << 0 << "cannot read";
    QTest::newRow("truncated zip")
            << "bad.xlsx" << QByteArray("PK\x03\x04\x14\x00\x00\x00", 8) << 0 << "cannot read";
}

void tst_KrExcelFiles::importFiles()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, content);
    QFETCH(int, sheets);
    QFETCH(QString, warning);

    const QString fileName = path(name);
    QFile::remove(fileName);
    if (content == "workbook") {
        QVERIFY(writeWorkbook(fileName, {{QStringLiteral("S"), kv}}));
    } else if (!content.isEmpty()) {
        QFile file(fileName);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    }
    MessageCapture capture;
    const Outcome outcome = runImport(fileName);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.fileName, fileName);
    QCOMPARE(outcome.sheets.size(), sheets);
    const auto warnings = capture.matching(QtWarningMsg, fileName);
    QCOMPARE(warnings.size(), warning.isEmpty() ? 0 : 1);
    if (!warning.isEmpty())
        QVERIFY2(warnings.first().text.contains(warning), qPrintable(warnings.first().text));
}

void tst_KrExcelFiles::importRefusesAnOversizedSheet()
{
    // Two cells far apart span 16,384 x 1,048,576 cells: that sheet is refused, the other read.
    const QString fileName = path(QStringLiteral("oversized.xlsx"));
    QVERIFY(writeWorkbook(fileName,
                          {{QStringLiteral("Far apart"), {{{1, 1}, "k"}, {{1048576, 16384}, 1}}},
                           {QStringLiteral("Fine"), kv}}));
    MessageCapture capture;
    const Outcome outcome = runImport(fileName);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.sheets.keys(), QStringList({"Fine"}));
    const auto warnings = capture.matching(QtWarningMsg, QStringLiteral("Far apart"));
    QCOMPARE(warnings.size(), 1);
    QVERIFY(warnings.first().text.contains(QStringLiteral("skipped")));
}

void tst_KrExcelFiles::importAgainWithANewName()
{
    // setFileName() right after construction races the worker's start: either way the file is
    // parsed once; a later setFileName() parses the new file. The debug line carries the result.
    const QString first = path(QStringLiteral("first.xlsx"));
    const QString second = path(QStringLiteral("second.xlsx"));
    QVERIFY(writeWorkbook(first, {{QStringLiteral("One"), kv}}));
    QVERIFY(writeWorkbook(second, {{QStringLiteral("Two"), {{{1, 1}, "k"}}}}));
    for (int round = 0; round < 20; ++round) {
        MessageCapture capture;
        QObject context;
        auto import = new KrParseInportExcelFile;
        QPointer<QThread> thread = import->thread();
        QStringList seen;
        connect(import, &KrParseInportExcelFile::parseFileFinished, &context,
                [&](bool ok, const QString &name, const SheetDetailList &sheets) {
                    seen << QStringLiteral("%1 %2:%3 %4")
                                    .arg(ok)
                                    .arg(QFileInfo(name).fileName(), sheets.keys().join(','))
                                    .arg(sheets.value(QStringLiteral("One")).size());
                });
        import->setFileName(first);
        QVERIFY(waitFor([&] { return seen.size() == 1; }, "no parseFileFinished"));
        import->setFileName(second);
        QVERIFY(waitFor([&] { return seen.size() == 2; }, "no second parseFileFinished"));
        import->deleteLater();
        QVERIFY(waitFor([&] { return thread.isNull(); }, "the importer's thread did not end"));
        QCoreApplication::processEvents(); // a late third report would arrive by now
        QCOMPARE(seen, QStringList({"1 first.xlsx:One 1", "1 second.xlsx:Two 0"}));
        // The text, with its trailing blanks, then the list (after the separating blank).
        const QString line = QStringLiteral("parseFileFinished       ") + QStringLiteral(" QMap((");
        QCOMPARE(capture.matching(QtDebugMsg, line + QStringLiteral("One, ")).size(), 1);
        QCOMPARE(capture.matching(QtDebugMsg, line).size(), 2);
        QCOMPARE(capture.matching(QtDebugMsg, QStringLiteral("~KrParseInportExcelFile()")).size(),
                 1);
    }
}

// Exports with a new exporter and waits for the result. After a failure the exporter stays for
// another try, which must succeed; after a success it and its thread delete themselves.
Outcome tst_KrExcelFiles::runExport(const QString &fileName, const SheetDetailList &sheets)
{
    Outcome outcome, retried;
    QObject context;
    QPointer<KrExportExcelFile> exporter = new KrExportExcelFile;
    QPointer<QThread> thread = exporter->thread();
    connect(exporter, &KrExportExcelFile::exportFileFinished, &context,
            [&](bool result, const QString &name, const QString &info) {
                Outcome &current = outcome.count ? retried : outcome;
                current.result = result;
                current.fileName = name;
                current.info = info;
                ++current.count;
            });
    connect(
            exporter, &KrExportExcelFile::exportFileFinished, exporter,
            [&] { outcome.thread = QThread::currentThread()->objectName(); }, Qt::DirectConnection);
    emit exporter->signalSetSheetDetailList(fileName, sheets);
    if (!waitFor([&] { return outcome.count == 1; }, "no exportFileFinished"))
        return outcome;
    if (!outcome.result) {
        QTest::qWait(20);
        if (exporter.isNull() || !thread->isRunning()) {
            QTest::qFail("the exporter ended after a failure", __FILE__, __LINE__);
            return outcome;
        }
        const QString retry = path(QStringLiteral("retry.xlsx"));
        emit exporter->signalSetSheetDetailList(retry, {});
        if (waitFor([&] { return retried.count == 1; }, "no exportFileFinished on a retry")
            && !(retried.result && retried.fileName == retry && retried.info == "Success"))
            QTest::qFail("the exporter failed on a retry", __FILE__, __LINE__);
    }
    waitFor([&] { return exporter.isNull() && thread.isNull(); },
            "the exporter did not delete itself and its thread");
    return outcome;
}

// What the first python3 on PATH with openpyxl (a pyenv shim may come first without it) reads.
QJsonObject tst_KrExcelFiles::describe(const QString &fileName)
{
    for (const QString &directory : qEnvironmentVariable("PATH").split(QDir::listSeparator())) {
        QProcess python;
        python.start(QDir(directory).filePath(QStringLiteral("python3")), {m_script, fileName});
        if (python.waitForFinished(120000) && python.exitCode() == 0)
            return QJsonDocument::fromJson(python.readAllStandardOutput()).object();
    }
    QTest::qFail("no python3 on PATH read the workbook with openpyxl (Debian: python3-openpyxl)",
                 __FILE__, __LINE__);
    return {};
}

namespace {

// A small blotter with every kind of value an export meets, and records with different keys.
SheetDetailList blotter()
{
    QList<QVariantMap> orders;
    const char *codes[] = {"600519.SH", "000001.SZ", "=1+2", "IF2412"};
    for (int i = 0; i < 4; ++i) {
        orders.append({{"orderId", QStringLiteral("trader01-%1").arg(i)},
                       {"code", QString::fromLatin1(codes[i])},
                       {"qty", 100 * (i + 1)},
                       {"price", 10.25 + i},
                       {"buy", i % 2 == 0},
                       {"day", QDate(2024, 11, 20 + i)},
                       {"at", QDateTime(QDate(2024, 11, 20), QTime(9, 30 + i, 15))},
                       {"note", i == 1 ? QVariant(QStringLiteral("部分成交")) : QVariant()}});
    }
    return {{QStringLiteral("Orders"), orders},
            {QStringLiteral("Accounts"), {{{"account", "ACC-001"}, {"cash", 1.5e6}}}},
            {QStringLiteral("Mixed"), {{{"b", 1}, {"d", 2}}, {{"a", 3}, {"d", 4}}, {{"c", 5}}}}};
}

} // namespace

// The importer reads back every value written, numbers as double, date-times as their wall-clock
// value, a key a record lacks as an empty cell. openpyxl sees what it cannot: the sheets in name
// order, a bold size-16 header of all keys in order of first appearance, columns 20 wide.
void tst_KrExcelFiles::exportRoundTrip()
{
    const QString fileName = path(QStringLiteral("blotter.xlsx"));
    MessageCapture capture;
    const Outcome exported = runExport(fileName, blotter());
    QVERIFY(exported.result);
    QCOMPARE(exported.info, QStringLiteral("Success"));
    QCOMPARE(exported.fileName, fileName);
    QCOMPARE(exported.thread, QStringLiteral("KrExportExcelFile"));
    QCOMPARE(capture.matching(QtDebugMsg, QStringLiteral("~ExportViewData()")).size(), 1);

    const SheetDetailList original = blotter(), imported = runImport(fileName).sheets;
    QCOMPARE(imported.keys(), original.keys());
    for (const QString &sheet : original.keys()) {
        const QList<QVariantMap> records = imported.value(sheet);
        QCOMPARE(records.size(), original.value(sheet).size());
        for (int i = 0; i < records.size(); ++i) {
            for (const QString &key : records.at(i).keys()) {
                const QVariant got = records.at(i).value(key);
                QVariant expected = original.value(sheet).at(i).value(key);
                if (expected.userType() == QMetaType::Int)
                    expected = expected.toDouble();
                else if (expected.userType() == QMetaType::QDateTime) // the wall clock
                    expected = QDateTime(expected.toDateTime().date(), expected.toDateTime().time(),
                                         Qt::UTC);
                QCOMPARE(got.userType(), expected.userType());
                QCOMPARE(got, expected);
            }
        }
    }

    const QJsonArray described = describe(fileName)[QStringLiteral("sheets")].toArray();
    const QStringList headers[] = {{"account", "cash"},
                                   {"b", "d", "a", "c"},
                                   {"at", "buy", "code", "day", "note", "orderId", "price", "qty"}};
    QCOMPARE(described.size(), 3);
    for (int i = 0; i < 3; ++i) {
        const QJsonObject sheet = described.at(i).toObject();
        QCOMPARE(sheet[QStringLiteral("name")].toString(), original.keys().at(i));
        QStringList header;
        for (const QJsonValue &value : sheet[QStringLiteral("cells")].toArray()) {
            const QJsonObject cell = value.toObject();
            if (cell[QStringLiteral("row")].toInt() > 1)
                continue;
            header << cell[QStringLiteral("value")].toString();
            QCOMPARE(cell[QStringLiteral("bold")].toBool(), true);
            QCOMPARE(cell[QStringLiteral("size")].toDouble(), 16.0);
        }
        QCOMPARE(header, headers[i]);
        const QJsonArray widths = sheet[QStringLiteral("columns")].toArray();
        QCOMPARE(widths.size(), 1);
        QCOMPARE(widths.at(0)[QStringLiteral("min")].toInt(), 1);
        QCOMPARE(widths.at(0)[QStringLiteral("max")].toInt(), header.size());
        QCOMPARE(widths.at(0)[QStringLiteral("width")].toDouble(), 20.0);
    }
}

void tst_KrExcelFiles::exportCases_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("before"); // "file" or "directory" at the target, or nothing
    QTest::addColumn<SheetDetailList>("sheets");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QString>("info"); // a part of it when false
    QTest::addColumn<QStringList>("sheetsRead"); // by the importer; empty: no file

    const SheetDetailList one = {{QStringLiteral("S"), {{{"k", "v"}}}}};
    const QStringList none;
    QTest::newRow("existing target is replaced")
            << "orders.xlsx"
            << "file" << one << true << "Success" << QStringList({"S"});
    QTest::newRow("empty list: one empty sheet")
            << "empty.xlsx"
            << "" << SheetDetailList() << true << "Success" << QStringList({"Sheet1"});
    QTest::newRow("records without keys: an empty sheet")
            << "blank.xlsx"
            << "" << SheetDetailList({{QStringLiteral("Blank"), {{}, {}}}}) << true << "Success"
            << QStringList({"Blank"});
    QTest::newRow("csv: the old file is removed, nothing written")
            << "orders.csv"
            << "file" << one << true << "Success" << none;
    QTest::newRow("two dots") << "a.b.xlsx"
                              << "file" << one << true << "Success" << none;
    // A directory in the way cannot be removed like a file (as a file another program holds).
    QTest::newRow("target that cannot be removed")
            << "blocked.xlsx"
            << "directory" << one << false << "文件已经打开无法重写 请关闭文件后再试"
            << QStringList({"blocked.xlsx"});

    // What a workbook cannot hold: no file, not even a temporary one, and a warning.
    const QList<QVariantMap> record = {{{"k", "v"}}};
    QTest::newRow("sheet name of 32 characters")
            << "refused.xlsx"
            << "" << SheetDetailList({{QString(32, QLatin1Char('n')), record}}) << false
            << QStringLiteral("Sheet name \"%1\" is longer than 31 characters")
                       .arg(QString(32, QLatin1Char('n')))
            << none;
    QTest::newRow("text of 32,768 characters")
            << "refused.xlsx"
            << ""
            << SheetDetailList({{QStringLiteral("S"), {{{"k", QString(32768, QLatin1Char('x'))}}}}})
            << false << "Sheet \"S\", cell A2: the text has 32768 characters" << none;
}

void tst_KrExcelFiles::exportCases()
{
    QFETCH(QString, name);
    QFETCH(QString, before);
    QFETCH(SheetDetailList, sheets);
    QFETCH(bool, result);
    QFETCH(QString, info);
    QFETCH(QStringList, sheetsRead);

    QTemporaryDir dir;
    const QString fileName = dir.filePath(name);
    if (before == QLatin1String("file")) {
        QFile old(fileName);
        QVERIFY(old.open(QIODevice::WriteOnly) && old.write("old contents") > 0);
    } else if (before == QLatin1String("directory")) {
        QVERIFY(QDir().mkpath(fileName + QStringLiteral("/inside")));
    }
    MessageCapture capture;
    const Outcome outcome = runExport(fileName, sheets);
    QCOMPARE(outcome.result, result);
    QCOMPARE(outcome.fileName, fileName);
    QVERIFY2(result ? outcome.info == info : outcome.info.contains(info), qPrintable(outcome.info));
    QCOMPARE(capture.matching(QtWarningMsg, outcome.info).size(),
             result || before == QLatin1String("directory") ? 0 : 1);
    QCOMPARE(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             sheetsRead.isEmpty() ? QStringList() : QStringList(name));
    if (!sheetsRead.isEmpty() && before != QLatin1String("directory")) {
        const Outcome imported = runImport(fileName);
        QCOMPARE(imported.sheets.keys(), sheetsRead);
        if (sheets.contains(QStringLiteral("S")))
            QCOMPARE(imported.sheets.value(QStringLiteral("S")), sheets.value(QStringLiteral("S")));
    }
}

QTEST_MAIN(tst_KrExcelFiles)

#include "tst_krexcelfiles.moc"
