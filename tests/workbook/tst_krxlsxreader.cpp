#include "workbook/KrByteSource_p.h"
#include "workbook/KrXlsxReader_p.h"
#include "workbook/KrXlsxValues_p.h"
#include "workbook/KrXmlPullReader_p.h"

#include <QBuffer>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtTest>

#include <minizip/zip.h>
#include <zlib.h>

// The workbook reader against files made by other programs (see data/xlsx/make_fixtures.sh),
// against hand-made parts that exercise one feature each, and against damaged and hostile input;
// and its XML pull parser on plain strings. CTest runs it in two time zones in which some of the
// files' wall-clock times do not exist: none of them may shift.

namespace {

using Parts = QMap<QByteArray, QByteArray>; // part name -> content

const QByteArray mainNs = "http://schemas.openxmlformats.org/spreadsheetml/2006/main";
const QByteArray relNs = "http://schemas.openxmlformats.org/officeDocument/2006/relationships";

QString fixture(const char *name)
{
    return QStringLiteral(KRUTILS_TEST_DATA "/xlsx/") + QLatin1String(name);
}

// A value written so that one of the wrong type shows: a text quoted, a number bare, dates and
// times in ISO form (a QDateTime in UTC ends in Z), any other type named.
QString shown(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QString:
        return '"' + value.toString() + '"';
    case QMetaType::Double:
    case QMetaType::Bool:
    case QMetaType::QDate:
    case QMetaType::QTime:
    case QMetaType::QDateTime:
        return value.toString();
    default:
        return value.typeName() + (':' + value.toString());
    }
}

// "B2=value".
QString describe(const KrXlsxCell &cell)
{
    QString name = QString::number(cell.row);
    for (int column = cell.column; column > 0; column = (column - 1) / 26)
        name.prepend(QLatin1Char(char('A' + (column - 1) % 26)));
    return name + '=' + shown(cell.value);
}

// The cells of a sheet described, each after a space; on a failure " !" and the error follow.
QString read(KrXlsxReader &reader, int sheet)
{
    QString cells;
    const bool complete = reader.readSheet(sheet, [&](KrXlsxCell &&cell) {
        cells += ' ' + describe(cell);
        return true;
    });
    return complete ? cells : cells + " !" + reader.errorString();
}

// ---- Building workbooks ----------------------------------------------------------------------

// How a part goes into the zip; `declared` puts another uncompressed size in the directory.
struct Entry
{
    int method = Z_DEFLATED;
    const char *password = nullptr;
    qint64 declared = -1;
};

// The bytes of a zip written with minizip's own writer.
QByteArray zip(const Parts &parts, const QMap<QByteArray, Entry> &entries = {})
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("book.xlsx"));
    zipFile zip = zipOpen64(QFile::encodeName(path).constData(), APPEND_STATUS_CREATE);
    bool ok = zip;
    for (auto part = parts.cbegin(); ok && part != parts.cend(); ++part) {
        const Entry entry = entries.value(part.key());
        const QByteArray &data = part.value();
        const uLong crc = crc32(0, reinterpret_cast<const Bytef *>(data.constData()),
                                uInt(data.size())); // for the encryption header
        zip_fileinfo info = {};
        ok = zipOpenNewFileInZip3_64(zip, part.key().constData(), &info, nullptr, 0, nullptr, 0,
                                     nullptr, entry.method, Z_DEFAULT_COMPRESSION, 0, -MAX_WBITS, 8,
                                     Z_DEFAULT_STRATEGY, entry.password, crc, 0)
                        == ZIP_OK
                && zipWriteInFileInZip(zip, data.constData(), unsigned(data.size())) == ZIP_OK
                && zipCloseFileInZip(zip) == ZIP_OK;
    }
    QFile file(path);
    if (!zip || zipClose(zip, nullptr) != ZIP_OK || !ok || !file.open(QIODevice::ReadOnly))
        qFatal("cannot write %s", qPrintable(path));
    QByteArray bytes = file.readAll();
    // A declared size goes into the part's local header and its directory entry.
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry) {
        for (int at = bytes.indexOf(entry.key()); entry->declared >= 0 && at >= 0;
             at = bytes.indexOf(entry.key(), at + 1)) {
            const int field = bytes.mid(at - 30, 4) == "PK\x03\x04" ? at - 8
                    : bytes.mid(at - 46, 4) == "PK\x01\x02"         ? at - 22
                                                                    : -1;
            if (field >= 0)
                qToLittleEndian(quint32(entry->declared), bytes.data() + field);
        }
    }
    return bytes;
}

QByteArray sheet(const QByteArray &sheetData)
{
    return "<worksheet xmlns='" + mainNs + "'><sheetData>" + sheetData + "</sheetData></worksheet>";
}

