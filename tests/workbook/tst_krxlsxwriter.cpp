// Tests of the workbook writer. What only Excel's view of a file shows (cell types, number
// formats, fonts, column widths, text escapes) is read back by an independent reader, Python's
// openpyxl, through xlsx_describe.py, from one workbook written once; everything else through the
// workbook layer's own reader.

#include "workbook/KrXlsxReader_p.h"
#include "workbook/KrXlsxWriter_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimeZone>
#include <QUrl>
#include <QtTest>

#include <cmath>
#include <functional>
#include <limits>
#include <vector>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/resource.h>
#endif

namespace {

using Cells = QHash<QPair<int, int>, QJsonObject>; // as xlsx_describe.py reports them
using Values = QMap<QPair<int, int>, QVariant>; // as KrXlsxReader reads them

Cells cellsOf(const QJsonObject &sheet)
{
    Cells cells;
    for (const QJsonValue &cell : sheet.value(QLatin1String("cells")).toArray()) {
        const QJsonObject object = cell.toObject();
        cells.insert({object.value(QLatin1String("row")).toInt(),
                      object.value(QLatin1String("column")).toInt()},
                     object);
    }
    return cells;
}

QString field(const QJsonObject &cell, const char *name)
{
    return cell.value(QLatin1String(name)).toVariant().toString();
}

// The sheets of a workbook as the workbook layer's reader reads them, by name, and their names
// in workbook order. A file that cannot be read fails the running test.
QMap<QString, Values> readBack(const QString &fileName, QStringList *names = nullptr)
{
    QMap<QString, Values> sheets;
    KrXlsxReader reader;
    if (!reader.open(fileName)) {
        QTest::qFail(qPrintable(reader.errorString()), __FILE__, __LINE__);
        return sheets;
    }
    for (int i = 0; i < reader.sheetNames().size(); ++i) {
        Values &values = sheets[reader.sheetNames().at(i)];
        reader.readSheet(i, [&](KrXlsxCell &&cell) {
            values.insert({cell.row, cell.column}, cell.value);
            return true;
        });
    }
    if (names)
        *names = reader.sheetNames();
    return sheets;
}

// Every entry of a directory, hidden ones (the writer's temporary files) included.
QStringList entriesOf(const QString &directory)
{
    return QDir(directory).entryList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

QString iso(const QDate &date, const QTime &time)
{
    return (date.isValid() ? date.toString(Qt::ISODate) + QLatin1Char('T') : QString())
            + time.toString(QStringLiteral("HH:mm:ss.zzz")) + QStringLiteral("000");
}

// One value written and what openpyxl must read back: its Python type ("number" for int or
// float; empty when no cell may exist), value and number format.
struct ValueCase
{
    QByteArray name;
    QVariant value;
    QString type;
    QVariant expected;
    QString numberFormat = QStringLiteral("General");
};

// Text as written unless `expected` tells otherwise; a number as its value.
ValueCase text(const char *name, const QVariant &value, const QString &expected = {})
{
    return {name, value, QStringLiteral("str"), expected.isNull() ? value.toString() : expected};
}
ValueCase number(const char *name, const QVariant &value)
{
    return {name, value, QStringLiteral("number"), value.toDouble()};
}
ValueCase noCell(const char *name, const QVariant &value)
{
    return {name, value, {}, {}};
}
ValueCase dateTime(const char *name, const QVariant &value, const QDate &date, const QTime &time,
                   const char *format)
{
    return {name, value, QString::fromLatin1(date.isValid() ? "datetime" : "time"), iso(date, time),
            QLatin1String(format)};
}
ValueCase date(const char *name, const QDate &value, const char *format)
{
    return dateTime(name, value, value, QTime(0, 0), format);
}

const std::vector<ValueCase> &valueCases()
{
    static const std::vector<ValueCase> cases = [] {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        const double infinity = std::numeric_limits<double>::infinity();
        const qint64 exact = qint64(1) << 53;
        const QDate day(2024, 11, 22), first(1900, 1, 1), last(9999, 12, 31);
        const QTime morning(9, 30, 15), msecs(14, 59, 59, 123), lastMsec(23, 59, 59, 999);
        const char *d = "yyyy-mm-dd", *dt = "yyyy-mm-dd hh:mm:ss",
                   *dtMs = "yyyy-mm-dd hh:mm:ss.000";
        return std::vector<ValueCase> {
                // Text stays text, whatever it looks like.
                text("text", "Working order"),
                text("text: CJK", "贵州茅台 600519.SH"),
                text("text: beyond the BMP", QString::fromUcs4(U"\U0001F600 rally")),
                text("text: formula", "=SUM(A1:A3)"),
                text("text: surrounding spaces", "  padded  "),
                text("text: XML markup characters", "<a & b> \"c\" 'd'"),
                text("text: tab and line breaks", "a\tb\nc\r\nd"),
                text("text: control character", "a\u0001b"),
                text("text: NUL inside", QString(QLatin1String("a\0b", 3))),
                text("text: like an escape", "_x0041_"),
                text("text: lowercase escape", "i_x00e9_"),
                text("text: like an escaped underscore", "_x005F_x0041_"),
                text("text: nearly an escape", "_x004_ _x0041 x0041_ _X0041_"),
                text("text: non-character U+FFFF", QStringLiteral("a") + QChar(0xffff)),
                text("text: unpaired surrogate", QString(QChar(0xd800)) + QStringLiteral("x"),
                     QString(QChar::ReplacementCharacter) + QStringLiteral("x")),
                text("text: longest a cell holds", QString(32767, QLatin1Char('y'))),
                text("text: longest a cell holds, CJK", QString(32767, QChar(0x4e2d))),
                noCell("text: empty", QString(QLatin1String(""))),
                noCell("text: null", QString()),

                // Integers as numbers while a double holds them exactly, then as exact text.
                number("int", 42),
                number("uint: largest", std::numeric_limits<uint>::max()),
                number("short", QVariant::fromValue<short>(-32768)),
                number("ushort", QVariant::fromValue<ushort>(65535)),
                number("char", QVariant::fromValue<char>('A')),
                number("signed char", QVariant::fromValue<signed char>(-5)),
                number("unsigned char", QVariant::fromValue<uchar>(200)),
                number("long", QVariant::fromValue<long>(-1234567890L)),
                number("unsigned long", QVariant::fromValue<ulong>(4000000000UL)),
                number("qlonglong: 2^53", exact),
                number("qlonglong: -2^53", -exact),
                text("qlonglong: 2^53 + 1", exact + 1),
                text("qlonglong: -2^53 - 1", -exact - 1),
                number("qulonglong: 2^53", quint64(exact)),
                text("qulonglong: largest", std::numeric_limits<qulonglong>::max()),

                // Floating point; what a workbook cannot hold as a number becomes text.
                number("double", 1234.5678),
                number("double: huge", 1e300),
                {"float", 0.1f, QStringLiteral("number"), 0.1},
                // libxlsxwriter prints 16 significant digits: a double that needs 17 comes back
                // within a unit or two in the last place.
                number("double: 17 significant digits", 0.1 + 0.2),
                text("double: NaN", nan, "nan"),
                text("double: infinity", infinity, "inf"),
                text("float: NaN", std::numeric_limits<float>::quiet_NaN(), "nan"),
                {"bool: true", true, QStringLiteral("bool"), true},
                {"bool: false", false, QStringLiteral("bool"), false},

                // Dates: Excel shows 1900-01-01 .. 9999-12-31; others become text.
                date("date", day, d),
                date("date: 1900-01-01", first, d),
                date("date: 1900-02-28", QDate(1900, 2, 28), d),
                date("date: 1900-03-01", QDate(1900, 3, 1), d),
                date("date: 9999-12-31", last, d),
                text("date: 1899-12-31", QDate(1899, 12, 31), "1899-12-31"),
                text("date: year 10000", QDate(10000, 1, 1), "10000-01-01"),
                noCell("date: invalid", QDate(2023, 2, 30)),
                dateTime("time", morning, {}, morning, "hh:mm:ss"),
                dateTime("time: milliseconds", lastMsec, {}, lastMsec, "hh:mm:ss.000"),
                dateTime("time: midnight", QTime(0, 0), {}, QTime(0, 0), "hh:mm:ss"),
                noCell("time: invalid", QTime(25, 0)),

                // Date-times as their own wall-clock value, whatever their time zone.
                dateTime("datetime: UTC", QDateTime(day, morning, Qt::UTC), day, morning, dt),
                dateTime("datetime: milliseconds", QDateTime(day, msecs, Qt::UTC), day, msecs,
                         dtMs),
                dateTime("datetime: UTC+8", QDateTime(day, morning, Qt::OffsetFromUTC, 8 * 3600),
                         day, morning, dt),
                dateTime("datetime: New York",
                         QDateTime(day, morning, QTimeZone("America/New_York")), day, morning, dt),
                dateTime("datetime: in a daylight-saving gap",
                         QDateTime(QDate(2024, 3, 31), QTime(2, 30), QTimeZone("Europe/Berlin")),
                         QDate(2024, 3, 31), QTime(2, 30), dt),
                dateTime("datetime: last millisecond Excel shows",
                         QDateTime(last, lastMsec, Qt::UTC), last, lastMsec, dtMs),
                dateTime("datetime: first day of 1900",
                         QDateTime(first, QTime(0, 0, 0, 1), Qt::UTC), first, QTime(0, 0, 0, 1),
                         dtMs),
                text("datetime: 1899", QDateTime(QDate(1899, 12, 31), QTime(23, 59, 59), Qt::UTC),
                     "1899-12-31 23:59:59"),
                text("datetime: 1899 with milliseconds",
                     QDateTime(QDate(1899, 12, 31), QTime(23, 59, 59, 500), Qt::UTC),
                     "1899-12-31 23:59:59.500"),
                noCell("datetime: null", QDateTime()),
                noCell("invalid QVariant", QVariant()),
                noCell("null int", QVariant(QVariant::Int)),
                noCell("null double", QVariant(QVariant::Double)),

                // Other types by their text form.
                text("QByteArray as UTF-8", QByteArray("=1+2 \xc3\xa9"), "=1+2 é"),
                text("QChar", QChar(0x4e2d)),
                text("QUrl", QUrl(QStringLiteral("https://a.b/q?a=1"))),
                text("QStringList of one", QStringList {QStringLiteral("one")}, "one")};
    }();
    return cases;
}

// Column ranges of the sheet "Widths" (the last is set after its rows) and the widths stored.
struct WidthCase
{
    int first, last;
    double width;
};
const WidthCase widthCases[] = {
        {1, 1, 20},       {2, 3, 8.43 /* Excel's default */},  {4, 4, 12.5}, {5, 5, 1}, {6, 6, 255},
        {100, 16384, 20}, {7, 20, 20 /* set after the rows */}};

// Sheet names Excel accepts, in the order added (not sorted); each sheet holds its name in A1.
const QStringList acceptedNames
        = QStringList {"Zeta", "成交明细", "O'Brien", "with spaces", "a.b,c;d!e#f%g&h(i)j",
                       "=1+2", "Alpha"}
        << QString(31, QLatin1Char('x')) << QString(31, QChar(0x4e2d));

// A writer's steps up to the call that must fail; returns that call's result.
using Steps = std::function<bool(KrXlsxWriter &)>;
// What the directory holds before a writer for "{dir}/out.xlsx" starts.
enum class Setting { Nothing, OldFile, ReadOnlyFile, Directory, Link };
// What changes between the rows and save().
enum class Change { RemoveDirectory, TargetBecomesDirectory, FileSizeLimit };

} // namespace

Q_DECLARE_METATYPE(Steps)
Q_DECLARE_METATYPE(Setting)
Q_DECLARE_METATYPE(Change)

class tst_KrXlsxWriter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void values_data();
    void values();
    void widthsAndSheetNames();
    void writeOrders_data();
    void writeOrders();
    void manyStrings();

