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
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using SheetDetailList = QMap<QString, QList<QVariantMap>>;

namespace {

// A cell to write: row and column 1-based.
struct TestCell
{
    int row;
    int column;
    QVariant value;
};
using TestSheet = QPair<QString, QVector<TestCell>>;
} // namespace

Q_DECLARE_METATYPE(TestCell)

namespace {

bool writeWorkbook(const QString &fileName, const QVector<TestSheet> &sheets)
{
    KrXlsxWriter writer(fileName);
    for (const TestSheet &sheet : sheets) {
        if (!writer.addSheet(sheet.first))
            return false;
        for (const TestCell &cell : sheet.second) {
            if (!writer.writeCell(cell.row, cell.column, cell.value))
                return false;
        }
    }
    return writer.save();
}

// Waits for `condition` while events run; a time-out fails the running test.
bool waitFor(const std::function<bool()> &condition, const char *what, int timeout = 30000)
{
    if (QTest::qWaitFor(condition, timeout))
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
Outcome runImport(const QString &fileName, int expectedReports = 1)
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
    waitFor([&] { return outcome.count >= expectedReports; }, "no parseFileFinished");
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
    void importOnlyPlainXlsxNames_data();
    void importOnlyPlainXlsxNames();
    void importBadFilesGiveAnEmptyList_data();
    void importBadFilesGiveAnEmptyList();
    void importRefusesAnOversizedSheet();
    void importNameSetBeforeTheWorkerStarts();
    void importAgainWithANewName();

    void exportRoundTrip();
    void exportReadByOpenpyxl();
    void exportCases_data();
    void exportCases();
    void exportTargetThatCannotBeRemoved();
    void exportRefusesWhatAWorkbookCannotHold_data();
    void exportRefusesWhatAWorkbookCannotHold();

private:
    QString path(const QString &name) const { return m_dir.filePath(name); }
    Outcome runExport(const QString &fileName, const SheetDetailList &sheets);
    QJsonObject describe(const QString &fileName);

    QTemporaryDir m_dir;
    QString m_python;
    QString m_script;
};

void tst_KrExcelFiles::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_script = QFINDTESTDATA("xlsx_describe.py");
    QVERIFY(!m_script.isEmpty());
    // The first python3 on PATH that has openpyxl.
    for (const QString &dir : qEnvironmentVariable("PATH").split(QLatin1Char(':'))) {
        const QString candidate = QDir(dir).filePath(QStringLiteral("python3"));
        QProcess probe; // its error output, when openpyxl is missing, is dropped
        if (!QFileInfo(candidate).isExecutable())
            continue;
        probe.start(candidate, {QStringLiteral("-c"), QStringLiteral("import openpyxl")});
        if (probe.waitForFinished() && probe.exitStatus() == QProcess::NormalExit
            && probe.exitCode() == 0) {
            m_python = candidate;
            break;
        }
    }
    QVERIFY2(!m_python.isEmpty(), "no python3 with openpyxl (Debian: python3-openpyxl)");
}

