#include "KrXlsxWriter_p.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QStringList>
#include <QTemporaryFile>

#include <minizip/unzip.h>
#include <xlsxwriter.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

// libxlsxwriter takes a width in characters as Excel shows it and stores it with Excel's 5 pixels
// of padding added (digits of the default font are 7 pixels wide; below one character the
// padding shrinks). This gives the width it needs to store `stored`, to the pixel.
double characterWidth(double stored)
{
    constexpr int digitPixels = 7;
    constexpr int paddingPixels = 5;
    const int pixels = qRound(stored * digitPixels);
    if (pixels >= digitPixels + paddingPixels)
        return double(pixels - paddingPixels) / digitPixels;
    return double(pixels) / (digitPixels + paddingPixels);
}

// Excel's limits.
constexpr int maxRows = LXW_ROW_MAX; // 1,048,576
constexpr int maxColumns = LXW_COL_MAX; // 16,384
constexpr int maxSheetNameLength = LXW_SHEETNAME_MAX; // 31
constexpr int maxTextLength = 32767;
constexpr double maxColumnWidth = 255;
constexpr qint64 maxExactInteger = qint64(1) << 53; // doubles hold every integer up to here
const QLatin1String forbiddenSheetNameCharacters("[]:*?/\\");

// Excel counts days from 1899-12-30 but takes 1900 for a leap year: its fictitious 1900-02-29 is
// serial 60, so the serials of 1900-01-01 .. 1900-02-28 are one below the plain count.
constexpr qint64 excelEpochJulianDay = 2415019; // 1899-12-30
constexpr qint64 firstExcelJulianDay = 2415021; // 1900-01-01
constexpr qint64 march1900JulianDay = 2415080; // 1900-03-01
constexpr qint64 lastExcelJulianDay = 5373484; // 9999-12-31
constexpr double msecsPerDay = 86400000.0;

// The number formats of date-time cells; General is a plain cell.
enum NumberKind { General, Date, Time, TimeMs, DateTime, DateTimeMs, NumberKindCount };
const char *const numberFormats[NumberKindCount]
        = {nullptr,        "yyyy-mm-dd",          "hh:mm:ss",
           "hh:mm:ss.000", "yyyy-mm-dd hh:mm:ss", "yyyy-mm-dd hh:mm:ss.000"};

// The same layouts for dates Excel cannot show as dates, written as text instead.
const QLatin1String dateText("yyyy-MM-dd");
const QLatin1String timeText(" HH:mm:ss");
const QLatin1String timeMsText(" HH:mm:ss.zzz");

bool isExcelDay(const QDate &date)
{
    const qint64 day = date.toJulianDay();
    return day >= firstExcelJulianDay && day <= lastExcelJulianDay;
}

double excelDay(const QDate &date)
{
    const qint64 day = date.toJulianDay();
    return double(day - excelEpochJulianDay - (day < march1900JulianDay ? 1 : 0));
}

double dayFraction(const QTime &time)
{
    return time.msecsSinceStartOfDay() / msecsPerDay;
}

// "C5" for row 5, column 3.
QString cellName(int row, int column)
{
    QString letters;
    for (int c = column; c > 0; c = (c - 1) / 26)
        letters.prepend(QLatin1Char(char('A' + (c - 1) % 26)));
    return letters + QString::number(row);
}

