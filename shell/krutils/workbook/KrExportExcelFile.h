#ifndef KREXPORTEXCELFILE_H
#define KREXPORTEXCELFILE_H

#include <krutils/krutils_export.h>

#include <QList>
#include <QMap>
#include <QObject>
#include <QString>
#include <QVariantMap>

class KrThread;

/// Writes a sheet detail list (sheet name -> records) into an .xlsx workbook on a worker thread
/// of its own ("KrExportExcelFile"): one worksheet per entry in ascending name order, a bold
/// size-16 header row of the records' keys (all keys of all records, in order of first
/// appearance), one row per record below, every written column 20 characters wide.
///
/// A one-shot object: emit signalSetSheetDetailList(fileName, list) and wait for
/// exportFileFinished(). After a successful export the object and its thread delete themselves;
/// create a new one for the next export.
///
///     auto *exporter = new KrExportExcelFile;
///     connect(exporter, &KrExportExcelFile::exportFileFinished, this, &Page::exported);
///     emit exporter->signalSetSheetDetailList(path, sheets);
///
/// An existing target is removed first; when that fails (another program holds it open) the
/// result is false with "文件已经打开无法重写 请关闭文件后再试", and the object stays, so the
/// client may try again. A file whose complete suffix is not exactly "xlsx" is removed and not
/// written ("Success"). A list the workbook format cannot hold (a sheet name that is empty, longer
/// than 31 characters, with one of []:*?/\ or an apostrophe at either end; a text longer than
/// 32,767 characters; more than 1,048,575 records or 16,384 keys in a sheet; a value without a
/// text form) gives false with a text that names the problem, and no file; the object stays.
/// Values: texts stay texts (never formulas or links), numbers and booleans as such, QDate,
/// QTime and QDateTime as date-time cells of their wall-clock value; an invalid value, a null one
/// and an empty text leave the cell empty. A workbook needs a sheet: an empty list gives one
/// empty "Sheet1".
class KRUTILS_EXPORT KrExportExcelFile : public QObject
{
    Q_OBJECT

public:
    /// The parent becomes the worker thread's parent; the object itself has none.
    explicit KrExportExcelFile(QObject *parent = nullptr);
    ~KrExportExcelFile() override;

Q_SIGNALS:
    /// The request: emit it, from any thread, to write `sheetDetailList` into `fileName`.
    void signalSetSheetDetailList(const QString &fileName,
                                  const QMap<QString, QList<QVariantMap>> &sheetDetailList);
    /// The outcome: true with "Success", or false with the reason. Emitted on the worker thread.
    void exportFileFinished(bool result, const QString &fileName, const QString &info);

private Q_SLOTS:
    void slotInited();
    void slotSetViewHeadAndData(const QString &fileName,
                                const QMap<QString, QList<QVariantMap>> &sheetDetailList);

private:
    void exportToFile();

    KrThread *m_thread;
    QString m_fileName;
    QMap<QString, QList<QVariantMap>> m_sheetDetailList;
    bool m_inited;
};

#endif // KREXPORTEXCELFILE_H
