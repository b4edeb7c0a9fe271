#ifndef KRXLSXREADER_P_H
#define KRXLSXREADER_P_H

#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <memory>

// The reading half of the internal workbook layer: a streaming reader of Office Open XML
// workbooks (.xlsx) on minizip's unzip API and QXmlStreamReader. A sheet is read in one pass
// and handed out cell by cell; no sheet's XML is ever held in memory as a whole.
// (Interface sketch: the implementation may refine it, keeping it this narrow.)

struct KrXlsxCell
{
    int row = 0;    // 1-based
    int column = 0; // 1-based
    QVariant value; // double, bool, QString, QDate, QTime or QDateTime
};

class KrXlsxReader
{
public:
    KrXlsxReader();
    ~KrXlsxReader();

    // Opens the workbook and reads its sheet list, shared strings and styles. False when the file
    // is not a readable workbook; errorString() says why.
    bool open(const QString &fileName);
    void close();
    QString errorString() const;

    // Worksheet names in workbook order.
    QStringList sheetNames() const;

    // Streams sheet `index` (workbook order): calls `onCell` for every cell that holds a value,
    // in file order. `onCell` returns false to stop. Returns false when the sheet cannot be read
    // completely (errorString() says why); cells already delivered stay delivered.
    bool readSheet(int index, const std::function<bool(KrXlsxCell &&)> &onCell);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

#endif // KRXLSXREADER_P_H
