// Tests of the workbook writer. The workbooks it writes are read back by an independent reader,
// Python's openpyxl, through xlsx_describe.py, which prints what it finds as JSON.

#include "workbook/KrXlsxWriter_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPoint>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimeZone>
#include <QUrl>
#include <QUuid>
#include <QtTest>

#include <cmath>
#include <limits>
#include <vector>

#ifdef Q_OS_UNIX
#include <csignal>
#include <sys/resource.h>
#endif

namespace {

// The cells of a sheet as xlsx_describe.py reports them, by row and column; only cells that hold
// a value are there.
using Cells = QHash<QPair<int, int>, QJsonObject>;

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

QString typeOf(const QJsonObject &cell)
{
    return cell.value(QLatin1String("type")).toString();
}

// Every entry of a directory, hidden ones (the writer's temporary files) included.
QStringList entriesOf(const QString &directory)
{
    return QDir(directory).entryList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

// The width in whole pixels of a width stored in a file (digits of the default font are 7
// pixels wide).
int pixelsOfStoredWidth(double stored)
{
    return qRound(stored * 7);
}

QString isoDateTime(const QDate &date, const QTime &time)
{
    return date.toString(Qt::ISODate) + QLatin1Char('T')
            + time.toString(QStringLiteral("HH:mm:ss.zzz")) + QStringLiteral("000");
}

QString isoTime(const QTime &time)
{
    return time.toString(QStringLiteral("HH:mm:ss.zzz")) + QStringLiteral("000");
}

// One value written and what openpyxl must read back: its Python type ("number" for int or
// float; empty when no cell may exist), value, number format and, for numbers, the relative
// difference allowed.
struct ValueCase
{
    QByteArray name;
    QVariant value;
    QString type;
    QVariant expected;
    QString numberFormat = QStringLiteral("General");
    double tolerance = 0;
};

ValueCase text(const char *name, const QVariant &value, const QString &expected)
{
    return {name, value, QStringLiteral("str"), expected};
}

ValueCase text(const char *name, const QString &value)
{
    return text(name, QVariant(value), value);
}

ValueCase number(const char *name, const QVariant &value, double expected)
{
    return {name, value, QStringLiteral("number"), expected};
}

ValueCase noCell(const char *name, const QVariant &value)
{
    return {name, value, QString(), QVariant()};
}

ValueCase dateTime(const char *name, const QVariant &value, const QDate &date, const QTime &time,
                   const char *numberFormat)
{
    return {name, value, QStringLiteral("datetime"), isoDateTime(date, time),
            QLatin1String(numberFormat)};
}

ValueCase timeOfDay(const char *name, const QTime &value, const char *numberFormat)
{
    return {name, value, QStringLiteral("time"), isoTime(value), QLatin1String(numberFormat)};
}

const std::vector<ValueCase> &valueCases()
{
    static const std::vector<ValueCase> cases = [] {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        const double infinity = std::numeric_limits<double>::infinity();
        const qint64 exactLimit = qint64(1) << 53;
        const QDate day(2024, 11, 22);
        const QTime morning(9, 30, 15);
        const QTime withMsecs(14, 59, 59, 123);
        const char *dateFormat = "yyyy-mm-dd";
        const char *dateTimeFormat = "yyyy-mm-dd hh:mm:ss";
        const char *dateTimeMsFormat = "yyyy-mm-dd hh:mm:ss.000";
        const QString longest(32767, QLatin1Char('y'));
        const QString longestCjk(32767, QChar(0x4e2d));

        std::vector<ValueCase> c {
                // Text stays text, whatever it looks like.
                text("text", QStringLiteral("Working order")),
                text("text: CJK", QStringLiteral("贵州茅台 600519.SH")),
                text("text: beyond the BMP", QString::fromUcs4(U"\U0001F600 rally")),
                text("text: formula", QStringLiteral("=1+2")),
                text("text: formula with a function", QStringLiteral("=SUM(A1:A3)")),
                text("text: link", QStringLiteral("http://example.com/orders?id=1")),
                text("text: mail link", QStringLiteral("mailto:desk@example.com")),
                text("text: at sign", QStringLiteral("@x")),
                text("text: signed number", QStringLiteral("+1")),
                text("text: negative number", QStringLiteral("-1")),
                text("text: leading zeros", QStringLiteral("007")),
                text("text: exponent", QStringLiteral("1e5")),
                text("text: boolean word", QStringLiteral("TRUE")),
                text("text: XML markup characters", QStringLiteral("<a & b> \"c\" 'd'")),
                text("text: surrounding spaces", QStringLiteral("  padded  ")),
                text("text: tab and newline", QStringLiteral("a\tb\nc")),
                text("text: carriage return", QStringLiteral("a\r\nb")),
                text("text: control character", QStringLiteral("a\u0001b")),
                text("text: NUL inside", QString(QLatin1String("a\0b", 3))),
                text("text: like an escape", QStringLiteral("_x0041_")),
                text("text: like an escape, lowercase", QStringLiteral("id_x00e9_")),
                text("text: like an escaped underscore", QStringLiteral("_x005F_x0041_")),
                text("text: nearly an escape", QStringLiteral("_x004_ _x0041 x0041_ _X0041_")),
                text("text: underscores", QStringLiteral("snake_case_x")),
                text("text: non-character U+FFFF", QStringLiteral("a") + QChar(0xffff)),
                text("text: unpaired surrogate", QString(QChar(0xd800)) + QStringLiteral("x"),
                     QString(QChar::ReplacementCharacter) + QStringLiteral("x")),
                text("text: longest a cell holds", longest),
                text("text: longest a cell holds, CJK", longestCjk),
                noCell("text: empty", QString(QLatin1String(""))),
                noCell("text: null", QString()),

                // Integers as numbers while a double holds them exactly, then as exact text.
                number("int", 42, 42),
                number("int: negative", -7, -7),
                number("int: largest", std::numeric_limits<int>::max(),
                       std::numeric_limits<int>::max()),
                number("int: smallest", std::numeric_limits<int>::min(),
                       std::numeric_limits<int>::min()),
                number("uint: largest", std::numeric_limits<uint>::max(),
                       std::numeric_limits<uint>::max()),
                number("short", QVariant::fromValue<short>(-32768), -32768),
                number("ushort", QVariant::fromValue<ushort>(65535), 65535),
                number("char", QVariant::fromValue<char>('A'), 65),
                number("signed char", QVariant::fromValue<signed char>(-5), -5),
                number("unsigned char", QVariant::fromValue<uchar>(200), 200),
                number("long", QVariant::fromValue<long>(-1234567890L), -1234567890),
                number("unsigned long", QVariant::fromValue<ulong>(4000000000UL), 4000000000.0),
                number("qlonglong: 2^53", exactLimit, double(exactLimit)),
                number("qlonglong: -2^53", -exactLimit, -double(exactLimit)),
                text("qlonglong: 2^53 + 1", QVariant(exactLimit + 1),
                     QStringLiteral("9007199254740993")),
                text("qlonglong: -2^53 - 1", QVariant(-exactLimit - 1),
                     QStringLiteral("-9007199254740993")),
                text("qlonglong: smallest", std::numeric_limits<qlonglong>::min(),
                     QStringLiteral("-9223372036854775808")),
                number("qulonglong: 2^53", quint64(exactLimit), double(exactLimit)),
                text("qulonglong: largest", std::numeric_limits<qulonglong>::max(),
                     QStringLiteral("18446744073709551615")),

                // Floating point; what a workbook cannot hold as a number becomes text.
                number("double", 1234.5678, 1234.5678),
                number("double: negative fraction", -0.25, -0.25),
                number("double: zero", 0.0, 0.0),
                number("double: huge", 1e300, 1e300),
                number("double: tiny", 1e-300, 1e-300),
                number("double: 2^53", double(exactLimit), double(exactLimit)),
                number("float", 0.1f, 0.1),
                number("float: pi", 3.14159f, 3.14159),
                text("double: NaN", nan, QStringLiteral("nan")),
                text("double: infinity", infinity, QStringLiteral("inf")),
                text("double: negative infinity", -infinity, QStringLiteral("-inf")),
                text("float: NaN", std::numeric_limits<float>::quiet_NaN(), QStringLiteral("nan")),

                {"bool: true", true, QStringLiteral("bool"), true},
                {"bool: false", false, QStringLiteral("bool"), false},

                // Dates: Excel shows 1900-01-01 .. 9999-12-31; others become text.
                dateTime("date", day, day, QTime(0, 0), dateFormat),
                dateTime("date: 1900-01-01", QDate(1900, 1, 1), QDate(1900, 1, 1), QTime(0, 0),
                         dateFormat),
                dateTime("date: 1900-02-28", QDate(1900, 2, 28), QDate(1900, 2, 28), QTime(0, 0),
                         dateFormat),
                dateTime("date: 1900-03-01", QDate(1900, 3, 1), QDate(1900, 3, 1), QTime(0, 0),
                         dateFormat),
                dateTime("date: 9999-12-31", QDate(9999, 12, 31), QDate(9999, 12, 31), QTime(0, 0),
                         dateFormat),
                text("date: 1899-12-31", QDate(1899, 12, 31), QStringLiteral("1899-12-31")),
                text("date: year 10000", QDate(10000, 1, 1), QStringLiteral("10000-01-01")),
                text("date: before the common era", QDate(-44, 3, 15),
                     QStringLiteral("-0044-03-15")),
                noCell("date: invalid", QDate(2023, 2, 30)),
                noCell("date: null", QDate()),

                timeOfDay("time", morning, "hh:mm:ss"),
                timeOfDay("time: milliseconds", QTime(23, 59, 59, 999), "hh:mm:ss.000"),
                timeOfDay("time: midnight", QTime(0, 0), "hh:mm:ss"),
                noCell("time: invalid", QTime(25, 0)),
                noCell("time: null", QTime()),

                // Date-times as their own wall-clock value, whatever their time zone.
                dateTime("datetime: UTC", QDateTime(day, morning, Qt::UTC), day, morning,
                         dateTimeFormat),
                dateTime("datetime: milliseconds", QDateTime(day, withMsecs, Qt::UTC), day,
                         withMsecs, dateTimeMsFormat),
                dateTime("datetime: local time", QDateTime(day, morning, Qt::LocalTime), day,
                         morning, dateTimeFormat),
                dateTime("datetime: UTC+8", QDateTime(day, morning, Qt::OffsetFromUTC, 8 * 3600),
                         day, morning, dateTimeFormat),
                dateTime("datetime: New York",
                         QDateTime(day, morning, QTimeZone("America/New_York")), day, morning,
                         dateTimeFormat),
                dateTime("datetime: in a daylight-saving gap",
                         QDateTime(QDate(2024, 3, 31), QTime(2, 30), QTimeZone("Europe/Berlin")),
                         QDate(2024, 3, 31), QTime(2, 30), dateTimeFormat),
                dateTime("datetime: last millisecond Excel shows",
                         QDateTime(QDate(9999, 12, 31), QTime(23, 59, 59, 999), Qt::UTC),
                         QDate(9999, 12, 31), QTime(23, 59, 59, 999), dateTimeMsFormat),
                dateTime("datetime: first day of 1900",
                         QDateTime(QDate(1900, 1, 1), QTime(0, 0, 0, 1), Qt::UTC),
                         QDate(1900, 1, 1), QTime(0, 0, 0, 1), dateTimeMsFormat),
                text("datetime: 1899", QDateTime(QDate(1899, 12, 31), QTime(23, 59, 59), Qt::UTC),
                     QStringLiteral("1899-12-31 23:59:59")),
                text("datetime: 1899 with milliseconds",
                     QDateTime(QDate(1899, 12, 31), QTime(23, 59, 59, 500), Qt::UTC),
                     QStringLiteral("1899-12-31 23:59:59.500")),
                noCell("datetime: null", QDateTime()),

                noCell("invalid QVariant", QVariant()),
                noCell("null int", QVariant(QVariant::Int)),
                noCell("null double", QVariant(QVariant::Double)),

                // Other types by their text form.
                text("QByteArray as UTF-8", QByteArray("bytes \xc3\xa9"),
                     QStringLiteral("bytes é")),
                text("QByteArray like a formula", QByteArray("=1+2"), QStringLiteral("=1+2")),
                text("QChar", QChar(0x4e2d), QStringLiteral("中")),
                text("QUrl", QUrl(QStringLiteral("https://example.com/q?a=1")),
                     QStringLiteral("https://example.com/q?a=1")),
                text("QUuid", QUuid(QStringLiteral("{6ba7b810-9dad-11d1-80b4-00c04fd430c8}")),
                     QStringLiteral("{6ba7b810-9dad-11d1-80b4-00c04fd430c8}")),
                text("QStringList of one", QStringList {QStringLiteral("one")},
                     QStringLiteral("one")),
        };
        // libxlsxwriter prints numbers with 16 significant digits; a double that needs 17 comes
        // back within a unit or two in the last place.
        ValueCase seventeenDigits = number("double: 17 significant digits", 0.1 + 0.2, 0.1 + 0.2);
        seventeenDigits.tolerance = 4 * std::numeric_limits<double>::epsilon();
        c.push_back(seventeenDigits);
        return c;
    }();
    return cases;
}

} // namespace

class tst_KrXlsxWriter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void values_data();
    void values();
    void header_data();
    void header();
    void columnWidths_data();
    void columnWidths();
    void sheets_data();
    void sheets();
    void validWriteOrders_data();
    void validWriteOrders();
    void rowsRestartOnEverySheet();
    void manyStrings();
    void lastRowAndColumn();
    void emptyWorkbook();

