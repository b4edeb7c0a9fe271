#include "KrZipEntryReader_p.h"

#include "KrXlsxReader_p.h"

#include <algorithm>

KrZipEntryReader::~KrZipEntryReader()
{
    if (m_open)
        unzCloseCurrentFile(m_zip);
}

bool KrZipEntryReader::open(const Entry &entry, qint64 limit)
{
    if (entry.flags & 1)
        return fail(QStringLiteral("it is encrypted (password-protected)"));
    if (entry.method != 0 && entry.method != Z_DEFLATED)
        return fail(QStringLiteral("unsupported compression method %1").arg(entry.method));
    if (entry.uncompressedSize > quint64(limit))
        return fail(QStringLiteral("it decompresses to %1 bytes, more than the limit of %2")
                            .arg(entry.uncompressedSize)
                            .arg(limit));
    if (entry.uncompressedSize > quint64(KrXlsxReader::CompressionRatioAllowance)
        && entry.uncompressedSize / KrXlsxReader::MaxCompressionRatio > entry.compressedSize) {
        return fail(QStringLiteral("it decompresses to %1 bytes from %2, a ratio above %3:1")
                            .arg(entry.uncompressedSize)
                            .arg(entry.compressedSize)
                            .arg(KrXlsxReader::MaxCompressionRatio));
    }
    if (unzGoToFilePos64(m_zip, &entry.position) != UNZ_OK || unzOpenCurrentFile(m_zip) != UNZ_OK)
        return fail(QStringLiteral("its zip entry is damaged"));
    m_open = true;
    // minizip never inflates more than the size the directory states; that size was checked.
    m_left = qint64(entry.uncompressedSize);
    return true;
}

qint64 KrZipEntryReader::read(char *data, qint64 maxSize)
{
    if (!m_open)
        return m_error.isEmpty() ? 0 : -1;
    const int read = unzReadCurrentFile(m_zip, data, unsigned(std::min<qint64>(maxSize, 1 << 20)));
    if (read < 0) {
        fail(QStringLiteral("its compressed data is damaged (zip error %1)").arg(read));
        return -1;
    }
    if (read == 0) {
        m_open = false;
        const int status = unzCloseCurrentFile(m_zip);
#ifndef FUZZING_BUILD_MODE_UNSAFE_FOR_PRODUCTION // mutated inputs could never pass a checksum
        if (status == UNZ_CRCERROR) {
            fail(QStringLiteral("its checksum does not match (the file is damaged)"));
            return -1;
        }
#endif
        if (m_left != 0) {
            fail(QStringLiteral("its data ends before its stated size (the file is damaged)"));
            return -1;
        }
        if (status != UNZ_OK && status != UNZ_CRCERROR) {
            fail(QStringLiteral("its zip entry is damaged"));
            return -1;
        }
        return 0;
    }
    m_left -= read;
    *m_budget -= read;
    if (*m_budget < 0) {
        fail(QStringLiteral("the file decompresses to more data in total than its size allows"));
        return -1;
    }
    return read;
}

bool KrZipEntryReader::fail(const QString &error)
{
    if (m_open) {
        unzCloseCurrentFile(m_zip);
        m_open = false;
    }
    m_error = error;
    return false;
}
