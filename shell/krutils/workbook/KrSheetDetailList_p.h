#ifndef KRSHEETDETAILLIST_P_H
#define KRSHEETDETAILLIST_P_H

#include <QList>
#include <QMap>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

// Internal: the sheet detail list the workbook classes exchange, sheet name -> records.
using SheetDetailList = QMap<QString, QList<QVariantMap>>;

// Queued signals carry it by the name their signatures spell.
inline void registerSheetDetailListType()
{
    qRegisterMetaType<SheetDetailList>("QMap<QString,QList<QVariantMap>>");
}

#endif // KRSHEETDETAILLIST_P_H