// A workbook as Excel lays it out: worksheets "Sheet1".."SheetN" at xl/worksheets/sheetN.xml, the
// shared-string items and the styles part when given.
Parts workbook(const QVector<QByteArray> &sheets, const QByteArray &strings = {},
               const QByteArray &styles = {})
{
    const auto relationship = [](const QByteArray &id, const char *type, const QByteArray &target) {
        return "<Relationship Id='" + id + "' Type='" + relNs + '/' + type + "' Target='" + target
                + "'/>";
    };
    const QByteArray relationships
            = "<Relationships "
              "xmlns='http://schemas.openxmlformats.org/package/2006/relationships'>";
    Parts parts;
    QByteArray list;
    QByteArray rels = relationships;
    for (int i = 1; i <= sheets.size(); ++i) {
        const QByteArray n = QByteArray::number(i);
        list += "<sheet name='Sheet" + n + "' sheetId='" + n + "' r:id='rId" + n + "'/>";
        rels += relationship("rId" + n, "worksheet", "worksheets/sheet" + n + ".xml");
        parts["xl/worksheets/sheet" + n + ".xml"] = sheets.at(i - 1);
    }
    if (!strings.isNull()) {
        rels += relationship("rIdS", "sharedStrings", "sharedStrings.xml");
        parts["xl/sharedStrings.xml"] = "<sst xmlns='" + mainNs + "'>" + strings + "</sst>";
    }
    if (!styles.isNull()) {
        rels += relationship("rIdT", "styles", "styles.xml");
        parts["xl/styles.xml"] = styles;
    }
    parts["xl/_rels/workbook.xml.rels"] = rels + "</Relationships>";
    parts["_rels/.rels"] = relationships + relationship("rId1", "officeDocument", "xl/workbook.xml")
            + "</Relationships>";
    parts["xl/workbook.xml"] = "<workbook xmlns='" + mainNs + "' xmlns:r='" + relNs
            + "'><workbookPr/><sheets>" + list + "</sheets></workbook>";
    return parts;
}

Parts oneSheet(const QByteArray &sheetData, const QByteArray &strings = {},
               const QByteArray &styles = {})
{
    return workbook({sheet(sheetData)}, strings, styles);
}

Parts edited(Parts parts, const char *part, const char *before, const char *after)
{
    parts[part].replace(before, after);
    return parts;
}

// Cell style i has number format ids[i]; `codes` defines custom formats.
QByteArray styles(const QVector<int> &ids, const QMap<int, QByteArray> &codes = {})
{
    QByteArray xml = "<styleSheet xmlns='" + mainNs + "'><numFmts>";
    for (auto code = codes.cbegin(); code != codes.cend(); ++code)
        xml += "<numFmt numFmtId='" + QByteArray::number(code.key()) + "' formatCode='"
                + code.value() + "'/>";
    // A cell style refers to a cellStyleXfs entry, which is not what formats the cell.
    xml += "</numFmts><cellStyleXfs><xf numFmtId='14'/></cellStyleXfs><cellXfs>";
    for (int id : ids)
        xml += "<xf numFmtId='" + QByteArray::number(id) + "' xfId='0'/>";
    return xml + "</cellXfs></styleSheet>";
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

class tst_KrXlsxReader : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void fixtures_data();
    void fixtures();
    void cells_data();
    void cells();
    void dates_data();
    void dates();
    void xmlSyntax_data();
    void xmlSyntax();
    void badFiles_data();
    void badFiles();
    void contract();
};

// A reader that goes through local time would shift or lose the fixtures' times that do not
// exist in these zones (Qt 5.15 makes such a local time invalid): make sure the zone is real.
void tst_KrXlsxReader::initTestCase()
{
    const QByteArray zone = qgetenv("TZ");
    if (zone == "America/New_York")
        QVERIFY(!QDateTime(QDate(2024, 3, 10), QTime(2, 30), Qt::LocalTime).isValid());
    else if (zone == "Asia/Shanghai")
        QVERIFY(!QDateTime(QDate(1988, 4, 17), QTime(2, 30), Qt::LocalTime).isValid());
    else
        qWarning("TZ is not one of the zones this test is registered for");
}

// ---- Files made by other programs ------------------------------------------------------------