void tst_KrExcelFiles::importRecordsByHeader_data()
{
    QTest::addColumn<QVector<TestCell>>("cells");
    QTest::addColumn<QList<QVariantMap>>("records");

    const QVariant empty;
    QTest::newRow("typed values, an empty cell")
            << QVector<TestCell>({{1, 1, "code"},
                                  {1, 2, "qty"},
                                  {1, 3, "buy"},
                                  {1, 4, "day"},
                                  {2, 1, "600519.SH"},
                                  {2, 2, 300},
                                  {2, 3, true},
                                  {2, 4, QDate(2024, 3, 1)},
                                  {3, 1, "000001.SZ"},
                                  {3, 3, false}})
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
            << QVector<TestCell>({{1, 1, "at"}, {2, 1, open}, {3, 1, midnight}})
            << QList<QVariantMap>({{{"at", open}}, {{"at", midnight}}});
    QTest::newRow("header only") << QVector<TestCell>({{1, 1, "code"}, {1, 2, "qty"}})
                                 << QList<QVariantMap>();
    QTest::newRow("empty sheet") << QVector<TestCell>() << QList<QVariantMap>();
    QTest::newRow("empty header cells share the key \"\", the rightmost wins")
            << QVector<TestCell>(
                       {{1, 1, "code"}, {1, 3, 7}, {2, 1, "a"}, {2, 2, "left"}, {2, 4, "right"}})
            << QList<QVariantMap>({{{"code", "a"}, {"", "right"}, {"7", empty}}});
    QTest::newRow("a repeated header text takes the rightmost column")
            << QVector<TestCell>({{1, 1, "px"}, {1, 2, "px"}, {2, 1, 1.5}, {2, 2, 2.5}})
            << QList<QVariantMap>({{{"px", 2.5}}});
    // Cells in C2:E4: three columns and three rows, read from A1: the header A1:C1 is empty
    // (one key "", column C), the records are rows 2 and 3, so D2, E3 and C4 are never read.
    QTest::newRow("a range starting at C2 is read from A1")
            << QVector<TestCell>({{2, 3, "c2"}, {2, 4, "d2"}, {3, 5, "e3"}, {4, 3, "c4"}})
            << QList<QVariantMap>({{{"", "c2"}}, {{"", empty}}});
    QTest::newRow("sparse rows keep their place")
            << QVector<TestCell>({{1, 1, "k"}, {2, 1, "first"}, {5, 1, "fifth"}})
            << QList<QVariantMap>(
                       {{{"k", "first"}}, {{"k", empty}}, {{"k", empty}}, {{"k", "fifth"}}});
}

void tst_KrExcelFiles::importRecordsByHeader()
{
    QFETCH(QVector<TestCell>, cells);
    QFETCH(QList<QVariantMap>, records);

    const QString fileName = path(QStringLiteral("records.xlsx"));
    QVERIFY(writeWorkbook(fileName,
                          {{QStringLiteral("Zeta"), {{1, 1, QStringLiteral("z")}}},
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

void tst_KrExcelFiles::importOnlyPlainXlsxNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("parsed");

    QTest::newRow("xlsx") << "orders.xlsx" << true;
    QTest::newRow("upper case") << "orders.XLSX" << false;
    QTest::newRow("two dots") << "report.2024.xlsx" << false;
    QTest::newRow("csv") << "orders.csv" << false;
    QTest::newRow("xls") << "orders.xls" << false;
    QTest::newRow("no suffix") << "orders" << false;
}

void tst_KrExcelFiles::importOnlyPlainXlsxNames()
{
    QFETCH(QString, name);
    QFETCH(bool, parsed);

    // The same good workbook under every name: only the name decides.
    const QString fileName = path(name);
    QVERIFY(writeWorkbook(fileName, {{QStringLiteral("S"), {{1, 1, "k"}, {2, 1, "v"}}}}));
    const Outcome outcome = runImport(fileName);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.fileName, fileName);
    QCOMPARE(outcome.sheets.size(), parsed ? 1 : 0);
}

void tst_KrExcelFiles::importBadFilesGiveAnEmptyList_data()
{
    QTest::addColumn<QByteArray>("content"); // empty: no file at all
    QTest::addColumn<QString>("warning");

    QTest::newRow("missing") << QByteArray() << "cannot read";
    QTest::newRow("text") << QByteArray("code,qty\n600519.SH,300\n") << "cannot read";
    QTest::newRow("truncated zip") << QByteArray("PK\x03\x04\x14\x00\x00\x00", 8) << "cannot read";
}

void tst_KrExcelFiles::importBadFilesGiveAnEmptyList()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, warning);

    const QString fileName = path(QStringLiteral("bad.xlsx"));
    QFile::remove(fileName);
    if (!content.isEmpty()) {
        QFile file(fileName);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }
    MessageCapture capture;
    const Outcome outcome = runImport(fileName);
    QVERIFY(outcome.result);
    QVERIFY(outcome.sheets.isEmpty());
    const auto warnings = capture.matching(QtWarningMsg, warning);
    QCOMPARE(warnings.size(), 1);
    QVERIFY(warnings.first().text.contains(fileName));
}