QString quoted(const QString &text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString quotedPath(const QString &path)
{
    return quoted(QDir::toNativeSeparators(path));
}

std::filesystem::path fileSystemPath(const QString &path)
{
    return std::filesystem::path(path.toStdU16String());
}

// Excel's escape of one UTF-16 unit in cell text: _xHHHH_.
char *appendEscape(char *out, char16_t unit)
{
    static const char hex[] = "0123456789ABCDEF";
    *out++ = '_';
    *out++ = 'x';
    for (int shift = 12; shift >= 0; shift -= 4)
        *out++ = hex[(unit >> shift) & 0xf];
    *out++ = '_';
    return out;
}

bool isHexDigit(char16_t unit)
{
    return (unit >= '0' && unit <= '9') || (unit >= 'A' && unit <= 'F')
            || (unit >= 'a' && unit <= 'f');
}

// Whether the text after an underscore continues as "xHHHH_", which readers would decode.
bool continuesAsEscape(const char16_t *next, const char16_t *end)
{
    return end - next >= 6 && next[0] == 'x' && isHexDigit(next[1]) && isHexDigit(next[2])
            && isHexDigit(next[3]) && isHexDigit(next[4]) && next[5] == '_';
}

// The UTF-8 form of `text` as cell text, NUL-terminated, in `buffer`. The buffer only grows, so
// once the longest text has been seen no cell costs an allocation here.
//
// libxlsxwriter escapes the control characters itself; what it leaves out is added here: U+0000,
// which would end the C string, the non-characters U+FFFE and U+FFFF, which XML cannot carry, and
// a literal "_xHHHH_", whose underscore is escaped (as _x005F_) so that readers do not decode it.
const char *cellText(const QString &text, std::vector<char> &buffer)
{
    const auto *in = reinterpret_cast<const char16_t *>(text.utf16());
    const auto *end = in + text.size();
    const size_t worstCase = size_t(text.size()) * 7 + 1; // an escape takes 7 bytes
    if (buffer.size() < worstCase)
        buffer.resize(worstCase);
    char *out = buffer.data();
    while (in < end) {
        char32_t unit = *in++;
        if (unit < 0x80) {
            if (unit == 0 || (unit == '_' && continuesAsEscape(in, end)))
                out = appendEscape(out, char16_t(unit));
            else
                *out++ = char(unit);
        } else if (unit < 0x800) {
            *out++ = char(0xc0 | (unit >> 6));
            *out++ = char(0x80 | (unit & 0x3f));
        } else if (QChar::isHighSurrogate(unit) && in < end && QChar::isLowSurrogate(*in)) {
            const char32_t point = QChar::surrogateToUcs4(char16_t(unit), *in++);
            *out++ = char(0xf0 | (point >> 18));
            *out++ = char(0x80 | ((point >> 12) & 0x3f));
            *out++ = char(0x80 | ((point >> 6) & 0x3f));
            *out++ = char(0x80 | (point & 0x3f));
        } else if (unit == 0xfffe || unit == 0xffff) {
            out = appendEscape(out, char16_t(unit));
        } else {
            if (QChar::isSurrogate(unit))
                unit = QChar::ReplacementCharacter;
            *out++ = char(0xe0 | (unit >> 12));
            *out++ = char(0x80 | ((unit >> 6) & 0x3f));
            *out++ = char(0x80 | (unit & 0x3f));
        }
    }
    *out = '\0';
    return buffer.data();
}

// 0.1f is 0.100000001490116... as a double; its shortest decimal form is what was meant.
double widenFloat(float value)
{
    char text[32];
    const auto printed = std::to_chars(text, text + sizeof text, value);
    double widened = value;
    std::from_chars(text, printed.ptr, widened);
    return widened;
}

QString libraryError(lxw_error error)
{
    return QString::fromUtf8(lxw_strerror(error));
}

} // namespace

struct KrXlsxWriter::Private
{
    bool fail(const QString &message);
    bool canWrite();
    bool check(lxw_error error, int row, int column);
    QString cellPlace(int row, int column) const;
    lxw_format *format(CellFormat cellFormat, NumberKind kind);
    void closeEmptySheetFiles();
    bool checkStreamedRows(std::vector<long> &rowBytes);
    bool checkArchivedSheets(const std::vector<long> &rowBytes);

    bool startCell(int row, int column);
    bool writeValue(int row, int column, const QVariant &value, CellFormat cellFormat);
    bool writeText(int row, int column, const QString &text, CellFormat cellFormat);
    bool writeBoolean(int row, int column, bool value, CellFormat cellFormat);
    bool writeNumber(int row, int column, double number, CellFormat cellFormat,
                     NumberKind kind = General);
    template<typename Integer>
    bool writeInteger(int row, int column, Integer value, CellFormat cellFormat);
    bool writeDouble(int row, int column, double value, CellFormat cellFormat);
    bool writeDateTime(int row, int column, const QDate &date, const QTime &time,
                       CellFormat cellFormat);