void tst_KrXlsxReader::fixtures_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QStringList>("sheets"); // "name: cells"

    // openpyxl: inline strings, absolute relationship targets, a chart sheet (not listed).
    QTest::newRow("openpyxl")
            << fixture("openpyxl.xlsx")
            << QStringList {"Types: A1=\"text\" B1=\"integer\" C1=\"double\" D1=\"bool\" "
                            "E1=\"formula\" A2=\"apple\" B2=3 C2=1.25 D2=true "
                            "A3=\"Grüße, 中文 😀\" B3=-7 C3=0.001 D3=false A5=\"  padded  \" "
                            "C5=1e+300 E5=-0.5 A6=\"line1\nline2\" B6=123456789012345 "
                            "C6=6.02214076e+23",
                            "Dates: A1=2024-03-10 A2=2024-03-10T02:30:00.000Z "
                            "A3=1988-04-17T02:30:00.000Z A4=14:30:15.000 "
                            "A5=2021-12-31T23:59:59.999Z A6=1900-01-01 A7=1900-02-28 "
                            "A8=1900-03-01 A9=9999-12-31 A10=2023-03-15 A11=0.75 A12=45000 "
                            "A13=45000 A14=45000 A15=06:00:00.000 A16=0.5 "
                            "A17=2024-03-10T00:00:00.000Z",
                            "数据 Sparse: A1=\"first\" C3=3 AX1000=\"middle\" "
                            "XFD1048576=\"last corner\"",
                            "Empty:"};
    QTest::newRow("openpyxl, 1904 date system")
            << fixture("openpyxl_1904.xlsx")
            << QStringList {"Mac: A1=2024-03-10 A2=1904-01-02 A3=2000-01-01T12:00:00.000Z "
                            "A4=06:00:00.000 A5=1.5"};
    QTest::newRow("openpyxl, ISO 8601 dates in cells")
            << fixture("openpyxl_isodates.xlsx")
            << QStringList {"Iso: A1=2024-03-10 A2=2024-03-10T02:30:15.000Z A3=14:30:00.000"};
    // LibreOffice: shared strings with rich text, cached formula results of every type.
    QTest::newRow("LibreOffice")
            << fixture("libreoffice.xlsx")
            << QStringList {"Values: A1=\"plain text\" B1=42 C1=-3.75 D1=true "
                            "E1=\"Ünïcödé ✓ 日本語\" A2=\"bold and plain\" B2=84 C2=\"#DIV/0!\" "
                            "D2=\"xy\" E2=false B4=\"sparse\" C10=\"row ten\"",
                            "Dates ✓: A1=2024-03-10 A2=2024-03-10T02:30:00.000Z A3=14:30:15.000 "
                            "A4=1988-04-17T02:30:00.000Z A5=0.25",
                            "Blank:"};
}

// Each file read by name and from a device.
void tst_KrXlsxReader::fixtures()
{
    QFETCH(QString, file);
    QFETCH(QStringList, sheets);

    QFile device(file);
    QVERIFY(device.open(QIODevice::ReadOnly));
    QBuffer buffer;
    buffer.setData(device.readAll());
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    for (bool fromDevice : {false, true}) {
        KrXlsxReader reader;
        QVERIFY2(fromDevice ? reader.open(&buffer) : reader.open(file),
                 qPrintable(reader.errorString()));
        QStringList actual = reader.sheetNames();
        for (int i = 0; i < actual.size(); ++i)
            actual[i] += ':' + read(reader, i);
        QCOMPARE(actual, sheets);
    }
}

// ---- Hand-made parts ---------------------------------------------------------------------------