void tst_KrExcelFiles::importRefusesAnOversizedSheet()
{
    // Two cells far apart span 16,384 x 1,048,576 cells: that sheet is refused, the other read.
    const QString fileName = path(QStringLiteral("oversized.xlsx"));
    QVERIFY(writeWorkbook(fileName,
                          {{QStringLiteral("Far apart"), {{1, 1, "k"}, {1048576, 16384, 1}}},
                           {QStringLiteral("Fine"), {{1, 1, "k"}, {2, 1, "v"}}}}));
    MessageCapture capture;
    const Outcome outcome = runImport(fileName);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.sheets.keys(), QStringList({"Fine"}));
    const auto warnings = capture.matching(QtWarningMsg, QStringLiteral("Far apart"));
    QCOMPARE(warnings.size(), 1);
    QVERIFY(warnings.first().text.contains(QStringLiteral("skipped")));
}

void tst_KrExcelFiles::importNameSetBeforeTheWorkerStarts()
{
    // setFileName() right after construction races the worker's start: either way the file is
    // parsed once, and the debug line carries the result.
    const QString fileName = path(QStringLiteral("early.xlsx"));
    QVERIFY(writeWorkbook(fileName, {{QStringLiteral("S"), {{1, 1, "k"}, {2, 1, "v"}}}}));
    for (int round = 0; round < 20; ++round) {
        MessageCapture capture;
        const Outcome outcome = runImport(fileName);
        QCOMPARE(outcome.count, 1);
        QCOMPARE(outcome.sheets.value(QStringLiteral("S")).size(), 1);
        QTest::qWait(20); // a second report would arrive by now
        QCOMPARE(outcome.count, 1);
        // The text, with its trailing blanks, then the list (after the separating blank).
        const QString line
                = QStringLiteral("parseFileFinished       ") + QStringLiteral(" QMap((S, ");
        QCOMPARE(capture.matching(QtDebugMsg, line).size(), 1);
        QCOMPARE(capture.matching(QtDebugMsg, QStringLiteral("~KrParseInportExcelFile()")).size(),
                 1);
    }
}

void tst_KrExcelFiles::importAgainWithANewName()
{
    const QString first = path(QStringLiteral("first.xlsx"));
    const QString second = path(QStringLiteral("second.xlsx"));
    QVERIFY(writeWorkbook(first, {{QStringLiteral("One"), {{1, 1, "k"}}}}));
    QVERIFY(writeWorkbook(second, {{QStringLiteral("Two"), {{1, 1, "k"}}}}));

    QObject context;
    auto import = new KrParseInportExcelFile;
    QPointer<QThread> thread = import->thread();
    QStringList seen;
    connect(import, &KrParseInportExcelFile::parseFileFinished, &context,
            [&](bool, const QString &name, const SheetDetailList &sheets) {
                seen << QFileInfo(name).fileName() + QLatin1Char(':')
                                + sheets.keys().join(QLatin1Char(','));
            });
    import->setFileName(first);
    QTRY_COMPARE(seen.size(), 1);
    import->setFileName(second);
    QTRY_COMPARE(seen.size(), 2);
    QCOMPARE(seen, QStringList({"first.xlsx:One", "second.xlsx:Two"}));
    import->deleteLater();
    QTRY_VERIFY(thread.isNull());
}

Outcome tst_KrExcelFiles::runExport(const QString &fileName, const SheetDetailList &sheets)
{
    Outcome outcome;
    QObject context;
    QPointer<KrExportExcelFile> exporter = new KrExportExcelFile;
    QPointer<QThread> thread = exporter->thread();
    connect(exporter, &KrExportExcelFile::exportFileFinished, &context,
            [&](bool result, const QString &name, const QString &info) {
                ++outcome.count;
                outcome.result = result;
                outcome.fileName = name;
                outcome.info = info;
            });
    connect(
            exporter, &KrExportExcelFile::exportFileFinished, exporter,
            [&] { outcome.thread = QThread::currentThread()->objectName(); }, Qt::DirectConnection);
    emit exporter->signalSetSheetDetailList(fileName, sheets);
    if (!waitFor([&] { return outcome.count >= 1; }, "no exportFileFinished"))
        return outcome;
    if (outcome.result) {
        // Done for good: the object and its thread go away by themselves.
        waitFor([&] { return exporter.isNull() && thread.isNull(); },
                "the exporter did not delete itself and its thread");
    } else {
        // It lives on, so that the client could try again; here it is done.
        QTest::qWait(20);
        if (exporter.isNull() || !thread->isRunning())
            QTest::qFail("the exporter ended after a failure", __FILE__, __LINE__);
        exporter->deleteLater();
        waitFor([&] { return exporter.isNull(); }, "the exporter was not deleted");
        thread->quit();
        thread->wait(10000);
        delete thread;
    }
    return outcome;
}