    QString fileName; // the target
    QString tempFileName; // what libxlsxwriter writes, renamed over the target on success
    QString tempDirectory; // where libxlsxwriter keeps the rows until the workbook is closed
    QByteArray tempDirectoryName; // the same for libxlsxwriter, which may keep the pointer
    lxw_workbook *workbook = nullptr;
    lxw_worksheet *sheet = nullptr; // the current one
    std::vector<lxw_worksheet *> sheets;
    QStringList sheetNames;
    int lastRow = 0; // the highest row given on the current sheet; rows before it are closed
    lxw_format *formats[2][NumberKindCount] = {};
    std::vector<char> text;
    QString error;
    bool failed = false;
    bool saved = false;
};

bool KrXlsxWriter::Private::fail(const QString &message)
{
    if (!failed) {
        failed = true;
        error = message;
    }
    return false;
}

bool KrXlsxWriter::Private::canWrite()
{
    if (failed)
        return false;
    if (saved)
        return fail(QStringLiteral("The workbook has been saved already"));
    return true;
}

QString KrXlsxWriter::Private::cellPlace(int row, int column) const
{
    return QStringLiteral("Sheet %1, cell %2: ")
            .arg(quoted(sheetNames.last()), cellName(row, column));
}

bool KrXlsxWriter::Private::check(lxw_error result, int row, int column)
{
    if (result == LXW_NO_ERROR)
        return true;
    return fail(cellPlace(row, column) + libraryError(result));
}

lxw_format *KrXlsxWriter::Private::format(CellFormat cellFormat, NumberKind kind)
{
    lxw_format *&format = formats[cellFormat][kind];
    if (!format) {
        format = workbook_add_format(workbook);
        if (!format)
            return nullptr;
        if (cellFormat == HeaderFormat) {
            format_set_bold(format);
            format_set_font_size(format, 16);
        }
        if (numberFormats[kind])
            format_set_num_format(format, numberFormats[kind]);
    }
    return format;
}

// workbook_close() closes the file that holds a sheet's rows only when it copies them into the
// archive, which it skips for a sheet without cells (libxlsxwriter 1.1.4); closed here instead,
// such a file would otherwise stay open for the rest of the process.
void KrXlsxWriter::Private::closeEmptySheetFiles()
{
    for (lxw_worksheet *emptySheet : sheets) {
        if (emptySheet->dim_rowmin == LXW_ROW_MAX && emptySheet->optimize_tmpfile)
            std::fclose(std::exchange(emptySheet->optimize_tmpfile, nullptr));
    }
}

// libxlsxwriter 1.1.4 does not notice when one of its temporary files cannot be written, as when
// the temporary directory is full: the sheet is cut short and workbook_close() still
// succeeds. So the rows it streamed to disk are checked before the workbook is closed, and their
// size is kept to check the sheets in the archive afterwards.
bool KrXlsxWriter::Private::checkStreamedRows(std::vector<long> &rowBytes)
{
    for (size_t i = 0; i < sheets.size(); ++i) {
        FILE *rows = sheets[i]->optimize_tmpfile;
        if (rows && (std::fflush(rows) != 0 || std::ferror(rows))) {
            return fail(QStringLiteral("Cannot write %1: the rows of sheet %2 could not be stored "
                                       "in a temporary file (is %3 full?)")
                                .arg(quotedPath(fileName), quoted(sheetNames.at(int(i))),
                                     quotedPath(tempDirectory)));
        }
        // -1, not checked then, when the size is unknown or beyond what a long holds.
        rowBytes.push_back(rows ? std::ftell(rows) : -1);
    }
    return true;
}

