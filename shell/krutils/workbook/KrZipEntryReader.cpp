#include "KrZipEntryReader_p.h"

#include <QIODevice>

#include <algorithm>
#include <vector>

namespace {

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

} // namespace

unzFile KrZipEntryReader::openArchive(QIODevice *device)
{
    zlib_filefunc64_def functions = {deviceOpen, deviceRead,  deviceWrite, deviceTell,
                                     deviceSeek, deviceClose, deviceError, device};
    return unzOpen2_64("", &functions);
}

bool KrZipEntryReader::readDirectory(unzFile zip, int maxEntries, QVector<Entry> *entries,
                                     QString *error)
{
    const QString damaged
            = QStringLiteral("The file is damaged: its zip directory cannot be read.");
    std::vector<char> name(65536 + 1);
    int count = 0;
    for (int status = unzGoToFirstFile(zip); status != UNZ_END_OF_LIST_OF_FILE;
         status = unzGoToNextFile(zip)) {
        if (status != UNZ_OK) {
            *error = damaged;
            return false;
        }
        if (++count > maxEntries) {
            *error = QStringLiteral("The zip archive has more than %1 entries.").arg(maxEntries);
            return false;
        }
        unz_file_info64 info;
        Entry entry;
        if (unzGetCurrentFileInfo64(zip, &info, name.data(), uLong(name.size() - 1), nullptr, 0,
                                    nullptr, 0)
                    != UNZ_OK
            || unzGetFilePos64(zip, &entry.position) != UNZ_OK) {
            *error = damaged;
            return false;
        }
        entry.name
                = QString::fromUtf8(name.data(), int(std::min<uLong>(info.size_filename, 65536)));
        entry.compressedSize = info.compressed_size;
        entry.uncompressedSize = info.uncompressed_size;
        entry.flags = info.flag;
        entry.method = info.compression_method;
        entries->append(entry);
    }
    return true;
}

KrZipEntryReader::~KrZipEntryReader()
{
    if (m_open)
        unzCloseCurrentFile(m_zip);
}

bool KrZipEntryReader::open(const Entry &entry, const Limits &limits)
{
    if (entry.flags & 1)
        return fail(QStringLiteral("it is encrypted (password-protected)"));
    if (entry.method != 0 && entry.method != Z_DEFLATED)
        return fail(QStringLiteral("unsupported compression method %1").arg(entry.method));
    if (entry.uncompressedSize > quint64(limits.maxSize))
        return fail(QStringLiteral("it decompresses to %1 bytes, more than the limit of %2")
                            .arg(entry.uncompressedSize)
                            .arg(limits.maxSize));
    if (entry.uncompressedSize > quint64(limits.ratioAllowance)
        && entry.uncompressedSize / quint64(limits.maxRatio) > entry.compressedSize) {
        return fail(QStringLiteral("it decompresses to %1 bytes from %2, a ratio above %3:1")
                            .arg(entry.uncompressedSize)
                            .arg(entry.compressedSize)
                            .arg(limits.maxRatio));
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
