#ifndef KRXLSXWRITER_P_H
#define KRXLSXWRITER_P_H

#include <QString>
#include <QVariant>

#include <memory>

// The writing half of the internal workbook layer: writes an Office Open XML workbook (.xlsx) on
// libxlsxwriter, sheet by sheet and row by row.
//
// Rows go to disk as they are finished (libxlsxwriter's constant_memory mode), so memory stays
// flat however many rows are written, and rows must come in ascending order; the cells of the
// current row may come in any order. A write to a row before the last one given fails, even of
// a value that makes no cell.
//
// The file appears only when save() succeeds: the workbook is written to a temporary file beside
// the target and renamed over it, so a failed or abandoned writer leaves the target as it was
// (absent or with its old contents) and no temporary file behind. An existing target keeps its
// permissions; a symbolic link is followed. Until then the rows wait in temporary files in
// QDir::tempPath(), as large as the sheets' uncompressed XML and twice that while
// save() runs (on the order of 100 MB for 100,000 rows x 20 columns); when that directory fills
// up, save() fails.
//
// Every function returns false when it fails, and errorString() says why. The first failure is
// final: every later call returns false as well, save() included, and errorString() keeps the
// first reason, so a workbook with a cell missing is never saved.
//
// A writer is used from one thread at a time.
//
//     KrXlsxWriter writer(fileName);
//     bool ok = writer.addSheet(QStringLiteral("Orders"))
//             && writer.writeCell(1, 1, QStringLiteral("Price"), KrXlsxWriter::HeaderFormat)
//             && writer.writeCell(2, 1, 12.5) && writer.setColumnWidth(1, 1, 20.0)
//             && writer.save();
//     if (!ok)
//         qCWarning(category) << writer.errorString();
//
// How values become cells:
//   - An invalid QVariant and a null one (QVariant::isNull(): a null QString, QDate, QTime or
//     QDateTime, a QVariant(QVariant::Int)...) give no cell; so does an empty string, except in
//     HeaderFormat, where it gives a formatted blank cell.
//   - QString: a text cell, whatever it holds ("=1+2", "http://...", "@x" stay text; no formula,
//     number or link is ever made of a string). Characters that XML cannot carry are escaped in
//     Excel's _xHHHH_ form, and a literal "_xHHHH_" in the text is escaped so that it reads back
//     unchanged. Unpaired surrogates become U+FFFD. At most 32,767 UTF-16 units.
//   - bool: a boolean cell.
//   - Integers (char types, short, int, long, long long and their unsigned forms): numbers; beyond
//     +-2^53, where a double would round them, their exact decimal text.
//   - double, float: numbers (a float by its shortest decimal form, so 0.1f is 0.1). NaN and
//     +-infinity, which a workbook cannot hold as numbers, become the texts "nan", "inf", "-inf".
//   - QDate, QTime, QDateTime: date-time numbers with the number format "yyyy-mm-dd", "hh:mm:ss"
//     or "yyyy-mm-dd hh:mm:ss" (".000" added when there are milliseconds). A QDateTime is written
//     as its own wall-clock date and time, without time-zone conversion; one that is invalid only
//     because its local time falls into a daylight-saving gap is written as that wall-clock time.
//     Dates outside 1900-01-01 .. 9999-12-31, which Excel cannot show as dates, become text in the
//     same layout ("1899-12-31", "1899-12-31 23:59:59").
//   - Any other type that QVariant converts to QString (QByteArray as UTF-8, QChar, QUrl, QUuid,
//     enums...): that text. Types without a text form (lists, maps, QPoint...) fail.
class KrXlsxWriter
{
public:
    enum CellFormat { PlainFormat, HeaderFormat }; // header: bold, font size 16

    // Prepares writing `fileName`. Whether its directory takes new files is checked here; a
    // problem is reported by the first call that follows.
    explicit KrXlsxWriter(const QString &fileName);
    ~KrXlsxWriter(); // without save(), nothing is written

    // Adds a worksheet after the others and makes it the one written to. Fails for a name Excel
    // refuses: empty, longer than 31 characters, containing one of []:*?/\, beginning or ending
    // with an apostrophe, or already used (names are compared case-insensitively).
    bool addSheet(const QString &name);

    // Writes one cell of the current sheet; row and column are 1-based (1..1048576, 1..16384).
    // Rows are written in ascending order; writing the same cell twice keeps the later value.
    bool writeCell(int row, int column, const QVariant &value, CellFormat format = PlainFormat);

    // Sets the width of columns firstColumn..lastColumn (1-based, inclusive) of the current sheet,
    // as the file stores it (0..255): the width openpyxl reads back and other workbook writers
    // take. Excel shows a stored width 5 pixels narrower (20 shows as 19.29); widths are kept to
    // whole pixels. May be called at any time before save().
    bool setColumnWidth(int firstColumn, int lastColumn, double width);

    // Writes the file. A workbook without sheets gets one empty sheet, "Sheet1".
    bool save();

    QString errorString() const;

private:
    Q_DISABLE_COPY(KrXlsxWriter)

    struct Private;
    std::unique_ptr<Private> d;
};

#endif // KRXLSXWRITER_P_H