// The temporary file that holds a sheet while the archive is written repeats the streamed rows
// between a header and a footer, so a sheet in the archive that is no longer than its rows was
// cut short.
bool KrXlsxWriter::Private::checkArchivedSheets(const std::vector<long> &rowBytes)
{
    unzFile archive = unzOpen64(QFile::encodeName(tempFileName).constData());
    if (!archive) {
        return fail(QStringLiteral("Cannot write %1: the file written is not a readable archive")
                            .arg(quotedPath(fileName)));
    }
    int cutShort = -1;
    for (size_t i = 0; i < rowBytes.size() && cutShort < 0; ++i) {
        const QByteArray part
                = "xl/worksheets/sheet" + QByteArray::number(qulonglong(i + 1)) + ".xml";
        unz_file_info64 info;
        const bool found = unzLocateFile(archive, part.constData(), 1) == UNZ_OK
                && unzGetCurrentFileInfo64(archive, &info, nullptr, 0, nullptr, 0, nullptr, 0)
                        == UNZ_OK;
        if (!found || (rowBytes[i] >= 0 && info.uncompressed_size <= ZPOS64_T(rowBytes[i])))
            cutShort = int(i);
    }
    unzClose(archive);
    if (cutShort >= 0) {
        return fail(QStringLiteral("Cannot write %1: sheet %2 was cut short in a temporary file "
                                   "(is %3 full?)")
                            .arg(quotedPath(fileName), quoted(sheetNames.at(cutShort)),
                                 quotedPath(tempDirectory)));
    }
    return true;
}

bool KrXlsxWriter::Private::writeText(int row, int column, const QString &value,
                                      CellFormat cellFormat)
{
    if (value.size() > maxTextLength) {
        return fail(cellPlace(row, column)
                    + QStringLiteral("the text has %1 characters, more than the %2 a cell holds")
                              .arg(value.size())
                              .arg(maxTextLength));
    }
    lxw_format *cell = nullptr;
    if (cellFormat != PlainFormat && !(cell = format(cellFormat, General)))
        return check(LXW_ERROR_MEMORY_MALLOC_FAILED, row, column);
    return check(worksheet_write_string(sheet, lxw_row_t(row - 1), lxw_col_t(column - 1),
                                        cellText(value, text), cell),
                 row, column);
}

bool KrXlsxWriter::Private::writeNumber(int row, int column, double number, CellFormat cellFormat,
                                        NumberKind kind)
{
    lxw_format *cell = nullptr;
    if ((cellFormat != PlainFormat || kind != General) && !(cell = format(cellFormat, kind)))
        return check(LXW_ERROR_MEMORY_MALLOC_FAILED, row, column);
    return check(
            worksheet_write_number(sheet, lxw_row_t(row - 1), lxw_col_t(column - 1), number, cell),
            row, column);
}

template<typename Integer>
bool KrXlsxWriter::Private::writeInteger(int row, int column, Integer value, CellFormat cellFormat)
{
    bool exact;
    if constexpr (std::is_signed_v<Integer>)
        exact = qint64(value) >= -maxExactInteger && qint64(value) <= maxExactInteger;
    else
        exact = quint64(value) <= quint64(maxExactInteger);
    if (exact)
        return writeNumber(row, column, double(value), cellFormat);
    return writeText(row, column, QString::number(value), cellFormat);
}

bool KrXlsxWriter::Private::writeDouble(int row, int column, double value, CellFormat cellFormat)
{
    if (std::isfinite(value))
        return writeNumber(row, column, value, cellFormat);
    return writeText(row, column, QString::number(value), cellFormat); // "nan", "inf", "-inf"
}

bool KrXlsxWriter::Private::writeDateTime(int row, int column, const QDate &date, const QTime &time,
                                          CellFormat cellFormat)
{
    const bool hasMsecs = time.msec() != 0;
    if (!isExcelDay(date)) {
        // Date and time apart: a QDateTime would be local time, and might shift the time.
        const QLocale c = QLocale::c();
        return writeText(row, column,
                         c.toString(date, dateText)
                                 + c.toString(time, hasMsecs ? timeMsText : timeText),
                         cellFormat);
    }
    return writeNumber(row, column, excelDay(date) + dayFraction(time), cellFormat,
                       hasMsecs ? DateTimeMs : DateTime);
}

