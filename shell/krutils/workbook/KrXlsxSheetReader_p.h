#ifndef KRXLSXSHEETREADER_P_H
#define KRXLSXSHEETREADER_P_H

#include "KrXlsxCell_p.h"
#include "KrXlsxValues_p.h"

#include <QString>
#include <QVector>

#include <functional>
#include <string>
#include <vector>

class KrXmlPullReader;

// Internal to KrXlsxReader: turns the rows of a worksheet's <sheetData> into cells, with what the
// workbook says about them: its shared strings, the date kinds of its cell styles (by cellXfs
// index) and its date system. The sheet reader refers to these; they must outlive it.
//
// Faults (a malformed cell reference, row number, number, boolean or date, a shared string out
// of range, an unknown cell type) are raised on the XML reader, so that they end the part.
class KrXlsxSheetReader
{
public:
    KrXlsxSheetReader(const QVector<QString> &sharedStrings,
                      const std::vector<KrXlsxValues::DateKind> &styleKinds, bool date1904);

    // Reads the rows of the <sheetData> element that `xml` has just entered (at depth 2) and calls
    // `onCell` for every cell that holds a value. True at the element's end, and when `onCell`
    // returns false, which also sets *stopped; false on a fault.
    bool read(KrXmlPullReader &xml, const std::function<bool(KrXlsxCell &&)> &onCell,
              bool *stopped);

    // The text of the string item (<si> or <is>) that `xml` has just entered: plain <t>, or the
    // <t> of its rich-text runs <r>. Phonetic runs (<rPh>) are readings of the text, not part of
    // it.
    static void readRichText(KrXmlPullReader &xml, std::string *text);

private:
    enum CellType { Number, SharedString, FormulaString, InlineString, Boolean, Error, IsoDate };

    // The steps of read(), for every row and cell. Forced inline: GCC keeps them apart
    // otherwise, which costs about 2.5 % more instructions per worksheet.
    Q_ALWAYS_INLINE bool startRow(KrXmlPullReader &xml);
    Q_ALWAYS_INLINE bool readCell(KrXmlPullReader &xml, QVariant *value);
    Q_ALWAYS_INLINE bool readCellAttributes(KrXmlPullReader &xml, CellType *type,
                                            KrXlsxValues::DateKind *kind);
    Q_ALWAYS_INLINE bool cellValue(KrXmlPullReader &xml, CellType type, KrXlsxValues::DateKind kind,
                                   bool hasValue, bool hasInline, QVariant *value);
    bool cellError(KrXmlPullReader &xml, const QString &what);

    const QVector<QString> &m_sharedStrings;
    const std::vector<KrXlsxValues::DateKind> &m_styleKinds;
    const bool m_date1904;
    int m_row = 0;
    int m_column = 0;
    std::string m_value; // of the current cell's <v>
    std::string m_inlineText; // of its <is>
};

#endif // KRXLSXSHEETREADER_P_H