// The cells of Sheet1, and a fragment of the error when reading it fails after them.
void tst_KrXlsxReader::cells_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("cells"); // "@": not compared
    QTest::addColumn<QString>("error");

    const auto row = [](const char *name, const Parts &parts, const char *cells,
                        const char *error = "", const QMap<QByteArray, Entry> &entries = {}) {
        QTest::newRow(name) << zip(parts, entries) << QString::fromUtf8(cells)
                            << QString::fromUtf8(error);
    };
    const auto one
            = [](const QByteArray &cells) { return oneSheet("<row r='1'>" + cells + "</row>"); };
    const Parts a1 = one("<c r='A1'><v>1</v></c>");

    row("elements of other namespaces are not cells",
        workbook({"<worksheet xmlns='" + mainNs
                  + "' xmlns:o='urn:o'><sheetData><row r='1'>"
                    "<o:c r='A1'><v>1</v></o:c><c r='B1'><o:v>2</o:v><v>3</v></c></row>"
                    "</sheetData></worksheet>"}),
        "B1=3");
    Parts strict = oneSheet("<row r='2'><c r='B2'><v>7</v></c><c r='C2' t='s'><v>0</v></c></row>",
                            "<si><t>strict</t></si>");
    for (QByteArray &content : strict) {
        content.replace(mainNs, "http://purl.oclc.org/ooxml/spreadsheetml/main");
        content.replace(relNs, "http://purl.oclc.org/ooxml/officeDocument/relationships");
    }
    row("strict namespaces", strict, "B2=7 C2=\"strict\"");
    row("cells and rows without references",
        oneSheet("<row><c><v>1</v></c><c><v>2</v></c></row>"
                 "<row r='5'><c r='C5'><v>3</v></c><c><v>4</v></c></row>"
                 "<row><c><v>5</v></c><c r='E6'><v>6</v></c><c><v>7</v></c></row>"),
        "A1=1 B1=2 C5=3 D5=4 A6=5 E6=6 F6=7");
    row("inline strings, plain and in runs",
        one("<c r='A1' t='inlineStr'><is><t>plain</t></is></c><c r='B1' t='inlineStr'><is>"
            "<r><rPr><b/></rPr><t>bo</t></r><r><t>ld</t></r></is></c>"
            "<c r='C1' t='inlineStr'><is><t/></is></c>"),
        "A1=\"plain\" B1=\"bold\" C1=\"\"");
    row("shared strings: rich text joined, phonetic runs skipped",
        oneSheet("<row r='1'><c r='A1' t='s'><v>0</v></c><c r='B1' t='s'><v>1</v></c>"
                 "<c r='C1' t='s'><v>2</v></c><c r='D1' t='s'><v>0</v></c></row>",
                 "<si><r><t>東</t></r><r><rPr><i/></rPr><t>京</t></r><rPh sb='0' eb='2'>"
                 "<t>トウキョウ</t></rPh><phoneticPr fontId='1'/></si>"
                 "<si><t>plain</t><rPh sb='0' eb='1'><t>ぷ</t></rPh></si>"
                 "<si><t xml:space='preserve'> a &amp; b </t></si>"),
        "A1=\"東京\" B1=\"plain\" C1=\" a & b \" D1=\"東京\"");
    row("escaped characters in texts",
        oneSheet("<row r='1'><c r='A1' t='s'><v>0</v></c><c r='B1' t='s'><v>1</v></c>"
                 "<c r='C1' t='str'><v>tab_x0009_</v></c></row>",
                 "<si><t>a_x000D_b</t></si><si><t>_x005F_x0041_ _x41_</t></si>"),
        "A1=\"a\rb\" B1=\"_x0041_ _x41_\" C1=\"tab\t\"");
    row("formulas: cached values, none, empty text result, errors",
        one("<c r='A1'><f>1+1</f><v>2</v></c><c r='B1'><f>A1*2</f></c>"
            "<c r='C1' t='str'><f>\"\"</f><v></v></c><c r='D1' t='e'><f>1/0</f><v>#DIV/0!</v></c>"
            "<c r='E1' t='b'><f>TRUE()</f><v>1</v></c><c r='F1' t='str'><f>A1</f></c>"),
        "A1=2 C1=\"\" D1=\"#DIV/0!\" E1=true");
    row("cells without a value are not delivered",
        oneSheet("<row r='1' spans='1:4'><c r='A1' s='0'/><c r='B1'><v></v></c><c r='C1' t='s'/>"
                 "<c r='D1' t='n'><v>4</v></c></row><row r='2'/>"),
        "D1=4");
    row("numbers stay doubles",
        one("<c r='A1'><v>42</v></c><c r='C1'><v>1.5E-3</v></c>"
            "<c r='D1'><v>9007199254740993</v></c><c r='E1'><v>+7</v></c><c r='F1'><v> 8 </v></c>"),
        "A1=42 C1=0.0015 D1=9007199254740992 E1=7 F1=8");
    row("booleans",
        one("<c r='A1' t='b'><v>1</v></c><c r='B1' t='b'><v>0</v></c>"
            "<c r='C1' t='b'><v>true</v></c><c r='D1' t='b'><v>false</v></c>"),
        "A1=true B1=false C1=true D1=false");
    row("ISO 8601 dates in cells",
        one("<c r='A1' t='d'><v>2024-03-10</v></c><c r='B1' t='d'><v>2024-03-10T02:30:00</v></c>"
            "<c r='C1' t='d'><v>2024-03-10T02:30:00.1234Z</v></c>"
            "<c r='D1' t='d'><v>1988-04-17T02:30:00+08:00</v></c>"
            "<c r='E1' t='d'><v>23:59:59.9996</v></c>"
            "<c r='F1' t='d'><v>2023-12-31T23:59:59.9996</v></c>"),
        "A1=2024-03-10 B1=2024-03-10T02:30:00.000Z C1=2024-03-10T02:30:00.123Z "
        "D1=1988-04-17T02:30:00.000Z E1=23:59:59.999 F1=2024-01-01T00:00:00.000Z");
    row("ISO 8601 dates follow the cell's format",
        oneSheet("<row r='1'><c r='A1' t='d' s='1'><v>2024-03-10</v></c>"
                 "<c r='B1' t='d' s='2'><v>2024-03-10T02:30:00</v></c>"
                 "<c r='C1' t='d' s='3'><v>2024-03-10T02:30:00</v></c>"
                 "<c r='D1' t='d' s='1'><v>14:30</v></c></row>",
                 {}, styles({0, 22, 14, 21})),
        "A1=2024-03-10T00:00:00.000Z B1=2024-03-10 C1=02:30:00.000 D1=14:30:00.000");
    row("1904 date system written as true",
        edited(oneSheet("<row r='1'><c r='A1' s='1'><v>1</v></c></row>", {}, styles({0, 22})),
               "xl/workbook.xml", "<workbookPr/>", "<workbookPr date1904='true'/>"),
        "A1=1904-01-02T00:00:00.000Z");
    row("styles: by cellXfs index, a custom format over a built-in id, bad indexes no date",
        oneSheet("<row r='1'><c r='A1' s='1'><v>45000</v></c><c r='B1' s='9'><v>45000</v></c>"
                 "<c r='C1' s='x'><v>45000</v></c><c r='D1' s='2'><v>45000</v></c>"
                 "<c r='E1'><v>45000</v></c><c r='F1' s='3'><v>45000</v></c></row>",
                 {}, styles({0, 14, 21, 164}, {{21, "yyyy-mm-dd"}, {164, "[h]:mm"}})),
        "A1=2023-03-15 B1=45000 C1=45000 D1=2023-03-15 E1=45000 F1=45000");
    row("rows out of order and duplicate cells as the file has them",
        oneSheet("<row r='3'><c r='A3'><v>3</v></c></row><row r='1'><c r='B1'><v>1</v></c>"
                 "<c r='B1'><v>2</v></c><c r='A1'><v>0</v></c></row>"),
        "A3=3 B1=1 B1=2 A1=0");

    // Where the parts are.
    row("absolute relationship targets",
        edited(edited(a1, "xl/_rels/workbook.xml.rels", "'worksheets/", "'/xl/worksheets/"),
               "_rels/.rels", "'xl/", "'/xl/"),
        "A1=1");
    Parts moved;
    moved["_rels/.rels"]
            = QByteArray(a1["_rels/.rels"]).replace("xl/workbook.xml", "book/main.xml");
    moved["book/main.xml"] = a1["xl/workbook.xml"];
    moved["book/_rels/main.xml.rels"]
            = QByteArray(a1["xl/_rels/workbook.xml.rels"]).replace("worksheets/", "../sheets/./");
    moved["sheets/sheet1.xml"] = a1["xl/worksheets/sheet1.xml"];
    row("workbook found through the package relationships", moved, "A1=1");
    Parts noPackageRels = a1;
    noPackageRels.remove("_rels/.rels");
    row("no package relationships: xl/workbook.xml", noPackageRels, "A1=1");
    Parts upperCase = a1;
    upperCase["XL/Worksheets/Sheet1.XML"] = upperCase.take("xl/worksheets/sheet1.xml");
    row("part names in another letter case", upperCase, "A1=1");
    Parts noSheet = a1;
    noSheet.remove("xl/worksheets/sheet1.xml");
    row("sheet part missing", noSheet, "", "xl/worksheets/sheet1.xml is missing");
    row("sheet relationship missing", edited(a1, "xl/workbook.xml", "'rId1'", "'rId9'"), "",
        "rId9");
    row("not a worksheet", workbook({"<chartsheet/>"}), "", "not a worksheet");

    // Faults in the cells: what comes before is delivered.
    row("shared string index out of range",
        oneSheet("<row r='1'><c r='A1' t='s'><v>0</v></c><c r='Z1' t='s'><v>1</v></c></row>",
                 "<si><t>only</t></si>"),
        "A1=\"only\"", "cell Z1: shared string '1' is out of range (the table holds 1)");
    row("shared string without a table", one("<c r='A1' t='s'><v>0</v></c>"), "", "out of range");
    row("negative shared string index", one("<c r='A1' t='s'><v>-1</v></c>"), "", "out of range");
    row("row after 1048576", oneSheet("<row r='1048577'><c><v>1</v></c></row>"), "",
        "malformed row number '1048577'");
    row("row 0", oneSheet("<row r='0'/>"), "", "malformed row number");
    row("implicit row after 1048576",
        oneSheet("<row r='1048576'><c><v>1</v></c></row><row><c><v>2</v></c></row>"), "A1048576=1",
        "after row 1048576");
    row("column after XFD", one("<c r='XFE1'><v>1</v></c>"), "", "malformed cell reference 'XFE1'");
    row("row after 1048576 in a reference", one("<c r='A1048577'><v>1</v></c>"), "",
        "malformed cell reference");
    row("implicit column after XFD", one("<c r='XFD1'><v>1</v></c><c><v>2</v></c>"), "XFD1=1",
        "cell XFD1: a cell after column XFD");
    for (const char *reference : {"1A", "A", "A0", "A01", "$A$1", "A1B", "a1", "AAAA1", "", "A-1"})
        QTest::addRow("malformed reference '%s'", reference)
                << zip(one("<c r='" + QByteArray(reference) + "'><v>1</v></c>")) << QString()
                << QStringLiteral("malformed cell reference");
    row("malformed number", one("<c r='A1'><v>12abc</v></c>"), "", "cell A1: a malformed number");
    row("number out of range", one("<c r='A1'><v>1e999</v></c>"), "", "malformed number");
    row("not a number", one("<c r='A1'><v>nan</v></c>"), "", "malformed number");
    row("malformed boolean", one("<c r='A1' t='b'><v>2</v></c>"), "", "malformed boolean");
    row("malformed ISO date", one("<c r='A1' t='d'><v>2024-02-30</v></c>"), "", "malformed date");
    row("unknown cell type", one("<c r='A1' t='x'><v>1</v></c>"), "", "unknown cell type 'x'");
    row("text too long across CDATA sections",
        one("<c r='A1' t='str'><v>"
            + ("<![CDATA[" + QByteArray(1 << 20, 'x') + "]]>")
                      .repeated(KrXlsxReader::MaxXmlTokenSize / (1 << 20) + 1)
            + "</v></c>"),
        "", "longer than");
    // Damaged and hostile sheet parts.
    const QByteArray sheet1 = "xl/worksheets/sheet1.xml";
    const Parts book = oneSheet("<row r='1'><c r='A1' t='inlineStr'><is><t>"
                                + QByteArray("text ").repeated(2000) + "</t></is></c></row>");
    const quint32 size = quint32(book[sheet1].size());
    row("password-protected sheet entry", book, "", "encrypted", {{sheet1, {Z_DEFLATED, "pw"}}});
    QByteArray damaged = zip(book, {{sheet1, {0}}});
    damaged[damaged.indexOf("text text") + 5] = 'X';
    QTest::newRow("damaged data (checksum)") << damaged << QString("@") << QString("checksum");
    damaged = zip(oneSheet("<row r='1'><c r='A1'><v>1</v></c></row>"
                           + QByteArray("<row/>").repeated(3000)));
    for (int i = 0, at = damaged.indexOf(sheet1) + 60; i < 40; ++i)
        damaged[at + i] = char(0xFF);
    QTest::newRow("damaged compressed stream") << damaged << QString("@") << QString("damaged");
    row("directory claims half the size", book, "", "checksum",
        {{sheet1, {Z_DEFLATED, nullptr, size / 2}}});
    row("directory claims more than the size", book, "@", "ends before its stated size",
        {{sheet1, {Z_DEFLATED, nullptr, size + 100}}});
    // A sheet that inflates 1000:1, and one whose directory entry claims more than it may be.
    row("zip bomb: compression ratio", oneSheet("<row r='1'/>" + QByteArray(64 << 20, ' ')), "",
        "a ratio above 200:1");
    row("sheet over its size limit", a1, "", "more than the limit of 2147483648",
        {{sheet1, {Z_DEFLATED, nullptr, KrXlsxReader::MaxSheetPartSize + 1}}});
}

