#include "workbook/KrByteSource_p.h"
#include "workbook/KrXlsxReader_p.h"
#include "workbook/KrXmlPullReader_p.h"

#include <QBuffer>
#include <QDate>
#include <QDateTime>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QTime>
#include <QTimeZone>
#include <QtTest>

#include <minizip/zip.h>
#include <zlib.h>

// The workbook reader against files made by other programs (openpyxl, LibreOffice; see
// data/xlsx/make_fixtures.sh), against hand-made parts that exercise one feature each, and
// against damaged and hostile input; and its XML pull parser on plain strings. The test runs in
// several time zones (see CMakeLists.txt): dates and times must come back as the wall-clock values
// the files hold in every one.

namespace {

using Cells = QVector<KrXlsxCell>;
using Parts = QMap<QByteArray, QByteArray>; // part name -> content

QString fixture(const char *name)
{
    return QStringLiteral(KRUTILS_TEST_DATA "/xlsx/") + QLatin1String(name);
}

// One line per cell with its exact type and value, so a failure shows what differs.
QString describe(const KrXlsxCell &cell)
{
    const QVariant &value = cell.value;
    QString text;
    switch (value.userType()) {
    case QMetaType::Double:
        text = QString::number(value.toDouble(), 'g', 17);
        break;
    case QMetaType::QDateTime: {
        const QDateTime dateTime = value.toDateTime();
        text = dateTime.date().toString(Qt::ISODate) + QLatin1Char(' ')
                + dateTime.time().toString(QStringLiteral("HH:mm:ss.zzz"))
                + (dateTime.timeSpec() == Qt::UTC ? QStringLiteral(" (Qt::UTC)")
                                                  : QStringLiteral(" (not Qt::UTC)"));
        break;
    }
    case QMetaType::QTime:
        text = value.toTime().toString(QStringLiteral("HH:mm:ss.zzz"));
        break;
    default:
        text = value.toString();
        break;
    }
    return QStringLiteral("(%1, %2) %3 %4")
            .arg(cell.row)
            .arg(cell.column)
            .arg(QLatin1String(value.typeName()), text);
}

QStringList describe(const Cells &cells)
{
    QStringList lines;
    for (const KrXlsxCell &cell : cells)
        lines.append(describe(cell));
    return lines;
}

bool readCells(KrXlsxReader &reader, int sheet, Cells *cells)
{
    return reader.readSheet(sheet, [&](KrXlsxCell &&cell) {
        cells->append(std::move(cell));
        return true;
    });
}

QDateTime wallClock(int year, int month, int day, int hour, int minute, int second = 0, int ms = 0)
{
    return QDateTime(QDate(year, month, day), QTime(hour, minute, second, ms), Qt::UTC);
}

// ---- Building workbooks ----------------------------------------------------------------------

enum class Entry {
    Deflated,
    Stored,
    Encrypted,
    // The zip directory states another size than the data has:
    DeclaringHalfSize, // half the real size
    DeclaringMoreSize, // 100 bytes more than the real size
    DeclaringOverOtherLimit, // one byte more than a workbook or styles part may have
    DeclaringOverSharedStringsLimit,
    DeclaringOverSheetLimit,
};

quint64 declaredSize(Entry mode, const QByteArray &data)
{
    switch (mode) {
    case Entry::DeclaringHalfSize:
        return quint64(data.size()) / 2;
    case Entry::DeclaringMoreSize:
        return quint64(data.size()) + 100;
    case Entry::DeclaringOverOtherLimit:
        return KrXlsxReader::MaxOtherPartSize + 1;
    case Entry::DeclaringOverSharedStringsLimit:
        return KrXlsxReader::MaxSharedStringsPartSize + 1;
    case Entry::DeclaringOverSheetLimit:
        return KrXlsxReader::MaxSheetPartSize + 1;
    default:
        return quint64(data.size());
    }
}

QByteArray rawDeflate(const QByteArray &data)
{
    z_stream stream = {};
    deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    QByteArray out(int(deflateBound(&stream, uLong(data.size()))), Qt::Uninitialized);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(data.constData()));
    stream.avail_in = uInt(data.size());
    stream.next_out = reinterpret_cast<Bytef *>(out.data());
    stream.avail_out = uInt(out.size());
    deflate(&stream, Z_FINISH);
    out.resize(int(stream.total_out));
    deflateEnd(&stream);
    return out;
}

// Writes a zip with minizip's own writer; `modes` says how particular entries are written.
bool writeZip(const QString &path, const Parts &parts, const QMap<QByteArray, Entry> &modes = {})
{
    zipFile zip = zipOpen64(QFile::encodeName(path).constData(), APPEND_STATUS_CREATE);
    if (!zip)
        return false;
    bool ok = true;
    for (auto part = parts.cbegin(); part != parts.cend(); ++part) {
        const Entry mode = modes.value(part.key(), Entry::Deflated);
        const QByteArray &data = part.value();
        const uLong crc
                = crc32(0, reinterpret_cast<const Bytef *>(data.constData()), uInt(data.size()));
        zip_fileinfo info = {};
        const quint64 declared = declaredSize(mode, data);
        const bool raw = declared != quint64(data.size()); // written as is, closed with `declared`
        ok = ok
                && zipOpenNewFileInZip3_64(zip, part.key().constData(), &info, nullptr, 0, nullptr,
                                           0, nullptr, mode == Entry::Stored ? 0 : Z_DEFLATED,
                                           Z_DEFAULT_COMPRESSION, raw, -MAX_WBITS, 8,
                                           Z_DEFAULT_STRATEGY,
                                           mode == Entry::Encrypted ? "secret" : nullptr, crc, 0)
                        == ZIP_OK;
        const QByteArray payload = raw ? rawDeflate(data) : data;
        ok = ok
                && zipWriteInFileInZip(zip, payload.constData(), unsigned(payload.size()))
                        == ZIP_OK;
        if (raw)
            ok = ok && zipCloseFileInZipRaw64(zip, declared, crc) == ZIP_OK;
        else
            ok = ok && zipCloseFileInZip(zip) == ZIP_OK;
    }
    return zipClose(zip, nullptr) == ZIP_OK && ok;
}

const char mainNs[] = "http://schemas.openxmlformats.org/spreadsheetml/2006/main";

QByteArray worksheet(const QByteArray &sheetData)
{
    return QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<worksheet xmlns=\"") + mainNs
            + "\"><sheetData>" + sheetData + "</sheetData></worksheet>";
}

QByteArray sharedStrings(const QByteArray &items)
{
    return QByteArray("<sst xmlns=\"") + mainNs + "\">" + items + "</sst>";
}

// cellXfs with these number formats (index i has numFmtId ids[i]) and custom format codes.
QByteArray styles(const QVector<int> &ids, const QMap<int, QByteArray> &codes = {})
{
    QByteArray xml = QByteArray("<styleSheet xmlns=\"") + mainNs + "\"><numFmts>";
    for (auto code = codes.cbegin(); code != codes.cend(); ++code)
        xml += "<numFmt numFmtId=\"" + QByteArray::number(code.key()) + "\" formatCode=\""
                + code.value() + "\"/>";
    xml += "</numFmts><cellStyleXfs><xf numFmtId=\"14\"/></cellStyleXfs><cellXfs>";
    for (int id : ids)
        xml += "<xf numFmtId=\"" + QByteArray::number(id) + "\" xfId=\"0\"/>";
    return xml + "</cellXfs></styleSheet>";
}

