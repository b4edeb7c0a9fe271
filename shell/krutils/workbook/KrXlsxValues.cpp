#include "KrXlsxValues_p.h"

#include "KrXmlText_p.h"

#include <QDate>
#include <QDateTime>
#include <QTime>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

namespace KrXlsxValues {

namespace {

constexpr qint64 MsPerDay = 86400000;

// A time of day from milliseconds since midnight; rounding never carries it into the next day.
QTime timeOfDay(qint64 ms)
{
    return QTime::fromMSecsSinceStartOfDay(int(std::min(ms, MsPerDay - 1)));
}

// The day of a whole serial; invalid where it names none. Serial 1 is 1900-01-01 in the 1900
// system, which counts the nonexistent 1900-02-29 as serial 60 (and shows serial 0 as
// 1900-01-00): from serial 61 on the days count from 1899-12-30, below 60 from 1899-12-31. In
// the 1904 system serial 0 is 1904-01-01. Excel shows nothing after 9999-12-31.
QDate dayOfSerial(qint64 days, bool date1904)
{
    static const qint64 epoch1900 = QDate(1899, 12, 30).toJulianDay();
    static const qint64 epoch1904 = QDate(1904, 1, 1).toJulianDay();
    static const qint64 lastDay = QDate(9999, 12, 31).toJulianDay();
    qint64 julianDay = 0;
    if (date1904)
        julianDay = epoch1904 + days;
    else if (days == 0 || days == 60)
        return QDate();
    else
        julianDay = (days < 60 ? epoch1900 + 1 : epoch1900) + days;
    return julianDay > lastDay ? QDate() : QDate::fromJulianDay(julianDay);
}

bool takeDigits(std::string_view *text, size_t count, int *value)
{
    if (text->size() < count)
        return false;
    int result = 0;
    for (size_t i = 0; i < count; ++i) {
        const char c = (*text)[i];
        if (c < '0' || c > '9')
            return false;
        result = result * 10 + (c - '0');
    }
    text->remove_prefix(count);
    *value = result;
    return true;
}

bool takeChar(std::string_view *text, char c)
{
    if (text->empty() || text->front() != c)
        return false;
    text->remove_prefix(1);
    return true;
}

// "+08:00", "-0500", "+08", "Z" or nothing.
bool isZoneDesignator(std::string_view text)
{
    if (text.empty() || text == "Z")
        return true;
    int hour = 0, minute = 0;
    if (!takeChar(&text, '+') && !takeChar(&text, '-'))
        return false;
    if (!takeDigits(&text, 2, &hour))
        return false;
    takeChar(&text, ':');
    return text.empty() || (takeDigits(&text, 2, &minute) && text.empty());
}

// "hh:mm", "hh:mm:ss" or "hh:mm:ss.fff" (any number of fraction digits, '.' or ','), then a
// zone designator; *ms since midnight, rounded.
bool parseIsoTime(std::string_view text, qint64 *ms)
{
    int hour = 0, minute = 0, second = 0;
    if (!takeDigits(&text, 2, &hour) || !takeChar(&text, ':') || !takeDigits(&text, 2, &minute))
        return false;
    *ms = 0;
    if (takeChar(&text, ':')) {
        if (!takeDigits(&text, 2, &second))
            return false;
        if (takeChar(&text, '.') || takeChar(&text, ',')) {
            double fraction = 0;
            double scale = 0.1;
            size_t digits = 0;
            while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
                fraction += (text[digits] - '0') * scale;
                scale /= 10;
                ++digits;
            }
            if (digits == 0)
                return false;
            text.remove_prefix(digits);
            *ms = std::llround(fraction * 1000);
        }
    }
    if (!isZoneDesignator(text) || hour > 23 || minute > 59 || second > 59)
        return false;
    *ms += (hour * 3600 + minute * 60 + second) * qint64(1000);
    return true;
}

// A date, a time or both; *date stays invalid without a date, *ms is -1 without a time.
bool parseIso(std::string_view text, QDate *date, qint64 *ms)
{
    text = KrXmlText::trimmed(text);
    *ms = -1;
    if (text.size() >= 10 && text[4] == '-') {
        int year = 0, month = 0, day = 0;
        if (!takeDigits(&text, 4, &year) || !takeChar(&text, '-') || !takeDigits(&text, 2, &month)
            || !takeChar(&text, '-') || !takeDigits(&text, 2, &day))
            return false;
        *date = QDate(year, month, day);
        if (!date->isValid())
            return false;
        if (text.empty())
            return true;
        if (!takeChar(&text, 'T') && !takeChar(&text, ' '))
            return false;
    }
    return parseIsoTime(text, ms);
}

// A run of date or time letters in a number format: y, m, d, h, s (lower case), 'a' for AM/PM
// or A/P, ';' between sections.
struct FormatToken
{
    char letter;
    size_t length;
};

bool startsWithNoCase(std::string_view text, std::string_view lowerPrefix)
{
    if (text.size() < lowerPrefix.size())
        return false;
    for (size_t i = 0; i < lowerPrefix.size(); ++i) {
        const char c = text[i] >= 'A' && text[i] <= 'Z' ? char(text[i] - 'A' + 'a') : text[i];
        if (c != lowerPrefix[i])
            return false;
    }
    return true;
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

// The date and time letters of a format code, outside quoted text, escaped characters and
// brackets, up to an unterminated quote or bracket; false for a code with an elapsed-time bracket
// ([h], [mm], [ss]). Colours, conditions and locales in brackets ([Red], [>100], [$-409]) are
// skipped.
bool formatTokens(std::string_view code, std::vector<FormatToken> *tokens)
{
    for (size_t i = 0; i < code.size(); ++i) {
        const char c = lower(code[i]);
        switch (c) {
        case '"':
        case '[': {
            const size_t close = code.find(c == '"' ? '"' : ']', i + 1);
            if (close == std::string_view::npos)
                return true;
            const std::string_view inside = code.substr(i + 1, close - i - 1);
            const char first = inside.empty() ? 0 : lower(inside.front());
            if (c == '[' && (first == 'h' || first == 'm' || first == 's')
                && std::all_of(inside.begin(), inside.end(),
                               [&](char x) { return lower(x) == first; }))
                return false;
            i = close;
            break;
        }
        case '\\':
        case '_':
        case '*':
            ++i;
            break; // escaped, padding or fill character
        case ';':
        case 'y':
        case 'm':
        case 'd':
        case 'h':
        case 's': {
            size_t length = 1;
            while (c != ';' && i + length < code.size() && lower(code[i + length]) == c)
                ++length;
            tokens->push_back({c, length});
            i += length - 1;
            break;
        }
        case 'a':
            for (std::string_view marker : {std::string_view("am/pm"), std::string_view("a/p")}) {
                if (startsWithNoCase(code.substr(i), marker)) {
                    tokens->push_back({'a', marker.size()});
                    i += marker.size() - 1;
                    break;
                }
            }
            break;
        default:
            break;
        }
    }
    return true;
}

// Excel's reading of m and mm: minutes right after an hour or right before seconds, otherwise
// the month; mmm and longer are always months.
bool isMinute(const std::vector<FormatToken> &tokens, size_t index)
{
    if (tokens[index].length > 2)
        return false;
    return (index > 0 && tokens[index - 1].letter == 'h')
            || (index + 1 < tokens.size() && tokens[index + 1].letter == 's');
}

} // namespace

QString cellName(int row, int column)
{
    QString letters;
    for (int c = column; c > 0; c = (c - 1) / 26)
        letters.prepend(QLatin1Char(char('A' + (c - 1) % 26)));
    return letters + QString::number(row);
}

QString textValue(std::string_view utf8)
{
    const QString text = KrXmlText::toQString(utf8);
    if (!text.contains(QLatin1String("_x")))
        return text;
    // A literal "_x" is written _x005F_x.
    auto isHex = [](QChar c) {
        const ushort u = c.unicode();
        return (u >= '0' && u <= '9') || (u >= 'a' && u <= 'f') || (u >= 'A' && u <= 'F');
    };
    QString decoded;
    decoded.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        if (text.at(i) == QLatin1Char('_') && i + 6 < text.size()
            && text.at(i + 1) == QLatin1Char('x') && isHex(text.at(i + 2)) && isHex(text.at(i + 3))
            && isHex(text.at(i + 4)) && isHex(text.at(i + 5))
            && text.at(i + 6) == QLatin1Char('_')) {
            decoded += QChar(text.midRef(i + 2, 4).toUShort(nullptr, 16));
            i += 6;
        } else {
            decoded += text.at(i);
        }
    }
    return decoded;
}