void tst_KrXlsxReader::cells()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, cells);
    QFETCH(QString, error);

    QBuffer buffer(&bytes);
    KrXlsxReader reader;
    QVERIFY2(buffer.open(QIODevice::ReadOnly) && reader.open(&buffer),
             qPrintable(reader.errorString()));
    QCOMPARE(reader.sheetNames(), QStringList {QStringLiteral("Sheet1")});
    const QString actual = read(reader, 0);
    const int fault = actual.indexOf(" !");
    if (cells != "@")
        QCOMPARE(actual.left(fault).mid(1), cells);
    const QString why = fault < 0 ? QString() : actual.mid(fault + 2);
    QVERIFY2(error.isEmpty()
                     ? why.isEmpty()
                     : why.startsWith("Sheet 'Sheet1' cannot be read: ") && why.contains(error),
             qPrintable(why));
}

// Numbers under built-in formats in both date systems, and what number formats show of 45000.5.
void tst_KrXlsxReader::dates_data()
{
    QTest::addColumn<double>("serial");
    QTest::addColumn<bool>("date1904");
    QTest::addColumn<int>("numFmtId");
    QTest::addColumn<QByteArray>("formatCode"); // null: the built-in format
    QTest::addColumn<QString>("expected");

    // 14 m/d/yyyy, 21 h:mm:ss, 22 m/d/yy h:mm, 46 [h]:mm:ss (elapsed). In the 1900 system 60 is
    // the fictitious 1900-02-29 and below 1 there is no day; both systems end at 9999-12-31.
    const struct
    {
        double serial;
        int id;
        bool date1904;
        const char *expected;
    } serials[] = {
            // clang-format off
        {1, 14, 0, "1900-01-01"}, {59, 14, 0, "1900-02-28"}, {61, 14, 0, "1900-03-01"},
        {59.5, 22, 0, "1900-02-28T12:00:00.000Z"}, {60, 14, 0, "60"}, {60.25, 22, 0, "60.25"},
        {45361, 14, 0, "2024-03-10"}, {2958465, 14, 0, "9999-12-31"}, {2958466, 14, 0, "2958466"},
        {0.5, 22, 0, "0.5"}, {-1, 22, 0, "-1"}, {-0.5, 21, 0, "-0.5"}, {1.5, 46, 0, "1.5"},
        {45361, 22, 0, "2024-03-10T00:00:00.000Z"}, {45361.75, 14, 0, "2024-03-10"},
        {45361.75, 21, 0, "18:00:00.000"}, {0, 21, 0, "00:00:00.000"},
        {60.25, 21, 0, "06:00:00.000"}, {0.00000001, 21, 0, "00:00:00.001"},
        {45360.999999999, 22, 0, "2024-03-10T00:00:00.000Z"},
        {45360.9999999999, 21, 0, "23:59:59.999"}, {0, 22, 1, "1904-01-01T00:00:00.000Z"},
        {1, 14, 1, "1904-01-02"}, {60, 14, 1, "1904-03-01"}, {2957003, 14, 1, "9999-12-31"},
        {43899.5, 22, 1, "2024-03-10T12:00:00.000Z"}, {2957004, 14, 1, "2957004"},
            // clang-format on
    };
    for (const auto &row : serials)
        QTest::addRow("%s %.15g under %d", row.date1904 ? "1904:" : "1900:", row.serial, row.id)
                << row.serial << row.date1904 << row.id << QByteArray() << QString(row.expected);

    const auto shows = [](const char *expected, std::initializer_list<int> ids,
                          std::initializer_list<const char *> codes) {
        for (int id : ids)
            QTest::addRow("built-in %d", id)
                    << 45000.5 << false << id << QByteArray() << QString::fromLatin1(expected);
        for (const char *code : codes)
            QTest::addRow("%s", code)
                    << 45000.5 << false << 164 << QByteArray(code) << QString::fromLatin1(expected);
    };
    shows("2023-03-15", {14, 31, 58},
          {"yyyy-mm-dd", "YYYY-MM-DD", "yyyy\\-mm\\-dd", "mm", "[$-409]mmmm d, yyyy",
           "[Blue]dd/mm/yy", "yyyy\"年\"m\"月\"d\"日\""});
    shows("2023-03-15T12:00:00.000Z", {22}, {"yyyy-mm-dd hh:mm", "h mmm"});
    shows("12:00:00.000", {20, 34, 45, 47},
          {"hh:mm", "mm:ss", "h\"时\"mm", "ss.000", "AM/PM", "a/p"});
    shows("45000.5", {0, 13, 23, 46, 48, 49},
          {"[h]:mm:ss", "[mm]:ss", "[ss]", "General", "@", "0.00E+00", "[Red]0.00",
           "[<=9999999]###-####;(###) ###-####", "[$USD-409] #,##0.00", "0\" days, hours, ms\"",
           "0\\d\\h\\s", "#,##0_);[Red](#,##0)* _m_s", "[hm]0", "0\"d"});
}