// A minimal workbook as Excel lays it out: sheets "Sheet1".."SheetN" at xl/worksheets/sheetN.xml,
// with shared strings and styles when given.
Parts workbook(const QVector<QByteArray> &sheets, const QByteArray &strings = QByteArray(),
               const QByteArray &styleSheet = QByteArray())
{
    const QByteArray rel = "http://schemas.openxmlformats.org/officeDocument/2006/relationships";
    Parts parts;
    parts["_rels/.rels"] = "<Relationships "
                           "xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
                           "<Relationship Id=\"rId1\" Type=\""
            + rel
            + "/officeDocument\" Target=\"xl/workbook.xml\"/>"
              "</Relationships>";
    QByteArray sheetList;
    QByteArray rels;
    for (int i = 1; i <= sheets.size(); ++i) {
        const QByteArray n = QByteArray::number(i);
        sheetList += "<sheet name=\"Sheet" + n + "\" sheetId=\"" + n + "\" r:id=\"rId" + n + "\"/>";
        rels += "<Relationship Id=\"rId" + n + "\" Type=\"" + rel
                + "/worksheet\" Target=\"worksheets/sheet" + n + ".xml\"/>";
        parts["xl/worksheets/sheet" + n + ".xml"] = sheets.at(i - 1);
    }
    if (!strings.isNull()) {
        rels += "<Relationship Id=\"rIdS\" Type=\"" + rel
                + "/sharedStrings\" Target=\"sharedStrings.xml\"/>";
        parts["xl/sharedStrings.xml"] = strings;
    }
    if (!styleSheet.isNull()) {
        rels += "<Relationship Id=\"rIdT\" Type=\"" + rel + "/styles\" Target=\"styles.xml\"/>";
        parts["xl/styles.xml"] = styleSheet;
    }
    parts["xl/workbook.xml"] = QByteArray("<workbook xmlns=\"") + mainNs + "\" xmlns:r=\"" + rel
            + "\"><workbookPr/><sheets>" + sheetList + "</sheets></workbook>";
    parts["xl/_rels/workbook.xml.rels"]
            = "<Relationships "
              "xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
            + rels + "</Relationships>";
    parts["[Content_Types].xml"]
            = "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>";
    return parts;
}

Parts oneSheet(const QByteArray &sheetData)
{
    return workbook({worksheet(sheetData)});
}

// The same workbook in the strict flavour, every namespace and relationship type replaced.
Parts strict(Parts parts)
{
    for (QByteArray &content : parts) {
        content.replace(mainNs, "http://purl.oclc.org/ooxml/spreadsheetml/main");
        content.replace("http://schemas.openxmlformats.org/officeDocument/2006/relationships",
                        "http://purl.oclc.org/ooxml/officeDocument/relationships");
    }
    return parts;
}

// With a byte-order mark, as Qt's UTF-16 codecs write it.
QByteArray utf16(const char *utf8, const char *codec = "UTF-16LE")
{
    return QTextCodec::codecForName(codec)->fromUnicode(QString::fromUtf8(utf8));
}

// Serves a string at most `chunk` bytes a read, so that tokens straddle reads.
struct StringSource : KrByteSource
{
    StringSource(const QByteArray &bytes, int size) : data(bytes), chunk(size) { }
    qint64 read(char *out, qint64 maxSize) override
    {
        const qint64 size = std::min({maxSize, qint64(chunk), qint64(data.size() - pos)});
        std::copy_n(data.constData() + pos, size, out);
        pos += int(size);
        return size;
    }
    QString errorString() const override { return QString(); }
    QByteArray data;
    int chunk;
    int pos = 0;
};

// What the parser makes of `xml` read `chunk` bytes at a time, written out again (names in a
// namespace as "{sheet}c"); at a fault "!" and the error from its byte offset on.
QString parsed(const QByteArray &xml, int chunk)
{
    StringSource source(xml, chunk);
    KrXmlPullReader reader(source, {128, 4, 3});
    const auto text = [](KrXmlPullReader::Namespace ns, std::string_view name) {
        const char *const namespaces[] = {"", "{other}", "{xml}", "{xmlns}", "{sheet}"};
        return namespaces[int(ns)] + QString::fromUtf8(name.data(), int(name.size()));
    };
    QString out;
    for (int token; (token = reader.readNext()) < KrXmlPullReader::EndDocument;) {
        if (token == KrXmlPullReader::Characters) {
            out += text({}, reader.text());
            continue;
        }
        out += (token == KrXmlPullReader::StartElement ? "<" : "</")
                + text(reader.elementNamespace(), reader.name());
        for (const KrXmlPullReader::Attribute &attribute : reader.attributes())
            out += ' ' + text(attribute.ns, attribute.name) + '=' + text({}, attribute.value);
        out += '>';
    }
    return reader.hasError() ? out + '!' + reader.errorString().remove("malformed XML at byte ")
                             : out;
}

} // namespace

Q_DECLARE_METATYPE(KrXlsxCell)
Q_DECLARE_METATYPE(Parts)

class tst_KrXlsxReader : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();

    void producedByOtherPrograms_data();
    void producedByOtherPrograms();
    void sheetNames_data();
    void sheetNames();
    void wallClockInThisTimeZone();

    void handMadeParts_data();
    void handMadeParts();
    void dateSerials_data();
    void dateSerials();
    void dateFormats_data();
    void dateFormats();
    void xmlSyntax_data();
    void xmlSyntax();

    void badWorkbook_data();
    void badWorkbook();
    void badSheet_data();
    void badSheet();
    void badFileBytes_data();
    void badFileBytes();
    void brokenSheetLeavesOthersReadable();

    void stopsWhenAsked();
    void readsFromDevice();
    void reopens();

private:
    QString write(const Parts &parts, const QMap<QByteArray, Entry> &modes = {});

    QTemporaryDir m_dir;
    int m_files = 0;
};

QString tst_KrXlsxReader::write(const Parts &parts, const QMap<QByteArray, Entry> &modes)
{
    const QString path = m_dir.filePath(QStringLiteral("book%1.xlsx").arg(++m_files));
    if (!writeZip(path, parts, modes))
        qFatal("cannot write %s", qPrintable(path));
    return path;
}

void tst_KrXlsxReader::initTestCase()
{
    QVERIFY(m_dir.isValid());
    qInfo("time zone: %s", QTimeZone::systemTimeZoneId().constData());
}

// ---- Files made by other programs ------------------------------------------------------------

void tst_KrXlsxReader::producedByOtherPrograms_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("sheet");
    QTest::addColumn<Cells>("expected");

    const auto text = [](const char *utf8) { return QVariant(QString::fromUtf8(utf8)); };

    // make_openpyxl_fixtures.py: openpyxl writes inline strings and absolute relationship targets.
    QTest::newRow("openpyxl: texts, numbers, booleans, a formula without cached value, gaps")
            << fixture("openpyxl.xlsx") << 0
            << Cells {{1, 1, text("text")},
                      {1, 2, text("integer")},
                      {1, 3, text("double")},
                      {1, 4, text("bool")},
                      {1, 5, text("formula")},
                      {2, 1, text("apple")},
                      {2, 2, 3.0},
                      {2, 3, 1.25},
                      {2, 4, true},
                      {3, 1, text("Grüße, 中文 😀")},
                      {3, 2, -7.0},
                      {3, 3, 0.001},
                      {3, 4, false},
                      {5, 1, text("  padded  ")},
                      {5, 3, 1e300},
                      {5, 5, -0.5},
                      {6, 1, text("line1\nline2")},
                      {6, 2, 123456789012345.0},
                      {6, 3, 6.02214076e23}};
    QTest::newRow("openpyxl: dates, times and number formats")
            << fixture("openpyxl.xlsx") << 1
            << Cells {{1, 1, text("kind")},
                      {1, 2, text("value")},
                      {2, 1, text("date")},
                      {2, 2, QDate(2024, 3, 10)},
                      {3, 1, text("datetime in New York's DST gap")},
                      {3, 2, wallClock(2024, 3, 10, 2, 30)},
                      {4, 1, text("datetime in Shanghai's 1988 DST gap")},
                      {4, 2, wallClock(1988, 4, 17, 2, 30)},
                      {5, 1, text("time")},
                      {5, 2, QTime(14, 30, 15)},
                      {6, 1, text("milliseconds")},
                      {6, 2, wallClock(2021, 12, 31, 23, 59, 59, 999)},
                      {7, 1, text("1900-01-01")},
                      {7, 2, QDate(1900, 1, 1)},
                      {8, 1, text("1900-02-28")},
                      {8, 2, QDate(1900, 2, 28)},
                      {9, 1, text("1900-03-01")},
                      {9, 2, QDate(1900, 3, 1)},
                      {10, 1, text("9999-12-31")},
                      {10, 2, QDate(9999, 12, 31)},
                      {11, 1, text("custom date format")},
                      {11, 2, QDate(2023, 3, 15)}, // serial 45000
                      {12, 1, text("elapsed hours")},
                      {12, 2, 0.75},
                      {13, 1, text("colour, not a date")},
                      {13, 2, 45000.0},
                      {14, 1, text("quoted text, not a date")},
                      {14, 2, 45000.0},
                      {15, 1, text("escaped letter, not a date")},
                      {15, 2, 45000.0},
                      {16, 1, text("am/pm")},
                      {16, 2, QTime(6, 0)},
                      {17, 1, text("percent")},
                      {17, 2, 0.5},
                      {18, 1, text("datetime at midnight")},
                      {18, 2, wallClock(2024, 3, 10, 0, 0)}};
    QTest::newRow("openpyxl: sparse cells up to XFD1048576")
            << fixture("openpyxl.xlsx") << 2
            << Cells {{1, 1, text("first")},
                      {3, 3, 3.0},
                      {1000, 50, text("middle")},
                      {1048576, 16384, text("last corner")}};
    QTest::newRow("openpyxl: empty sheet") << fixture("openpyxl.xlsx") << 3 << Cells {};
    QTest::newRow("openpyxl: 1904 date system") << fixture("openpyxl_1904.xlsx") << 0
                                                << Cells {{1, 1, QDate(2024, 3, 10)},
                                                          {2, 1, QDate(1904, 1, 2)},
                                                          {3, 1, wallClock(2000, 1, 1, 12, 0)},
                                                          {4, 1, QTime(6, 0)},
                                                          {5, 1, 1.5}};
    QTest::newRow("openpyxl: ISO 8601 dates in cells")
            << fixture("openpyxl_isodates.xlsx") << 0
            << Cells {{1, 1, QDate(2024, 3, 10)},
                      {2, 1, wallClock(2024, 3, 10, 2, 30, 15)},
                      {3, 1, QTime(14, 30)}};

    // libreoffice.fods, converted by LibreOffice: shared strings with rich text, cached formula
    // results of every type, styles with escaped date formats.
    QTest::newRow("LibreOffice: values, rich text, formula results, sparse rows")
            << fixture("libreoffice.xlsx") << 0
            << Cells {{1, 1, text("plain text")},
                      {1, 2, 42.0},
                      {1, 3, -3.75},
                      {1, 4, true},
                      {1, 5, text("Ünïcödé ✓ 日本語")},
                      {2, 1, text("bold and plain")},
                      {2, 2, 84.0},
                      {2, 3, text("#DIV/0!")},
                      {2, 4, text("xy")},
                      {2, 5, false},
                      {4, 2, text("sparse")},
                      {10, 3, text("row ten")}};
    QTest::newRow("LibreOffice: dates, times, percent")
            << fixture("libreoffice.xlsx") << 1
            << Cells {{1, 1, QDate(2024, 3, 10)},
                      {2, 1, wallClock(2024, 3, 10, 2, 30)},
                      {3, 1, QTime(14, 30, 15)},
                      {4, 1, wallClock(1988, 4, 17, 2, 30)},
                      {5, 1, 0.25}};
    QTest::newRow("LibreOffice: blank sheet") << fixture("libreoffice.xlsx") << 2 << Cells {};
}

