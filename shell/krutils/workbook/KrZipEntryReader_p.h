#ifndef KRZIPENTRYREADER_P_H
#define KRZIPENTRYREADER_P_H

#include <QString>

#include <minizip/unzip.h>

// Internal to KrXlsxReader: the decompressed bytes of one zip entry of a workbook, read through
// minizip's unzip API on an archive the workbook reader has opened.
//
// The archive is untrusted, so an entry is refused before a byte is inflated when it is
// encrypted, uses a method other than stored or deflated, states a size above the caller's limit
// or a compression ratio above KrXlsxReader::MaxCompressionRatio. While reading, every byte counts
// against a budget shared by all entries read from one file, and an entry must end exactly at its
// stated size with a matching checksum.
class KrZipEntryReader
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

    // `budget` is what the whole file may still decompress to; reading lowers it.
    KrZipEntryReader(unzFile zip, qint64 *budget) : m_zip(zip), m_budget(budget) { }
    ~KrZipEntryReader();
    KrZipEntryReader(const KrZipEntryReader &) = delete;
    KrZipEntryReader &operator=(const KrZipEntryReader &) = delete;

    bool open(const Entry &entry, qint64 limit);
    // Bytes read, 0 at the end, -1 on an error.
    qint64 read(char *data, qint64 maxSize);
    QString errorString() const { return m_error; }

private:
    bool fail(const QString &error);

    unzFile m_zip;
    qint64 *m_budget;
    qint64 m_left = 0;
    bool m_open = false;
    QString m_error;
};

#endif // KRZIPENTRYREADER_P_H
