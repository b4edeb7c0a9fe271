#include "KrExportExcelFile.h"

#include "KrSheetDetailList_p.h"
#include "KrXlsxWriter_p.h"
#include "runtime/KrLogging_p.h"
#include <krutils/KrThread.h>

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QStringList>

namespace {

constexpr double columnWidth = 20.0;

// The columns of one sheet: every key of every record, in order of first appearance (a record
// lists its keys in ascending order).
class SheetColumns
{
public:
    explicit SheetColumns(const QList<QVariantMap> &records)
    {
        for (const QVariantMap &record : records) {
            int guess = 0;
            for (auto it = record.cbegin(); it != record.cend(); ++it)
                guess = columnOf(it.key(), guess) + 1;
        }
    }

    const QStringList &keys() const { return m_keys; }

    // The 0-based column of `key`, adding it when new. Records usually share their keys, so
    // the column after the previous key is tried first.
    int columnOf(const QString &key, int guess)
    {
        if (guess < m_keys.size() && m_keys.at(guess) == key)
            return guess;
        const auto known = m_columns.constFind(key);
        if (known != m_columns.cend())
            return known.value();
        m_columns.insert(key, m_keys.size());
        m_keys.append(key);
        return m_keys.size() - 1;
    }

private:
    QStringList m_keys;
    QHash<QString, int> m_columns;
};

// Writes the workbook; returns an empty string, or why it could not be written (then no file
// was written).
QString writeWorkbook(const QString &fileName, const SheetDetailList &sheets)
{
    KrXlsxWriter writer(fileName);
    for (auto sheet = sheets.cbegin(); sheet != sheets.cend(); ++sheet) {
        if (!writer.addSheet(sheet.key()))
            return writer.errorString();
        const QList<QVariantMap> &records = sheet.value();
        SheetColumns columns(records);
        const QStringList &keys = columns.keys();
        if (keys.isEmpty())
            continue;
        for (int column = 0; column < keys.size(); ++column) {
            if (!writer.writeCell(1, column + 1, keys.at(column), KrXlsxWriter::HeaderFormat))
                return writer.errorString();
        }
        // Row by row, so that rows go to disk as they are finished; a key a record lacks leaves
        // its cell empty.
        int row = 2;
        for (const QVariantMap &record : records) {
            int guess = 0;
            for (auto it = record.cbegin(); it != record.cend(); ++it) {
                const int column = columns.columnOf(it.key(), guess);
                if (!writer.writeCell(row, column + 1, it.value()))
                    return writer.errorString();
                guess = column + 1;
            }
            ++row;
        }
        if (!writer.setColumnWidth(1, keys.size(), columnWidth))
            return writer.errorString();
    }
    return writer.save() ? QString() : writer.errorString();
}

} // namespace

KrExportExcelFile::KrExportExcelFile(QObject *parent)
    : QObject(nullptr), m_thread(new KrThread(parent)), m_inited(false)
{
    registerSheetDetailListType();
    m_thread->setObjectName(QStringLiteral("KrExportExcelFile"));
    moveToThread(m_thread);
    connect(m_thread, &QThread::started, this, &KrExportExcelFile::slotInited,
            Qt::DirectConnection);
    connect(this, &KrExportExcelFile::signalSetSheetDetailList, this,
            &KrExportExcelFile::slotSetViewHeadAndData);
    m_thread->start(QThread::InheritPriority);
}

KrExportExcelFile::~KrExportExcelFile()
{
    krDebug(KrExportExcelFile) << "~ExportViewData()";
}

void KrExportExcelFile::slotInited()
{
    m_inited = true;
    if (!m_fileName.isEmpty())
        exportToFile();
}

void KrExportExcelFile::slotSetViewHeadAndData(
        const QString &fileName, const QMap<QString, QList<QVariantMap>> &sheetDetailList)
{
    m_fileName = fileName;
    m_sheetDetailList = sheetDetailList;
    if (m_inited)
        exportToFile();
}

void KrExportExcelFile::exportToFile()
{
    if (QFileInfo::exists(m_fileName) && !QFile::remove(m_fileName)) {
        emit exportFileFinished(false, m_fileName,
                                QStringLiteral("文件已经打开无法重写 请关闭文件后再试"));
        return;
    }
    // Only .xlsx is written; "txt" and "csv" are known names but have no writer.
    if (QFileInfo(m_fileName).completeSuffix() == QLatin1String("xlsx")) {
        const QString failure = writeWorkbook(m_fileName, m_sheetDetailList);
        if (!failure.isEmpty()) {
            krWarning(KrExportExcelFile) << "cannot export" << m_fileName << ":" << failure;
            emit exportFileFinished(false, m_fileName, failure);
            return;
        }
    }
    emit exportFileFinished(true, m_fileName, QStringLiteral("Success"));
    // Done for good: the thread is deleted once it has stopped (deleting a running thread is
    // fatal), this object as the thread finishes.
    connect(m_thread, &QThread::finished, m_thread, &QObject::deleteLater);
    m_thread->quit();
    deleteLater();
}