void tst_KrXlsxReader::producedByOtherPrograms()
{
    QFETCH(QString, file);
    QFETCH(int, sheet);
    QFETCH(Cells, expected);

    KrXlsxReader reader;
    QVERIFY2(reader.open(file), qPrintable(reader.errorString()));
    Cells cells;
    QVERIFY2(readCells(reader, sheet, &cells), qPrintable(reader.errorString()));
    QCOMPARE(describe(cells), describe(expected));
}

void tst_KrXlsxReader::sheetNames_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("openpyxl, the chart sheet left out")
            << fixture("openpyxl.xlsx")
            << QStringList {QStringLiteral("Types"), QStringLiteral("Dates"),
                            QString::fromUtf8("数据 Sparse"), QStringLiteral("Empty")};
    QTest::newRow("LibreOffice") << fixture("libreoffice.xlsx")
                                 << QStringList {QStringLiteral("Values"),
                                                 QString::fromUtf8("Dates ✓"),
                                                 QStringLiteral("Blank")};
}

void tst_KrXlsxReader::sheetNames()
{
    QFETCH(QString, file);
    QFETCH(QStringList, expected);

    KrXlsxReader reader;
    QVERIFY2(reader.open(file), qPrintable(reader.errorString()));
    QCOMPARE(reader.sheetNames(), expected);
}

// The fixtures hold times that do not exist in New York (2024-03-10 02:30) and in Shanghai
// (1988-04-17 02:30); CTest runs this test in both zones. Make sure the zone is what the run
// claims (Qt 5.15 makes such a local time invalid), so that a reader converting through local
// time would be caught.
void tst_KrXlsxReader::wallClockInThisTimeZone()
{
    const QByteArray zone = qgetenv("TZ");
    if (zone == "America/New_York")
        QVERIFY(!QDateTime(QDate(2024, 3, 10), QTime(2, 30), Qt::LocalTime).isValid());
    else if (zone == "Asia/Shanghai")
        QVERIFY(!QDateTime(QDate(1988, 4, 17), QTime(2, 30), Qt::LocalTime).isValid());
    else
        QSKIP("not one of the zones the test is registered for");

    KrXlsxReader reader;
    QVERIFY2(reader.open(fixture("openpyxl.xlsx")), qPrintable(reader.errorString()));
    Cells cells;
    QVERIFY(readCells(reader, 1, &cells));
    QVector<QDateTime> gaps;
    for (const KrXlsxCell &cell : qAsConst(cells)) {
        if (cell.column == 2 && (cell.row == 3 || cell.row == 4))
            gaps.append(cell.value.toDateTime());
    }
    QCOMPARE(gaps.size(), 2);
    for (const QDateTime &gap : qAsConst(gaps)) {
        QVERIFY(gap.isValid());
        QCOMPARE(gap.time(), QTime(2, 30));
        QCOMPARE(gap.toString(QStringLiteral("HH:mm")), QStringLiteral("02:30"));
    }
}

// ---- Hand-made parts ---------------------------------------------------------------------------