    void refusals_data();
    void refusals();
    void failureWhileSaving_data();
    void failureWhileSaving();
    void rowsWaitInTempPath();
    void save_data();
    void save();
    void filesAreClosed_data();
    void filesAreClosed();

private:
    QTemporaryDir m_dir;
    QJsonObject m_oracle; // xlsx_describe.py's report of the workbook of initTestCase()
};

// Writes the workbook that openpyxl reads: the sheet "Values" (valueCases(), name in column 1,
// the value plain in column 2 and as a header in column 3), "Widths", and the accepted names.
void tst_KrXlsxWriter::initTestCase()
{
    const QString script = QFINDTESTDATA("xlsx_describe.py");
    QVERIFY2(!script.isEmpty(), "xlsx_describe.py not found beside the test's source");
    const QString fileName = m_dir.filePath(QStringLiteral("oracle.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Values")));
    for (size_t i = 0; i < valueCases().size(); ++i) {
        const ValueCase &c = valueCases()[i];
        const int row = int(i) + 1;
        QVERIFY2(writer.writeCell(row, 1, QString::fromLatin1(c.name))
                         && writer.writeCell(row, 3, c.value, KrXlsxWriter::HeaderFormat)
                         && writer.writeCell(row, 2, c.value),
                 qPrintable(writer.errorString()));
    }
    QVERIFY(writer.addSheet(QStringLiteral("Widths")));
    const WidthCase &after = widthCases[std::size(widthCases) - 1];
    for (const WidthCase &c : widthCases) {
        if (&c != &after)
            QVERIFY2(writer.setColumnWidth(c.first, c.last, c.width),
                     qPrintable(writer.errorString()));
    }
    for (int row = 1; row <= 3; ++row) // rows start again at 1 on every sheet
        QVERIFY2(writer.writeCell(row, 7, row), qPrintable(writer.errorString()));
    QVERIFY(writer.setColumnWidth(after.first, after.last, after.width));
    for (const QString &name : acceptedNames)
        QVERIFY2(writer.addSheet(name) && writer.writeCell(1, 1, name),
                 qPrintable(writer.errorString()));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    // The first python3 on PATH with openpyxl (a pyenv shim may come first without it).
    for (const QString &directory : qEnvironmentVariable("PATH").split(QDir::listSeparator())) {
        QProcess python;
        python.start(QDir(directory).filePath(QStringLiteral("python3")), {script, fileName});
        if (!python.waitForFinished(120000) || python.exitCode() != 0)
            continue;
        m_oracle = QJsonDocument::fromJson(python.readAllStandardOutput()).object();
        break;
    }
    QVERIFY2(!m_oracle.isEmpty(),
             "no python3 on PATH read the workbook with openpyxl (Debian: python3-openpyxl)");
    QVERIFY2(!m_oracle.value(QLatin1String("sharedStrings")).toBool(),
             "strings went to a shared-string table: the rows were not streamed");
}