    void badSheetName_data();
    void badSheetName();
    void badCell_data();
    void badCell();
    void badColumnWidth_data();
    void badColumnWidth();
    void noSheetYet();
    void firstFailureIsFinal();
    void unusableTarget_data();
    void unusableTarget();
    void readOnlyTarget();
    void failureWhileSaving_data();
    void failureWhileSaving();
    void rowsWaitInTempPath();
    void diskFull_data();
    void diskFull();

    void replacesExistingFile();
    void failureKeepsExistingFile();
    void newFileHasUsualPermissions();
    void followsSymbolicLink();
    void callsAfterSave();
    void unsavedWriterLeavesNothing();
    void filesAreClosed_data();
    void filesAreClosed();

private:
    // Reads `fileName` back through xlsx_describe.py; empty (with a test failure) when it cannot.
    QJsonObject describe(const QString &fileName);
    QJsonArray describeSheets(const QString &fileName);
    void verifyFailure(KrXlsxWriter &writer, const QString &fragment, const QString &directory,
                       const QStringList &expectedEntries = {});

    QString m_python;
    QString m_script;
    QTemporaryDir m_valuesDir;
    Cells m_values; // the workbook of valueCases(), written once
    bool m_valuesWritten = false;
};

// The first python3 on PATH that has openpyxl (a pyenv shim may come first without it).
void tst_KrXlsxWriter::initTestCase()
{
    m_script = QFINDTESTDATA("xlsx_describe.py");
    QVERIFY2(!m_script.isEmpty(), "xlsx_describe.py not found beside the test's source");
    const QStringList path = QString::fromLocal8Bit(qgetenv("PATH"))
                                     .split(QDir::listSeparator(), Qt::SkipEmptyParts);
    for (const QString &directory : path) {
        const QString candidate
                = QStandardPaths::findExecutable(QStringLiteral("python3"), {directory});
        if (candidate.isEmpty())
            continue;
        QProcess probe;
        probe.start(candidate, {QStringLiteral("-c"), QStringLiteral("import openpyxl")});
        if (probe.waitForFinished(30000) && probe.exitStatus() == QProcess::NormalExit
            && probe.exitCode() == 0) {
            m_python = candidate;
            break;
        }
    }
    QVERIFY2(!m_python.isEmpty(),
             "no python3 with openpyxl on PATH (Debian: apt-get install python3-openpyxl)");
}