QJsonObject tst_KrExcelFiles::describe(const QString &fileName)
{
    QProcess python;
    python.start(m_python, {m_script, fileName});
    if (!python.waitForFinished(120000) || python.exitCode() != 0) {
        qWarning() << python.readAllStandardError();
        return QJsonObject();
    }
    return QJsonDocument::fromJson(python.readAllStandardOutput()).object();
}

namespace {

// A small blotter with every kind of value an export meets.
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
    QList<QVariantMap> accounts = {{{"account", "ACC-001"}, {"cash", 1.5e6}}};
    return {{QStringLiteral("Orders"), orders}, {QStringLiteral("Accounts"), accounts}};
}

} // namespace

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

    // Read back, every value is what was written; numbers come back as double, date-times as
    // their wall-clock value.
    const Outcome imported = runImport(fileName);
    const SheetDetailList original = blotter();
    QCOMPARE(imported.sheets.keys(), original.keys());
    for (const QString &sheet : original.keys()) {
        const QList<QVariantMap> records = imported.sheets.value(sheet);
        QCOMPARE(records.size(), original.value(sheet).size());
        for (int i = 0; i < records.size(); ++i) {
            const QVariantMap &want = original.value(sheet).at(i);
            QCOMPARE(records.at(i).keys(), want.keys());
            for (const QString &key : want.keys()) {
                const QVariant got = records.at(i).value(key);
                const QVariant expected = want.value(key);
                if (expected.userType() == QMetaType::Int)
                    QCOMPARE(got, QVariant(expected.toDouble()));
                else if (expected.userType() == QMetaType::QDateTime) // the wall clock
                    QCOMPARE(got.toDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")),
                             expected.toDateTime().toString(
                                     QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")));
                else
                    QCOMPARE(got, expected);
            }
        }
    }
}

void tst_KrExcelFiles::exportReadByOpenpyxl()
{
    const QString fileName = path(QStringLiteral("openpyxl.xlsx"));
    SheetDetailList sheets = blotter();
    // Records with different keys: every key a column, in order of first appearance.
    sheets.insert(QStringLiteral("Mixed"),
                  {{{"b", 1}, {"d", 2}}, {{"a", 3}, {"d", 4}}, {{"c", 5}}});
    QVERIFY(runExport(fileName, sheets).result);

    const QJsonObject workbook = describe(fileName);
    const QJsonArray described = workbook.value(QStringLiteral("sheets")).toArray();
    QStringList order;
    for (const QJsonValue &sheet : described)
        order << sheet[QStringLiteral("name")].toString();
    QCOMPARE(order, QStringList({"Accounts", "Mixed", "Orders"}));

    for (const QJsonValue &sheet : described) {
        const QJsonArray cells = sheet[QStringLiteral("cells")].toArray();
        QMap<QPair<int, int>, QJsonObject> at;
        int lastColumn = 0;
        for (const QJsonValue &cell : cells) {
            const QJsonObject object = cell.toObject();
            at.insert({object[QStringLiteral("row")].toInt(),
                       object[QStringLiteral("column")].toInt()},
                      object);
            lastColumn = std::max(lastColumn, object[QStringLiteral("column")].toInt());
        }
        // The header: bold, size 16; every written column 20 wide.
        for (int column = 1; column <= lastColumn; ++column) {
            const QJsonObject header = at.value({1, column});
            QCOMPARE(header[QStringLiteral("bold")].toBool(), true);
            QCOMPARE(header[QStringLiteral("size")].toDouble(), 16.0);
            QCOMPARE(header[QStringLiteral("type")].toString(), QStringLiteral("str"));
        }
        const QJsonArray widths = sheet[QStringLiteral("columns")].toArray();
        QVERIFY(!widths.isEmpty());
        for (const QJsonValue &range : widths) {
            QCOMPARE(range[QStringLiteral("width")].toDouble(), 20.0);
            QCOMPARE(range[QStringLiteral("min")].toInt(), 1);
            QCOMPARE(range[QStringLiteral("max")].toInt(), lastColumn);
        }

        const QString name = sheet[QStringLiteral("name")].toString();
        if (name == QLatin1String("Mixed")) {
            QStringList header;
            for (int column = 1; column <= lastColumn; ++column)
                header << at.value({1, column})[QStringLiteral("value")].toString();
            QCOMPARE(header, QStringList({"b", "d", "a", "c"}));
            QCOMPARE(at.value({3, 3})[QStringLiteral("value")].toInt(), 3);
            QVERIFY(!at.contains({3, 1})); // the second record has no "b"
            QCOMPARE(at.value({4, 4})[QStringLiteral("value")].toInt(), 5);
        } else if (name == QLatin1String("Orders")) {
            // Keys of a record come in ascending order: at buy code day note orderId price qty.
            QCOMPARE(at.value({1, 3})[QStringLiteral("value")].toString(), QStringLiteral("code"));
            QCOMPARE(at.value({4, 3})[QStringLiteral("type")].toString(), QStringLiteral("str"));
            QCOMPARE(at.value({4, 3})[QStringLiteral("value")].toString(), QStringLiteral("=1+2"));
            QCOMPARE(at.value({2, 1})[QStringLiteral("value")].toString(),
                     QStringLiteral("2024-11-20T09:30:15.000000"));
            QCOMPARE(at.value({3, 2})[QStringLiteral("type")].toString(), QStringLiteral("bool"));
            QCOMPARE(at.value({3, 5})[QStringLiteral("value")].toString(),
                     QStringLiteral("部分成交"));
            QVERIFY(!at.contains({2, 5})); // an invalid value is no cell
            QCOMPARE(at.value({5, 8})[QStringLiteral("value")].toInt(), 400);
        }
    }
}

void tst_KrExcelFiles::exportCases_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("existing"); // a file is there before
    QTest::addColumn<SheetDetailList>("sheets");
    QTest::addColumn<bool>("written");
    QTest::addColumn<QStringList>("sheetsRead"); // by the importer, when written

    const SheetDetailList one = {{QStringLiteral("S"), {{{"k", "v"}}}}};
    QTest::newRow("existing target is replaced")
            << "orders.xlsx" << true << one << true << QStringList({"S"});
    QTest::newRow("empty list: one empty sheet")
            << "empty.xlsx" << false << SheetDetailList() << true << QStringList({"Sheet1"});
    QTest::newRow("records without keys: an empty sheet")
            << "blank.xlsx" << false << SheetDetailList({{QStringLiteral("Blank"), {{}, {}}}})
            << true << QStringList({"Blank"});
    QTest::newRow("csv: the old file is removed, nothing written")
            << "orders.csv" << true << one << false << QStringList();
    QTest::newRow("txt") << "orders.txt" << false << one << false << QStringList();
    QTest::newRow("two dots") << "a.b.xlsx" << true << one << false << QStringList();
}