void tst_KrXlsxWriter::values_data()
{
    QTest::addColumn<int>("index");
    for (size_t i = 0; i < valueCases().size(); ++i)
        QTest::newRow(valueCases()[i].name.constData()) << int(i);
}

// Plain cells have Excel's default font, Calibri 11; header cells are bold, 16 points, with the
// same value and number format.
void tst_KrXlsxWriter::values()
{
    QFETCH(int, index);
    const ValueCase &c = valueCases()[size_t(index)];
    const Cells cells = cellsOf(m_oracle.value(QLatin1String("sheets")).toArray().at(0).toObject());
    QCOMPARE(field(cells.value({index + 1, 1}), "value"), QString::fromLatin1(c.name));
    for (const bool header : {false, true}) {
        const QJsonObject cell = cells.value({index + 1, header ? 3 : 2});
        if (c.type.isEmpty()) {
            QVERIFY2(cell.isEmpty(), qPrintable(field(cell, "type")));
            continue;
        }
        const QString type = field(cell, "type");
        if (c.type == QLatin1String("number")) {
            QVERIFY2(type == QLatin1String("int") || type == QLatin1String("float"),
                     qPrintable(type));
            // Exactly but for the last places of 0.1 + 0.2 (QCOMPARE would allow 1e-12).
            const double expected = c.expected.toDouble();
            const double read = cell.value(QLatin1String("value")).toDouble();
            QVERIFY2(std::abs(read - expected)
                             <= 4 * std::numeric_limits<double>::epsilon() * std::abs(expected),
                     qPrintable(QString::number(read, 'g', 17)));
        } else {
            QCOMPARE(type, c.type);
            QCOMPARE(cell.value(QLatin1String("value")).toVariant(), c.expected);
        }
        QCOMPARE(field(cell, "numberFormat"), c.numberFormat);
        QVERIFY2(cell.value(QLatin1String("hyperlink")).isNull(), "the cell has a link");
        QCOMPARE(cell.value(QLatin1String("bold")).toBool(), header);
        QCOMPARE(cell.value(QLatin1String("size")).toDouble(), header ? 16.0 : 11.0);
    }
}