void tst_KrXlsxReader::handMadeParts_data()
{
    QTest::addColumn<Parts>("parts");
    QTest::addColumn<Cells>("expected");

    const auto text = [](const char *utf8) { return QVariant(QString::fromUtf8(utf8)); };

    QTest::newRow("elements of other namespaces are not cells") << workbook(
            {QByteArray("<worksheet xmlns=\"") + mainNs
             + "\" xmlns:o=\"urn:other\"><sheetData><row r=\"1\"><o:c r=\"A1\"><v>1</v></o:c>"
               "<c r=\"B1\"><o:v>2</o:v><v>3</v></c></row></sheetData></worksheet>"})
                                                                << Cells {{1, 2, 3.0}};
    QTest::newRow("strict namespaces")
            << strict(workbook({worksheet("<row r=\"2\"><c r=\"B2\"><v>7</v></c>"
                                          "<c r=\"C2\" t=\"s\"><v>0</v></c></row>")},
                               sharedStrings("<si><t>strict</t></si>")))
            << Cells {{2, 2, 7.0}, {2, 3, text("strict")}};
    QTest::newRow("cells and rows without references")
            << oneSheet("<row><c><v>1</v></c><c><v>2</v></c></row>"
                        "<row r=\"5\"><c r=\"C5\"><v>3</v></c><c><v>4</v></c></row>"
                        "<row><c><v>5</v></c><c r=\"E6\"><v>6</v></c><c><v>7</v></c></row>")
            << Cells {{1, 1, 1.0}, {1, 2, 2.0}, {5, 3, 3.0}, {5, 4, 4.0},
                      {6, 1, 5.0}, {6, 5, 6.0}, {6, 6, 7.0}};
    QTest::newRow("inline strings, plain and in runs") << oneSheet(
            "<row r=\"1\"><c r=\"A1\" t=\"inlineStr\"><is><t>plain</t></is></c>"
            "<c r=\"B1\" "
            "t=\"inlineStr\"><is><r><rPr><b/></rPr><t>bo</t></r><r><t>ld</t></r></is></c>"
            "<c r=\"C1\" t=\"inlineStr\"><is><t/></is></c></row>")
                                                       << Cells {{1, 1, text("plain")},
                                                                 {1, 2, text("bold")},
                                                                 {1, 3, text("")}};
    QTest::newRow("shared strings: rich text joined, phonetic runs skipped")
            << workbook({worksheet("<row r=\"1\"><c r=\"A1\" t=\"s\"><v>0</v></c><c r=\"B1\" "
                                   "t=\"s\"><v>1</v></c>"
                                   "<c r=\"C1\" t=\"s\"><v>2</v></c><c r=\"D1\" "
                                   "t=\"s\"><v>0</v></c></row>")},
                        sharedStrings("<si><r><t>東</t></r><r><rPr><i/></rPr><t>京</t></r>"
                                      "<rPh sb=\"0\" eb=\"2\"><t>トウキョウ</t></rPh><phoneticPr "
                                      "fontId=\"1\"/></si>"
                                      "<si><t>plain</t><rPh sb=\"0\" eb=\"1\"><t>ぷ</t></rPh></si>"
                                      "<si><t xml:space=\"preserve\"> a &amp; b </t></si>"))
            << Cells {{1, 1, text("東京")},
                      {1, 2, text("plain")},
                      {1, 3, text(" a & b ")},
                      {1, 4, text("東京")}};
    QTest::newRow("escaped characters in texts") << workbook(
            {worksheet(
                    "<row r=\"1\"><c r=\"A1\" t=\"s\"><v>0</v></c><c r=\"B1\" t=\"s\"><v>1</v></c>"
                    "<c r=\"C1\" t=\"str\"><v>tab_x0009_</v></c></row>")},
            sharedStrings("<si><t>a_x000D_b</t></si><si><t>_x005F_x0041_ _x41_</t></si>"))
                                                 << Cells {{1, 1, text("a\rb")},
                                                           {1, 2, text("_x0041_ _x41_")},
                                                           {1, 3, text("tab\t")}};
    QTest::newRow("formulas: cached values, none, empty text result, errors")
            << oneSheet("<row r=\"1\"><c r=\"A1\"><f>1+1</f><v>2</v></c><c r=\"B1\"><f>A1*2</f></c>"
                        "<c r=\"C1\" t=\"str\"><f>\"\"</f><v></v></c><c r=\"D1\" "
                        "t=\"e\"><f>1/0</f><v>#DIV/0!</v></c>"
                        "<c r=\"E1\" t=\"b\"><f>TRUE()</f><v>1</v></c><c r=\"F1\" "
                        "t=\"str\"><f>A1</f></c></row>")
            << Cells {{1, 1, 2.0}, {1, 3, text("")}, {1, 4, text("#DIV/0!")}, {1, 5, true}};
    QTest::newRow("cells without a value are not delivered")
            << oneSheet("<row r=\"1\" spans=\"1:4\"><c r=\"A1\" s=\"0\"/><c r=\"B1\"><v></v></c>"
                        "<c r=\"C1\" t=\"s\"/><c r=\"D1\" t=\"n\"><v>4</v></c></row><row r=\"2\"/>")
            << Cells {{1, 4, 4.0}};
    QTest::newRow("numbers stay doubles")
            << oneSheet("<row r=\"1\"><c r=\"A1\"><v>42</v></c><c r=\"B1\"><v>-0</v></c>"
                        "<c r=\"C1\"><v>1.5E-3</v></c><c r=\"D1\"><v>9007199254740993</v></c>"
                        "<c r=\"E1\"><v>+7</v></c><c r=\"F1\"><v> 8 </v></c></row>")
            << Cells {{1, 1, 42.0}, {1, 2, -0.0}, {1, 3, 0.0015}, {1, 4, 9007199254740992.0},
                      {1, 5, 7.0},  {1, 6, 8.0}};
    QTest::newRow("booleans") << oneSheet(
            "<row r=\"1\"><c r=\"A1\" t=\"b\"><v>1</v></c><c r=\"B1\" t=\"b\"><v>0</v></c>"
            "<c r=\"C1\" t=\"b\"><v>true</v></c><c r=\"D1\" t=\"b\"><v>false</v></c></row>")
                              << Cells {{1, 1, true}, {1, 2, false}, {1, 3, true}, {1, 4, false}};
    QTest::newRow("ISO 8601 dates in cells")
            << oneSheet("<row r=\"1\"><c r=\"A1\" t=\"d\"><v>2024-03-10</v></c>"
                        "<c r=\"B1\" t=\"d\"><v>2024-03-10T02:30:00</v></c>"
                        "<c r=\"C1\" t=\"d\"><v>2024-03-10T02:30:00.1234Z</v></c>"
                        "<c r=\"D1\" t=\"d\"><v>1988-04-17T02:30:00+08:00</v></c>"
                        "<c r=\"E1\" t=\"d\"><v>23:59:59.9996</v></c>"
                        "<c r=\"F1\" t=\"d\"><v>2023-12-31T23:59:59.9996</v></c></row>")
            << Cells {{1, 1, QDate(2024, 3, 10)},
                      {1, 2, wallClock(2024, 3, 10, 2, 30)},
                      {1, 3, wallClock(2024, 3, 10, 2, 30, 0, 123)},
                      {1, 4, wallClock(1988, 4, 17, 2, 30)},
                      {1, 5, QTime(23, 59, 59, 999)},
                      {1, 6, wallClock(2024, 1, 1, 0, 0)}};
    QTest::newRow("ISO 8601 dates follow the cell's format")
            << workbook({worksheet("<row r=\"1\"><c r=\"A1\" t=\"d\" s=\"1\"><v>2024-03-10</v></c>"
                                   "<c r=\"B1\" t=\"d\" s=\"2\"><v>2024-03-10T02:30:00</v></c>"
                                   "<c r=\"C1\" t=\"d\" s=\"3\"><v>2024-03-10T02:30:00</v></c>"
                                   "<c r=\"D1\" t=\"d\" s=\"1\"><v>14:30</v></c></row>")},
                        QByteArray(), styles({0, 22, 14, 21}))
            << Cells {{1, 1, wallClock(2024, 3, 10, 0, 0)},
                      {1, 2, QDate(2024, 3, 10)},
                      {1, 3, QTime(2, 30)},
                      {1, 4, QTime(14, 30)}};
    QTest::newRow("1904 date system written as true")
            <<
            [] {
                Parts parts = workbook({worksheet("<row r=\"1\"><c r=\"A1\" s=\"1\"><v>0</v></c>"
                                                  "<c r=\"B1\" s=\"1\"><v>1</v></c>"
                                                  "<c r=\"C1\" s=\"1\"><v>43899.75</v></c></row>")},
                                       QByteArray(), styles({0, 22}));
                parts["xl/workbook.xml"].replace("<workbookPr/>",
                                                 "<workbookPr date1904=\"true\"/>");
                return parts;
            }()
            << Cells {{1, 1, wallClock(1904, 1, 1, 0, 0)},
                      {1, 2, wallClock(1904, 1, 2, 0, 0)},
                      {1, 3, wallClock(2024, 3, 10, 18, 0)}};
    QTest::newRow("wrong dimension is ignored") << workbook(
            {QByteArray("<worksheet xmlns=\"") + mainNs
             + "\"><dimension ref=\"A1:B2\"/><sheetData><row r=\"10\"><c r=\"D10\"><v>1</v></c>"
               "</row></sheetData></worksheet>"})
                                                << Cells {{10, 4, 1.0}};
    QTest::newRow("rows out of order and duplicate cells as the file has them") << oneSheet(
            "<row r=\"3\"><c r=\"A3\"><v>3</v></c></row><row r=\"1\"><c r=\"B1\"><v>1</v></c>"
            "<c r=\"B1\"><v>2</v></c><c r=\"A1\"><v>0</v></c></row>")
                                                                                << Cells {{3, 1,
                                                                                           3.0},
                                                                                          {1, 2,
                                                                                           1.0},
                                                                                          {1, 2,
                                                                                           2.0},
                                                                                          {1, 1,
                                                                                           0.0}};
    QTest::newRow("absolute relationship targets") << [] {
        Parts parts = oneSheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c></row>");
        parts["xl/_rels/workbook.xml.rels"].replace("Target=\"worksheets/",
                                                    "Target=\"/xl/worksheets/");
        parts["_rels/.rels"].replace("Target=\"xl/", "Target=\"/xl/");
        return parts;
    }() << Cells {{1, 1, 1.0}};
    QTest::newRow("workbook found through the package relationships") << [] {
        const Parts standard = oneSheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c></row>");
        Parts parts;
        parts["_rels/.rels"]
                = QByteArray(standard["_rels/.rels"]).replace("xl/workbook.xml", "book/main.xml");
        parts["book/main.xml"] = standard["xl/workbook.xml"];
        parts["book/_rels/main.xml.rels"] = QByteArray(standard["xl/_rels/workbook.xml.rels"])
                                                    .replace("worksheets/", "../sheets/./");
        parts["sheets/sheet1.xml"] = standard["xl/worksheets/sheet1.xml"];
        return parts;
    }() << Cells {{1, 1, 1.0}};
    QTest::newRow("no package relationships: xl/workbook.xml") << [] {
        Parts parts = oneSheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c></row>");
        parts.remove("_rels/.rels");
        return parts;
    }() << Cells {{1, 1, 1.0}};
    QTest::newRow("part names in another letter case") << [] {
        Parts parts = oneSheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c></row>");
        parts["XL/Worksheets/Sheet1.XML"] = parts.take("xl/worksheets/sheet1.xml");
        return parts;
    }() << Cells {{1, 1, 1.0}};
    QTest::newRow("out-of-range style index is no date")
            << workbook({worksheet("<row r=\"1\"><c r=\"A1\" s=\"1\"><v>45000</v></c><c r=\"B1\" "
                                   "s=\"9\"><v>45000</v></c>"
                                   "<c r=\"C1\" s=\"x\"><v>45000</v></c></row>")},
                        QByteArray(), styles({0, 14}))
            << Cells {{1, 1, QDate(2023, 3, 15)}, {1, 2, 45000.0}, {1, 3, 45000.0}};
}