// Checks the place of a cell about to be written; the rows before it are finished from then on.
bool KrXlsxWriter::Private::startCell(int row, int column)
{
    if (!canWrite())
        return false;
    if (!sheet)
        return fail(QStringLiteral("No sheet to write to: a sheet must be added first"));
    if (row < 1 || row > maxRows) {
        return fail(QStringLiteral("Sheet %1: row %2 is outside the sheet (rows 1 to %3)")
                            .arg(quoted(sheetNames.last()))
                            .arg(row)
                            .arg(maxRows));
    }
    if (column < 1 || column > maxColumns) {
        return fail(QStringLiteral("Sheet %1: column %2 is outside the sheet (columns 1 to %3)")
                            .arg(quoted(sheetNames.last()))
                            .arg(column)
                            .arg(maxColumns));
    }
    // Finished rows are on disk already; libxlsxwriter would drop a cell written to one.
    if (row < lastRow) {
        return fail(cellPlace(row, column)
                    + QStringLiteral("rows must be written in ascending order, and row %1 "
                                     "has been written already")
                              .arg(lastRow));
    }
    lastRow = row;
    return true;
}

bool KrXlsxWriter::Private::writeBoolean(int row, int column, bool value, CellFormat cellFormat)
{
    lxw_format *cell = nullptr;
    if (cellFormat != PlainFormat && !(cell = format(cellFormat, General)))
        return check(LXW_ERROR_MEMORY_MALLOC_FAILED, row, column);
    return check(
            worksheet_write_boolean(sheet, lxw_row_t(row - 1), lxw_col_t(column - 1), value, cell),
            row, column);
}

bool KrXlsxWriter::Private::writeValue(int row, int column, const QVariant &value,
                                       CellFormat cellFormat)
{
    switch (value.userType()) {
    case QMetaType::QString:
        // Read in place: QVariant::toString() would copy the string's reference count around.
        return writeText(row, column, *static_cast<const QString *>(value.constData()), cellFormat);
    case QMetaType::Bool:
        return writeBoolean(row, column, value.toBool(), cellFormat);
    case QMetaType::Int:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return writeInteger(row, column, value.toLongLong(), cellFormat);
    case QMetaType::UInt:
    case QMetaType::UShort:
    case QMetaType::UChar:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return writeInteger(row, column, value.toULongLong(), cellFormat);
    case QMetaType::Double:
        return writeDouble(row, column, value.toDouble(), cellFormat);
    case QMetaType::Float:
        return writeDouble(row, column, widenFloat(value.toFloat()), cellFormat);
    case QMetaType::QDate: {
        const QDate date = value.toDate();
        if (!isExcelDay(date))
            return writeText(row, column, QLocale::c().toString(date, dateText), cellFormat);
        return writeNumber(row, column, excelDay(date), cellFormat, Date);
    }
    case QMetaType::QTime: {
        const QTime time = value.toTime();
        return writeNumber(row, column, dayFraction(time), cellFormat, time.msec() ? TimeMs : Time);
    }
    case QMetaType::QDateTime: {
        const QDateTime dateTime = value.toDateTime();
        if (!dateTime.date().isValid())
            return true;
        return writeDateTime(row, column, dateTime.date(), dateTime.time(), cellFormat);
    }
    default: {
        QVariant asText = value;
        if (!asText.convert(QMetaType::QString)) {
            return fail(cellPlace(row, column)
                        + QStringLiteral("a value of type %1 has no text form to write")
                                  .arg(QLatin1String(value.typeName())));
        }
        return writeText(row, column, asText.toString(), cellFormat);
    }
    }
}