// The file stores each width given, to the pixel (digits of the default font are 7 pixels wide);
// the sheets come in the order added, each with its own name in A1.
void tst_KrXlsxWriter::widthsAndSheetNames()
{
    const QJsonArray sheets = m_oracle.value(QLatin1String("sheets")).toArray();
    QMap<int, QPair<int, int>> ranges; // first column: last column, width in pixels
    for (const QJsonValue &range : sheets.at(1)[QLatin1String("columns")].toArray()) {
        ranges.insert(range[QLatin1String("min")].toInt(),
                      {range[QLatin1String("max")].toInt(),
                       qRound(range[QLatin1String("width")].toDouble() * 7)});
    }
    QMap<int, QPair<int, int>> expected;
    for (const WidthCase &c : widthCases)
        expected.insert(c.first, {c.last, qRound(c.width * 7)});
    QCOMPARE(ranges, expected);

    QStringList names;
    for (const QJsonValue &sheet : sheets) {
        names << sheet[QLatin1String("name")].toString();
        if (names.size() > 2)
            QCOMPARE(field(cellsOf(sheet.toObject()).value({1, 1}), "value"), names.last());
    }
    QCOMPARE(names,
             QStringList({QStringLiteral("Values"), QStringLiteral("Widths")}) + acceptedNames);
}

void tst_KrXlsxWriter::writeOrders_data()
{
    QTest::addColumn<QVariantList>("writes"); // {row, column, value}, in the order written

    using L = QVariantList;
    QTest::newRow("rows with gaps") << L {L {1, 1, 1}, L {5, 1, 5}, L {1000, 2, 1000}};
    QTest::newRow("columns of a row in any order")
            << L {L {2, 3, "c"}, L {2, 1, "a"}, L {2, 2, "b"}, L {3, 2, "e"}, L {3, 1, "d"}};
    QTest::newRow("a cell written twice keeps the later value")
            << L {L {1, 1, "first"}, L {1, 2, 2}, L {1, 1, "second"}};
    QTest::newRow("the corner cells of a sheet") << L {
            L {1, 16384, "last column"}, L {1048576, 1, "last row"}, L {1048576, 16384, "corner"}};
}

void tst_KrXlsxWriter::writeOrders()
{
    QFETCH(QVariantList, writes);

    const QString fileName = m_dir.filePath(QStringLiteral("order.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Order")));
    Values expected;
    for (const QVariant &write : writes) {
        const QVariantList w = write.toList();
        QVERIFY2(writer.writeCell(w.at(0).toInt(), w.at(1).toInt(), w.at(2)),
                 qPrintable(writer.errorString()));
        expected.insert({w.at(0).toInt(), w.at(1).toInt()}, w.at(2));
    }
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
    QCOMPARE(readBack(fileName).value(QStringLiteral("Order")), expected);
}