QJsonObject tst_KrXlsxWriter::describe(const QString &fileName)
{
    QProcess python;
    python.start(m_python, {m_script, fileName});
    if (!python.waitForFinished(120000)) {
        python.kill();
        python.waitForFinished();
        QTest::qFail("xlsx_describe.py did not finish", __FILE__, __LINE__);
        return {};
    }
    if (python.exitStatus() != QProcess::NormalExit || python.exitCode() != 0) {
        const QByteArray message
                = "openpyxl could not read the workbook: " + python.readAllStandardError();
        QTest::qFail(message.constData(), __FILE__, __LINE__);
        return {};
    }
    QJsonParseError parseError;
    const QJsonDocument document
            = QJsonDocument::fromJson(python.readAllStandardOutput(), &parseError);
    if (!document.isObject()) {
        QTest::qFail(qPrintable(parseError.errorString()), __FILE__, __LINE__);
        return {};
    }
    return document.object();
}

QJsonArray tst_KrXlsxWriter::describeSheets(const QString &fileName)
{
    return describe(fileName).value(QLatin1String("sheets")).toArray();
}

// The failing call is behind `writer`: it and save() report the problem, and the directory holds
// just what the test put there, no workbook and no temporary file.
void tst_KrXlsxWriter::verifyFailure(KrXlsxWriter &writer, const QString &fragment,
                                     const QString &directory, const QStringList &expectedEntries)
{
    const QString error = writer.errorString();
    QVERIFY2(error.contains(fragment, Qt::CaseInsensitive),
             qPrintable(QStringLiteral("\"%1\" does not mention \"%2\"").arg(error, fragment)));
    QVERIFY(!writer.save());
    QCOMPARE(writer.errorString(), error);
    QCOMPARE(entriesOf(directory), expectedEntries);
}

void tst_KrXlsxWriter::values_data()
{
    QTest::addColumn<int>("index");
    for (size_t i = 0; i < valueCases().size(); ++i)
        QTest::newRow(valueCases()[i].name.constData()) << int(i);
}

// Every case of valueCases() is one row of one workbook, value in column 2.
void tst_KrXlsxWriter::values()
{
    QFETCH(int, index);
    if (!m_valuesWritten) {
        m_valuesWritten = true;
        QVERIFY(m_valuesDir.isValid());
        const QString fileName = m_valuesDir.filePath(QStringLiteral("values.xlsx"));
        KrXlsxWriter writer(fileName);
        QVERIFY2(writer.addSheet(QStringLiteral("Values")), qPrintable(writer.errorString()));
        for (size_t i = 0; i < valueCases().size(); ++i) {
            const ValueCase &c = valueCases()[i];
            QVERIFY2(writer.writeCell(int(i) + 1, 1, QString::fromLatin1(c.name))
                             && writer.writeCell(int(i) + 1, 2, c.value),
                     qPrintable(writer.errorString()));
        }
        QVERIFY2(writer.save(), qPrintable(writer.errorString()));
        const QJsonObject description = describe(fileName);
        QVERIFY(!description.isEmpty());
        QVERIFY2(!description.value(QLatin1String("sharedStrings")).toBool(),
                 "strings went to a shared-string table: the rows were not streamed");
        m_values = cellsOf(description.value(QLatin1String("sheets")).toArray().at(0).toObject());
    }
    QVERIFY2(!m_values.isEmpty(), "the workbook of values could not be written or read");

    const ValueCase &c = valueCases()[size_t(index)];
    const QJsonObject cell = m_values.value({index + 1, 2});
    if (c.type.isEmpty()) {
        QVERIFY2(cell.isEmpty(), qPrintable(QStringLiteral("a cell of type %1").arg(typeOf(cell))));
        return;
    }
    QVERIFY2(!cell.isEmpty(), "no cell");
    const QJsonValue value = cell.value(QLatin1String("value"));
    if (c.type == QLatin1String("number")) {
        QVERIFY2(typeOf(cell) == QLatin1String("int") || typeOf(cell) == QLatin1String("float"),
                 qPrintable(typeOf(cell)));
        // Exactly: QCOMPARE would allow a relative difference of 1e-12.
        const double expected = c.expected.toDouble(), read = value.toDouble();
        QVERIFY2(std::abs(read - expected) <= c.tolerance * std::abs(expected),
                 qPrintable(QStringLiteral("read %1, expected %2")
                                    .arg(read, 0, 'g', 17)
                                    .arg(expected, 0, 'g', 17)));
    } else {
        QCOMPARE(typeOf(cell), c.type);
        QCOMPARE(value.toVariant(), c.expected);
    }
    QCOMPARE(cell.value(QLatin1String("numberFormat")).toString(), c.numberFormat);
    QVERIFY2(cell.value(QLatin1String("hyperlink")).isNull(), "the cell has a link");
    // Plain cells have Excel's default font, Calibri 11.
    QCOMPARE(cell.value(QLatin1String("bold")).toBool(), false);
    QCOMPARE(cell.value(QLatin1String("size")).toDouble(), 11.0);
}