KrXlsxWriter::KrXlsxWriter(const QString &fileName) : d(new Private)
{
    if (fileName.isEmpty()) {
        d->fail(QStringLiteral("No file name given"));
        return;
    }
    QFileInfo target(fileName);
    // A link is followed, so that the file it points at is replaced, not the link.
    if (target.isSymLink())
        target.setFile(target.symLinkTarget());
    d->fileName = target.absoluteFilePath();
    if (target.isDir()) {
        d->fail(QStringLiteral("%1 is a directory").arg(quotedPath(d->fileName)));
        return;
    }
    // Renaming would replace a read-only file all the same; it is refused, as QSaveFile does.
    if (target.exists() && !target.isWritable()) {
        d->fail(QStringLiteral("%1 is not writable").arg(quotedPath(d->fileName)));
        return;
    }

    // libxlsxwriter creates its file only when the workbook is closed. A temporary file taken and
    // given back here proves now, not after the last row, that the directory takes new files, and
    // finds a free name; libxlsxwriter then creates the file with the usual permissions rather
    // than QTemporaryFile's owner-only ones.
    {
        QTemporaryFile probe(target.absolutePath() + QStringLiteral("/.") + target.fileName()
                             + QStringLiteral(".XXXXXX"));
        if (!probe.open()) {
            d->fail(QStringLiteral("Cannot create a file in %1: %2")
                            .arg(quotedPath(target.absolutePath()), probe.errorString()));
            return;
        }
        d->tempFileName = probe.fileName();
    }

    // Named, so that the rows go where Qt's temporary files go (TMPDIR, or TEMP on Windows)
    // however libxlsxwriter was built (with USE_STANDARD_TMPFILE it would use the C library's
    // tmpfile()), and so that errors can name the directory.
    d->tempDirectory = QDir::tempPath();
    d->tempDirectoryName = QFile::encodeName(d->tempDirectory);
    lxw_workbook_options options = {};
    options.constant_memory = LXW_TRUE;
    options.tmpdir = d->tempDirectoryName.data();
    d->workbook = workbook_new_opt(QFile::encodeName(d->tempFileName).constData(), &options);
    if (!d->workbook)
        d->fail(libraryError(LXW_ERROR_MEMORY_MALLOC_FAILED));
}

KrXlsxWriter::~KrXlsxWriter()
{
    if (!d->workbook) // saved, or never made
        return;
    // Only workbook_close() closes the files that hold the sheets' rows; lxw_workbook_free()
    // leaves them open.
    for (lxw_worksheet *sheet : d->sheets) {
        if (sheet->optimize_tmpfile)
            std::fclose(std::exchange(sheet->optimize_tmpfile, nullptr));
    }
    lxw_workbook_free(d->workbook);
}

bool KrXlsxWriter::addSheet(const QString &name)
{
    if (!d->canWrite())
        return false;
    if (name.isEmpty())
        return d->fail(QStringLiteral("A sheet name must not be empty"));
    if (name.size() > maxSheetNameLength) {
        return d->fail(QStringLiteral("Sheet name %1 is longer than %2 characters")
                               .arg(quoted(name))
                               .arg(maxSheetNameLength));
    }
    for (QChar c : name) {
        if (forbiddenSheetNameCharacters.contains(c)) {
            return d->fail(QStringLiteral("Sheet name %1 contains '%2', which sheet names cannot "
                                          "contain (any of %3)")
                                   .arg(quoted(name), c, forbiddenSheetNameCharacters));
        }
    }
    if (name.startsWith(QLatin1Char('\'')) || name.endsWith(QLatin1Char('\''))) {
        return d->fail(QStringLiteral("Sheet name %1 begins or ends with an apostrophe")
                               .arg(quoted(name)));
    }
    // libxlsxwriter compares names in ASCII only; Excel refuses "CAFÉ" beside "café" too.
    for (const QString &used : qAsConst(d->sheetNames)) {
        if (used.compare(name, Qt::CaseInsensitive) == 0) {
            return d->fail(QStringLiteral("Sheet name %1 is already used by sheet %2 (sheet "
                                          "names ignore case)")
                                   .arg(quoted(name), quoted(used)));
        }
    }

    const QByteArray utf8 = name.toUtf8();
    const lxw_error invalid = workbook_validate_sheet_name(d->workbook, utf8.constData());
    if (invalid != LXW_NO_ERROR) {
        return d->fail(
                QStringLiteral("Sheet name %1: %2").arg(quoted(name), libraryError(invalid)));
    }
    lxw_worksheet *sheet = workbook_add_worksheet(d->workbook, utf8.constData());
    if (!sheet) {
        // With its name valid, a sheet fails for want of memory or of the temporary file that
        // holds its rows until the workbook is closed.
        return d->fail(QStringLiteral("Cannot add sheet %1: out of memory, or no temporary file "
                                      "in %2")
                               .arg(quoted(name), quotedPath(d->tempDirectory)));
    }
    d->sheet = sheet;
    d->sheets.push_back(sheet);
    d->sheetNames.append(name);
    d->lastRow = 0;
    return true;
}

