#ifndef KRXLSXVALUES_P_H
#define KRXLSXVALUES_P_H

#include "KrXmlText_p.h"

#include <QString>
#include <QVariant>

#include <charconv>
#include <cmath>
#include <string_view>

// Internal to KrXlsxReader: the values behind the texts of a workbook's XML, on UTF-8 bytes.
// Numbers, indexes and cell references; Excel's serial date-times and ISO 8601 dates; and what a
// number format shows of a number, which decides the type of a date cell.
namespace KrXlsxValues {

constexpr int MaxRow = 1048576;
constexpr int MaxColumn = 16384; // XFD

// What a cell's number format shows of its number, and so the type the cell is read as: a date
// and a time of day (QDateTime), a date (QDate), a time of day (QTime), or none of them (the
// number itself). Elapsed-time formats such as [h]:mm show a duration, which can pass 24 hours
// and has no date: they are None, and the cell keeps its number of days.
enum class DateKind : quint8 { None, Date, Time, DateTime };

// The parsers the sheet loop calls for every cell are inline.

// A number as cells hold it: decimal or scientific, white space around it allowed; false for
// anything else, NaN and infinities included.
inline bool parseNumber(std::string_view text, double *number)
{
    text = KrXmlText::trimmed(text);
    if (text.size() > 1 && text.front() == '+' && text[1] != '-')
        text.remove_prefix(1);
    const auto result = std::from_chars(text.data(), text.data() + text.size(), *number);
    return !text.empty() && result.ec == std::errc() && result.ptr == text.data() + text.size()
            && std::isfinite(*number);
}

// A decimal number without sign or leading zeros, at most `max`.
inline bool parseIndex(std::string_view text, quint32 max, quint32 *value)
{
    if (text.empty() || text.size() > 10 || (text.size() > 1 && text.front() == '0'))
        return false;
    quint64 result = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        result = result * 10 + quint64(c - '0');
    }
    if (result > max)
        return false;
    *value = quint32(result);
    return true;
}

// "A1" .. "XFD1048576", upper case.
inline bool parseCellReference(std::string_view text, int *row, int *column)
{
    size_t letters = 0;
    int col = 0;
    while (letters < text.size() && letters < 4 && text[letters] >= 'A' && text[letters] <= 'Z')
        col = col * 26 + (text[letters++] - 'A' + 1);
    quint32 r = 0;
    if (letters == 0 || col > MaxColumn || !parseIndex(text.substr(letters), MaxRow, &r) || r == 0)
        return false;
    *row = int(r);
    *column = col;
    return true;
}

QString cellName(int row, int column);
// A text with Excel's _xHHHH_ escapes of characters that XML cannot carry decoded.
QString textValue(std::string_view utf8);

DateKind builtInFormatKind(quint32 numFmtId);
DateKind formatCodeKind(std::string_view code);

// A number under a date, time or date-time format, as that type. A time of day is rounded to
// the millisecond; a date-time that rounds up to midnight moves to the next day, a time of day
// stops at 23:59:59.999. A number without the date the format shows (negative, beyond
// 9999-12-31, or in the 1900 date system below 1 or 60, Excel's fictitious 1900-02-29) stays a
// double; so does every number under DateKind::None.
QVariant fromSerial(double serial, DateKind kind, bool date1904);
// An ISO 8601 date ("2024-03-10"), time ("14:30:00.250") or both ("2024-03-10T14:30:00"), as
// cells of type "d" hold them, under the cell's format: a date format takes the date, a time
// format the time of day, a date-time format both (midnight where the text has no time). A
// text without a date, and any text under DateKind::None, keeps the parts it writes. A zone
// designator is accepted and ignored: the value is the wall-clock time written. An invalid
// QVariant when the text is no such date.
QVariant fromIsoDateTime(std::string_view text, DateKind kind);

} // namespace KrXlsxValues

#endif // KRXLSXVALUES_P_H