void tst_KrExcelFiles::exportCases()
{
    QFETCH(QString, name);
    QFETCH(bool, existing);
    QFETCH(SheetDetailList, sheets);
    QFETCH(bool, written);
    QFETCH(QStringList, sheetsRead);

    const QString fileName = path(name);
    if (existing) {
        QFile old(fileName);
        QVERIFY(old.open(QIODevice::WriteOnly));
        old.write("old contents");
    }
    const Outcome outcome = runExport(fileName, sheets);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.info, QStringLiteral("Success"));
    QCOMPARE(QFileInfo::exists(fileName), written);
    if (!written)
        return;
    const Outcome imported = runImport(fileName);
    QCOMPARE(imported.sheets.keys(), sheetsRead);
    if (sheets.contains(QStringLiteral("S")))
        QCOMPARE(imported.sheets.value(QStringLiteral("S")), sheets.value(QStringLiteral("S")));
    if (name == QLatin1String("blank.xlsx")) {
        // Nothing written on the sheet, and no column widths.
        const QJsonArray described = describe(fileName)[QStringLiteral("sheets")].toArray();
        QCOMPARE(described.size(), 1);
        QVERIFY(described.first()[QStringLiteral("cells")].toArray().isEmpty());
        QVERIFY(described.first()[QStringLiteral("columns")].toArray().isEmpty());
    }
}

