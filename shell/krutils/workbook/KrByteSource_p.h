#ifndef KRBYTESOURCE_P_H
#define KRBYTESOURCE_P_H

#include <QString>

// Internal to the workbook layer: a stream of bytes read from the front, as KrXmlPullReader reads
// a document. KrZipEntryReader serves the parts of a workbook this way; tests and fuzzers serve
// plain strings.
class KrByteSource
{
public:
    virtual ~KrByteSource() = default;

    // Copies up to maxSize bytes (maxSize > 0) into data and returns how many; 0 at the end of
    // the stream, -1 on an error. A source may return fewer bytes than asked for at any time.
    virtual qint64 read(char *data, qint64 maxSize) = 0;
    // Why read() returned -1.
    virtual QString errorString() const = 0;

protected:
    KrByteSource() = default;
    KrByteSource(const KrByteSource &) = default;
    KrByteSource &operator=(const KrByteSource &) = default;
};

#endif // KRBYTESOURCE_P_H