void tst_KrXlsxWriter::header_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("numberFormat");

    QTest::newRow("text") << QVariant(QStringLiteral("Price")) << "str"
                          << "General";
    QTest::newRow("text like a formula") << QVariant(QStringLiteral("=A2")) << "str"
                                         << "General";
    QTest::newRow("number") << QVariant(2024) << "int"
                            << "General";
    QTest::newRow("bool") << QVariant(true) << "bool"
                          << "General";
    QTest::newRow("date") << QVariant(QDate(2024, 11, 22)) << "datetime"
                          << "yyyy-mm-dd";
    QTest::newRow("time with milliseconds") << QVariant(QTime(9, 30, 0, 5)) << "time"
                                            << "hh:mm:ss.000";
    QTest::newRow("date-time") << QVariant(QDateTime(QDate(2024, 11, 22), QTime(9, 30), Qt::UTC))
                               << "datetime"
                               << "yyyy-mm-dd hh:mm:ss";
}

// Header cells are bold, 16 points, and keep their type's number format; the cells below them
// stay plain.
void tst_KrXlsxWriter::header()
{
    QFETCH(QVariant, value);
    QFETCH(QString, type);
    QFETCH(QString, numberFormat);

    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("header.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Header")));
    QVERIFY(writer.writeCell(1, 1, value, KrXlsxWriter::HeaderFormat));
    QVERIFY(writer.writeCell(2, 1, value));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const Cells cells = cellsOf(describeSheets(fileName).at(0).toObject());
    const QJsonObject header = cells.value({1, 1}), plain = cells.value({2, 1});
    QCOMPARE(typeOf(header), type);
    QCOMPARE(header.value(QLatin1String("value")), plain.value(QLatin1String("value")));
    QCOMPARE(header.value(QLatin1String("bold")).toBool(), true);
    QCOMPARE(header.value(QLatin1String("size")).toDouble(), 16.0);
    QCOMPARE(header.value(QLatin1String("numberFormat")).toString(), numberFormat);
    QCOMPARE(typeOf(plain), type);
    QCOMPARE(plain.value(QLatin1String("bold")).toBool(), false);
    QCOMPARE(plain.value(QLatin1String("size")).toDouble(), 11.0);
    QCOMPARE(plain.value(QLatin1String("numberFormat")).toString(), numberFormat);
}

void tst_KrXlsxWriter::columnWidths_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::addColumn<double>("width");
    QTest::addColumn<bool>("afterRows");

    QTest::newRow("20, one column") << 1 << 1 << 20.0 << false;
    QTest::newRow("20, the columns of a record") << 1 << 20 << 20.0 << false;
    QTest::newRow("20, set after the rows") << 1 << 20 << 20.0 << true;
    QTest::newRow("20, far columns") << 100 << 16384 << 20.0 << false;
    QTest::newRow("Excel's default, 8.43") << 2 << 3 << 8.43 << false;
    QTest::newRow("fraction, 12.5") << 4 << 4 << 12.5 << false;
    QTest::newRow("one character") << 5 << 5 << 1.0 << false;
    QTest::newRow("widest, 255") << 6 << 6 << 255.0 << false;
}

// The file stores the width given, to the pixel (Excel keeps widths in whole pixels).
void tst_KrXlsxWriter::columnWidths()
{
    QFETCH(int, first);
    QFETCH(int, last);
    QFETCH(double, width);
    QFETCH(bool, afterRows);

    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("widths.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Widths")));
    if (!afterRows)
        QVERIFY2(writer.setColumnWidth(first, last, width), qPrintable(writer.errorString()));
    for (int row = 1; row <= 3; ++row)
        QVERIFY(writer.writeCell(row, first, row));
    if (afterRows)
        QVERIFY2(writer.setColumnWidth(first, last, width), qPrintable(writer.errorString()));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const QJsonArray columns
            = describeSheets(fileName).at(0).toObject().value(QLatin1String("columns")).toArray();
    QCOMPARE(columns.size(), 1);
    const QJsonObject range = columns.at(0).toObject();
    QCOMPARE(range.value(QLatin1String("min")).toInt(), first);
    QCOMPARE(range.value(QLatin1String("max")).toInt(), last);
    QCOMPARE(pixelsOfStoredWidth(range.value(QLatin1String("width")).toDouble()),
             pixelsOfStoredWidth(width));
}

void tst_KrXlsxWriter::sheets_data()
{
    QTest::addColumn<QStringList>("names");

    QTest::newRow("one") << QStringList {QStringLiteral("Orders")};
    QTest::newRow("in the order added, not sorted")
            << QStringList {QStringLiteral("Zeta"), QStringLiteral("Alpha"), QStringLiteral("Mid")};
    QTest::newRow("names Excel accepts")
            << QStringList {QStringLiteral("成交明细"),    QString(31, QLatin1Char('x')),
                            QString(31, QChar(0x4e2d)),    QStringLiteral("O'Brien"),
                            QStringLiteral("with spaces"), QStringLiteral("a.b,c;d!e#f%g&h(i)j"),
                            QStringLiteral("=1+2")};
}

// Each sheet holds its own name in A1, so a mix-up between sheets shows too.
void tst_KrXlsxWriter::sheets()
{
    QFETCH(QStringList, names);

    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("sheets.xlsx"));
    KrXlsxWriter writer(fileName);
    for (const QString &name : names) {
        QVERIFY2(writer.addSheet(name), qPrintable(writer.errorString()));
        QVERIFY(writer.writeCell(1, 1, name));
    }
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const QJsonArray sheets = describeSheets(fileName);
    QStringList read;
    for (const QJsonValue &sheet : sheets) {
        const QString name = sheet.toObject().value(QLatin1String("name")).toString();
        read.append(name);
        QCOMPARE(cellsOf(sheet.toObject()).value({1, 1}).value(QLatin1String("value")).toString(),
                 name);
    }
    QCOMPARE(read, names);
}