void tst_KrExcelFiles::exportTargetThatCannotBeRemoved()
{
    // A directory in the way cannot be removed like a file: the client hears so, and the
    // exporter stays for another try.
    const QString blocked = path(QStringLiteral("blocked.xlsx"));
    QVERIFY(QDir().mkpath(blocked + QStringLiteral("/inside")));

    QObject context;
    QPointer<KrExportExcelFile> exporter = new KrExportExcelFile;
    QPointer<QThread> thread = exporter->thread();
    QList<QStringList> reports;
    connect(exporter, &KrExportExcelFile::exportFileFinished, &context,
            [&](bool result, const QString &name, const QString &info) {
                reports.append({result ? "true" : "false", name, info});
            });
    emit exporter->signalSetSheetDetailList(blocked, blotter());
    QTRY_COMPARE(reports.size(), 1);
    QCOMPARE(reports.first(),
             QStringList(
                     {"false", blocked, QStringLiteral("文件已经打开无法重写 请关闭文件后再试")}));
    QTest::qWait(20);
    QVERIFY(!exporter.isNull());

    const QString retry = path(QStringLiteral("retry.xlsx"));
    emit exporter->signalSetSheetDetailList(retry, blotter());
    QTRY_COMPARE(reports.size(), 2);
    QCOMPARE(reports.last(), QStringList({"true", retry, "Success"}));
    QVERIFY(QFileInfo(retry).isFile());
    QTRY_VERIFY(exporter.isNull());
    QTRY_VERIFY(thread.isNull());
}

void tst_KrExcelFiles::exportRefusesWhatAWorkbookCannotHold_data()
{
    QTest::addColumn<SheetDetailList>("sheets");
    QTest::addColumn<QString>("problem"); // a part of the reported text

    const QList<QVariantMap> record = {{{"k", "v"}}};
    QTest::newRow("sheet name of 32 characters")
            << SheetDetailList({{QString(32, QLatin1Char('n')), record}})
            << QString(32, QLatin1Char('n'));
    QTest::newRow("sheet name with a slash")
            << SheetDetailList({{QStringLiteral("P/L"), record}}) << "P/L";
    QTest::newRow("text of 32,768 characters")
            << SheetDetailList({{QStringLiteral("S"), {{{"k", QString(32768, QLatin1Char('x'))}}}}})
            << "32767";
    QTest::newRow("a value without a text form")
            << SheetDetailList({{QStringLiteral("S"), {{{"k", QVariantList({1, 2})}}}}}) << "S";
}

void tst_KrExcelFiles::exportRefusesWhatAWorkbookCannotHold()
{
    QFETCH(SheetDetailList, sheets);
    QFETCH(QString, problem);

    const QString fileName = path(QStringLiteral("refused.xlsx"));
    MessageCapture capture;
    const Outcome outcome = runExport(fileName, sheets);
    QVERIFY(!outcome.result);
    QVERIFY2(outcome.info.contains(problem), qPrintable(outcome.info));
    QStringList leftovers; // no file, and no temporary one either
    for (const QString &name : QDir(m_dir.path()).entryList(QDir::Files | QDir::Hidden)) {
        if (name.contains(QLatin1String("refused")))
            leftovers << name;
    }
    QCOMPARE(leftovers, QStringList());
    QCOMPARE(capture.matching(QtWarningMsg, outcome.info).size(), 1);
}

QTEST_MAIN(tst_KrExcelFiles)

#include "tst_krexcelfiles.moc"