void tst_KrXlsxReader::handMadeParts()
{
    QFETCH(Parts, parts);
    QFETCH(Cells, expected);

    KrXlsxReader reader;
    QVERIFY2(reader.open(write(parts)), qPrintable(reader.errorString()));
    QCOMPARE(reader.sheetNames(), QStringList {QStringLiteral("Sheet1")});
    Cells cells;
    QVERIFY2(readCells(reader, 0, &cells), qPrintable(reader.errorString()));
    QCOMPARE(describe(cells), describe(expected));
}

// Serial numbers in a cell with a built-in date format: 14 (m/d/yyyy), 21 (h:mm:ss), 22
// (m/d/yy h:mm) or 46 ([h]:mm:ss).
void tst_KrXlsxReader::dateSerials_data()
{
    QTest::addColumn<QByteArray>("serial");
    QTest::addColumn<bool>("date1904");
    QTest::addColumn<int>("numFmtId");
    QTest::addColumn<QVariant>("expected");

    QTest::newRow("1900: serial 1 is 1900-01-01")
            << QByteArray("1") << false << 14 << QVariant(QDate(1900, 1, 1));
    QTest::newRow("1900: 59 is 1900-02-28")
            << QByteArray("59") << false << 14 << QVariant(QDate(1900, 2, 28));
    QTest::newRow("1900: 59.5 is noon")
            << QByteArray("59.5") << false << 22 << QVariant(wallClock(1900, 2, 28, 12, 0));
    QTest::newRow("1900: 60 (fictitious 1900-02-29) stays a number")
            << QByteArray("60") << false << 14 << QVariant(60.0);
    QTest::newRow("1900: 60.25 stays a number")
            << QByteArray("60.25") << false << 22 << QVariant(60.25);
    QTest::newRow("1900: 61 is 1900-03-01")
            << QByteArray("61") << false << 14 << QVariant(QDate(1900, 3, 1));
    QTest::newRow("1900: 45361") << QByteArray("45361") << false << 14
                                 << QVariant(QDate(2024, 3, 10));
    QTest::newRow("1900: last day")
            << QByteArray("2958465") << false << 14 << QVariant(QDate(9999, 12, 31));
    QTest::newRow("1900: after the last day")
            << QByteArray("2958466") << false << 14 << QVariant(2958466.0);
    QTest::newRow("1900: below 1 has no date") << QByteArray("0.5") << false << 22 << QVariant(0.5);
    QTest::newRow("negative") << QByteArray("-1") << false << 22 << QVariant(-1.0);
    QTest::newRow("negative time") << QByteArray("-0.5") << false << 21 << QVariant(-0.5);
    QTest::newRow("date and time: midnight")
            << QByteArray("45361") << false << 22 << QVariant(wallClock(2024, 3, 10, 0, 0));
    QTest::newRow("date only: the time of day is dropped")
            << QByteArray("45361.75") << false << 14 << QVariant(QDate(2024, 3, 10));
    QTest::newRow("time only: the day is dropped")
            << QByteArray("45361.75") << false << 21 << QVariant(QTime(18, 0));
    QTest::newRow("time only: zero is midnight")
            << QByteArray("0") << false << 21 << QVariant(QTime(0, 0));
    QTest::newRow("time only: 60.25 needs no date")
            << QByteArray("60.25") << false << 21 << QVariant(QTime(6, 0));
    QTest::newRow("time rounded to the millisecond")
            << QByteArray("0.00000001") << false << 21 << QVariant(QTime(0, 0, 0, 1));
    QTest::newRow("rounding up to the next day") << QByteArray("45360.999999999") << false << 22
                                                 << QVariant(wallClock(2024, 3, 10, 0, 0));
    QTest::newRow("time just before midnight stays in the day")
            << QByteArray("45360.9999999999") << false << 21 << QVariant(QTime(23, 59, 59, 999));
    QTest::newRow("elapsed time stays a number")
            << QByteArray("1.5") << false << 46 << QVariant(1.5);
    QTest::newRow("1904: 0 is 1904-01-01")
            << QByteArray("0") << true << 22 << QVariant(wallClock(1904, 1, 1, 0, 0));
    QTest::newRow("1904: 1 is 1904-01-02")
            << QByteArray("1") << true << 14 << QVariant(QDate(1904, 1, 2));
    QTest::newRow("1904: 59 and 60 are ordinary days")
            << QByteArray("60") << true << 14 << QVariant(QDate(1904, 3, 1));
    QTest::newRow("1904: 43899.5")
            << QByteArray("43899.5") << true << 22 << QVariant(wallClock(2024, 3, 10, 12, 0));
    QTest::newRow("1904: last day")
            << QByteArray("2957003") << true << 14 << QVariant(QDate(9999, 12, 31));
    QTest::newRow("1904: after the last day")
            << QByteArray("2957004") << true << 14 << QVariant(2957004.0);
}

void tst_KrXlsxReader::dateSerials()
{
    QFETCH(QByteArray, serial);
    QFETCH(bool, date1904);
    QFETCH(int, numFmtId);
    QFETCH(QVariant, expected);

    Parts parts = workbook(
            {worksheet("<row r=\"1\"><c r=\"A1\" s=\"1\"><v>" + serial + "</v></c></row>")},
            QByteArray(), styles({0, numFmtId}));
    if (date1904)
        parts["xl/workbook.xml"].replace("<workbookPr/>", "<workbookPr date1904=\"1\"/>");
    KrXlsxReader reader;
    QVERIFY2(reader.open(write(parts)), qPrintable(reader.errorString()));
    Cells cells;
    QVERIFY2(readCells(reader, 0, &cells), qPrintable(reader.errorString()));
    QCOMPARE(describe(cells), describe(Cells {{1, 1, expected}}));
}

