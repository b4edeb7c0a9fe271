#include "KrXlsxReader_p.h"

#include "KrXmlPullReader_p.h"
#include "KrZipEntryReader_p.h"

#include <QDate>
#include <QDateTime>
#include <QFile>
#include <QHash>
#include <QTime>
#include <QUrl>
#include <QVector>

#include <minizip/unzip.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Ns = KrXmlPullReader::Namespace;

constexpr int MaxRow = 1048576;
constexpr int MaxColumn = 16384;
constexpr qint64 MsPerDay = 86400000;

QString message(const char *text)
{
    return QString::fromLatin1(text);
}

// The relationship kind ("worksheet", "officeDocument", ...) of a relationship type URI in
// either the transitional or the strict form; empty for types from elsewhere.
QString relationshipKind(std::string_view type)
{
    for (std::string_view prefix :
         {std::string_view("http://schemas.openxmlformats.org/officeDocument/2006/relationships/"),
          std::string_view("http://purl.oclc.org/ooxml/officeDocument/relationships/")}) {
        if (type.substr(0, prefix.size()) == prefix) {
            type.remove_prefix(prefix.size());
            return QString::fromUtf8(type.data(), int(type.size()));
        }
    }
    return QString();
}

QString fromUtf8(std::string_view bytes)
{
    return QString::fromUtf8(bytes.data(), int(bytes.size()));
}

// ---- Zip access ------------------------------------------------------------------------------

// minizip reads the archive through these callbacks, so that a QFile and a QBuffer serve alike.
voidpf ZCALLBACK deviceOpen(voidpf opaque, const void *, int mode)
{
    return (mode & ZLIB_FILEFUNC_MODE_READ) ? opaque : nullptr;
}

uLong ZCALLBACK deviceRead(voidpf, voidpf stream, void *buffer, uLong size)
{
    const qint64 read = static_cast<QIODevice *>(stream)->read(static_cast<char *>(buffer), size);
    return read > 0 ? uLong(read) : 0;
}

uLong ZCALLBACK deviceWrite(voidpf, voidpf, const void *, uLong)
{
    return 0;
}

ZPOS64_T ZCALLBACK deviceTell(voidpf, voidpf stream)
{
    return ZPOS64_T(static_cast<QIODevice *>(stream)->pos());
}

long ZCALLBACK deviceSeek(voidpf, voidpf stream, ZPOS64_T offset, int origin)
{
    auto *device = static_cast<QIODevice *>(stream);
    const qint64 size = device->size();
    qint64 base = 0;
    switch (origin) {
    case ZLIB_FILEFUNC_SEEK_SET:
        base = 0;
        break;
    case ZLIB_FILEFUNC_SEEK_CUR:
        base = device->pos();
        break;
    case ZLIB_FILEFUNC_SEEK_END:
        base = size;
        break;
    default:
        return -1;
    }
    // Offsets come from the archive itself; one past the end would make QBuffer warn.
    if (offset > ZPOS64_T(size) || base + qint64(offset) > size)
        return -1;
    return device->seek(base + qint64(offset)) ? 0 : -1;
}

int ZCALLBACK deviceClose(voidpf, voidpf)
{
    return 0;
}

int ZCALLBACK deviceError(voidpf, voidpf)
{
    return 0;
}

// ---- Reading XML -----------------------------------------------------------------------------

// Moves to the next child element of the element at `parentDepth` and returns true; returns
// false at that element's end tag, at the end of the document, or on an error. Whatever the
// caller leaves unread of a child is skipped.
bool nextChild(KrXmlPullReader &xml, int parentDepth)
{
    for (;;) {
        switch (xml.readNext()) {
        case KrXmlPullReader::StartElement:
            if (xml.depth() == parentDepth + 1)
                return true;
            break;
        case KrXmlPullReader::EndElement:
            if (xml.depth() < parentDepth)
                return false;
            break;
        case KrXmlPullReader::Characters:
            break;
        case KrXmlPullReader::EndDocument:
        case KrXmlPullReader::Invalid:
            return false;
        }
    }
}

// Reads the rest of the document so that its end is checked (and the zip entry's checksum).
bool readToEnd(KrXmlPullReader &xml)
{
    while (xml.readNext() != KrXmlPullReader::EndDocument) {
        if (xml.hasError())
            return false;
    }
    return true;
}