void tst_KrXlsxWriter::validWriteOrders_data()
{
    // Each write is {row, column, value}; `expected` maps "row,column" to the value read back.
    QTest::addColumn<QVariantList>("writes");
    QTest::addColumn<QVariantMap>("expected");

    QTest::newRow("rows with gaps") << QVariantList {QVariantList {1, 1, 1}, QVariantList {5, 1, 5},
                                                     QVariantList {1000, 2, 1000}}
                                    << QVariantMap {{"1,1", 1}, {"5,1", 5}, {"1000,2", 1000}};
    QTest::newRow("columns of a row in any order")
            << QVariantList {QVariantList {2, 3, "c"}, QVariantList {2, 1, "a"},
                             QVariantList {2, 2, "b"}, QVariantList {3, 2, "e"},
                             QVariantList {3, 1, "d"}}
            << QVariantMap {{"2,1", "a"}, {"2,2", "b"}, {"2,3", "c"}, {"3,1", "d"}, {"3,2", "e"}};
    QTest::newRow("a cell written twice keeps the later value")
            << QVariantList {QVariantList {1, 1, "first"}, QVariantList {1, 2, 2},
                             QVariantList {1, 1, "second"}}
            << QVariantMap {{"1,1", "second"}, {"1,2", 2}};
    QTest::newRow("a row revisited before the next one")
            << QVariantList {QVariantList {1, 1, "a"}, QVariantList {1, 3, "c"},
                             QVariantList {1, 2, "b"}, QVariantList {2, 1, "d"}}
            << QVariantMap {{"1,1", "a"}, {"1,2", "b"}, {"1,3", "c"}, {"2,1", "d"}};
}

void tst_KrXlsxWriter::validWriteOrders()
{
    QFETCH(QVariantList, writes);
    QFETCH(QVariantMap, expected);

    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("order.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Order")));
    for (const QVariant &write : writes) {
        const QVariantList w = write.toList();
        QVERIFY2(writer.writeCell(w.at(0).toInt(), w.at(1).toInt(), w.at(2)),
                 qPrintable(writer.errorString()));
    }
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const Cells cells = cellsOf(describeSheets(fileName).at(0).toObject());
    QVariantMap read;
    for (auto cell = cells.cbegin(); cell != cells.cend(); ++cell) {
        read.insert(QStringLiteral("%1,%2").arg(cell.key().first).arg(cell.key().second),
                    cell->value(QLatin1String("value")).toVariant());
    }
    QCOMPARE(read.keys(), expected.keys());
    for (auto value = expected.cbegin(); value != expected.cend(); ++value)
        QCOMPARE(read.value(value.key()).toString(), value->toString());
}

// Row order is per sheet: a new sheet starts again at row 1.
void tst_KrXlsxWriter::rowsRestartOnEverySheet()
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("restart.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("First")));
    QVERIFY(writer.writeCell(1, 1, "first 1"));
    QVERIFY(writer.writeCell(50, 1, "first 50"));
    QVERIFY(writer.addSheet(QStringLiteral("Second")));
    QVERIFY2(writer.writeCell(1, 1, "second 1"), qPrintable(writer.errorString()));
    QVERIFY(writer.writeCell(2, 1, "second 2"));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const QJsonArray sheets = describeSheets(fileName);
    QCOMPARE(sheets.size(), 2);
    const Cells first = cellsOf(sheets.at(0).toObject()), second = cellsOf(sheets.at(1).toObject());
    QCOMPARE(first.size(), 2);
    QCOMPARE(first.value({50, 1}).value(QLatin1String("value")).toString(), "first 50");
    QCOMPARE(second.size(), 2);
    QCOMPARE(second.value({1, 1}).value(QLatin1String("value")).toString(), "second 1");
    QCOMPARE(second.value({2, 1}).value(QLatin1String("value")).toString(), "second 2");
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

    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("strings.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Strings")));
    for (int row = 1; row <= rows; ++row) {
        for (int column = 1; column <= columns; ++column)
            QVERIFY2(writer.writeCell(row, column, textAt(row, column)),
                     qPrintable(writer.errorString()));
    }
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const Cells cells = cellsOf(describeSheets(fileName).at(0).toObject());
    QCOMPARE(cells.size(), rows * columns);
    for (int row = 1; row <= rows; ++row) {
        for (int column = 1; column <= columns; ++column) {
            const QString read
                    = cells.value({row, column}).value(QLatin1String("value")).toString();
            if (read != textAt(row, column))
                QFAIL(qPrintable(QStringLiteral("cell %1,%2 differs").arg(row).arg(column)));
        }
    }
}

// The sheet's last row and column take cells. (Not read back: openpyxl would walk every cell of
// the sheet's range.)
void tst_KrXlsxWriter::lastRowAndColumn()
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("corner.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Corner")));
    QVERIFY2(writer.writeCell(1, 16384, "last column"), qPrintable(writer.errorString()));
    QVERIFY2(writer.writeCell(1048576, 1, "last row"), qPrintable(writer.errorString()));
    QVERIFY2(writer.writeCell(1048576, 16384, "corner"), qPrintable(writer.errorString()));
    QVERIFY2(writer.setColumnWidth(16384, 16384, 20.0), qPrintable(writer.errorString()));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
    QVERIFY(QFileInfo(fileName).size() > 0);
}

// A workbook needs a sheet; one without gets an empty "Sheet1".
void tst_KrXlsxWriter::emptyWorkbook()
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("empty.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
    const QJsonArray sheets = describeSheets(fileName);
    QCOMPARE(sheets.size(), 1);
    QCOMPARE(sheets.at(0).toObject().value(QLatin1String("name")).toString(), "Sheet1");
    QVERIFY(cellsOf(sheets.at(0).toObject()).isEmpty());
}

void tst_KrXlsxWriter::badSheetName_data()
{
    QTest::addColumn<QStringList>("before");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("fragment");

    QTest::newRow("empty") << QStringList() << QString() << "must not be empty";
    QTest::newRow("32 characters")
            << QStringList() << QString(32, QLatin1Char('a')) << "longer than 31 characters";
    QTest::newRow("32 CJK characters")
            << QStringList() << QString(32, QChar(0x4e2d)) << "longer than 31 characters";
    for (const char c : {'[', ']', ':', '*', '?', '/', '\\'}) {
        const QString name = QStringLiteral("Q4") + QLatin1Char(c) + QStringLiteral("2024");
        QTest::addRow("containing %c", c)
                << QStringList() << name << QStringLiteral("contains '%1'").arg(QLatin1Char(c));
    }
    QTest::newRow("beginning with an apostrophe")
            << QStringList() << QStringLiteral("'Orders") << "apostrophe";
    QTest::newRow("ending with an apostrophe")
            << QStringList() << QStringLiteral("Orders'") << "apostrophe";
    QTest::newRow("used") << QStringList {QStringLiteral("Orders")} << QStringLiteral("Orders")
                          << "already used by sheet \"Orders\"";
    QTest::newRow("used in other case")
            << QStringList {QStringLiteral("Orders"), QStringLiteral("Trades")}
            << QStringLiteral("TRADES") << "already used by sheet \"Trades\"";
    QTest::newRow("used in other case, beyond ASCII")
            << QStringList {QStringLiteral("Café")} << QStringLiteral("CAFÉ")
            << "already used by sheet \"Café\"";
}