void tst_KrXlsxReader::dateFormats_data()
{
    QTest::addColumn<int>("numFmtId");
    QTest::addColumn<QByteArray>("formatCode"); // empty: a built-in format
    QTest::addColumn<QVariant>("expected"); // for 45000.5

    const QVariant number = 45000.5;
    const QVariant date = QDate(2023, 3, 15);
    const QVariant time = QTime(12, 0);
    const QVariant dateTime = wallClock(2023, 3, 15, 12, 0);

    QTest::newRow("built-in 14") << 14 << QByteArray() << date;
    QTest::newRow("built-in 22") << 22 << QByteArray() << dateTime;
    QTest::newRow("built-in 45") << 45 << QByteArray() << time;
    QTest::newRow("built-in 47") << 47 << QByteArray() << time;
    QTest::newRow("East Asian built-in 31") << 31 << QByteArray() << date;
    QTest::newRow("East Asian built-in 58") << 58 << QByteArray() << date;
    QTest::newRow("built-in 20") << 20 << QByteArray() << time;
    QTest::newRow("built-in 34 (Chinese, 上午/下午h时mm分)") << 34 << QByteArray() << time;
    QTest::newRow("built-in 46 (elapsed time)") << 46 << QByteArray() << number;
    QTest::newRow("built-in 0 (General)") << 0 << QByteArray() << number;
    QTest::newRow("built-in 13") << 13 << QByteArray() << number;
    QTest::newRow("built-in 23") << 23 << QByteArray() << number;
    QTest::newRow("built-in 48") << 48 << QByteArray() << number;
    QTest::newRow("built-in 49 (text)") << 49 << QByteArray() << number;
    QTest::newRow("custom overrides a built-in id") << 14 << QByteArray("0.00") << number;

    QTest::newRow("yyyy-mm-dd") << 164 << QByteArray("yyyy-mm-dd") << date;
    QTest::newRow("upper case") << 164 << QByteArray("YYYY-MM-DD") << date;
    QTest::newRow("escaped separators") << 164 << QByteArray("yyyy\\-mm\\-dd") << date;
    QTest::newRow("hh:mm") << 164 << QByteArray("hh:mm") << time;
    QTest::newRow("date and time") << 164 << QByteArray("yyyy-mm-dd hh:mm") << dateTime;
    QTest::newRow("month alone") << 164 << QByteArray("mm") << date;
    QTest::newRow("minutes before seconds") << 164 << QByteArray("mm:ss") << time;
    QTest::newRow("minutes after hours and a literal")
            << 164 << QByteArray("h&quot;时&quot;mm") << time;
    QTest::newRow("mmm is a month after hours") << 164 << QByteArray("h mmm") << dateTime;
    QTest::newRow("seconds only") << 164 << QByteArray("ss.000") << time;
    QTest::newRow("elapsed [h]:mm:ss") << 164 << QByteArray("[h]:mm:ss") << number;
    QTest::newRow("elapsed [mm]:ss") << 164 << QByteArray("[mm]:ss") << number;
    QTest::newRow("elapsed [ss]") << 164 << QByteArray("[ss]") << number;
    QTest::newRow("locale prefix then date") << 164 << QByteArray("[$-409]mmmm d, yyyy") << date;
    QTest::newRow("colour then date") << 164 << QByteArray("[Blue]dd/mm/yy") << date;
    QTest::newRow("Chinese literals")
            << 164 << QByteArray("yyyy&quot;年&quot;m&quot;月&quot;d&quot;日&quot;") << date;
    QTest::newRow("AM/PM alone") << 164 << QByteArray("AM/PM") << time;
    QTest::newRow("A/P alone") << 164 << QByteArray("a/p") << time;

    QTest::newRow("General") << 164 << QByteArray("General") << number;
    QTest::newRow("text") << 164 << QByteArray("@") << number;
    QTest::newRow("scientific") << 164 << QByteArray("0.00E+00") << number;
    QTest::newRow("colour bracket") << 164 << QByteArray("[Red]0.00") << number;
    QTest::newRow("condition brackets")
            << 164 << QByteArray("[&lt;=9999999]###-####;(###) ###-####") << number;
    QTest::newRow("currency bracket") << 164 << QByteArray("[$USD-409] #,##0.00") << number;
    QTest::newRow("quoted letters") << 164 << QByteArray("0&quot; days, hours, ms&quot;") << number;
    QTest::newRow("escaped letters") << 164 << QByteArray("0\\d\\h\\s") << number;
    QTest::newRow("padding and fill") << 164 << QByteArray("#,##0_);[Red](#,##0)* _m_s") << number;
    QTest::newRow("mixed bracket is not elapsed time") << 164 << QByteArray("[hm]0") << number;
    QTest::newRow("unterminated quote") << 164 << QByteArray("0&quot;d") << number;
}

void tst_KrXlsxReader::dateFormats()
{
    QFETCH(int, numFmtId);
    QFETCH(QByteArray, formatCode);
    QFETCH(QVariant, expected);

    QMap<int, QByteArray> codes;
    if (!formatCode.isEmpty())
        codes.insert(numFmtId, formatCode);
    const Parts parts
            = workbook({worksheet("<row r=\"1\"><c r=\"A1\" s=\"1\"><v>45000.5</v></c></row>")},
                       QByteArray(), styles({0, numFmtId}, codes));
    KrXlsxReader reader;
    QVERIFY2(reader.open(write(parts)), qPrintable(reader.errorString()));
    Cells cells;
    QVERIFY2(readCells(reader, 0, &cells), qPrintable(reader.errorString()));
    QCOMPARE(cells.size(), 1);
    QCOMPARE(describe(cells.first()), describe(KrXlsxCell {1, 1, expected}));
}

// The pull parser alone, reading each document whole and a byte at a time, with limits of 128
// bytes a token, 4 levels and 3 namespace declarations (the failures show what passes).
void tst_KrXlsxReader::xmlSyntax_data()
{
    QTest::addColumn<QByteArray>("xml");
    QTest::addColumn<QString>("expected");

    const auto row = [](const char *name, const QByteArray &xml, const char *expected) {
        QTest::newRow(name) << xml << QString::fromUtf8(expected);
    };
    row("references, CDATA, comments, line ends, a byte-order mark",
        "\xEF\xBB\xBF<?xml version='1.0'?><a><!-- c --><![CDATA[<not markup> & ]]>&#49;&#x1F600;"
        "&lt;&gt;&amp;&apos;&quot;1\r\n2\r3</a >",
        "<a><not markup> & 1😀<>&'\"1\n2\n3</a>");
    row("namespaces, attribute values",
        "<s:x xmlns:s='http://purl.oclc.org/ooxml/spreadsheetml/main'><c xml:space='k' "
        "s:r='1&#9;2\t3\r\n'/><s:c xmlns:s='urn:y'/><s:c/></s:x>",
        "<{sheet}x {xmlns}s=http://purl.oclc.org/ooxml/spreadsheetml/main><c {xml}space=k "
        "{sheet}r=1\t2"
        " 3 ></c><{other}c {xmlns}s=urn:y></{other}c><{sheet}c></{sheet}c></{sheet}x>");
    row("UTF-16, markup outside the document element",
        utf16("<?xml version='1.0' encoding='UTF-16'?>\n<!-- c --><?pi x?><a>é中😀</a><!-- d -->"),
        "<a>é中😀</a>");
    row("UTF-16 big-endian", utf16("<a>😀é😀</a>", "UTF-16BE"), "<a>😀é😀</a>");
    row("empty document", "", "!0: there is no document element");
    row("mismatched tags", "<a><v>1</a></v>",
        "<a><v>1!7: an end tag that does not match its start tag");
    row("unclosed element", "<a><b>", "<a><b>!6: the document ends inside an element");
    row("unquoted attribute", "<a r=1/>", "!0: an unquoted attribute value");
    row("attributes run together", "<a r='1's='2'/>",
        "!0: attributes without white space between them");
    row("undeclared entity", "<a>&nbsp;</a>", "<a>!3: an undeclared entity 'nbsp'");
    row("invalid character reference", "<a>&#0;</a>", "<a>!3: an invalid character reference");
    row("unterminated reference", "<a>a &amp b</a>", "<a>!3: an unterminated reference");
    row("'<' in an attribute", "<a r='<1'/>", "!0: '<' in an attribute value");
    row("unterminated comment", "<a/><!-- no end", "<a></a>!4: an unterminated comment");
    row("text after the document element", "<a/>x", "<a></a>!4: text outside the document element");
    row("second document element", "<a/><a/>", "<a></a>!4: a second document element");
    row("DTD", "<!DOCTYPE a [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><a>&e;</a>",
        "!0: a document type declaration (DTDs are not allowed)");
    row("unsupported encoding", "<?xml version='1.0' encoding='ISO-8859-1'?><a/>",
        "!0: the unsupported encoding 'iso-8859-1'");
    row("misplaced XML declaration", " <?xml version='1.0'?><a/>",
        "!1: a misplaced XML declaration");
    row("undeclared prefix", "<x:a/>", "!0: an undeclared namespace prefix");
    row("5 deep", "<a><a><a><a><a/></a></a></a></a>", "<a><a><a><a>!12: elements nest too deeply");
    row("4 namespace declarations", "<a xmlns:p='1' xmlns:q='2' xmlns:r='3'><a xmlns:s='4'/></a>",
        "<a {xmlns}p=1 {xmlns}q=2 {xmlns}r=3>!39: too many namespace declarations");
    // Longer than a read of the parser, so that it spans reads however the source serves it.
    row("token over the limit", "<a>" + QByteArray(70000, 'x'),
        "<a>!3: a token is longer than 128 bytes");
}

void tst_KrXlsxReader::xmlSyntax()
{
    QFETCH(QByteArray, xml);
    QFETCH(QString, expected);

    QCOMPARE(parsed(xml, std::max(1, xml.size())), expected);
    QCOMPARE(parsed(xml, 1), expected);
}