void tst_KrXlsxReader::dates()
{
    QFETCH(double, serial);
    QFETCH(bool, date1904);
    QFETCH(int, numFmtId);
    QFETCH(QByteArray, formatCode);
    QFETCH(QString, expected);

    using namespace KrXlsxValues;
    const DateKind kind = formatCode.isNull() ? builtInFormatKind(quint32(numFmtId))
                                              : formatCodeKind(formatCode.toStdString());
    QCOMPARE(shown(fromSerial(serial, kind, date1904)), expected);
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
    // With a byte-order mark, as Qt's UTF-16 codecs write it.
    const auto utf16 = [](const char *utf8, const char *codec) {
        return QTextCodec::codecForName(codec)->fromUnicode(QString::fromUtf8(utf8));
    };
    row("references, CDATA, comments, line ends, a byte-order mark",
        "\xEF\xBB\xBF<?xml version='1.0'?><a><!-- c --><![CDATA[<not markup> & ]]>&#49;&#x1F600;"
        "&lt;&gt;&amp;&apos;&quot;1\r\n2\r3</a >",
        "<a><not markup> & 1😀<>&'\"1\n2\n3</a>");
    row("namespaces, attribute values",
        "<s:x xmlns:s='http://purl.oclc.org/ooxml/spreadsheetml/main'><c xml:space='k' "
        "s:r='1&#9;2\t3\r\n'/><s:c xmlns:s='urn:y'/><s:c/></s:x>",
        "<{sheet}x {xmlns}s=http://purl.oclc.org/ooxml/spreadsheetml/main><c {xml}space=k "
        "{sheet}r=1\t2 3 ></c><{other}c "
        "{xmlns}s=urn:y></{other}c><{sheet}c></{sheet}c></{sheet}x>");
    row("UTF-16, markup outside the document element",
        utf16("<?xml version='1.0' encoding='UTF-16'?>\n<!-- c --><?pi x?><a>é中😀</a><!-- d -->",
              "UTF-16LE"),
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

// Files that open() refuses.
void tst_KrXlsxReader::badFiles_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("error"); // a pattern errorString() matches

    const auto row = [](const char *name, const QByteArray &bytes, const char *error) {
        QTest::newRow(name) << bytes << QString::fromLatin1(error);
    };
    const Parts good = oneSheet("<row r='1'><c r='A1'><v>1</v></c></row>", "<si><t>x</t></si>");
    const auto with = [&](const char *part, const QByteArray &content) { // null: without it
        Parts parts = good;
        content.isNull() ? void(parts.remove(part)) : void(parts[part] = content);
        return zip(parts);
    };

    row("no workbook part", with("xl/workbook.xml", {}), "no workbook part");
    Parts binary = good;
    binary["xl/workbook.bin"] = binary.take("xl/workbook.xml");
    row("binary workbook", zip(binary), "\\.xlsb");
    row("no workbook relationships", with("xl/_rels/workbook.xml.rels", {}),
        "workbook.xml.rels is missing");
    row("workbook is not a workbook",
        with("xl/workbook.xml", "<worksheet xmlns='" + mainNs + "'/>"), "not a workbook");
    row("malformed workbook",
        with("xl/workbook.xml", "<workbook xmlns='" + mainNs + "'><sheets></workbook>"),
        "does not match");
    row("malformed shared strings",
        with("xl/sharedStrings.xml", "<sst xmlns='" + mainNs + "'><si><t>open</si></sst>"),
        "does not match");
    row("malformed styles",
        zip(oneSheet("", {}, "<styleSheet xmlns='" + mainNs + "'><cellXfs></styleSheet>")),
        "does not match");
    row("relationships of the wrong kind", with("xl/_rels/workbook.xml.rels", "<Relationships/>"),
        "holds no relationships");

    QFile openpyxl(fixture("openpyxl.xlsx"));
    QVERIFY(openpyxl.open(QIODevice::ReadOnly));
    const QByteArray real = openpyxl.readAll();
    row("empty file", "", "not a zip archive");
    row("text file posing as a workbook", "PK\x03\x04 not really", "not a zip archive");
    row("OLE compound file (encrypted workbook or .xls)",
        QByteArray("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", 8) + QByteArray(504, '\0'),
        "an OLE compound document: a password-protected \\(encrypted\\) workbook");
    row("truncated into the zip directory", real.left(real.size() - 30), "not a zip archive");

    row("password-protected workbook entry", zip(good, {{"xl/workbook.xml", {Z_DEFLATED, "pw"}}}),
        "encrypted");
    row("shared strings over their size limit",
        zip(good,
            {{"xl/sharedStrings.xml",
              {Z_DEFLATED, nullptr, KrXlsxReader::MaxSharedStringsPartSize + 1}}}),
        "more than the limit of 268435456");
    row("workbook over its size limit",
        zip(good, {{"xl/workbook.xml", {Z_DEFLATED, nullptr, KrXlsxReader::MaxOtherPartSize + 1}}}),
        "more than the limit of 67108864");
}

void tst_KrXlsxReader::badFiles()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QString, error);

    QBuffer buffer(&bytes);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    KrXlsxReader reader;
    QVERIFY(!reader.open(&buffer));
    QVERIFY(reader.sheetNames().isEmpty());
    QVERIFY2(reader.errorString().contains(QRegularExpression(error)),
             qPrintable(reader.errorString()));
    QVERIFY(!reader.readSheet(0, [](KrXlsxCell &&) { return true; }));
}

