#ifndef KRXLSXREADER_P_H
#define KRXLSXREADER_P_H

#include "KrXlsxCell_p.h"

#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

// The reading half of the internal workbook layer: a streaming reader of Office Open XML
// workbooks (.xlsx, transitional and strict) on minizip's unzip API. A worksheet is decompressed
// and parsed in one pass and handed out cell by cell; no sheet's XML is ever held in memory as a
// whole. The workbook's shared strings and what the number formats of its cell styles show are
// kept from open() to close().
//
// Cell values take the type the file gives them:
//   - double for every number, as the file stores it (an integer-valued number is still a double);
//   - bool for booleans;
//   - QString for texts (shared, inline and formula results) and for error values ("#DIV/0!");
//   - for numbers whose cell style has a date or time number format, the type that format
//     shows, so that a column formatted alike reads as one type: a format with date and time
//     parts (yyyy-mm-dd hh:mm, built-in 22) gives a QDateTime, midnight included; a date-only
//     format (yyyy-mm-dd, built-in 14) a QDate, whatever time of day the number also holds; a
//     time-only format (hh:mm:ss, mm:ss, built-in 18-21 and 45) a QTime, whatever day. In a format
//     code an m or mm right after an hour or right before seconds is minutes, any other m a
//     month. Elapsed-time formats ([h]:mm, [mm]:ss, built-in 46) show a duration, which may pass
//     24 hours and has no date: those numbers stay doubles (days, as the file holds them). A
//     number below 0 or after 9999-12-31 stays a double as well, and so does one under a format
//     with a date where that date does not exist (in the 1900 date system below 1, and 60,
//     Excel's fictitious 1900-02-29);
//   - ISO 8601 dates stored in the cell (type "d") follow the cell's format the same way; under
//     no date format, or without a date in the text, they keep the parts they write ("2024-03-10"
//     a QDate, "14:30" a QTime, "2024-03-10T14:30" a QDateTime).
// Dates and times are wall-clock values: the file has no time zone, so a QDateTime always
// carries Qt::UTC as a neutral basis that no time-zone or daylight-saving rule can shift (read
// its date() and time(), or toString(); do not convert it to local time). Times are rounded to
// the millisecond; a date-time that rounds up to midnight moves to the next day, a time of day
// stops at 23:59:59.999.
//
// Failures come back as false with errorString() saying why; the reader logs nothing. An input
// that is not a workbook, damaged or hostile (truncated or encrypted files, malformed XML, zip
// bombs, entity bombs) fails open() or the affected readSheet() and never crashes or hangs the
// process; memory and time stay bounded by the limits below.
//
// Cells are delivered as the file orders them: rows out of order and duplicate cells are passed
// on as they come; the used range is the caller's business (<dimension> is ignored, files carry
// wrong ones). Only cells that hold a value are delivered: a cell element without a value (a
// formatted blank, a formula without a cached result) is skipped. A text cell holding the empty
// string is delivered as an empty QString. A formula cell yields its cached result. A cell or row
// without a reference follows the previous one. Hidden sheets are read like the others.
//
// A sheet fails (readSheet() returns false; the cells before the fault have been delivered) on
// malformed XML, a malformed or out-of-range cell reference ("A1" to "XFD1048576", upper case)
// or row number, a shared-string index outside the table, a malformed number, boolean or ISO
// date, an unknown cell type, or damaged or encrypted zip data. A whole file fails open() when it
// is not a zip, is encrypted, or its workbook, relationships, styles or shared strings cannot be
// read.
//
// Limits (per open workbook):
//   - a worksheet part decompresses to at most MaxSheetPartSize bytes, the shared-string table
//     to at most MaxSharedStringsPartSize (its strings take up to about 3.5 times that in memory),
//     every other part the reader reads (relationships, workbook, styles) to MaxOtherPartSize;
//   - a part larger than CompressionRatioAllowance decompresses to at most MaxCompressionRatio
//     times its compressed size, and all parts read from one file together to at most
//     CompressionRatioAllowance + MaxCompressionRatio times the file's size (so re-reading a sheet
//     counts again);
//   - one XML token (a tag, a text run) or one element's text is at most MaxXmlTokenSize bytes,
//     elements nest at most MaxXmlDepth deep, at most MaxXmlNamespaceDeclarations namespace
//     declarations are in scope at once;
//   - documents with a DTD (<!DOCTYPE ...>) are refused, so no entity can expand;
//   - parts must be UTF-8 or UTF-16 (with a byte-order mark); the zip holds at most MaxZipEntries
//     entries, stored or deflated, not encrypted.
//
// Thread rules: one reader is used by one thread at a time; separate readers are independent.
//
//     KrXlsxReader reader;
//     if (!reader.open(path))
//         return fail(reader.errorString());
//     for (int i = 0; i < reader.sheetNames().size(); ++i) {
//         if (!reader.readSheet(i, [&](KrXlsxCell &&cell) { store(cell); return true; }))
//             warn(reader.errorString());
//     }
class KrXlsxReader
{
public:
    static constexpr qint64 MaxSheetPartSize = Q_INT64_C(2) << 30; // 2 GiB
    static constexpr qint64 MaxSharedStringsPartSize = 256 << 20;
    static constexpr qint64 MaxOtherPartSize = 64 << 20;
    static constexpr qint64 MaxCompressionRatio = 200;
    static constexpr qint64 CompressionRatioAllowance = 16 << 20;
    static constexpr int MaxXmlTokenSize = 4 << 20;
    static constexpr int MaxXmlDepth = 256;
    static constexpr int MaxXmlNamespaceDeclarations = 256;
    static constexpr int MaxZipEntries = 100000;

    KrXlsxReader();
    ~KrXlsxReader();
    KrXlsxReader(const KrXlsxReader &) = delete;
    KrXlsxReader &operator=(const KrXlsxReader &) = delete;

    // Opens the workbook and reads its sheet list, shared strings and styles. False when the file
    // is not a readable workbook; errorString() says why. Opening closes what was open before.
    bool open(const QString &fileName);
    // The same from a random-access device open for reading (a QFile, a QBuffer). The reader does
    // not take ownership; the device must stay open and unchanged until close() or destruction.
    bool open(QIODevice *device);
    void close();
    QString errorString() const;

    // Worksheet names in workbook order (chart sheets and other non-worksheets left out).
    QStringList sheetNames() const;

    // Streams sheet `index` (workbook order): calls `onCell` for every cell that holds a value,
    // in file order. `onCell` returns false to stop, and readSheet() then returns true. Returns
    // false when the sheet cannot be read completely (errorString() says why); cells already
    // delivered stay delivered.
    bool readSheet(int index, const std::function<bool(KrXlsxCell &&)> &onCell);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

#endif // KRXLSXREADER_P_H