void tst_KrXlsxWriter::badSheetName()
{
    QFETCH(QStringList, before);
    QFETCH(QString, name);
    QFETCH(QString, fragment);

    QTemporaryDir dir;
    KrXlsxWriter writer(dir.filePath(QStringLiteral("bad.xlsx")));
    for (const QString &used : before)
        QVERIFY(writer.addSheet(used));
    QVERIFY(!writer.addSheet(name));
    if (!name.isEmpty())
        QVERIFY2(writer.errorString().contains(name), qPrintable(writer.errorString()));
    verifyFailure(writer, fragment, dir.path());
}

void tst_KrXlsxWriter::badCell_data()
{
    QTest::addColumn<int>("previousRow"); // a row written before, or 0
    QTest::addColumn<int>("row");
    QTest::addColumn<int>("column");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QString>("fragment");

    const QVariant one(1);
    QTest::newRow("row 0") << 0 << 0 << 1 << one << "row 0 is outside the sheet";
    QTest::newRow("negative row") << 0 << -1 << 1 << one << "row -1 is outside the sheet";
    QTest::newRow("row after the last")
            << 0 << 1048577 << 1 << one << "row 1048577 is outside the sheet";
    QTest::newRow("column 0") << 0 << 1 << 0 << one << "column 0 is outside the sheet";
    QTest::newRow("column after the last")
            << 0 << 1 << 16385 << one << "column 16385 is outside the sheet";
    QTest::newRow("text longer than a cell holds")
            << 0 << 3 << 2 << QVariant(QString(32768, QLatin1Char('x')))
            << "cell B3: the text has 32768 characters";
    QTest::newRow("converted text longer than a cell holds")
            << 0 << 1 << 1 << QVariant(QByteArray(40000, 'x')) << "40000 characters";
    QTest::newRow("earlier row") << 5 << 4 << 1 << one
                                 << "cell A4: rows must be written in ascending order";
    QTest::newRow("first row after a later one")
            << 1048576 << 1 << 3 << one << "cell C1: rows must be written in ascending order";
    QTest::newRow("earlier row, empty value")
            << 5 << 4 << 1 << QVariant() << "rows must be written in ascending order";
    QTest::newRow("list") << 0 << 2 << 28 << QVariant(QVariantList {1, 2})
                          << "cell AB2: a value of type QVariantList has no text form";
    QTest::newRow("map") << 0 << 1 << 1 << QVariant(QVariantMap {{"a", 1}}) << "QVariantMap";
    QTest::newRow("string list of two")
            << 0 << 1 << 1 << QVariant(QStringList {"a", "b"}) << "QStringList";
    QTest::newRow("point") << 0 << 1 << 1 << QVariant(QPoint(1, 2)) << "QPoint";
}

void tst_KrXlsxWriter::badCell()
{
    QFETCH(int, previousRow);
    QFETCH(int, row);
    QFETCH(int, column);
    QFETCH(QVariant, value);
    QFETCH(QString, fragment);

    QTemporaryDir dir;
    KrXlsxWriter writer(dir.filePath(QStringLiteral("bad.xlsx")));
    QVERIFY(writer.addSheet(QStringLiteral("Blotter")));
    if (previousRow)
        QVERIFY(writer.writeCell(previousRow, 1, 1));
    QVERIFY(!writer.writeCell(row, column, value));
    QVERIFY2(writer.errorString().contains(QLatin1String("\"Blotter\"")),
             qPrintable(writer.errorString()));
    verifyFailure(writer, fragment, dir.path());
}

void tst_KrXlsxWriter::badColumnWidth_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("last");
    QTest::addColumn<double>("width");
    QTest::addColumn<QString>("fragment");

    QTest::newRow("negative") << 1 << 1 << -1.0 << "column width -1 is outside 0 to 255";
    QTest::newRow("wider than 255") << 1 << 1 << 255.5 << "column width 255.5 is outside";
    QTest::newRow("NaN") << 1 << 1 << std::numeric_limits<double>::quiet_NaN()
                         << "column width nan is outside";
    QTest::newRow("infinite") << 1 << 1 << std::numeric_limits<double>::infinity()
                              << "column width inf is outside";
    QTest::newRow("column 0") << 0 << 3 << 20.0 << "columns 0 to 3 are not a range";
    QTest::newRow("column after the last") << 1 << 16385 << 20.0 << "columns 1 to 16385";
    QTest::newRow("reversed") << 5 << 2 << 20.0 << "columns 5 to 2";
}

void tst_KrXlsxWriter::badColumnWidth()
{
    QFETCH(int, first);
    QFETCH(int, last);
    QFETCH(double, width);
    QFETCH(QString, fragment);

    QTemporaryDir dir;
    KrXlsxWriter writer(dir.filePath(QStringLiteral("bad.xlsx")));
    QVERIFY(writer.addSheet(QStringLiteral("Blotter")));
    QVERIFY(!writer.setColumnWidth(first, last, width));
    verifyFailure(writer, fragment, dir.path());
}

void tst_KrXlsxWriter::noSheetYet()
{
    QTemporaryDir dir;
    {
        KrXlsxWriter writer(dir.filePath(QStringLiteral("bad.xlsx")));
        QVERIFY(!writer.writeCell(1, 1, 1));
        verifyFailure(writer, QStringLiteral("no sheet to write to"), dir.path());
    }
    {
        KrXlsxWriter writer(dir.filePath(QStringLiteral("bad.xlsx")));
        QVERIFY(!writer.setColumnWidth(1, 1, 20.0));
        verifyFailure(writer, QStringLiteral("no sheet"), dir.path());
    }
}

// After a failure nothing more is written, and the first reason stays.
void tst_KrXlsxWriter::firstFailureIsFinal()
{
    QTemporaryDir dir;
    KrXlsxWriter writer(dir.filePath(QStringLiteral("bad.xlsx")));
    QVERIFY(writer.addSheet(QStringLiteral("Blotter")));
    QVERIFY(!writer.writeCell(0, 1, 1));
    const QString first = writer.errorString();
    QVERIFY(!writer.writeCell(1, 1, 1));
    QVERIFY(!writer.addSheet(QStringLiteral("Other")));
    QVERIFY(!writer.setColumnWidth(1, 1, 20.0));
    QVERIFY(!writer.addSheet(QString()));
    QCOMPARE(writer.errorString(), first);
    verifyFailure(writer, QStringLiteral("row 0"), dir.path());
}