// Rows are streamed to disk with their strings inline, through one reused conversion buffer:
// texts that grow and shrink from cell to cell must all come back whole.
void tst_KrXlsxWriter::manyStrings()
{
    const int rows = 400, columns = 7;
    auto textAt = [](int row, int column) {
        const int length = (row * 37 + column * 101) % 300 + (row % 50 == 0 ? 5000 : 0);
        QString text = QStringLiteral("r%1c%2:").arg(row).arg(column);
        for (int i = 0; text.size() < length; ++i)
            text.append(i % 3 == 0 ? QChar(0x4e00 + (row + i) % 500)
                                   : QChar('a' + (i + column) % 26));
        return text;
    };

    const QString fileName = m_dir.filePath(QStringLiteral("strings.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Strings")));
    for (int row = 1; row <= rows; ++row) {
        for (int column = 1; column <= columns; ++column)
            QVERIFY(writer.writeCell(row, column, textAt(row, column)));
    }
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const Values values = readBack(fileName).value(QStringLiteral("Strings"));
    QCOMPARE(values.size(), rows * columns);
    for (auto cell = values.cbegin(); cell != values.cend(); ++cell) {
        if (cell->toString() != textAt(cell.key().first, cell.key().second))
            QFAIL(qPrintable(QStringLiteral("cell %1,%2 differs")
                                     .arg(cell.key().first)
                                     .arg(cell.key().second)));
    }
}

void tst_KrXlsxWriter::refusals_data()
{
    QTest::addColumn<QString>("target"); // "{dir}" is the test's temporary directory
    QTest::addColumn<Setting>("setting");
    QTest::addColumn<Steps>("steps");
    QTest::addColumn<QString>("error"); // a part of the error text

    const QString out = QStringLiteral("{dir}/out.xlsx");
    const auto sheet = [out](const char *row, const QString &name, const QString &error,
                             const QStringList &before = {}) {
        QTest::newRow(row) << out << Setting::Nothing << Steps([=](KrXlsxWriter &w) {
            for (const QString &used : before)
                w.addSheet(used);
            return w.addSheet(name);
        }) << error;
    };
    sheet("sheet: empty", QString(), QStringLiteral("A sheet name must not be empty"));
    sheet("sheet: 32 characters", QString(32, QLatin1Char('a')),
          QStringLiteral("Sheet name \"%1\" is longer than 31 characters")
                  .arg(QString(32, QLatin1Char('a'))));
    for (const char c : {'[', ']', ':', '*', '?', '/', '\\'}) {
        const QString name = QStringLiteral("Q4") + QLatin1Char(c) + QStringLiteral("2024");
        sheet(qPrintable(QStringLiteral("sheet: containing %1").arg(QLatin1Char(c))), name,
              QStringLiteral("Sheet name \"%1\" contains '%2', which sheet names cannot contain "
                             "(any of []:*?/\\)")
                      .arg(name, QString(QLatin1Char(c))));
    }
    sheet("sheet: beginning with an apostrophe", QStringLiteral("'Orders"),
          "Sheet name \"'Orders\" begins or ends with an apostrophe");
    sheet("sheet: ending with an apostrophe", QStringLiteral("Orders'"), "apostrophe");
    sheet("sheet: used", QStringLiteral("Orders"),
          "Sheet name \"Orders\" is already used by sheet \"Orders\" (sheet names ignore case)",
          {QStringLiteral("Orders")});
    sheet("sheet: used in other case", QStringLiteral("TRADES"), "already used by sheet \"Trades\"",
          {QStringLiteral("Orders"), QStringLiteral("Trades")});
    sheet("sheet: used in other case, beyond ASCII", QStringLiteral("CAFÉ"),
          "already used by sheet \"Café\"", {QStringLiteral("Café")});

    const auto cell = [out](const char *row, int previousRow, int r, int c, const QVariant &value,
                            const QString &error) {
        QTest::newRow(row) << out << Setting::Nothing << Steps([=](KrXlsxWriter &w) {
            w.addSheet(QStringLiteral("Blotter"));
            if (previousRow)
                w.writeCell(previousRow, 1, 1);
            return w.writeCell(r, c, value);
        }) << error;
    };
    const QVariant one(1);
    cell("cell: row 0", 0, 0, 1, one,
         "Sheet \"Blotter\": row 0 is outside the sheet (rows 1 to 1048576)");
    cell("cell: row after the last", 0, 1048577, 1, one, "row 1048577 is outside the sheet");
    cell("cell: column 0", 0, 1, 0, one,
         "Sheet \"Blotter\": column 0 is outside the sheet (columns 1 to 16384)");
    cell("cell: column after the last", 0, 1, 16385, one, "column 16385 is outside the sheet");
    cell("cell: text longer than a cell holds", 0, 3, 2, QString(32768, QLatin1Char('x')),
         "Sheet \"Blotter\", cell B3: the text has 32768 characters, more than the 32767 a cell "
         "holds");
    cell("cell: converted text too long", 0, 1, 1, QByteArray(40000, 'x'), "40000 characters");
    cell("cell: earlier row", 5, 4, 1, one,
         "Sheet \"Blotter\", cell A4: rows must be written in ascending order, and row 5 has "
         "been written already");
    cell("cell: earlier row, empty value", 5, 4, 1, QVariant(), "ascending order");
    cell("cell: list", 0, 2, 28, QVariantList {1, 2},
         "Sheet \"Blotter\", cell AB2: a value of type QVariantList has no text form to write");
    cell("cell: string list of two", 0, 1, 1, QStringList {"a", "b"}, "QStringList has no");

    const auto width = [out](const char *row, int first, int last, double w, const QString &e) {
        QTest::newRow(row) << out << Setting::Nothing << Steps([=](KrXlsxWriter &writer) {
            writer.addSheet(QStringLiteral("Blotter"));
            return writer.setColumnWidth(first, last, w);
        }) << e;
    };
    width("width: negative", 1, 1, -1, "Sheet \"Blotter\": column width -1 is outside 0 to 255");
    width("width: wider than 255", 1, 1, 255.5, "column width 255.5 is outside");
    width("width: NaN", 1, 1, std::numeric_limits<double>::quiet_NaN(), "width nan is outside");
    width("width: column 0", 0, 3, 20,
          "Sheet \"Blotter\": columns 0 to 3 are not a range of columns 1 to 16384");
    width("width: column after the last", 1, 16385, 20, "columns 1 to 16385 are not");
    width("width: reversed", 5, 2, 20, "columns 5 to 2 are not");

    QTest::newRow("no sheet: cell") << out << Setting::Nothing
                                    << Steps([](KrXlsxWriter &w) { return w.writeCell(1, 1, 1); })
                                    << "No sheet to write to: a sheet must be added first";
    QTest::newRow("no sheet: width") << out << Setting::Nothing << Steps([](KrXlsxWriter &w) {
        return w.setColumnWidth(1, 1, 20);
    }) << "No sheet to set column widths of: a sheet must be added first";

    // A target that cannot be written is reported at the first call, before any row.
    const Steps addSheet = [](KrXlsxWriter &w) { return w.addSheet(QStringLiteral("Orders")); };
    QTest::newRow("target: no file name")
            << "" << Setting::Nothing << addSheet << "No file name given";
    QTest::newRow("target: missing directory")
            << "{dir}/missing/out.xlsx" << Setting::Nothing << addSheet
            << "Cannot create a file in \"{dir}/missing\"";
    QTest::newRow("target: a directory")
            << out << Setting::Directory << addSheet << "\"{dir}/out.xlsx\" is a directory";
    QTest::newRow("target: a directory that takes no files")
            << "/proc/krutils-test.xlsx" << Setting::Nothing << addSheet
            << "Cannot create a file in \"/proc\"";
    QTest::newRow("target: read-only")
            << out << Setting::ReadOnlyFile << addSheet << "\"{dir}/out.xlsx\" is not writable";
    QTest::newRow("target: old file kept after a failure")
            << out << Setting::OldFile << Steps([](KrXlsxWriter &w) {
                   return w.addSheet(QStringLiteral("New")) && w.writeCell(1, 1, "fresh")
                           && w.writeCell(2, 1, QString(40000, QLatin1Char('x')));
               })
            << "the text has 40000 characters";
}

