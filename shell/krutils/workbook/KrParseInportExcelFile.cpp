#include "KrParseInportExcelFile.h"

#include "KrSheetDetailList_p.h"
#include "KrXlsxReader_p.h"
#include "runtime/KrLogging_p.h"
#include <krutils/KrThread.h>

#include <QFileInfo>
#include <QMutexLocker>
#include <QVector>

#include <algorithm>
#include <climits>

namespace {

// The cells of one sheet as they stream in, kept sparse until the used range is known: the
// records are read from row 1 and column 1, as wide and as high as that range.
class SheetCells
{
public:
    // False when the sheet has become too large to turn into records.
    bool add(KrXlsxCell &&cell);
    // Row 1 gives the keys, rows 2 .. height the records; a key that appears twice takes its
    // rightmost column. Rows are released as they become records.
    QList<QVariantMap> takeRecords();

private:
    struct Cell
    {
        int column;
        QVariant value;
    };

    int width() const { return m_lastColumn ? m_lastColumn - m_firstColumn + 1 : 0; }
    int height() const { return m_lastRow ? m_lastRow - m_firstRow + 1 : 0; }
    void fillRow(int row, QVector<QVariant> &values);

    QVector<QVector<Cell>> m_rows; // by row, from row 1
    int m_firstRow = INT_MAX;
    int m_lastRow = 0;
    int m_firstColumn = INT_MAX;
    int m_lastColumn = 0;
    qint64 m_cellCount = 0;
};

bool SheetCells::add(KrXlsxCell &&cell)
{
    m_firstRow = std::min(m_firstRow, cell.row);
    m_lastRow = std::max(m_lastRow, cell.row);
    m_firstColumn = std::min(m_firstColumn, cell.column);
    m_lastColumn = std::max(m_lastColumn, cell.column);
    // The range only grows, and every cell stored is a cell more to hold: a file repeating one
    // cell over and over is refused as well.
    if (qint64(width()) * height() > KrParseInportExcelFile::MaxCellsPerSheet
        || ++m_cellCount > KrParseInportExcelFile::MaxCellsPerSheet)
        return false;
    if (cell.row > m_rows.size())
        m_rows.resize(cell.row);
    m_rows[cell.row - 1].append({cell.column, std::move(cell.value)});
    return true;
}

// Each key with the column it takes, in key order, so that records are built by appending.
QVector<std::pair<QString, int>> keyColumns(const QVector<QVariant> &header)
{
    QMap<QString, int> columnOfKey;
    for (int column = 0; column < header.size(); ++column)
        columnOfKey.insert(header.at(column).toString(), column);
    QVector<std::pair<QString, int>> keys;
    keys.reserve(columnOfKey.size());
    for (auto it = columnOfKey.cbegin(); it != columnOfKey.cend(); ++it)
        keys.append({it.key(), it.value()});
    return keys;
}

QList<QVariantMap> SheetCells::takeRecords()
{
    const int rows = height();
    QVector<QVariant> values(width());
    fillRow(1, values);
    const QVector<std::pair<QString, int>> keys = keyColumns(values);

    QList<QVariantMap> records;
    records.reserve(std::max(rows - 1, 0));
    for (int row = 2; row <= rows; ++row) {
        fillRow(row, values);
        QVariantMap record;
        for (const auto &key : keys)
            record.insert(record.cend(), key.first, values.at(key.second));
        records.append(record);
    }
    m_rows.clear();
    return records;
}

// Spreads row `row` (1-based) over `values`, one entry per column from column 1; a later cell at
// the same place wins, as in the file.
void SheetCells::fillRow(int row, QVector<QVariant> &values)
{
    std::fill(values.begin(), values.end(), QVariant());
    if (row > m_rows.size())
        return;
    for (Cell &cell : m_rows[row - 1]) {
        if (cell.column <= values.size())
            values[cell.column - 1] = std::move(cell.value);
    }
    m_rows[row - 1] = QVector<Cell>();
}

SheetDetailList readWorkbook(const QString &fileName)
{
    SheetDetailList sheets;
    KrXlsxReader reader;
    if (!reader.open(fileName)) {
        krWarning(KrParseInportExcelFile)
                << "cannot read" << fileName << ":" << reader.errorString();
        return sheets;
    }
    const QStringList names = reader.sheetNames();
    for (int index = 0; index < names.size(); ++index) {
        SheetCells cells;
        bool tooLarge = false;
        const bool read = reader.readSheet(index, [&](KrXlsxCell &&cell) {
            tooLarge = !cells.add(std::move(cell));
            return !tooLarge;
        });
        if (tooLarge) {
            krWarning(KrParseInportExcelFile)
                    << "sheet" << names.at(index) << "of" << fileName << "skipped: more than"
                    << KrParseInportExcelFile::MaxCellsPerSheet << "cells";
        } else if (!read) {
            krWarning(KrParseInportExcelFile) << "sheet" << names.at(index) << "of" << fileName
                                              << "skipped:" << reader.errorString();
        } else {
            sheets.insert(names.at(index), cells.takeRecords());
        }
    }
    return sheets;
}

} // namespace

KrParseInportExcelFile::KrParseInportExcelFile(QObject *parent)
    : QObject(nullptr), m_thread(new KrThread), m_inited(false)
{
    Q_UNUSED(parent)
    registerSheetDetailListType();
    m_thread->setObjectName(QStringLiteral("KrParseInportExcelFile"));
    moveToThread(m_thread);
    connect(m_thread, &QThread::started, this, &KrParseInportExcelFile::InitParesEngine,
            Qt::DirectConnection);
    connect(m_thread, &QThread::finished, m_thread, &QObject::deleteLater, Qt::DirectConnection);
    m_thread->start(QThread::InheritPriority);
}

KrParseInportExcelFile::~KrParseInportExcelFile()
{
    krDebug(KrParseInportExcelFile) << "~KrParseInportExcelFile()";
    m_thread->quit();
}

void KrParseInportExcelFile::setFileName(const QString &fileName)
{
    QMutexLocker locker(&m_mutex);
    m_fileName = fileName;
    if (m_inited) {
        locker.unlock();
        emit signalSetFileName(fileName);
    }
}

void KrParseInportExcelFile::InitParesEngine()
{
    connect(this, &KrParseInportExcelFile::signalSetFileName, this,
            &KrParseInportExcelFile::slotParesFile, Qt::QueuedConnection);
    QMutexLocker locker(&m_mutex);
    m_inited = true;
    const bool named = !m_fileName.isEmpty();
    locker.unlock();
    if (named)
        slotParesFile();
}

void KrParseInportExcelFile::slotParesFile()
{
    const QString fileName = [this] {
        QMutexLocker locker(&m_mutex);
        return m_fileName;
    }();
    SheetDetailList sheets;
    if (QFileInfo(fileName).completeSuffix() == QLatin1String("xlsx"))
        sheets = readWorkbook(fileName);
    krDebug(KrParseInportExcelFile) << "parseFileFinished       " << sheets;
    emit parseFileFinished(true, fileName, sheets);
}