// ---- Bad input -------------------------------------------------------------------------------

// Workbooks that open() refuses.
void tst_KrXlsxReader::badWorkbook_data()
{
    QTest::addColumn<Parts>("parts");
    QTest::addColumn<QString>("error"); // a fragment of errorString()

    const Parts good = oneSheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c></row>");
    auto without = [&](const char *part) {
        Parts parts = good;
        parts.remove(part);
        return parts;
    };
    auto with = [&](const char *part, const QByteArray &content) {
        Parts parts = good;
        parts[part] = content;
        return parts;
    };

    QTest::newRow("no workbook part") << without("xl/workbook.xml") << "no workbook part";
    QTest::newRow("binary workbook") << [&] {
        Parts parts = without("xl/workbook.xml");
        parts["xl/workbook.bin"] = "binary";
        return parts;
    }() << ".xlsb";
    QTest::newRow("no workbook relationships")
            << without("xl/_rels/workbook.xml.rels") << "workbook.xml.rels is missing";
    QTest::newRow("workbook is not a workbook")
            << with("xl/workbook.xml", QByteArray("<worksheet xmlns=\"") + mainNs + "\"/>")
            << "not a workbook";
    QTest::newRow("malformed workbook") << with(
            "xl/workbook.xml", QByteArray("<workbook xmlns=\"") + mainNs + "\"><sheets></workbook>")
                                        << "does not match";
    QTest::newRow("malformed shared strings")
            << workbook({worksheet("")}, sharedStrings("<si><t>open</si>")) << "does not match";
    QTest::newRow("malformed styles")
            << workbook({worksheet("")}, QByteArray(),
                        QByteArray("<styleSheet xmlns=\"") + mainNs + "\"><cellXfs></styleSheet>")
            << "does not match";
    QTest::newRow("relationships of the wrong kind")
            << with("xl/_rels/workbook.xml.rels", "<Relationships/>") << "holds no relationships";
}

void tst_KrXlsxReader::badWorkbook()
{
    QFETCH(Parts, parts);
    QFETCH(QString, error);

    KrXlsxReader reader;
    QVERIFY(!reader.open(write(parts)));
    QVERIFY2(reader.errorString().contains(error), qPrintable(reader.errorString()));
    QVERIFY(reader.sheetNames().isEmpty());
    QVERIFY(!reader.readSheet(0, [](KrXlsxCell &&) { return true; }));
}

// Workbooks that open, with a sheet that readSheet() refuses.
void tst_KrXlsxReader::badSheet_data()
{
    QTest::addColumn<Parts>("parts");
    QTest::addColumn<QString>("error");

    const auto sheet = [](const QByteArray &sheetData) { return oneSheet(sheetData); };
    const auto row
            = [](const QByteArray &cells) { return oneSheet("<row r=\"1\">" + cells + "</row>"); };

    QTest::newRow("sheet part missing") << [] {
        Parts parts = oneSheet("");
        parts.remove("xl/worksheets/sheet1.xml");
        return parts;
    }() << "xl/worksheets/sheet1.xml is missing";
    QTest::newRow("sheet relationship missing") << [] {
        Parts parts = oneSheet("");
        parts["xl/workbook.xml"].replace("r:id=\"rId1\"", "r:id=\"rId9\"");
        return parts;
    }() << "rId9";
    QTest::newRow("not a worksheet") << workbook({"<chartsheet/>"}) << "not a worksheet";
    QTest::newRow("shared string index out of range")
            << workbook({worksheet("<row r=\"1\"><c r=\"B1\" t=\"s\"><v>1</v></c></row>")},
                        sharedStrings("<si><t>only</t></si>"))
            << "cell B1: shared string '1' is out of range (the table holds 1)";
    QTest::newRow("shared string without a table")
            << row("<c r=\"A1\" t=\"s\"><v>0</v></c>") << "out of range";
    QTest::newRow("negative shared string index")
            << row("<c r=\"A1\" t=\"s\"><v>-1</v></c>") << "out of range";
    QTest::newRow("row after 1048576") << sheet("<row r=\"1048577\"><c><v>1</v></c></row>")
                                       << "malformed row number '1048577'";
    QTest::newRow("row 0") << sheet("<row r=\"0\"/>") << "malformed row number";
    QTest::newRow("implicit row after 1048576")
            << sheet("<row r=\"1048576\"/><row><c><v>1</v></c></row>") << "after row 1048576";
    QTest::newRow("column after XFD")
            << row("<c r=\"XFE1\"><v>1</v></c>") << "malformed cell reference 'XFE1'";
    QTest::newRow("row after 1048576 in a reference")
            << row("<c r=\"A1048577\"><v>1</v></c>") << "malformed cell reference";
    QTest::newRow("implicit column after XFD")
            << row("<c r=\"XFD1\"><v>1</v></c><c><v>2</v></c>") << "a cell after column XFD";
    for (const char *reference :
         {"1A", "A", "A0", "A01", "$A$1", "A1B", "a1", "AAAA1", "", "A-1"}) {
        QTest::addRow("malformed reference '%s'", reference)
                << row("<c r=\"" + QByteArray(reference) + "\"><v>1</v></c>")
                << "malformed cell reference";
    }
    QTest::newRow("malformed number")
            << row("<c r=\"A1\"><v>12abc</v></c>") << "cell A1: a malformed number";
    QTest::newRow("number out of range")
            << row("<c r=\"A1\"><v>1e999</v></c>") << "malformed number";
    QTest::newRow("not a number") << row("<c r=\"A1\"><v>nan</v></c>") << "malformed number";
    QTest::newRow("malformed boolean")
            << row("<c r=\"A1\" t=\"b\"><v>2</v></c>") << "malformed boolean";
    QTest::newRow("malformed ISO date")
            << row("<c r=\"A1\" t=\"d\"><v>2024-02-30</v></c>") << "malformed date";
    QTest::newRow("unknown cell type")
            << row("<c r=\"A1\" t=\"x\"><v>1</v></c>") << "unknown cell type 'x'";
    QTest::newRow("text too long across CDATA sections")
            << row("<c r=\"A1\" t=\"str\"><v>"
                   + ("<![CDATA[" + QByteArray(1 << 20, 'x') + "]]>")
                             .repeated(KrXlsxReader::MaxXmlTokenSize / (1 << 20) + 1)
                   + "</v></c>")
            << "longer than";
}

void tst_KrXlsxReader::badSheet()
{
    QFETCH(Parts, parts);
    QFETCH(QString, error);

    KrXlsxReader reader;
    QVERIFY2(reader.open(write(parts)), qPrintable(reader.errorString()));
    QCOMPARE(reader.sheetNames(), QStringList {QStringLiteral("Sheet1")});
    QVERIFY(!reader.readSheet(0, [](KrXlsxCell &&) { return true; }));
    QVERIFY(reader.errorString().startsWith(QLatin1String("Sheet 'Sheet1' cannot be read: ")));
    QVERIFY2(reader.errorString().contains(error), qPrintable(reader.errorString()));
}