// Excel's built-in date and time formats, 14-22 and 45-47, and the East Asian ones (27-36,
// 50-58) that Chinese, Japanese and Korean Excel write without defining them. Those differ by
// locale; these are the Chinese ones (Japanese and Korean Excel show dates for 34, 35, 55, 56).
DateKind builtInFormatKind(quint32 numFmtId)
{
    switch (numFmtId) {
    case 14: // m/d/yyyy
    case 15: // d-mmm-yy
    case 16: // d-mmm
    case 17: // mmm-yy
    case 27: // yyyy"年"m"月"
    case 28: // m"月"d"日"
    case 29:
    case 30: // m-d-yy
    case 31: // yyyy"年"m"月"d"日"
    case 36:
    case 50:
    case 51:
    case 52:
    case 53:
    case 54:
    case 57:
    case 58:
        return DateKind::Date;
    case 18: // h:mm AM/PM
    case 19: // h:mm:ss AM/PM
    case 20: // h:mm
    case 21: // h:mm:ss
    case 32: // h"时"mm"分"
    case 33: // h"时"mm"分"ss"秒"
    case 34: // 上午/下午h"时"mm"分"
    case 35: // 上午/下午h"时"mm"分"ss"秒"
    case 45: // mm:ss
    case 47: // mmss.0
    case 55:
    case 56:
        return DateKind::Time;
    case 22: // m/d/yy h:mm
        return DateKind::DateTime;
    default: // 46, [h]:mm:ss, is elapsed time
        return DateKind::None;
    }
}