// The failing call and save() report the problem; after it every call fails and the first
// reason stays; the directory holds just what the test put there, no workbook and no temporary
// file, and an old file keeps its contents.
void tst_KrXlsxWriter::refusals()
{
    QFETCH(QString, target);
    QFETCH(Setting, setting);
    QFETCH(Steps, steps);
    QFETCH(QString, error);

    QTemporaryDir dir;
    target.replace(QLatin1String("{dir}"), dir.path());
    error.replace(QLatin1String("{dir}"), dir.path());
    const QString old = dir.filePath(QStringLiteral("out.xlsx"));
    if (setting == Setting::Directory) {
        QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("out.xlsx")));
    } else if (setting != Setting::Nothing) {
        QFile file(old);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("kept") == 4);
        file.close();
        if (setting == Setting::ReadOnlyFile) {
            QVERIFY(file.setPermissions(QFileDevice::ReadOwner));
            if (QFileInfo(old).isWritable())
                QSKIP("A read-only file stays writable for this user (root)");
        }
    }
    const QStringList entries = entriesOf(dir.path());
    const bool targetExisted = QFileInfo::exists(target);
    {
        KrXlsxWriter writer(target);
        QVERIFY(!steps(writer));
        const QString first = writer.errorString();
        QVERIFY2(first.contains(error), qPrintable(first));
        QVERIFY(!writer.writeCell(1, 1, 1));
        QVERIFY(!writer.addSheet(QStringLiteral("Other")));
        QVERIFY(!writer.setColumnWidth(1, 1, 20.0));
        QVERIFY(!writer.save());
        QCOMPARE(writer.errorString(), first);
    }
    QCOMPARE(entriesOf(dir.path()), entries);
    QCOMPARE(QFileInfo::exists(target), targetExisted);
    QFile file(old);
    if (setting == Setting::OldFile || setting == Setting::ReadOnlyFile) {
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("kept"));
    }
}

