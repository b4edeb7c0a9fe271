#include "KrXlsxReader_p.h"

#include "KrXlsxSheetReader_p.h"
#include "KrXlsxValues_p.h"
#include "KrXmlPullReader_p.h"
#include "KrXmlText_p.h"
#include "KrZipEntryReader_p.h"

#include <QFile>
#include <QHash>
#include <QUrl>
#include <QVector>

#include <climits>
#include <string>
#include <string_view>
#include <vector>

namespace {

using Ns = KrXmlPullReader::Namespace;
using KrXlsxValues::DateKind;

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
            return KrXmlText::toQString(type);
        }
    }
    return QString();
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

    QFile file;
    unzFile zip = nullptr;
    qint64 budget = 0;
    QHash<QString, KrZipEntryReader::Entry> entries; // by partKey()
    QVector<Sheet> sheets;
    QVector<QString> sharedStrings;
    std::vector<DateKind> styleKinds; // by cell style (cellXfs) index
    bool date1904 = false;
    QString error;
};

bool KrXlsxReader::Private::indexEntries()
{
    QVector<KrZipEntryReader::Entry> directory;
    if (!KrZipEntryReader::readDirectory(zip, MaxZipEntries, &directory, &error))
        return false;
    // The first of entries with the same key wins.
    for (const KrZipEntryReader::Entry &zipEntry : qAsConst(directory)) {
        const QString key = partKey(zipEntry.name);
        if (!entries.contains(key))
            entries.insert(key, zipEntry);
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
    if (!part.open(*zipEntry, {limit, MaxCompressionRatio, CompressionRatioAllowance})) {
        *problem = QStringLiteral("%1 cannot be read: %2").arg(zipEntry->name, part.errorString());
        return false;
    }
    KrXmlPullReader xml(part, {MaxXmlTokenSize, MaxXmlDepth, MaxXmlNamespaceDeclarations});
    const bool parsed = xml.nextChild(0) && parse(xml);
    if (xml.hasError() || (parsed && !(stopped && *stopped) && !xml.readToEnd())) {
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
                while (xml.nextChild(1)) {
                    if (!xml.isElement(Ns::PackageRels, "Relationship")
                        || xml.attribute("TargetMode") == "External")
                        continue;
                    const QString id = KrXmlText::toQString(xml.attribute("Id"));
                    if (!relationships->contains(id)) {
                        relationships->insert(
                                id,
                                {relationshipKind(xml.attribute("Type")),
                                 resolveTarget(part,
                                               KrXmlText::toQString(xml.attribute("Target")))});
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
                while (xml.nextChild(1)) {
                    if (xml.isElement(Ns::Sheet, "workbookPr")) {
                        const std::string_view value = xml.attribute("date1904");
                        date1904 = value == "1" || value == "true";
                    } else if (xml.isElement(Ns::Sheet, "sheets")) {
                        while (xml.nextChild(2)) {
                            if (xml.isElement(Ns::Sheet, "sheet"))
                                found.append({KrXmlText::toQString(xml.attribute("name")),
                                              KrXmlText::toQString(
                                                      xml.attribute("id", Ns::OfficeRels))});
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
    QHash<quint32, DateKind> customFormats;
    std::vector<quint32> cellFormats;
    QString problem;
    const bool read = readPart(
            part, MaxOtherPartSize,
            [&](KrXmlPullReader &xml) {
                if (!xml.isElement(Ns::Sheet, "styleSheet")) {
                    problem = QStringLiteral("%1 holds no styles").arg(part);
                    return false;
                }
                while (xml.nextChild(1)) {
                    if (xml.isElement(Ns::Sheet, "numFmts")) {
                        while (xml.nextChild(2)) {
                            quint32 id = 0;
                            if (xml.isElement(Ns::Sheet, "numFmt")
                                && KrXlsxValues::parseIndex(xml.attribute("numFmtId"), UINT_MAX,
                                                            &id))
                                customFormats.insert(
                                        id,
                                        KrXlsxValues::formatCodeKind(xml.attribute("formatCode")));
                        }
                    } else if (xml.isElement(Ns::Sheet, "cellXfs")) {
                        while (xml.nextChild(2)) {
                            quint32 id = 0;
                            if (xml.isElement(Ns::Sheet, "xf")) {
                                // None: General.
                                KrXlsxValues::parseIndex(xml.attribute("numFmtId"), UINT_MAX, &id);
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
    styleKinds.reserve(cellFormats.size());
    for (quint32 id : cellFormats)
        styleKinds.push_back(customFormats.value(id, KrXlsxValues::builtInFormatKind(id)));
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
                if (KrXlsxValues::parseIndex(xml.attribute("uniqueCount"), UINT_MAX, &count))
                    sharedStrings.reserve(int(std::min<quint32>(count, 1 << 20)));
                std::string text;
                while (xml.nextChild(1)) {
                    if (xml.isElement(Ns::Sheet, "si")) {
                        KrXlsxSheetReader::readRichText(xml, &text);
                        sharedStrings.append(KrXlsxValues::textValue(text));
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

    zip = KrZipEntryReader::openArchive(device);
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
    d->styleKinds.clear();
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
    KrXlsxSheetReader sheetReader(d->sharedStrings, d->styleKinds, d->date1904);
    const bool read = d->readPart(
            sheet.part, MaxSheetPartSize,
            [&](KrXmlPullReader &xml) {
                if (!xml.isElement(Ns::Sheet, "worksheet")) {
                    problem = QStringLiteral("%1 is not a worksheet").arg(sheet.part);
                    return false;
                }
                while (!stopped && xml.nextChild(1)) {
                    if (xml.isElement(Ns::Sheet, "sheetData")
                        && !sheetReader.read(xml, onCell, &stopped))
                        return false;
                }
                return !xml.hasError();
            },
            &problem, &stopped);
    if (!read)
        return d->fail(QStringLiteral("Sheet '%1' cannot be read: %2.").arg(sheet.name, problem));
    return true;
}