bool KrXlsxWriter::writeCell(int row, int column, const QVariant &value, CellFormat format)
{
    if (!d->startCell(row, column))
        return false;
    if (value.isNull())
        return true;
    return d->writeValue(row, column, value, format);
}

bool KrXlsxWriter::setColumnWidth(int firstColumn, int lastColumn, double width)
{
    if (!d->canWrite())
        return false;
    if (!d->sheet)
        return d->fail(
                QStringLiteral("No sheet to set column widths of: a sheet must be added first"));
    if (firstColumn < 1 || lastColumn > maxColumns || firstColumn > lastColumn) {
        return d->fail(QStringLiteral("Sheet %1: columns %2 to %3 are not a range of columns 1 to "
                                      "%4")
                               .arg(quoted(d->sheetNames.last()))
                               .arg(firstColumn)
                               .arg(lastColumn)
                               .arg(maxColumns));
    }
    if (!(width >= 0 && width <= maxColumnWidth)) { // NaN included
        return d->fail(QStringLiteral("Sheet %1: column width %2 is outside 0 to %3")
                               .arg(quoted(d->sheetNames.last()))
                               .arg(width)
                               .arg(maxColumnWidth));
    }
    const lxw_error result
            = worksheet_set_column(d->sheet, lxw_col_t(firstColumn - 1), lxw_col_t(lastColumn - 1),
                                   characterWidth(width), nullptr);
    if (result != LXW_NO_ERROR) {
        return d->fail(QStringLiteral("Sheet %1, columns %2 to %3: %4")
                               .arg(quoted(d->sheetNames.last()))
                               .arg(firstColumn)
                               .arg(lastColumn)
                               .arg(libraryError(result)));
    }
    return true;
}

bool KrXlsxWriter::save()
{
    if (!d->canWrite())
        return false;
    // libxlsxwriter would add this sheet itself, but then leave its file open (see
    // closeEmptySheetFiles()).
    if (d->sheets.empty() && !addSheet(QStringLiteral("Sheet1")))
        return false;
    d->saved = true;

    d->closeEmptySheetFiles();
    std::vector<long> rowBytes;
    if (!d->checkStreamedRows(rowBytes))
        return false;
    // workbook_close() frees the workbook whatever the outcome.
    const lxw_error closed = workbook_close(std::exchange(d->workbook, nullptr));
    if (closed != LXW_NO_ERROR) {
        QFile::remove(d->tempFileName);
        return d->fail(QStringLiteral("Cannot write %1: %2")
                               .arg(quotedPath(d->fileName), libraryError(closed)));
    }
    if (!d->checkArchivedSheets(rowBytes)) {
        QFile::remove(d->tempFileName);
        return false;
    }

    // As QSaveFile does, a replaced file keeps its permissions.
    const QFileInfo target(d->fileName);
    if (target.exists())
        QFile::setPermissions(d->tempFileName, target.permissions());

    // Unlike QFile::rename(), std::filesystem::rename() replaces an existing file, atomically
    // where the system can (rename(2); MoveFileExW with MOVEFILE_REPLACE_EXISTING on Windows).
    std::error_code renamed;
    std::filesystem::rename(fileSystemPath(d->tempFileName), fileSystemPath(d->fileName), renamed);
    if (renamed) {
        QFile::remove(d->tempFileName);
        return d->fail(QStringLiteral("Cannot replace %1: %2")
                               .arg(quotedPath(d->fileName),
                                    QString::fromLocal8Bit(renamed.message().c_str())));
    }
    return true;
}

QString KrXlsxWriter::errorString() const
{
    return d->error;
}
