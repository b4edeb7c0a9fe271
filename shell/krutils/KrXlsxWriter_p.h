#ifndef KRXLSXWRITER_P_H
#define KRXLSXWRITER_P_H

#include <QString>
#include <QVariant>

#include <memory>

// The writing half of the internal workbook layer, on libxlsxwriter.
// (Interface sketch: the implementation may refine it, keeping it this narrow.)
class KrXlsxWriter
{
public:
    enum CellFormat { PlainFormat, HeaderFormat }; // header: bold, font size 16

    explicit KrXlsxWriter(const QString &fileName);
    ~KrXlsxWriter();

    // Adds a worksheet and makes it the one written to. False for a name Excel refuses.
    bool addSheet(const QString &name);
    // Writes one cell (1-based) of the current sheet. Rows are written in ascending order.
    bool writeCell(int row, int column, const QVariant &value, CellFormat format = PlainFormat);
    bool setColumnWidth(int firstColumn, int lastColumn, double width);
    // Writes the file. False (errorString() says why) when anything failed on the way.
    bool save();
    QString errorString() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

#endif // KRXLSXWRITER_P_H