// Files whose bytes are wrong: not a zip, damaged zip data, encryption, bombs.
void tst_KrXlsxReader::badFileBytes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("opens");
    QTest::addColumn<QString>("error"); // a pattern errorString() matches

    const QString dir = m_dir.filePath(QStringLiteral("bytes"));
    QDir().mkpath(dir);
    const auto zipBytes = [&](const Parts &parts, const QMap<QByteArray, Entry> &modes = {}) {
        const QString path = dir + QStringLiteral("/%1.xlsx").arg(++m_files);
        if (!writeZip(path, parts, modes))
            qFatal("cannot write %s", qPrintable(path));
        QFile file(path);
        file.open(QIODevice::ReadOnly);
        return file.readAll();
    };

    QFile openpyxl(fixture("openpyxl.xlsx"));
    QVERIFY(openpyxl.open(QIODevice::ReadOnly));
    const QByteArray good = openpyxl.readAll();

    QTest::newRow("empty file") << QByteArray() << false << "not a zip archive";
    QTest::newRow("text file") << QByteArray("name,value\nx,1\n") << false << "not a zip archive";
    QTest::newRow("OLE compound file (encrypted workbook or .xls)")
            << QByteArray("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8) + QByteArray(504, '\0') << false
            << "password-protected";
    QTest::newRow("truncated to half")
            << good.left(good.size() / 2) << false << "not a zip archive";
    QTest::newRow("truncated into the zip directory")
            << good.left(good.size() - 30) << false << "not a zip archive";

    const Parts book = oneSheet("<row r=\"1\"><c r=\"A1\" t=\"inlineStr\"><is><t>"
                                + QByteArray("text ").repeated(2000) + "</t></is></c></row>");
    QTest::newRow("password-protected sheet entry")
            << zipBytes(book, {{"xl/worksheets/sheet1.xml", Entry::Encrypted}}) << true
            << "encrypted";
    QTest::newRow("password-protected workbook entry")
            << zipBytes(book, {{"xl/workbook.xml", Entry::Encrypted}}) << false << "encrypted";
    QByteArray damaged = zipBytes(book, {{"xl/worksheets/sheet1.xml", Entry::Stored}});
    const int text = damaged.indexOf("text text");
    damaged[text + 5] = 'X';
    QTest::newRow("damaged data (checksum)") << damaged << true << "checksum";
    QByteArray damagedDeflate = zipBytes(oneSheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c></row>"
                                                  + QByteArray("<row/>").repeated(3000)));
    const int sheetEntry = damagedDeflate.indexOf("xl/worksheets/sheet1.xml");
    for (int i = 0; i < 40; ++i)
        damagedDeflate[sheetEntry + 60 + i] = char(0xFF);
    QTest::newRow("damaged compressed stream")
            << damagedDeflate << true << "damaged|checksum|malformed";

    // A part that inflates 1000:1, and one whose directory entry claims more than any sheet may be.
    const QByteArray bomb = worksheet("<row r=\"1\"/>" + QByteArray(64 << 20, ' '));
    QTest::newRow("zip bomb: compression ratio")
            << zipBytes(workbook({bomb})) << true << "a ratio above 200:1";
    QTest::newRow("zip bomb: shared strings")
            << zipBytes(workbook({worksheet("")}, sharedStrings(QByteArray(64 << 20, ' '))))
            << false << "a ratio above 200:1";
    QTest::newRow("text file posing as a workbook")
            << QByteArray("PK\x03\x04 not really") << false << "not a zip archive";
    QTest::newRow("directory claims half the size")
            << zipBytes(book, {{"xl/worksheets/sheet1.xml", Entry::DeclaringHalfSize}}) << true
            << "ends inside|checksum";
    QTest::newRow("directory claims more than the size")
            << zipBytes(book, {{"xl/worksheets/sheet1.xml", Entry::DeclaringMoreSize}}) << true
            << "ends before its stated size";
    const Parts withStrings = workbook({worksheet("")}, sharedStrings("<si><t>x</t></si>"));
    QTest::newRow("sheet over its size limit")
            << zipBytes(withStrings, {{"xl/worksheets/sheet1.xml", Entry::DeclaringOverSheetLimit}})
            << true << "more than the limit of 2147483648";
    QTest::newRow("shared strings over their size limit")
            << zipBytes(withStrings,
                        {{"xl/sharedStrings.xml", Entry::DeclaringOverSharedStringsLimit}})
            << false << "more than the limit of 268435456";
    QTest::newRow("workbook over its size limit")
            << zipBytes(withStrings, {{"xl/workbook.xml", Entry::DeclaringOverOtherLimit}}) << false
            << "more than the limit of 67108864";
}

void tst_KrXlsxReader::badFileBytes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, opens);
    QFETCH(QString, error);

    const QString path = m_dir.filePath(QStringLiteral("bytes%1.xlsx").arg(++m_files));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(bytes);
    file.close();

    KrXlsxReader reader;
    QCOMPARE(reader.open(path), opens);
    if (opens) {
        QVERIFY(!reader.readSheet(0, [](KrXlsxCell &&) { return true; }));
        QVERIFY(reader.errorString().startsWith(QLatin1String("Sheet 'Sheet1' cannot be read: ")));
    }
    QVERIFY2(reader.errorString().contains(QRegularExpression(error)),
             qPrintable(reader.errorString()));
}

void tst_KrXlsxReader::brokenSheetLeavesOthersReadable()
{
    Parts parts = workbook(
            {worksheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c><c r=\"B1\"><v>oops</v></c></row>"),
             worksheet("<row r=\"1\"><c r=\"A1\"><v>2</v></c></row>")});
    KrXlsxReader reader;
    QVERIFY2(reader.open(write(parts)), qPrintable(reader.errorString()));
    Cells first;
    QVERIFY(!readCells(reader, 0, &first));
    QVERIFY2(reader.errorString().contains(QLatin1String("cell B1")),
             qPrintable(reader.errorString()));
    QCOMPARE(describe(first), describe(Cells {{1, 1, 1.0}})); // delivered before the fault
    Cells second;
    QVERIFY2(readCells(reader, 1, &second), qPrintable(reader.errorString()));
    QVERIFY(reader.errorString().isEmpty());
    QCOMPARE(describe(second), describe(Cells {{1, 1, 2.0}}));
    QVERIFY(!readCells(reader, 2, &second));
    QVERIFY(!readCells(reader, -1, &second));
}

// ---- The reader's contract ------------------------------------------------------------------

void tst_KrXlsxReader::stopsWhenAsked()
{
    // Whatever follows the third cell is never looked at, broken or not.
    const Parts parts = oneSheet("<row r=\"1\"><c r=\"A1\"><v>1</v></c><c r=\"B1\"><v>2</v></c>"
                                 "<c r=\"C1\"><v>3</v></c><c r=\"D1\"><v>broken</v></c></row>");
    KrXlsxReader reader;
    QVERIFY2(reader.open(write(parts)), qPrintable(reader.errorString()));
    for (int round = 0; round < 2; ++round) {
        Cells cells;
        QVERIFY(reader.readSheet(0, [&](KrXlsxCell &&cell) {
            cells.append(cell);
            return cells.size() < 3;
        }));
        QCOMPARE(describe(cells), describe(Cells {{1, 1, 1.0}, {1, 2, 2.0}, {1, 3, 3.0}}));
    }
}

void tst_KrXlsxReader::readsFromDevice()
{
    QFile file(fixture("libreoffice.xlsx"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QBuffer buffer;
    buffer.setData(file.readAll());
    QVERIFY(buffer.open(QIODevice::ReadOnly));

    KrXlsxReader fromFile;
    KrXlsxReader fromDevice;
    QVERIFY2(fromFile.open(file.fileName()), qPrintable(fromFile.errorString()));
    QVERIFY2(fromDevice.open(&buffer), qPrintable(fromDevice.errorString()));
    QCOMPARE(fromDevice.sheetNames(), fromFile.sheetNames());
    for (int i = 0; i < fromFile.sheetNames().size(); ++i) {
        Cells expected;
        Cells cells;
        QVERIFY(readCells(fromFile, i, &expected));
        QVERIFY(readCells(fromDevice, i, &cells));
        QCOMPARE(describe(cells), describe(expected));
    }

    KrXlsxReader reader;
    QVERIFY(!reader.open(static_cast<QIODevice *>(nullptr)));
    QBuffer closed;
    QVERIFY(!reader.open(&closed));
    QVERIFY(!reader.errorString().isEmpty());
}

void tst_KrXlsxReader::reopens()
{
    KrXlsxReader reader;
    QVERIFY(!reader.open(m_dir.filePath(QStringLiteral("does-not-exist.xlsx"))));
    QVERIFY2(reader.errorString().contains(QLatin1String("cannot be opened")),
             qPrintable(reader.errorString()));

    QVERIFY2(reader.open(fixture("openpyxl.xlsx")), qPrintable(reader.errorString()));
    QCOMPARE(reader.sheetNames().size(), 4);
    QVERIFY2(reader.open(fixture("libreoffice.xlsx")), qPrintable(reader.errorString()));
    QCOMPARE(reader.sheetNames().first(), QStringLiteral("Values"));
    Cells cells;
    QVERIFY(readCells(reader, 0, &cells));
    QCOMPARE(cells.size(), 12);

    QVERIFY(!reader.open(fixture("make_fixtures.sh")));
    QVERIFY(reader.sheetNames().isEmpty());
    reader.close();
    QVERIFY(reader.errorString().isEmpty());
    QVERIFY(!reader.readSheet(0, [](KrXlsxCell &&) { return true; }));
    QVERIFY(reader.errorString().contains(QLatin1String("No workbook is open")));
}

QTEST_GUILESS_MAIN(tst_KrXlsxReader)
#include "tst_krxlsxreader.moc"