void tst_KrXlsxWriter::unusableTarget_data()
{
    // "{dir}" stands for the test's temporary directory; `setUp` names what is there first.
    QTest::addColumn<QString>("target");
    QTest::addColumn<QString>("setUp");
    QTest::addColumn<QString>("fragment");

    QTest::newRow("no file name") << ""
                                  << ""
                                  << "no file name";
    QTest::newRow("missing directory") << "{dir}/missing/out.xlsx"
                                       << ""
                                       << "cannot create a file in";
    QTest::newRow("directory under a file") << "{dir}/file/out.xlsx"
                                            << "file"
                                            << "cannot create a file in";
    QTest::newRow("a directory") << "{dir}/out.xlsx"
                                 << "directory"
                                 << "is a directory";
    QTest::newRow("a directory that takes no files") << "/proc/krutils-test.xlsx"
                                                     << ""
                                                     << "cannot create a file in \"/proc\"";
}

// A target that cannot be written is reported at the first call, before any row is written.
void tst_KrXlsxWriter::unusableTarget()
{
    QFETCH(QString, target);
    QFETCH(QString, setUp);
    QFETCH(QString, fragment);

    QTemporaryDir dir;
    target.replace(QLatin1String("{dir}"), dir.path());
    if (setUp == QLatin1String("file")) {
        QFile file(dir.filePath(QStringLiteral("file")));
        QVERIFY(file.open(QIODevice::WriteOnly));
    } else if (setUp == QLatin1String("directory")) {
        QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("out.xlsx")));
    }
    const QStringList entries = entriesOf(dir.path());

    KrXlsxWriter writer(target);
    QVERIFY(!writer.addSheet(QStringLiteral("Orders")));
    verifyFailure(writer, fragment, dir.path(), entries);
    if (target.startsWith(QLatin1String("/proc")))
        QVERIFY(!QFileInfo::exists(target));
}

void tst_KrXlsxWriter::readOnlyTarget()
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("out.xlsx"));
    QFile file(fileName);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(file.write("kept") == 4);
    file.close();
    QVERIFY(file.setPermissions(QFileDevice::ReadOwner | QFileDevice::ReadGroup));
    if (QFileInfo(fileName).isWritable())
        QSKIP("A read-only file stays writable for this user (root)");

    KrXlsxWriter writer(fileName);
    QVERIFY(!writer.addSheet(QStringLiteral("Orders")));
    verifyFailure(writer, QStringLiteral("is not writable"), dir.path(),
                  {QStringLiteral("out.xlsx")});
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("kept"));
}

void tst_KrXlsxWriter::failureWhileSaving_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("fragment");

    QTest::newRow("directory removed") << "remove directory"
                                       << "cannot write";
    QTest::newRow("target turned into a directory") << "make target a directory"
                                                    << "cannot replace";
}

// The target's directory changes between the first row and save(): no file may be left.
void tst_KrXlsxWriter::failureWhileSaving()
{
    QFETCH(QString, change);
    QFETCH(QString, fragment);

    QTemporaryDir dir;
    QDir directory(dir.path());
    QVERIFY(directory.mkdir(QStringLiteral("out")));
    const QString targetDir = directory.filePath(QStringLiteral("out"));
    const QString fileName = targetDir + QStringLiteral("/orders.xlsx");
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Orders")));
    for (int row = 1; row <= 100; ++row)
        QVERIFY(writer.writeCell(row, 1, row));

    QStringList expectedEntries;
    if (change == QLatin1String("remove directory")) {
        QVERIFY(QDir(targetDir).removeRecursively());
    } else {
        QVERIFY(QDir(targetDir).mkpath(QStringLiteral("orders.xlsx/inside")));
        expectedEntries = QStringList {QStringLiteral("orders.xlsx")};
    }

    QVERIFY(!writer.save());
    QVERIFY2(writer.errorString().contains(fragment, Qt::CaseInsensitive),
             qPrintable(writer.errorString()));
    QVERIFY2(writer.errorString().contains(QLatin1String("orders.xlsx")),
             qPrintable(writer.errorString()));
    if (expectedEntries.isEmpty())
        QVERIFY(!QFileInfo::exists(targetDir));
    else
        QCOMPARE(entriesOf(targetDir), expectedEntries);
}

// The rows wait in Qt's temporary directory, which follows TMPDIR (and TEMP on Windows), not in
// wherever the C library's tmpfile() puts them.
void tst_KrXlsxWriter::rowsWaitInTempPath()
{
    const QDir openFiles(QStringLiteral("/proc/self/fd"));
    if (!openFiles.exists())
        QSKIP("Needs /proc/self/fd to see where open files are");
    QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkdir(QStringLiteral("rows")));
    const QString rows = dir.filePath(QStringLiteral("rows"));
    const QByteArray previous = qgetenv("TMPDIR");
    qputenv("TMPDIR", QFile::encodeName(rows));
    const auto restore = qScopeGuard([&] {
        if (previous.isNull())
            qunsetenv("TMPDIR");
        else
            qputenv("TMPDIR", previous);
    });
    if (QDir::tempPath() != rows)
        QSKIP("QDir::tempPath() does not follow TMPDIR here");

    KrXlsxWriter writer(dir.filePath(QStringLiteral("out.xlsx")));
    QVERIFY(writer.addSheet(QStringLiteral("Orders")));
    QVERIFY(writer.writeCell(1, 1, 1));
    QStringList openInRows; // removed from the directory as soon as made, but open
    for (const QFileInfo &file :
         openFiles.entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)) {
        if (file.symLinkTarget().startsWith(rows + QLatin1Char('/')))
            openInRows.append(file.symLinkTarget());
    }
    QVERIFY2(!openInRows.isEmpty(), "no file of the writer's is open in TMPDIR");
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
}

void tst_KrXlsxWriter::diskFull_data()
{
    QTest::addColumn<int>("sheets");
    QTest::addColumn<int>("rows");
    QTest::addColumn<QString>("fragment");

    // One sheet of rows larger than the limit: the temporary file that holds them fills up.
    // libxlsxwriter goes on regardless and closes a workbook with the sheet cut short.
    QTest::newRow("rows of a sheet") << 1 << 2000 << "sheet \"Sheet 1\" could not be stored";
    // Many sheets each well within the limit, that together make a larger workbook file:
    // libxlsxwriter reports it, and leaves the file half written.
    QTest::newRow("workbook file") << 12 << 20 << "cannot write";
}