void tst_KrXlsxWriter::failureWhileSaving_data()
{
    QTest::addColumn<Change>("change");
    QTest::addColumn<int>("sheets");
    QTest::addColumn<int>("rows");
    QTest::addColumn<QString>("error");

    QTest::newRow("directory removed") << Change::RemoveDirectory << 1 << 100 << "Cannot write";
    QTest::newRow("target turned into a directory")
            << Change::TargetBecomesDirectory << 1 << 100 << "Cannot replace \"{out}/orders.xlsx\"";
    // A limit on the size of every file the process writes stands in for a full disk. One sheet
    // larger than the limit: the temporary file of its rows fills up, and libxlsxwriter closes a
    // workbook with the sheet cut short regardless.
    QTest::newRow("full disk: rows of a sheet")
            << Change::FileSizeLimit << 1 << 2000
            << "Cannot write \"{out}/orders.xlsx\": the rows of sheet \"Sheet 1\" could not be "
               "stored in a temporary file";
    // Sheets each well within the limit that together make a larger workbook: libxlsxwriter
    // reports it, and leaves the file half written.
    QTest::newRow("full disk: workbook file")
            << Change::FileSizeLimit << 12 << 20 << "Cannot write";
}

// The target's directory changes or fills up between the first row and save(): no file may be
// left.
void tst_KrXlsxWriter::failureWhileSaving()
{
    QFETCH(Change, change);
    QFETCH(int, sheets);
    QFETCH(int, rows);
    QFETCH(QString, error);

    QTemporaryDir dir;
    const QString out = dir.filePath(QStringLiteral("out"));
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("out")));
    error.replace(QLatin1String("{out}"), out);
#ifdef Q_OS_UNIX
    rlimit previous;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    const auto restore = qScopeGuard([&] {
        setrlimit(RLIMIT_FSIZE, &previous);
        std::signal(SIGXFSZ, previousHandler);
    });
    if (change == Change::FileSizeLimit) {
        rlimit limited = previous;
        limited.rlim_cur = 64 * 1024;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);
    }
#else
    if (change == Change::FileSizeLimit)
        QSKIP("Needs a limit on file sizes (RLIMIT_FSIZE)");
#endif

    KrXlsxWriter writer(out + QStringLiteral("/orders.xlsx"));
    QRandomGenerator random(7);
    QString text(400, Qt::Uninitialized); // random letters, which compress poorly
    for (int sheet = 1; sheet <= sheets; ++sheet) {
        QVERIFY(writer.addSheet(QStringLiteral("Sheet %1").arg(sheet)));
        for (int row = 1; row <= rows; ++row) {
            for (int column = 1; column <= 5; ++column) {
                for (QChar &c : text)
                    c = QChar('a' + random.bounded(26));
                QVERIFY(writer.writeCell(row, column, text));
            }
        }
    }
    if (change == Change::RemoveDirectory)
        QVERIFY(QDir(out).removeRecursively());
    if (change == Change::TargetBecomesDirectory)
        QVERIFY(QDir(out).mkpath(QStringLiteral("orders.xlsx/inside")));

    QVERIFY(!writer.save());
    QVERIFY2(writer.errorString().contains(error), qPrintable(writer.errorString()));
    QCOMPARE(entriesOf(out),
             change == Change::TargetBecomesDirectory ? QStringList {QStringLiteral("orders.xlsx")}
                                                      : QStringList());
}

// The rows wait in Qt's temporary directory, which follows TMPDIR (and TEMP on Windows), not in
// wherever the C library's tmpfile() puts them.
void tst_KrXlsxWriter::rowsWaitInTempPath()
{
    const QDir openFiles(QStringLiteral("/proc/self/fd"));
    if (!openFiles.exists())
        QSKIP("Needs /proc/self/fd to see where open files are");
    QTemporaryDir dir;
    const QByteArray previous = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(dir.path()));
    const auto restore = qScopeGuard([&] {
        if (previous.isNull())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", previous);
    });
    if (QDir::tempPath() != dir.path())
        QSKIP("QDir::tempPath() does not follow TMPDIR here");

    KrXlsxWriter writer(m_dir.filePath(QStringLiteral("out.xlsx")));
    QVERIFY(writer.addSheet(QStringLiteral("Orders")));
    QVERIFY(writer.writeCell(1, 1, 1));
    int open = 0; // removed from the directory as soon as made, but open
    for (const QFileInfo &file : openFiles.entryInfoList(QDir::AllEntries | QDir::System))
        open += file.symLinkTarget().startsWith(dir.path() + QLatin1Char('/'));
    QVERIFY2(open > 0, "no file of the writer's is open in TMPDIR");
}

