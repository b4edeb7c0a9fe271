#ifndef KRPARSEINPORTEXCELFILE_H
#define KRPARSEINPORTEXCELFILE_H

#include <krutils/krutils_export.h>

#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QString>
#include <QVariantMap>

class KrThread;

/// Reads an .xlsx workbook on a worker thread of its own ("KrParseInportExcelFile") and delivers
/// it as a sheet detail list: sheet name -> the sheet's records, one QVariantMap per data row,
/// keyed by the texts of the sheet's first row.
///
///     auto *import = new KrParseInportExcelFile;
///     connect(import, &KrParseInportExcelFile::parseFileFinished, this, &Page::showSheets);
///     import->setFileName(path); // every later setFileName() parses again
///     ...
///     import->deleteLater();     // it lives on its worker thread; its thread then ends
///
/// Only a file whose complete suffix is exactly "xlsx" is read (not "XLSX", not
/// "report.2024.xlsx"). The header and the records are read from row 1 and column 1, as wide and
/// as high as the sheet's used range (the cells present, whatever the file's `<dimension>` says),
/// wherever that range starts. Values: numbers as double, booleans as bool, texts and error values
/// as QString, empty cells as an invalid QVariant, and date- or time-formatted numbers as their
/// number format shows them, so that a column formatted alike comes as one type: QDateTime for a
/// format with date and time (midnight included), QDate for a date-only format, QTime for a
/// time-only one; elapsed-time formats (`[h]:mm`) keep the number of days as a double. Dates and
/// times are wall-clock values, carried with Qt::UTC so that nothing shifts them.
///
/// parseFileFinished() always reports true: a file that is not a readable workbook gives an empty
/// list, and a sheet that cannot be read is missing from it; a warning in the log says why. A
/// sheet whose range holds more than MaxCellsPerSheet cells is refused that way too, so that a
/// damaged or hostile file cannot exhaust the memory.
class KRUTILS_EXPORT KrParseInportExcelFile : public QObject
{
    Q_OBJECT

public:
    /// The most cells a sheet's used range may span (rows times columns) to be read.
    static constexpr qint64 MaxCellsPerSheet = 10000000;

    /// The parent is not used: the object lives on its own thread from the start.
    explicit KrParseInportExcelFile(QObject *parent = nullptr);
    ~KrParseInportExcelFile() override;

    /// Parses `fileName` on the worker thread; callable from any thread, but not while another
    /// setFileName() is running.
    void setFileName(const QString &fileName);

Q_SIGNALS:
    /// The sheets of `Filename` (`isSucess` is always true). Emitted on the worker thread.
    void parseFileFinished(bool isSucess, const QString &Filename,
                           const QMap<QString, QList<QVariantMap>> &sheetDetailList);
    /// Hands a file name to the worker thread; emitted by setFileName().
    void signalSetFileName(const QString &Filename);

private Q_SLOTS:
    void InitParesEngine();
    void slotParesFile();

private:
    QString m_fileName;
    KrThread *m_thread;
    bool m_inited;
    QMutex m_mutex; // hands the file name and the start of the worker over between threads
};

#endif // KRPARSEINPORTEXCELFILE_H