DateKind formatCodeKind(std::string_view code)
{
    std::vector<FormatToken> tokens;
    if (!formatTokens(code, &tokens))
        return DateKind::None;
    bool date = false;
    bool time = false;
    for (size_t i = 0; i < tokens.size(); ++i) {
        switch (tokens[i].letter) {
        case 'y':
        case 'd':
            date = true;
            break;
        case 'm':
            (isMinute(tokens, i) ? time : date) = true;
            break;
        case 'h':
        case 's':
        case 'a':
            time = true;
            break;
        }
    }
    if (date)
        return time ? DateKind::DateTime : DateKind::Date;
    return time ? DateKind::Time : DateKind::None;
}

QVariant fromSerial(double serial, DateKind kind, bool date1904)
{
    // 9999-12-31, the last day Excel shows.
    const double end = date1904 ? 2957004 : 2958466;
    if (kind == DateKind::None || !(serial >= 0 && serial < end))
        return serial;
    const double wholeDays = std::floor(serial);
    const qint64 ms = std::llround((serial - wholeDays) * double(MsPerDay));
    if (kind == DateKind::Time)
        return timeOfDay(ms);
    const QDate date = dayOfSerial(qint64(wholeDays) + (ms == MsPerDay ? 1 : 0), date1904);
    if (!date.isValid())
        return serial;
    if (kind == DateKind::Date)
        return date;
    return QDateTime(date, QTime::fromMSecsSinceStartOfDay(int(ms % MsPerDay)), Qt::UTC);
}

QVariant fromIsoDateTime(std::string_view text, DateKind kind)
{
    QDate date;
    qint64 ms = -1;
    if (!parseIso(text, &date, &ms))
        return QVariant();
    if (!date.isValid() || kind == DateKind::Time)
        return timeOfDay(std::max<qint64>(ms, 0));
    if (ms >= MsPerDay) {
        date = date.addDays(1);
        ms -= MsPerDay;
    }
    if (kind == DateKind::Date || (kind == DateKind::None && ms < 0))
        return date;
    return QDateTime(date, QTime::fromMSecsSinceStartOfDay(int(std::max<qint64>(ms, 0))), Qt::UTC);
}

} // namespace KrXlsxValues