// A limit on the size of every file the process writes stands in for a full disk.
void tst_KrXlsxWriter::diskFull()
{
#ifdef Q_OS_UNIX
    QFETCH(int, sheets);
    QFETCH(int, rows);
    QFETCH(QString, fragment);

    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("orders.xlsx"));
    rlimit previous;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &previous), 0);
    rlimit limited = previous;
    limited.rlim_cur = 64 * 1024;
    const auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);
    const auto restore = qScopeGuard([&] {
        setrlimit(RLIMIT_FSIZE, &previous);
        std::signal(SIGXFSZ, previousHandler);
    });

    // Random letters, which compress poorly.
    QRandomGenerator random(7);
    QString text(400, Qt::Uninitialized);
    KrXlsxWriter writer(fileName);
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
    QVERIFY(!writer.save());
    QVERIFY2(writer.errorString().contains(fragment, Qt::CaseInsensitive),
             qPrintable(writer.errorString()));
    QCOMPARE(entriesOf(dir.path()), QStringList());
#else
    QSKIP("Needs a limit on file sizes (RLIMIT_FSIZE)");
#endif
}

// An existing file is replaced by the new workbook and keeps its permissions.
void tst_KrXlsxWriter::replacesExistingFile()
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("out.xlsx"));
    QFile old(fileName);
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write("not a workbook");
    old.close();
    const QFileDevice::Permissions permissions
            = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup;
    QVERIFY(old.setPermissions(permissions));

    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("New")));
    QVERIFY(writer.writeCell(1, 1, "fresh"));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));

    const QJsonArray sheets = describeSheets(fileName);
    QCOMPARE(sheets.size(), 1);
    QCOMPARE(sheets.at(0).toObject().value(QLatin1String("name")).toString(), "New");
    // The owner, group and other bits; the "user" bits depend on who runs the test.
    const int mask = 0xf0ff;
    QCOMPARE(int(QFileInfo(fileName).permissions()) & mask, int(permissions) & mask);
    QCOMPARE(entriesOf(dir.path()), QStringList {QStringLiteral("out.xlsx")});
}

void tst_KrXlsxWriter::failureKeepsExistingFile()
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("out.xlsx"));
    QFile old(fileName);
    QVERIFY(old.open(QIODevice::WriteOnly));
    old.write("the old contents");
    old.close();

    {
        KrXlsxWriter writer(fileName);
        QVERIFY(writer.addSheet(QStringLiteral("New")));
        QVERIFY(writer.writeCell(1, 1, "fresh"));
        QVERIFY(!writer.writeCell(2, 1, QString(40000, QLatin1Char('x'))));
        verifyFailure(writer, QStringLiteral("40000 characters"), dir.path(),
                      {QStringLiteral("out.xlsx")});
    }
    QVERIFY(old.open(QIODevice::ReadOnly));
    QCOMPARE(old.readAll(), QByteArray("the old contents"));
}

// A new workbook gets the permissions any new file gets (the umask's), not a temporary file's.
void tst_KrXlsxWriter::newFileHasUsualPermissions()
{
    QTemporaryDir dir;
    QFile reference(dir.filePath(QStringLiteral("reference")));
    QVERIFY(reference.open(QIODevice::WriteOnly));
    reference.close();

    const QString fileName = dir.filePath(QStringLiteral("out.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Orders")));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
    QCOMPARE(QFileInfo(fileName).permissions(), reference.permissions());
}

// Saving through a symbolic link replaces the file it points at and keeps the link.
void tst_KrXlsxWriter::followsSymbolicLink()
{
    QTemporaryDir dir;
    const QString real = dir.filePath(QStringLiteral("real.xlsx"));
    const QString link = dir.filePath(QStringLiteral("link.xlsx"));
    QFile file(real);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.close();
    if (!QFile::link(real, link))
        QSKIP("No symbolic links here");

    KrXlsxWriter writer(link);
    QVERIFY(writer.addSheet(QStringLiteral("Linked")));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
    QVERIFY(QFileInfo(link).isSymLink());
    QCOMPARE(describeSheets(real).at(0).toObject().value(QLatin1String("name")).toString(),
             "Linked");
}

void tst_KrXlsxWriter::callsAfterSave()
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("out.xlsx"));
    KrXlsxWriter writer(fileName);
    QVERIFY(writer.addSheet(QStringLiteral("Orders")));
    QVERIFY(writer.writeCell(1, 1, "saved"));
    QVERIFY2(writer.save(), qPrintable(writer.errorString()));
    QVERIFY(!writer.writeCell(2, 1, "late"));
    QVERIFY2(writer.errorString().contains(QLatin1String("saved already")),
             qPrintable(writer.errorString()));
    QVERIFY(!writer.addSheet(QStringLiteral("Late")));
    QVERIFY(!writer.save());

    QCOMPARE(entriesOf(dir.path()), QStringList {QStringLiteral("out.xlsx")});
    const Cells cells = cellsOf(describeSheets(fileName).at(0).toObject());
    QCOMPARE(cells.size(), 1);
    QCOMPARE(cells.value({1, 1}).value(QLatin1String("value")).toString(), "saved");
}

void tst_KrXlsxWriter::unsavedWriterLeavesNothing()
{
    QTemporaryDir dir;
    {
        KrXlsxWriter writer(dir.filePath(QStringLiteral("out.xlsx")));
        QVERIFY(writer.addSheet(QStringLiteral("Orders")));
        for (int row = 1; row <= 1000; ++row)
            QVERIFY(writer.writeCell(row, 1, QStringLiteral("row %1").arg(row)));
    }
    QCOMPARE(entriesOf(dir.path()), QStringList());
}

void tst_KrXlsxWriter::filesAreClosed_data()
{
    QTest::addColumn<QStringList>("sheets"); // "name" or "name:text in A1"
    QTest::addColumn<bool>("fail");
    QTest::addColumn<bool>("save");

    const QStringList mixed {QStringLiteral("Filled:x"), QStringLiteral("Empty"),
                             QStringLiteral("Blank:")};
    QTest::newRow("saved") << QStringList {QStringLiteral("Filled:x")} << false << true;
    QTest::newRow("saved, sheets without cells") << mixed << false << true;
    QTest::newRow("saved without sheets") << QStringList() << false << true;
    QTest::newRow("not saved") << mixed << false << false;
    QTest::newRow("failed") << mixed << true << true;
}

// Whatever becomes of a writer, the files libxlsxwriter keeps open for it get closed: a client
// exports many workbooks in one long run.
void tst_KrXlsxWriter::filesAreClosed()
{
    QFETCH(QStringList, sheets);
    QFETCH(bool, fail);
    QFETCH(bool, save);

    const QDir openFiles(QStringLiteral("/proc/self/fd"));
    if (!openFiles.exists())
        QSKIP("Needs /proc/self/fd to count open files");
    const auto openFileCount = [&] {
        return openFiles.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot).size();
    };

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
}

QTEST_GUILESS_MAIN(tst_KrXlsxWriter)
#include "tst_krxlsxwriter.moc"
