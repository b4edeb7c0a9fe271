#ifndef KRZIPENTRYREADER_P_H
#define KRZIPENTRYREADER_P_H

#include "KrByteSource_p.h"

#include <QString>
#include <QVector>

#include <minizip/unzip.h>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

// Internal to the workbook layer: zip access for KrXlsxReader through minizip's unzip API. An
// archive is opened on any random-access QIODevice (a QFile, a QBuffer), its directory is listed
// once, and a reader serves the decompressed bytes of one entry as a KrByteSource.
//
// The archive is untrusted, so an entry is refused before a byte is inflated when it is
// encrypted, uses a method other than stored or deflated, states a size above the caller's limit
// or a compression ratio above the caller's. While reading, every byte counts against a budget
// shared by all entries read from one file, and an entry must end exactly at its stated size with
// a matching checksum (not checked in fuzzing builds, where mutated input could never pass it).
class KrZipEntryReader : public KrByteSource
{
public:
    // An entry as the archive's directory describes it, kept so that it can be opened later
    // without searching the directory again.
    struct Entry
    {
        QString name;
        unz64_file_pos position = {};
        quint64 compressedSize = 0;
        quint64 uncompressedSize = 0;
        uLong flags = 0;
        uLong method = 0;
    };

    // What one entry may decompress to: at most maxSize bytes and, when it is larger than
    // ratioAllowance, at most maxRatio times its compressed size.
    struct Limits
    {
        qint64 maxSize;
        qint64 maxRatio;
        qint64 ratioAllowance;
    };

    // The archive on `device`, which must stay open until unzClose(); nullptr when the device
    // holds no readable zip archive.
    static unzFile openArchive(QIODevice *device);
    // The entries of the archive's directory in their order; false with *error set when the
    // directory is damaged or lists more than maxEntries entries.
    static bool readDirectory(unzFile zip, int maxEntries, QVector<Entry> *entries, QString *error);

    // `budget` is what the whole file may still decompress to; reading lowers it.
    KrZipEntryReader(unzFile zip, qint64 *budget) : m_zip(zip), m_budget(budget) { }
    ~KrZipEntryReader() override;
    KrZipEntryReader(const KrZipEntryReader &) = delete;
    KrZipEntryReader &operator=(const KrZipEntryReader &) = delete;

    bool open(const Entry &entry, const Limits &limits);
    qint64 read(char *data, qint64 maxSize) override;
    QString errorString() const override { return m_error; }

private:
    bool fail(const QString &error);

    unzFile m_zip;
    qint64 *m_budget;
    qint64 m_left = 0;
    bool m_open = false;
    QString m_error;
};

#endif // KRZIPENTRYREADER_P_H