void tst_KrXlsxWriter::save_data()
{
    QTest::addColumn<Setting>("setting");
    QTest::addColumn<QString>("sheet"); // the one sheet added, "saved" in A1; none when empty

    QTest::newRow("new file") << Setting::Nothing << "Orders";
    QTest::newRow("no sheet: one empty Sheet1") << Setting::Nothing << "";
    QTest::newRow("old file replaced") << Setting::OldFile << "Orders";
    QTest::newRow("through a symbolic link") << Setting::Link << "Orders";
}

// A new file gets the permissions any new file gets (the umask's), not a temporary file's, and a
// replaced one keeps its own; a symbolic link stays, the file it points at is replaced. After
// save() nothing more is written.
void tst_KrXlsxWriter::save()
{
    QFETCH(Setting, setting);
    QFETCH(QString, sheet);

    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("out.xlsx"));
    const QString real = setting == Setting::Link ? dir.filePath(QStringLiteral("real")) : fileName;
    QFile file(setting == Setting::Nothing ? dir.filePath(QStringLiteral("reference")) : real);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("old") == 3);
    file.close();
    QFileDevice::Permissions permissions = file.permissions();
    if (setting == Setting::OldFile) {
        permissions = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup;
        QVERIFY(file.setPermissions(permissions));
    }
    if (setting == Setting::Link && !QFile::link(real, fileName))
        QSKIP("No symbolic links here");
    QStringList entries = entriesOf(dir.path());
    if (!entries.contains(QStringLiteral("out.xlsx")))
        entries = QStringList(entries) << QStringLiteral("out.xlsx");
    entries.sort();

    KrXlsxWriter writer(fileName);
    if (!sheet.isEmpty())
        QVERIFY(writer.addSheet(sheet) && writer.writeCell(1, 1, "saved"));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
    QVERIFY(!writer.writeCell(2, 1, "late"));
    QCOMPARE(writer.errorString(), QStringLiteral("The workbook has been saved already"));
    QVERIFY(!writer.addSheet(QStringLiteral("Late")) && !writer.save());

    QCOMPARE(entriesOf(dir.path()), entries);
    QCOMPARE(QFileInfo(fileName).isSymLink(), setting == Setting::Link);
    // The owner, group and other bits; the "user" bits depend on who runs the test.
    QCOMPARE(int(QFileInfo(real).permissions()) & 0xf0ff, int(permissions) & 0xf0ff);
    QStringList names;
    const QMap<QString, Values> sheets = readBack(real, &names);
    QCOMPARE(names, QStringList(sheet.isEmpty() ? QStringLiteral("Sheet1") : sheet));
    QCOMPARE(sheets.value(names.value(0)),
             sheet.isEmpty() ? Values() : Values({{{1, 1}, QStringLiteral("saved")}}));
}

void tst_KrXlsxWriter::filesAreClosed_data()
{
    QTest::addColumn<QStringList>("sheets"); // "name" or "name:text in A1"
    QTest::addColumn<bool>("fail");
    QTest::addColumn<bool>("save");

    const QStringList mixed {QStringLiteral("Filled:x"), QStringLiteral("Empty"),
                             QStringLiteral("Blank:")};
    QTest::newRow("saved, sheets without cells") << mixed << false << true;
    QTest::newRow("saved without sheets") << QStringList() << false << true;
    QTest::newRow("not saved") << mixed << false << false;
    QTest::newRow("failed") << mixed << true << true;
}

// Whatever becomes of a writer, the files libxlsxwriter keeps open for it get closed (a client
// exports many workbooks in one long run), and only a saved one leaves a file.
void tst_KrXlsxWriter::filesAreClosed()
{
    QFETCH(QStringList, sheets);
    QFETCH(bool, fail);
    QFETCH(bool, save);

    const QDir openFiles(QStringLiteral("/proc/self/fd"));
    if (!openFiles.exists())
        QSKIP("Needs /proc/self/fd to count open files");
    const auto openFileCount
            = [&] { return openFiles.entryList(QDir::AllEntries | QDir::System).size(); };

    QTemporaryDir dir;
    const int before = openFileCount();
    for (int i = 0; i < 20; ++i) {
        KrXlsxWriter writer(dir.filePath(QStringLiteral("out.xlsx")));
        for (const QString &sheet : sheets) {
            const QStringList nameAndText = sheet.split(QLatin1Char(':'));
            QVERIFY(writer.addSheet(nameAndText.first()));
            if (nameAndText.size() > 1)
                QVERIFY(writer.writeCell(1, 1, nameAndText.at(1)));
        }
        if (fail)
            QVERIFY(!writer.writeCell(0, 1, 1));
        if (save)
            QCOMPARE(writer.save(), !fail);
    }
    QCOMPARE(openFileCount(), before);
    QCOMPARE(entriesOf(dir.path()),
             save && !fail ? QStringList {QStringLiteral("out.xlsx")} : QStringList());
}

QTEST_GUILESS_MAIN(tst_KrXlsxWriter)
#include "tst_krxlsxwriter.moc"
