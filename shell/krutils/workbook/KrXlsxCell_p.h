#ifndef KRXLSXCELL_P_H
#define KRXLSXCELL_P_H

#include <QVariant>

// One cell of a worksheet as KrXlsxReader hands it out; KrXlsxReader_p.h says which types its
// value takes.
struct KrXlsxCell
{
    int row = 0; // 1-based, at most 1,048,576
    int column = 0; // 1-based, at most 16,384 (XFD)
    QVariant value;
};

#endif // KRXLSXCELL_P_H