// The text of a string item (<si> or <is>): plain <t>, or the <t> of its rich-text runs <r>.
// Phonetic runs (<rPh>) are readings of the text, not part of it.
void readRichText(KrXmlPullReader &xml, std::string *text)
{
    text->clear();
    const int depth = xml.depth();
    while (nextChild(xml, depth)) {
        if (xml.isElement(Ns::Sheet, "t")) {
            xml.readElementText(text);
        } else if (xml.isElement(Ns::Sheet, "r")) {
            const int runDepth = xml.depth();
            while (nextChild(xml, runDepth)) {
                if (xml.isElement(Ns::Sheet, "t"))
                    xml.readElementText(text);
            }
        }
    }
}

// ---- Values ---------------------------------------------------------------------------------

// Texts may escape characters XML cannot carry as _xHHHH_ (a literal "_x" is written _x005F_x).
QString decodeEscapes(const QString &text)
{
    if (!text.contains(QLatin1String("_x")))
        return text;
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

QString textValue(const std::string &utf8)
{
    return decodeEscapes(QString::fromUtf8(utf8.data(), int(utf8.size())));
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && KrXmlPullReader::isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && KrXmlPullReader::isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

bool parseNumber(std::string_view text, double *number)
{
    text = trimmed(text);
    if (text.size() > 1 && text.front() == '+' && text[1] != '-')
        text.remove_prefix(1);
    const auto result = std::from_chars(text.data(), text.data() + text.size(), *number);
    return !text.empty() && result.ec == std::errc() && result.ptr == text.data() + text.size()
            && std::isfinite(*number);
}

// A decimal number without sign or leading zeros, at most `max`.
bool parseIndex(std::string_view text, quint32 max, quint32 *value)
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

// "A1" .. "XFD1048576".
bool parseCellReference(std::string_view text, int *row, int *column)
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

QString cellName(int row, int column)
{
    QString letters;
    for (int c = column; c > 0; c = (c - 1) / 26)
        letters.prepend(QLatin1Char(char('A' + (c - 1) % 26)));
    return letters + QString::number(row);
}

// A serial date-time of either date system as a wall-clock value. Serial 1 is 1900-01-01 in the
// 1900 system, which counts the nonexistent 1900-02-29 as serial 60: from serial 61 on the days
// count from 1899-12-30, below 60 from 1899-12-31. In the 1904 system serial 0 is 1904-01-01.
QVariant dateTimeFromSerial(double serial, bool date1904)
{
    static const qint64 epoch1900 = QDate(1899, 12, 30).toJulianDay();
    static const qint64 epoch1904 = QDate(1904, 1, 1).toJulianDay();
    static const qint64 lastDay = QDate(9999, 12, 31).toJulianDay();
    // 9999-12-31, the last day Excel shows.
    const double end = date1904 ? 2957004 : 2958466;
    if (!(serial >= 0 && serial < end))
        return serial;
    const double wholeDays = std::floor(serial);
    qint64 days = qint64(wholeDays);
    qint64 ms = std::llround((serial - wholeDays) * double(MsPerDay));
    if (serial < 1)
        return QTime::fromMSecsSinceStartOfDay(int(std::min(ms, MsPerDay - 1)));
    if (ms == MsPerDay) {
        ++days;
        ms = 0;
    }
    qint64 julianDay = 0;
    if (date1904)
        julianDay = epoch1904 + days;
    else if (days == 60)
        return serial;
    else
        julianDay = (days < 60 ? epoch1900 + 1 : epoch1900) + days;
    if (julianDay > lastDay)
        return serial;
    const QDate date = QDate::fromJulianDay(julianDay);
    if (ms == 0)
        return date;
    return QDateTime(date, QTime::fromMSecsSinceStartOfDay(int(ms)), Qt::UTC);
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

// An ISO 8601 date ("2024-03-10"), time ("14:30:00.250") or both ("2024-03-10T14:30:00"), as
// cells of type "d" hold them. A zone designator is accepted and ignored: the value is taken as
// the wall-clock time written.
QVariant parseIsoDateTime(std::string_view text)
{
    text = trimmed(text);
    QDate date;
    int year = 0, month = 0, day = 0;
    if (text.size() >= 10 && text[4] == '-') {
        if (!takeDigits(&text, 4, &year) || !takeChar(&text, '-') || !takeDigits(&text, 2, &month)
            || !takeChar(&text, '-') || !takeDigits(&text, 2, &day))
            return QVariant();
        date = QDate(year, month, day);
        if (!date.isValid())
            return QVariant();
        if (text.empty())
            return date;
        if (!takeChar(&text, 'T') && !takeChar(&text, ' '))
            return QVariant();
    }
    int hour = 0, minute = 0, second = 0;
    if (!takeDigits(&text, 2, &hour) || !takeChar(&text, ':') || !takeDigits(&text, 2, &minute))
        return QVariant();
    qint64 ms = 0;
    if (takeChar(&text, ':')) {
        if (!takeDigits(&text, 2, &second))
            return QVariant();
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
                return QVariant();
            text.remove_prefix(digits);
            ms = std::llround(fraction * 1000);
        }
    }
    if (!text.empty() && !(text == "Z")) {
        int zoneHour = 0, zoneMinute = 0;
        if (!takeChar(&text, '+') && !takeChar(&text, '-'))
            return QVariant();
        if (!takeDigits(&text, 2, &zoneHour))
            return QVariant();
        takeChar(&text, ':');
        if (!text.empty() && (!takeDigits(&text, 2, &zoneMinute) || !text.empty()))
            return QVariant();
    }
    if (hour > 23 || minute > 59 || second > 59)
        return QVariant();
    ms += (hour * 3600 + minute * 60 + second) * qint64(1000);
    if (!date.isValid())
        return QTime::fromMSecsSinceStartOfDay(int(std::min(ms, MsPerDay - 1)));
    if (ms >= MsPerDay) {
        date = date.addDays(1);
        ms -= MsPerDay;
    }
    return QDateTime(date, QTime::fromMSecsSinceStartOfDay(int(ms)), Qt::UTC);
}

// Excel's built-in number formats that show dates or times: 14-22 and 45-47, and the East Asian
// ones (27-36, 50-58) that Chinese, Japanese and Korean Excel write without defining them.
bool isBuiltInDateFormat(quint32 id)
{
    return (id >= 14 && id <= 22) || (id >= 27 && id <= 36) || (id >= 45 && id <= 47)
            || (id >= 50 && id <= 58);
}

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

// Whether a number format code shows a date or time: a date or time token (y, m, d, h, s, AM/PM,
// A/P) outside quoted text, escaped characters and brackets, or an elapsed-time bracket ([h],
// [mm], [ss]). Colours, conditions and locales in brackets ([Red], [>100], [$-409]) do not count.
bool isDateFormatCode(std::string_view code)
{
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    for (size_t i = 0; i < code.size(); ++i) {
        const char c = lower(code[i]);
        switch (c) {
        case '"': {
            const size_t close = code.find('"', i + 1);
            if (close == std::string_view::npos)
                return false;
            i = close;
            break;
        }
        case '\\':
        case '_':
        case '*':
            ++i;
            break; // escaped, padding or fill character
        case '[': {
            const size_t close = code.find(']', i + 1);
            if (close == std::string_view::npos)
                return false;
            const std::string_view inside = code.substr(i + 1, close - i - 1);
            const char first = inside.empty() ? 0 : lower(inside.front());
            if ((first == 'h' || first == 'm' || first == 's')
                && std::all_of(inside.begin(), inside.end(),
                               [&](char x) { return lower(x) == first; }))
                return true;
            i = close;
            break;
        }
        case 'y':
        case 'm':
        case 'd':
        case 'h':
        case 's':
            return true;
        case 'a':
            if (startsWithNoCase(code.substr(i), "am/pm")
                || startsWithNoCase(code.substr(i), "a/p"))
                return true;
            break;
        default:
            break;
        }
    }
    return false;
}

// Part names in a zip are compared the way the package format does: without regard to ASCII case.
QString partKey(QString name)
{
    name.replace(QLatin1Char('\\'), QLatin1Char('/'));
    while (name.startsWith(QLatin1Char('/')))
        name.remove(0, 1);
    return name.toLower();
}

// Resolves a relationship target against the part that holds the relationship: relative to its
// folder, or from the package root when it starts with '/'.
QString resolveTarget(const QString &sourcePart, const QString &target)
{
    const int slash = sourcePart.lastIndexOf(QLatin1Char('/'));
    const QString path
            = target.startsWith(QLatin1Char('/')) ? target : sourcePart.left(slash + 1) + target;
    QStringList segments;
    for (const QString &segment : path.split(QLatin1Char('/'))) {
        if (segment.isEmpty() || segment == QLatin1String("."))
            continue;
        if (segment == QLatin1String("..")) {
            if (!segments.isEmpty())
                segments.removeLast();
        } else {
            segments.append(segment);
        }
    }
    return segments.join(QLatin1Char('/'));
}

// "xl/workbook.xml" -> "xl/_rels/workbook.xml.rels"; "" (the package) -> "_rels/.rels".
QString relationshipsPartOf(const QString &part)
{
    const int slash = part.lastIndexOf(QLatin1Char('/'));
    return part.left(slash + 1) + QLatin1String("_rels/") + part.mid(slash + 1)
            + QLatin1String(".rels");
}

struct Relationship
{
    QString kind; // see relationshipKind()
    QString target;
};

} // namespace

// ---- The reader ------------------------------------------------------------------------------

struct KrXlsxReader::Private
{
    struct Sheet
    {
        QString name;
        QString part; // zip entry name
        QString problem; // why it cannot be read, found at open()
    };

    bool fail(const QString &message)
    {
        error = message;
        return false;
    }
    bool openWorkbook(QIODevice *device);
    bool indexEntries();
    const KrZipEntryReader::Entry *entry(const QString &name) const;
    // Reads a part through `parse`, which gets the reader positioned at the document element.
    // When `parse` sets *stopped, the rest of the part is left unread.
    bool readPart(const QString &name, qint64 limit,
                  const std::function<bool(KrXmlPullReader &)> &parse, QString *problem,
                  const bool *stopped = nullptr);
    bool readRelationships(const QString &part, QHash<QString, Relationship> *relationships,
                           QString *problem);
    bool readWorkbook(const QString &part);
    bool readStyles(const QString &part);
    bool readSharedStrings(const QString &part);
    bool readSheetData(KrXmlPullReader &xml, const std::function<bool(KrXlsxCell &&)> &onCell,
                       bool *stopped);

    QFile file;
    unzFile zip = nullptr;
    qint64 budget = 0;
    QHash<QString, KrZipEntryReader::Entry> entries; // by partKey()
    QVector<Sheet> sheets;
    QVector<QString> sharedStrings;
    std::vector<bool> dateStyles; // by cell style (cellXfs) index
    bool date1904 = false;
    QString error;
};

bool KrXlsxReader::Private::indexEntries()
{
    std::vector<char> name(65536 + 1);
    int count = 0;
    for (int status = unzGoToFirstFile(zip); status != UNZ_END_OF_LIST_OF_FILE;
         status = unzGoToNextFile(zip)) {
        if (status != UNZ_OK)
            return fail(message("The file is damaged: its zip directory cannot be read."));
        if (++count > MaxZipEntries)
            return fail(
                    QStringLiteral("The zip archive has more than %1 entries.").arg(MaxZipEntries));
        unz_file_info64 info;
        KrZipEntryReader::Entry entry;
        if (unzGetCurrentFileInfo64(zip, &info, name.data(), uLong(name.size() - 1), nullptr, 0,
                                    nullptr, 0)
                    != UNZ_OK
            || unzGetFilePos64(zip, &entry.position) != UNZ_OK)
            return fail(message("The file is damaged: its zip directory cannot be read."));
        entry.name
                = QString::fromUtf8(name.data(), int(std::min<uLong>(info.size_filename, 65536)));
        entry.compressedSize = info.compressed_size;
        entry.uncompressedSize = info.uncompressed_size;
        entry.flags = info.flag;
        entry.method = info.compression_method;
        const QString key = partKey(entry.name);
        if (!entries.contains(key))
            entries.insert(key, entry);
    }
    return true;
}

const KrZipEntryReader::Entry *KrXlsxReader::Private::entry(const QString &name) const
{
    auto it = entries.constFind(partKey(name));
    if (it == entries.constEnd() && name.contains(QLatin1Char('%')))
        it = entries.constFind(partKey(QUrl::fromPercentEncoding(name.toUtf8())));
    return it == entries.constEnd() ? nullptr : &*it;
}

bool KrXlsxReader::Private::readPart(const QString &name, qint64 limit,
                                     const std::function<bool(KrXmlPullReader &)> &parse,
                                     QString *problem, const bool *stopped)
{
    const KrZipEntryReader::Entry *zipEntry = entry(name);
    if (!zipEntry) {
        *problem = QStringLiteral("%1 is missing").arg(name);
        return false;
    }
    KrZipEntryReader part(zip, &budget);
    if (!part.open(*zipEntry, limit)) {
        *problem = QStringLiteral("%1 cannot be read: %2").arg(zipEntry->name, part.errorString());
        return false;
    }
    KrXmlPullReader xml(part);
    const bool parsed = nextChild(xml, 0) && parse(xml);
    if (xml.hasError() || (parsed && !(stopped && *stopped) && !readToEnd(xml))) {
        *problem = QStringLiteral("%1: %2").arg(zipEntry->name, xml.errorString());
        return false;
    }
    if (!parsed && problem->isEmpty())
        *problem = QStringLiteral("%1: malformed document").arg(zipEntry->name);
    return parsed;
}

bool KrXlsxReader::Private::readRelationships(const QString &part,
                                              QHash<QString, Relationship> *relationships,
                                              QString *problem)
{
    const QString relsPart = relationshipsPartOf(part);
    return readPart(
            relsPart, MaxOtherPartSize,
            [&](KrXmlPullReader &xml) {
                if (!xml.isElement(Ns::PackageRels, "Relationships")) {
                    *problem = QStringLiteral("%1 holds no relationships").arg(relsPart);
                    return false;
                }
                while (nextChild(xml, 1)) {
                    if (!xml.isElement(Ns::PackageRels, "Relationship")
                        || xml.attribute("TargetMode") == "External")
                        continue;
                    const QString id = fromUtf8(xml.attribute("Id"));
                    if (!relationships->contains(id)) {
                        relationships->insert(
                                id,
                                {relationshipKind(xml.attribute("Type")),
                                 resolveTarget(part, fromUtf8(xml.attribute("Target")))});
                    }
                }
                return !xml.hasError();
            },
            problem);
}

bool KrXlsxReader::Private::readWorkbook(const QString &part)
{
    struct SheetEntry
    {
        QString name;
        QString id;
    };
    QVector<SheetEntry> found;
    QString problem;
    const bool read = readPart(
            part, MaxOtherPartSize,
            [&](KrXmlPullReader &xml) {
                if (!xml.isElement(Ns::Sheet, "workbook")) {
                    problem = QStringLiteral("%1 is not a workbook").arg(part);
                    return false;
                }
                while (nextChild(xml, 1)) {
                    if (xml.isElement(Ns::Sheet, "workbookPr")) {
                        const std::string_view value = xml.attribute("date1904");
                        date1904 = value == "1" || value == "true";
                    } else if (xml.isElement(Ns::Sheet, "sheets")) {
                        while (nextChild(xml, 2)) {
                            if (xml.isElement(Ns::Sheet, "sheet"))
                                found.append({fromUtf8(xml.attribute("name")),
                                              fromUtf8(xml.attribute("id", Ns::OfficeRels))});
                        }
                    }
                }
                return !xml.hasError();
            },
            &problem);
    if (!read)
        return fail(QStringLiteral("The workbook cannot be read: %1.").arg(problem));

    QHash<QString, Relationship> relationships;
    if (!readRelationships(part, &relationships, &problem))
        return fail(QStringLiteral("The workbook cannot be read: %1.").arg(problem));

    for (const SheetEntry &sheetEntry : qAsConst(found)) {
        const auto relationship = relationships.constFind(sheetEntry.id);
        Sheet sheet;
        sheet.name = sheetEntry.name;
        if (relationship == relationships.constEnd()) {
            sheet.problem = QStringLiteral("the workbook names no part for it (relationship '%1')")
                                    .arg(sheetEntry.id);
        } else if (relationship->kind != QLatin1String("worksheet")) {
            continue; // chart sheets, dialog sheets, macro sheets
        } else {
            sheet.part = relationship->target;
            if (!entry(sheet.part))
                sheet.problem = QStringLiteral("its part %1 is missing").arg(sheet.part);
        }
        sheets.append(sheet);
    }

    for (const Relationship &relationship : qAsConst(relationships)) {
        if (relationship.kind == QLatin1String("styles") && !readStyles(relationship.target))
            return false;
    }
    for (const Relationship &relationship : qAsConst(relationships)) {
        if (relationship.kind == QLatin1String("sharedStrings")
            && !readSharedStrings(relationship.target))
            return false;
    }
    return true;
}

bool KrXlsxReader::Private::readStyles(const QString &part)
{
    QHash<quint32, bool> customFormats;
    std::vector<quint32> cellFormats;
    QString problem;
    const bool read = readPart(
            part, MaxOtherPartSize,
            [&](KrXmlPullReader &xml) {
                if (!xml.isElement(Ns::Sheet, "styleSheet")) {
                    problem = QStringLiteral("%1 holds no styles").arg(part);
                    return false;
                }
                while (nextChild(xml, 1)) {
                    if (xml.isElement(Ns::Sheet, "numFmts")) {
                        while (nextChild(xml, 2)) {
                            quint32 id = 0;
                            if (xml.isElement(Ns::Sheet, "numFmt")
                                && parseIndex(xml.attribute("numFmtId"), UINT_MAX, &id))
                                customFormats.insert(id,
                                                     isDateFormatCode(xml.attribute("formatCode")));
                        }
                    } else if (xml.isElement(Ns::Sheet, "cellXfs")) {
                        while (nextChild(xml, 2)) {
                            quint32 id = 0;
                            if (xml.isElement(Ns::Sheet, "xf")) {
                                parseIndex(xml.attribute("numFmtId"), UINT_MAX,
                                           &id); // none: General
                                cellFormats.push_back(id);
                            }
                        }
                    }
                }
                return !xml.hasError();
            },
            &problem);
    if (!read)
        return fail(QStringLiteral("The styles cannot be read: %1.").arg(problem));
    dateStyles.reserve(cellFormats.size());
    for (quint32 id : cellFormats)
        dateStyles.push_back(customFormats.value(id, isBuiltInDateFormat(id)));
    return true;
}

bool KrXlsxReader::Private::readSharedStrings(const QString &part)
{
    QString problem;
    const bool read = readPart(
            part, MaxSharedStringsPartSize,
            [&](KrXmlPullReader &xml) {
                if (!xml.isElement(Ns::Sheet, "sst")) {
                    problem = QStringLiteral("%1 holds no shared strings").arg(part);
                    return false;
                }
                quint32 count = 0;
                if (parseIndex(xml.attribute("uniqueCount"), UINT_MAX, &count))
                    sharedStrings.reserve(int(std::min<quint32>(count, 1 << 20)));
                std::string text;
                while (nextChild(xml, 1)) {
                    if (xml.isElement(Ns::Sheet, "si")) {
                        readRichText(xml, &text);
                        sharedStrings.append(textValue(text));
                    }
                }
                return !xml.hasError();
            },
            &problem);
    if (!read)
        return fail(QStringLiteral("The shared strings cannot be read: %1.").arg(problem));
    return true;
}

bool KrXlsxReader::Private::openWorkbook(QIODevice *device)
{
    // A password-protected workbook is an OLE compound file holding the encrypted package; so is
    // a legacy .xls.
    static const char oleSignature[] = "\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1";
    device->seek(0);
    const QByteArray head = device->read(8);
    device->seek(0);
    if (head == QByteArray(oleSignature, 8))
        return fail(message(
                "The file is an OLE compound document: a password-protected "
                "(encrypted) workbook or a legacy .xls file, neither of which can be read."));

    zlib_filefunc64_def functions = {deviceOpen, deviceRead,  deviceWrite, deviceTell,
                                     deviceSeek, deviceClose, deviceError, device};
    zip = unzOpen2_64("", &functions);
    if (!zip)
        return fail(message("The file is not an .xlsx workbook: it is not a zip archive, or it is "
                            "truncated or damaged."));
    budget = CompressionRatioAllowance + MaxCompressionRatio * device->size();
    if (!indexEntries())
        return false;

    // The package's relationships name the workbook part; xl/workbook.xml is where every
    // producer puts it, so it serves when they are missing or name nothing usable.
    QString workbook;
    QHash<QString, Relationship> packageRelationships;
    QString problem;
    if (readRelationships(QString(), &packageRelationships, &problem)) {
        for (const Relationship &relationship : qAsConst(packageRelationships)) {
            if (relationship.kind == QLatin1String("officeDocument")
                && entry(relationship.target)) {
                workbook = relationship.target;
                break;
            }
        }
    }
    if (workbook.isEmpty())
        workbook = QStringLiteral("xl/workbook.xml");
    if (!entry(workbook)) {
        if (entry(QStringLiteral("xl/workbook.bin")))
            return fail(message("The file is a binary workbook (.xlsb), which cannot be read."));
        return fail(message("The file is not an .xlsx workbook: it has no workbook part."));
    }
    return readWorkbook(workbook);
}

bool KrXlsxReader::Private::readSheetData(KrXmlPullReader &xml,
                                          const std::function<bool(KrXlsxCell &&)> &onCell,
                                          bool *stopped)
{
    enum CellType { Number, SharedString, FormulaString, InlineString, Boolean, Error, IsoDate };
    std::string value;
    std::string inlineText;
    int row = 0;
    int column = 0;
    auto cellError = [&](const QString &what) {
        xml.raiseError(QStringLiteral("cell %1: %2").arg(cellName(row, column), what));
        return false;
    };

    while (nextChild(xml, 2)) {
        if (!xml.isElement(Ns::Sheet, "row"))
            continue;
        // A row without a number follows the previous one.
        const std::string_view rowNumber = xml.attribute("r");
        quint32 number = quint32(row) + 1;
        if (!rowNumber.empty() && (!parseIndex(rowNumber, MaxRow, &number) || number == 0)) {
            xml.raiseError(QStringLiteral("a malformed row number '%1'").arg(fromUtf8(rowNumber)));
            return false;
        }
        if (number > quint32(MaxRow)) {
            xml.raiseError(QStringLiteral("a row after row %1").arg(MaxRow));
            return false;
        }
        row = int(number);
        column = 0;
        while (nextChild(xml, 3)) {
            if (!xml.isElement(Ns::Sheet, "c"))
                continue;
            // The attributes refer to the reader's buffer: take what they say before reading on.
            CellType type = Number;
            quint32 style = 0;
            bool hasStyle = false;
            bool hasReference = false;
            for (const KrXmlPullReader::Attribute &attribute : xml.attributes()) {
                if (attribute.ns != Ns::None || attribute.name.size() != 1)
                    continue;
                const std::string_view v = attribute.value;
                switch (attribute.name.front()) {
                case 'r':
                    if (!parseCellReference(v, &row, &column)) {
                        xml.raiseError(
                                QStringLiteral("a malformed cell reference '%1'").arg(fromUtf8(v)));
                        return false;
                    }
                    hasReference = true;
                    break;
                case 's':
                    hasStyle = parseIndex(v, UINT_MAX, &style);
                    break;
                case 't':
                    if (v == "n")
                        type = Number;
                    else if (v == "s")
                        type = SharedString;
                    else if (v == "str")
                        type = FormulaString;
                    else if (v == "inlineStr")
                        type = InlineString;
                    else if (v == "b")
                        type = Boolean;
                    else if (v == "e")
                        type = Error;
                    else if (v == "d")
                        type = IsoDate;
                    else
                        return cellError(
                                QStringLiteral("an unknown cell type '%1'").arg(fromUtf8(v)));
                    break;
                }
            }
            // A cell without a reference follows the previous cell of its row.
            if (!hasReference && ++column > MaxColumn) {
                column = MaxColumn;
                return cellError(QStringLiteral("a cell after column XFD"));
            }

            bool hasValue = false;
            bool hasInline = false;
            while (nextChild(xml, 4)) {
                if (xml.isElement(Ns::Sheet, "v")) {
                    value.clear();
                    xml.readElementText(&value);
                    hasValue = true;
                } else if (xml.isElement(Ns::Sheet, "is")) {
                    readRichText(xml, &inlineText);
                    hasInline = true;
                }
            }
            if (xml.hasError())
                return false;

            // An empty <v> is no value, except that a formula's text result may be empty.
            const std::string_view text = trimmed(value);
            hasValue = hasValue && (!text.empty() || type == FormulaString);
            QVariant cellValue;
            switch (type) {
            case Number:
                if (hasValue) {
                    double parsed = 0;
                    if (!parseNumber(text, &parsed))
                        return cellError(
                                QStringLiteral("a malformed number '%1'").arg(fromUtf8(text)));
                    if (hasStyle && style < dateStyles.size() && dateStyles[style])
                        cellValue = dateTimeFromSerial(parsed, date1904);
                    else
                        cellValue = parsed;
                }
                break;
            case SharedString:
                if (hasValue) {
                    quint32 index = 0;
                    if (!parseIndex(text, UINT_MAX, &index)
                        || index >= quint32(sharedStrings.size()))
                        return cellError(QStringLiteral("shared string '%1' is out of range (the "
                                                        "table holds %2)")
                                                 .arg(fromUtf8(text))
                                                 .arg(sharedStrings.size()));
                    cellValue = sharedStrings.at(int(index));
                }
                break;
            case FormulaString:
                if (hasValue)
                    cellValue = textValue(value);
                break;
            case InlineString:
                if (hasInline)
                    cellValue = textValue(inlineText);
                break;
            case Boolean:
                if (hasValue) {
                    if (text == "1" || text == "true")
                        cellValue = true;
                    else if (text == "0" || text == "false")
                        cellValue = false;
                    else
                        return cellError(
                                QStringLiteral("a malformed boolean '%1'").arg(fromUtf8(text)));
                }
                break;
            case Error:
                if (hasValue)
                    cellValue = fromUtf8(text);
                break;
            case IsoDate:
                if (hasValue) {
                    cellValue = parseIsoDateTime(text);
                    if (!cellValue.isValid())
                        return cellError(
                                QStringLiteral("a malformed date '%1'").arg(fromUtf8(text)));
                }
                break;
            }
            if (cellValue.isValid() && !onCell(KrXlsxCell {row, column, std::move(cellValue)})) {
                *stopped = true;
                return true;
            }
        }
    }
    return !xml.hasError();
}

KrXlsxReader::KrXlsxReader() : d(new Private)
{
}

KrXlsxReader::~KrXlsxReader()
{
    close();
}

bool KrXlsxReader::open(const QString &fileName)
{
    close();
    d->file.setFileName(fileName);
    if (!d->file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return d->fail(QStringLiteral("The file cannot be opened: %1.").arg(d->file.errorString()));
    if (d->openWorkbook(&d->file))
        return true;
    const QString error = d->error;
    close();
    d->error = error;
    return false;
}

bool KrXlsxReader::open(QIODevice *device)
{
    close();
    if (!device || !device->isReadable() || device->isSequential())
        return d->fail(message("The device is not open for random-access reading."));
    if (d->openWorkbook(device))
        return true;
    const QString error = d->error;
    close();
    d->error = error;
    return false;
}

void KrXlsxReader::close()
{
    if (d->zip)
        unzClose(d->zip);
    d->zip = nullptr;
    d->file.close();
    d->entries.clear();
    d->sheets.clear();
    d->sharedStrings.clear();
    d->dateStyles.clear();
    d->date1904 = false;
    d->budget = 0;
    d->error.clear();
}

QString KrXlsxReader::errorString() const
{
    return d->error;
}

QStringList KrXlsxReader::sheetNames() const
{
    QStringList names;
    for (const Private::Sheet &sheet : d->sheets)
        names.append(sheet.name);
    return names;
}

bool KrXlsxReader::readSheet(int index, const std::function<bool(KrXlsxCell &&)> &onCell)
{
    d->error.clear();
    if (!d->zip)
        return d->fail(message("No workbook is open."));
    if (index < 0 || index >= d->sheets.size())
        return d->fail(QStringLiteral("There is no sheet %1.").arg(index));
    const Private::Sheet &sheet = d->sheets.at(index);
    if (!sheet.problem.isEmpty())
        return d->fail(
                QStringLiteral("Sheet '%1' cannot be read: %2.").arg(sheet.name, sheet.problem));

    QString problem;
    bool stopped = false;
    const bool read = d->readPart(
            sheet.part, MaxSheetPartSize,
            [&](KrXmlPullReader &xml) {
                if (!xml.isElement(Ns::Sheet, "worksheet")) {
                    problem = QStringLiteral("%1 is not a worksheet").arg(sheet.part);
                    return false;
                }
                while (!stopped && nextChild(xml, 1)) {
                    if (xml.isElement(Ns::Sheet, "sheetData")
                        && !d->readSheetData(xml, onCell, &stopped))
                        return false;
                }
                return !xml.hasError();
            },
            &problem, &stopped);
    if (!read)
        return d->fail(QStringLiteral("Sheet '%1' cannot be read: %2.").arg(sheet.name, problem));
    return true;
}
