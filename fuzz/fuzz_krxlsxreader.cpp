// libFuzzer entry of the workbook reader: the input is the file. It is opened from memory and
// every sheet is read; any crash, leak, hang or runaway allocation is a finding.
#include "workbook/KrXlsxReader_p.h"

#include <QBuffer>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QBuffer buffer;
    buffer.setData(reinterpret_cast<const char *>(data), int(size));
    buffer.open(QIODevice::ReadOnly);

    KrXlsxReader reader;
    if (!reader.open(&buffer))
        return 0;
    for (int i = 0; i < reader.sheetNames().size(); ++i) {
        reader.readSheet(i, [](KrXlsxCell &&cell) {
            // Touch what a caller would: the value's type and its text.
            return cell.row > 0 && cell.column > 0 && cell.value.toString().size() >= 0;
        });
    }
    return 0;
}
