#include "KrXlsxSheetReader_p.h"

#include "KrXmlPullReader_p.h"
#include "KrXmlText_p.h"

#include <climits>

using namespace KrXlsxValues;
using Ns = KrXmlPullReader::Namespace;

KrXlsxSheetReader::KrXlsxSheetReader(const QVector<QString> &sharedStrings,
                                     const std::vector<DateKind> &styleKinds, bool date1904)
    : m_sharedStrings(sharedStrings), m_styleKinds(styleKinds), m_date1904(date1904)
{
}

void KrXlsxSheetReader::readRichText(KrXmlPullReader &xml, std::string *text)
{
    text->clear();
    const int depth = xml.depth();
    while (xml.nextChild(depth)) {
        if (xml.isElement(Ns::Sheet, "t")) {
            xml.readElementText(text);
        } else if (xml.isElement(Ns::Sheet, "r")) {
            const int runDepth = xml.depth();
            while (xml.nextChild(runDepth)) {
                if (xml.isElement(Ns::Sheet, "t"))
                    xml.readElementText(text);
            }
        }
    }
}

bool KrXlsxSheetReader::read(KrXmlPullReader &xml, const std::function<bool(KrXlsxCell &&)> &onCell,
                             bool *stopped)
{
    m_row = 0;
    m_column = 0;
    while (xml.nextChild(2)) {
        if (!xml.isElement(Ns::Sheet, "row"))
            continue;
        if (!startRow(xml))
            return false;
        while (xml.nextChild(3)) {
            if (!xml.isElement(Ns::Sheet, "c"))
                continue;
            QVariant value;
            if (!readCell(xml, &value))
                return false;
            if (value.isValid() && !onCell(KrXlsxCell {m_row, m_column, std::move(value)})) {
                *stopped = true;
                return true;
            }
        }
    }
    return !xml.hasError();
}

// Takes the number of the row whose start tag was just read; a row without one follows the
// previous row.
bool KrXlsxSheetReader::startRow(KrXmlPullReader &xml)
{
    const std::string_view rowNumber = xml.attribute("r");
    quint32 number = quint32(m_row) + 1;
    if (!rowNumber.empty() && (!parseIndex(rowNumber, MaxRow, &number) || number == 0)) {
        xml.raiseError(
                QStringLiteral("a malformed row number '%1'").arg(KrXmlText::toQString(rowNumber)));
        return false;
    }
    if (number > quint32(MaxRow)) {
        xml.raiseError(QStringLiteral("a row after row %1").arg(MaxRow));
        return false;
    }
    m_row = int(number);
    m_column = 0;
    return true;
}

// Reads the cell whose start tag was just read, up to its end; *value stays invalid when the
// cell holds no value.
bool KrXlsxSheetReader::readCell(KrXmlPullReader &xml, QVariant *value)
{
    CellType type = Number;
    DateKind kind = DateKind::None;
    if (!readCellAttributes(xml, &type, &kind))
        return false;
    bool hasValue = false;
    bool hasInline = false;
    while (xml.nextChild(4)) {
        if (xml.isElement(Ns::Sheet, "v")) {
            m_value.clear();
            xml.readElementText(&m_value);
            hasValue = true;
        } else if (xml.isElement(Ns::Sheet, "is")) {
            readRichText(xml, &m_inlineText);
            hasInline = true;
        }
    }
    if (xml.hasError())
        return false;
    return cellValue(xml, type, kind, hasValue, hasInline, value);
}

// The attributes refer to the XML reader's buffer: what they say is taken before reading on.
bool KrXlsxSheetReader::readCellAttributes(KrXmlPullReader &xml, CellType *type, DateKind *kind)
{
    quint32 style = 0;
    bool hasStyle = false;
    bool hasReference = false;
    for (const KrXmlPullReader::Attribute &attribute : xml.attributes()) {
        if (attribute.ns != Ns::None || attribute.name.size() != 1)
            continue;
        const std::string_view v = attribute.value;
        switch (attribute.name.front()) {
        case 'r':
            if (!parseCellReference(v, &m_row, &m_column)) {
                xml.raiseError(QStringLiteral("a malformed cell reference '%1'")
                                       .arg(KrXmlText::toQString(v)));
                return false;
            }
            hasReference = true;
            break;
        case 's':
            hasStyle = parseIndex(v, UINT_MAX, &style);
            break;
        case 't':
            if (v == "n")
                *type = Number;
            else if (v == "s")
                *type = SharedString;
            else if (v == "str")
                *type = FormulaString;
            else if (v == "inlineStr")
                *type = InlineString;
            else if (v == "b")
                *type = Boolean;
            else if (v == "e")
                *type = Error;
            else if (v == "d")
                *type = IsoDate;
            else
                return cellError(
                        xml,
                        QStringLiteral("an unknown cell type '%1'").arg(KrXmlText::toQString(v)));
            break;
        }
    }
    // A cell without a reference follows the previous cell of its row.
    if (!hasReference && ++m_column > MaxColumn) {
        m_column = MaxColumn;
        return cellError(xml, QStringLiteral("a cell after column XFD"));
    }
    if (hasStyle && style < m_styleKinds.size())
        *kind = m_styleKinds[style];
    return true;
}

bool KrXlsxSheetReader::cellValue(KrXmlPullReader &xml, CellType type, DateKind kind, bool hasValue,
                                  bool hasInline, QVariant *value)
{
    // An empty <v> is no value, except that a formula's text result may be empty.
    const std::string_view text = KrXmlText::trimmed(m_value);
    hasValue = hasValue && (!text.empty() || type == FormulaString);
    if (type == InlineString) {
        if (hasInline)
            *value = textValue(m_inlineText);
        return true;
    }
    if (!hasValue)
        return true;
    switch (type) {
    case Number: {
        double number = 0;
        if (!parseNumber(text, &number))
            return cellError(
                    xml, QStringLiteral("a malformed number '%1'").arg(KrXmlText::toQString(text)));
        *value = kind == DateKind::None ? QVariant(number) : fromSerial(number, kind, m_date1904);
        return true;
    }
    case SharedString: {
        quint32 index = 0;
        if (!parseIndex(text, UINT_MAX, &index) || index >= quint32(m_sharedStrings.size()))
            return cellError(xml,
                             QStringLiteral("shared string '%1' is out of range (the table "
                                            "holds %2)")
                                     .arg(KrXmlText::toQString(text))
                                     .arg(m_sharedStrings.size()));
        *value = m_sharedStrings.at(int(index));
        return true;
    }
    case FormulaString:
        *value = textValue(m_value);
        return true;
    case Boolean:
        if (text == "1" || text == "true")
            *value = true;
        else if (text == "0" || text == "false")
            *value = false;
        else
            return cellError(
                    xml,
                    QStringLiteral("a malformed boolean '%1'").arg(KrXmlText::toQString(text)));
        return true;
    case Error:
        *value = KrXmlText::toQString(text);
        return true;
    case IsoDate:
        *value = fromIsoDateTime(text, kind);
        if (!value->isValid())
            return cellError(
                    xml, QStringLiteral("a malformed date '%1'").arg(KrXmlText::toQString(text)));
        return true;
    case InlineString:
        break;
    }
    return true;
}

bool KrXlsxSheetReader::cellError(KrXmlPullReader &xml, const QString &what)
{
    xml.raiseError(QStringLiteral("cell %1: %2").arg(cellName(m_row, m_column), what));
    return false;
}