// ---- The reader's contract ------------------------------------------------------------------

void tst_KrXlsxReader::contract()
{
    KrXlsxReader reader;
    QVERIFY(!reader.open(fixture("does-not-exist.xlsx")));
    QVERIFY2(reader.errorString().contains(QLatin1String("cannot be opened")),
             qPrintable(reader.errorString()));
    QVERIFY(!reader.open(static_cast<QIODevice *>(nullptr)));
    QBuffer closed;
    QVERIFY(!reader.open(&closed));
    QVERIFY(!reader.errorString().isEmpty());

    // A broken sheet leaves the cells before the fault delivered and the other sheets readable;
    // a sheet stopped by the callback is read up to there, as often as asked.
    QByteArray two = zip(workbook({sheet("<row r='1'><c r='A1'><v>1</v></c><c r='B1'><v>2</v></c>"
                                         "<c><v>oops</v></c></row>"),
                                   sheet("<row r='1'><c r='A1'><v>3</v></c></row>")}));
    QBuffer buffer(&two);
    QVERIFY(buffer.open(QIODevice::ReadOnly) && reader.open(&buffer));
    QCOMPARE(read(reader, 0),
             " A1=1 B1=2 !Sheet 'Sheet1' cannot be read: xl/worksheets/sheet1.xml: cell C1: a "
             "malformed number 'oops'.");
    QCOMPARE(read(reader, 1), " A1=3");
    QVERIFY(reader.errorString().isEmpty());
    for (int round = 0; round < 2; ++round) {
        QStringList cells;
        QVERIFY(reader.readSheet(0, [&](KrXlsxCell &&cell) {
            cells.append(describe(cell));
            return cells.size() < 2;
        }));
        QCOMPARE(cells, QStringList({"A1=1", "B1=2"}));
    }
    QVERIFY(!reader.readSheet(2, [](KrXlsxCell &&) { return true; }));
    QVERIFY(!reader.readSheet(-1, [](KrXlsxCell &&) { return true; }));

    // Opening again forgets the previous workbook, its date system too.
    QVERIFY(reader.open(fixture("openpyxl_1904.xlsx")));
    QByteArray plain = zip(
            edited(oneSheet("<row r='1'><c r='A1' s='1'><v>1</v></c></row>", {}, styles({0, 14})),
                   "xl/workbook.xml", "<workbookPr/>", ""));
    QBuffer plainBuffer(&plain);
    QVERIFY(plainBuffer.open(QIODevice::ReadOnly) && reader.open(&plainBuffer));
    QCOMPARE(read(reader, 0), " A1=1900-01-01");
    QVERIFY(!reader.open(fixture("make_fixtures.sh")));
    QVERIFY(reader.sheetNames().isEmpty());
    reader.close();
    QVERIFY(reader.errorString().isEmpty());
    QVERIFY(read(reader, 0).endsWith("No workbook is open."));
}

QTEST_GUILESS_MAIN(tst_KrXlsxReader)
#include "tst_krxlsxreader.moc"
