// Benchmarks of the workbook layer and the two workbook classes on a generated order blotter of
// 100,000 rows x 20 columns (text, integers, doubles, dates and date-times): KrExportExcelFile
// and KrXlsxWriter beside libxlsxwriter used directly on the same cells with the same options
// (constant_memory, a bold 16-point header, columns 20 wide); KrParseInportExcelFile beside
// merely building the same record list in memory; and KrXlsxReader alone streaming the cells.
//
//     build/default/bench/krbench_workbook [--rows=N] [Google Benchmark flags]
//
// Each writer writes the workbook five times, the two taking turns; the ratios printed at the end
// compare medians. Time is real time per workbook written; rows/s is items_per_second. Memory is
// the peak resident set reached while a benchmark runs, above the resident set when it starts
// (input already built): the kernel's high-water mark (VmHWM) is reset through
// /proc/self/clear_refs just before the timed loop and read just after it, so every allocation
// counts (Qt's, libxlsxwriter's and zlib's alike), and the input, built beforehand, does not.
// Memory that glibc keeps after a free is trimmed first, so that it cannot hide new allocations.
// Needs Linux 4.0; elsewhere the figure is left out.

#include "KrBenchSupport.h"

#include "workbook/KrXlsxReader_p.h"
#include "workbook/KrXlsxWriter_p.h"
#include <krutils/KrExportExcelFile.h>
#include <krutils/KrParseInportExcelFile.h>

#include <benchmark/benchmark.h>
#include <xlsxwriter.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QLoggingCategory>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QVariantMap>

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

int rowCount = 100000;
constexpr double columnWidth = 20.0;

// --- The blotter ---------------------------------------------------------------------------------

// Orders as a trading client's order book holds them: one record per order, keyed by field name,
// as the exporter receives them (a QVariantMap walks its keys sorted, so that is the column order).
QList<QVariantMap> generateBlotter(int rows, quint32 seed = 1)
{
    QRandomGenerator random(seed);
    const QStringList instruments {QStringLiteral("600519.SH"), QStringLiteral("000001.SZ"),
                                   QStringLiteral("IF2412"),    QStringLiteral("IC2412"),
                                   QStringLiteral("601318.SH"), QStringLiteral("300750.SZ")};
    const QStringList names {QStringLiteral("贵州茅台"),        QStringLiteral("平安银行"),
                             QStringLiteral("沪深300指数期货"), QStringLiteral("中证500指数期货"),
                             QStringLiteral("中国平安"),        QStringLiteral("宁德时代")};
    const QStringList exchanges {QStringLiteral("SSE"),   QStringLiteral("SZSE"),
                                 QStringLiteral("CFFEX"), QStringLiteral("CFFEX"),
                                 QStringLiteral("SSE"),   QStringLiteral("SZSE")};
    const QStringList sides {QStringLiteral("Buy"), QStringLiteral("Sell")};
    const QStringList orderTypes {QStringLiteral("Limit"), QStringLiteral("Market"),
                                  QStringLiteral("Stop")};
    const QStringList statuses {QStringLiteral("New"), QStringLiteral("Working"),
                                QStringLiteral("Filled"), QStringLiteral("Cancelled")};
    const QStringList traders {QStringLiteral("zhang.wei"), QStringLiteral("li.na"),
                               QStringLiteral("wang.fang"), QStringLiteral("chen.jie")};
    const QStringList remarks {QStringLiteral("algo: TWAP"), QStringLiteral("client call"),
                               QStringLiteral("hedge"), QStringLiteral("rebalance")};
    const QDate tradeDate(2024, 11, 22);
    const QDateTime open(tradeDate, QTime(9, 30), Qt::LocalTime);

    QList<QVariantMap> records;
    records.reserve(rows);
    for (int r = 0; r < rows; ++r) {
        const int instrument = random.bounded(instruments.size());
        const double price = 1 + random.bounded(100000) / 100.0;
        const int quantity = 100 * (1 + random.bounded(50));
        const int status = random.bounded(statuses.size());
        const int filled = status == 2 ? quantity : status == 1 ? quantity / 2 : 0;
        const double averagePrice = filled ? price - random.bounded(100) / 1000.0 : 0.0;
        const QDateTime orderTime = open.addMSecs(random.bounded(4 * 3600 * 1000));
        QVariantMap record;
        record.insert(QStringLiteral("orderId"), qlonglong(20241122000000LL + r));
        record.insert(QStringLiteral("clientOrderId"),
                      QStringLiteral("C%1").arg(r + 1, 9, 10, QLatin1Char('0')));
        record.insert(QStringLiteral("instrument"), instruments.at(instrument));
        record.insert(QStringLiteral("instrumentName"), names.at(instrument));
        record.insert(QStringLiteral("exchange"), exchanges.at(instrument));
        record.insert(QStringLiteral("side"), sides.at(random.bounded(2)));
        record.insert(QStringLiteral("orderType"), orderTypes.at(random.bounded(3)));
        record.insert(QStringLiteral("price"), price);
        record.insert(QStringLiteral("quantity"), quantity);
        record.insert(QStringLiteral("filledQuantity"), filled);
        record.insert(QStringLiteral("averagePrice"), averagePrice);
        record.insert(QStringLiteral("amount"), averagePrice * filled);
        record.insert(QStringLiteral("fee"), averagePrice * filled * 0.0003);
        record.insert(QStringLiteral("status"), statuses.at(status));
        record.insert(QStringLiteral("orderTime"), orderTime);
        record.insert(QStringLiteral("updateTime"), orderTime.addMSecs(random.bounded(60000)));
        record.insert(QStringLiteral("tradeDate"), tradeDate);
        record.insert(QStringLiteral("account"),
                      QStringLiteral("ACC%1").arg(random.bounded(20), 3, 10, QLatin1Char('0')));
        record.insert(QStringLiteral("trader"), traders.at(random.bounded(traders.size())));
        record.insert(QStringLiteral("remark"), remarks.at(random.bounded(remarks.size())));
        records.append(record);
    }
    return records;
}

const QList<QVariantMap> &blotter()
{
    static const QList<QVariantMap> records = generateBlotter(rowCount);
    return records;
}

// The same cells as plain C data, for libxlsxwriter used directly: what a program holding its
// data in C types would pass (UTF-8 text, doubles, lxw_datetime).
struct DirectCell
{
    enum Kind { Text, Number, DateTime };
    enum Format { General, Date, DateTimeSeconds, DateTimeMsecs, FormatCount };
    Kind kind = Text;
    Format format = General;
    std::string text;
    double number = 0;
    lxw_datetime dateTime = {};
};

struct DirectTable
{
    std::vector<std::string> header;
    std::vector<DirectCell> cells; // row by row
    int columns = 0;
};

lxw_datetime toLxwDateTime(const QDate &date, const QTime &time)
{
    return {date.year(), date.month(),  date.day(),
            time.hour(), time.minute(), time.second() + time.msec() / 1000.0};
}

const DirectTable &directBlotter()
{
    static const DirectTable table = [] {
        DirectTable t;
        const QList<QVariantMap> &records = blotter();
        for (const QString &key : records.first().keys())
            t.header.push_back(key.toStdString());
        t.columns = int(t.header.size());
        t.cells.reserve(size_t(records.size()) * t.header.size());
        for (const QVariantMap &record : records) {
            for (const QVariant &value : record) {
                DirectCell cell;
                switch (value.userType()) {
                case QMetaType::QString:
                    cell.text = value.toString().toStdString();
                    break;
                case QMetaType::QDate:
                    cell.kind = DirectCell::DateTime;
                    cell.format = DirectCell::Date;
                    cell.dateTime = toLxwDateTime(value.toDate(), QTime(0, 0));
                    break;
                case QMetaType::QDateTime: {
                    const QDateTime dateTime = value.toDateTime();
                    cell.kind = DirectCell::DateTime;
                    cell.format = dateTime.time().msec() ? DirectCell::DateTimeMsecs
                                                         : DirectCell::DateTimeSeconds;
                    cell.dateTime = toLxwDateTime(dateTime.date(), dateTime.time());
                    break;
                }
                default:
                    cell.kind = DirectCell::Number;
                    cell.number = value.toDouble();
                }
                t.cells.push_back(std::move(cell));
            }
        }
        return t;
    }();
    return table;
}

// --- Memory --------------------------------------------------------------------------------------

qint64 statusKiB(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray name = QByteArray(field) + ':';
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith(name))
            return line.mid(name.size()).trimmed().split(' ').first().toLongLong();
    }
    return -1;
}

// The peak resident set while it exists, above the resident set at its start.
class PeakMemory
{
public:
    PeakMemory()
    {
        malloc_trim(0);
        QFile clearRefs(QStringLiteral("/proc/self/clear_refs"));
        m_usable = clearRefs.open(QIODevice::WriteOnly) && clearRefs.write("5") == 1;
        clearRefs.close();
        m_startKiB = statusKiB("VmRSS");
        m_startInUse = mallinfo2().uordblks;
        m_usable = m_usable && m_startKiB >= 0 && statusKiB("VmHWM") <= m_startKiB + 1024;
    }

    // The heap in use now (allocated and not freed), above the start, in MiB.
    double heapInUseMiB() const
    {
        return (double(mallinfo2().uordblks) - double(m_startInUse)) / 1048576.0;
    }

    // MiB, or -1 when the system cannot tell.
    double peakMiB() const
    {
        const qint64 peak = statusKiB("VmHWM");
        return m_usable && peak >= 0 ? (peak - m_startKiB) / 1024.0 : -1;
    }

private:
    qint64 m_startKiB = -1;
    size_t m_startInUse = 0;
    bool m_usable = false;
};

void reportWorkbook(benchmark::State &state, const PeakMemory &memory, const QString &fileName)
{
    state.SetItemsProcessed(state.iterations() * rowCount);
    state.counters["peak_MiB"] = memory.peakMiB();
    state.counters["file_MiB"] = QFileInfo(fileName).size() / 1048576.0;
}

// --- Writing -------------------------------------------------------------------------------------

bool writeWithKrXlsxWriter(const QString &fileName, const QList<QVariantMap> &records)
{
    KrXlsxWriter writer(fileName);
    if (!writer.addSheet(QStringLiteral("Orders")))
        return false;
    const QStringList header = records.first().keys();
    int column = 1;
    for (const QString &key : header) {
        if (!writer.writeCell(1, column++, key, KrXlsxWriter::HeaderFormat))
            return false;
    }
    int row = 2;
    for (const QVariantMap &record : records) {
        column = 1;
        for (auto value = record.cbegin(); value != record.cend(); ++value) {
            if (!writer.writeCell(row, column++, *value))
                return false;
        }
        ++row;
    }
    return writer.setColumnWidth(1, header.size(), columnWidth) && writer.save();
}

bool writeWithLibxlsxwriter(const QString &fileName, const DirectTable &table)
{
    lxw_workbook_options options = {};
    options.constant_memory = LXW_TRUE;
    lxw_workbook *workbook = workbook_new_opt(QFile::encodeName(fileName).constData(), &options);
    if (!workbook)
        return false;
    lxw_worksheet *sheet = workbook_add_worksheet(workbook, "Orders");
    lxw_format *header = workbook_add_format(workbook);
    format_set_bold(header);
    format_set_font_size(header, 16);
    lxw_format *formats[DirectCell::FormatCount] = {};
    const char *numberFormats[DirectCell::FormatCount]
            = {nullptr, "yyyy-mm-dd", "yyyy-mm-dd hh:mm:ss", "yyyy-mm-dd hh:mm:ss.000"};
    for (int f = DirectCell::Date; f < DirectCell::FormatCount; ++f) {
        formats[f] = workbook_add_format(workbook);
        format_set_num_format(formats[f], numberFormats[f]);
    }

    bool ok = sheet != nullptr;
    for (size_t c = 0; ok && c < table.header.size(); ++c)
        ok = worksheet_write_string(sheet, 0, lxw_col_t(c), table.header[c].c_str(), header)
                == LXW_NO_ERROR;
    lxw_row_t row = 1;
    lxw_col_t column = 0;
    for (const DirectCell &cell : table.cells) {
        if (!ok)
            break;
        lxw_error result;
        switch (cell.kind) {
        case DirectCell::Text:
            result = worksheet_write_string(sheet, row, column, cell.text.c_str(), nullptr);
            break;
        case DirectCell::Number:
            result = worksheet_write_number(sheet, row, column, cell.number, nullptr);
            break;
        case DirectCell::DateTime:
            result = worksheet_write_datetime(sheet, row, column,
                                              const_cast<lxw_datetime *>(&cell.dateTime),
                                              formats[cell.format]);
            break;
        }
        ok = result == LXW_NO_ERROR;
        if (++column == table.columns) {
            column = 0;
            ++row;
        }
    }
    ok = ok
            && worksheet_set_column(sheet, 0, lxw_col_t(table.columns - 1), columnWidth, nullptr)
                    == LXW_NO_ERROR;
    return workbook_close(workbook) == LXW_NO_ERROR && ok;
}

// Writes the blotter's workbook with `write` once per iteration, into a directory of its own.
void benchmarkWriting(benchmark::State &state, const std::function<bool(const QString &)> &write)
{
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("orders.xlsx"));
    const PeakMemory memory;
    for (auto _ : state) {
        if (!write(fileName))
            state.SkipWithError("writing the workbook failed");
    }
    reportWorkbook(state, memory, fileName);
}

void writeKrXlsxWriter(benchmark::State &state)
{
    const QList<QVariantMap> &records = blotter();
    benchmarkWriting(state, [&](const QString &fileName) {
        return writeWithKrXlsxWriter(fileName, records);
    });
}

void writeLibxlsxwriter(benchmark::State &state)
{
    const DirectTable &table = directBlotter();
    benchmarkWriting(state, [&](const QString &fileName) {
        return writeWithLibxlsxwriter(fileName, table);
    });
}

// --- The two classes
// ------------------------------------------------------------------------------

using SheetDetailList = QMap<QString, QList<QVariantMap>>;

// Exports through KrExportExcelFile and waits for its answer; the exporter deletes itself.
bool exportWithKrExportExcelFile(const QString &fileName, const SheetDetailList &sheets)
{
    bool result = false;
    QEventLoop loop;
    auto exporter = new KrExportExcelFile;
    QObject::connect(exporter, &KrExportExcelFile::exportFileFinished, &loop,
                     [&](bool ok, const QString &, const QString &) {
                         result = ok;
                         loop.quit();
                     });
    emit exporter->signalSetSheetDetailList(fileName, sheets);
    loop.exec();
    return result;
}

SheetDetailList importWithKrParseInportExcelFile(const QString &fileName)
{
    SheetDetailList sheets;
    QEventLoop loop;
    auto importer = new KrParseInportExcelFile;
    QObject::connect(importer, &KrParseInportExcelFile::parseFileFinished, &loop,
                     [&](bool, const QString &, const SheetDetailList &list) {
                         sheets = list;
                         loop.quit();
                     });
    importer->setFileName(fileName);
    loop.exec();
    importer->deleteLater();
    return sheets;
}

void exportKrExportExcelFile(benchmark::State &state)
{
    const SheetDetailList sheets {{QStringLiteral("Orders"), blotter()}};
    benchmarkWriting(state, [&](const QString &fileName) {
        return exportWithKrExportExcelFile(fileName, sheets);
    });
}

// The blotter as a workbook, written once, for the import.
const QString &blotterWorkbook()
{
    static QTemporaryDir dir;
    static const QString fileName = [] {
        const QString name = dir.filePath(QStringLiteral("orders.xlsx"));
        if (!writeWithKrXlsxWriter(name, blotter()))
            qFatal("cannot write the blotter's workbook");
        return name;
    }();
    return fileName;
}

void importKrParseInportExcelFile(benchmark::State &state)
{
    const QString &fileName = blotterWorkbook();
    const PeakMemory memory;
    double listMiB = 0;
    for (auto _ : state) {
        const SheetDetailList sheets = importWithKrParseInportExcelFile(fileName);
        if (sheets.value(QStringLiteral("Orders")).size() != rowCount)
            state.SkipWithError("KrParseInportExcelFile read a different number of rows");
        // What the resulting list holds (every text read is a string of its own, where the
        // generated blotter shares a few), against the peak of the whole import.
        listMiB = memory.heapInUseMiB();
    }
    reportWorkbook(state, memory, fileName);
    state.counters["list_MiB"] = listMiB;
}

// The reader alone, on the benchmark's thread: what the import spends on the file itself, without
// a worker thread and without building records. Its CPU time is the figure to watch.
void readKrXlsxReader(benchmark::State &state)
{
    const QString &fileName = blotterWorkbook();
    const PeakMemory memory;
    for (auto _ : state) {
        KrXlsxReader reader;
        qint64 cells = 0;
        qint64 dates = 0;
        const bool read = reader.open(fileName) && reader.readSheet(0, [&](KrXlsxCell &&cell) {
            ++cells;
            dates += cell.value.userType() == QMetaType::QDateTime;
            return true;
        });
        if (!read || cells != qint64(rowCount + 1) * 20 || dates != qint64(rowCount) * 2)
            state.SkipWithError("KrXlsxReader read something else than the blotter");
    }
    reportWorkbook(state, memory, fileName);
}

// The floor for the import: the same record list built in memory from generated data.
void buildRecordList(benchmark::State &state)
{
    const PeakMemory memory;
    for (auto _ : state) {
        const QList<QVariantMap> records = generateBlotter(rowCount, 2);
        benchmark::DoNotOptimize(records.size());
    }
    state.SetItemsProcessed(state.iterations() * rowCount);
    state.counters["peak_MiB"] = memory.peakMiB();
}

// --- Ratios --------------------------------------------------------------------------------------

// Keeps real and CPU time per benchmark, by the name it was registered with, the median when
// there are repetitions: real time includes waiting for the disk, which varies more from run to
// run than the work done.
class WorkbookReporter : public RatioReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        RatioReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if ((run.run_type == Run::RT_Iteration || median) && !run.error_occurred) {
                times[run.run_name.function_name]
                        = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
                const auto peak = run.counters.find("peak_MiB");
                if (peak != run.counters.end())
                    peaks[run.run_name.function_name] = peak->second;
                const auto list = run.counters.find("list_MiB");
                if (list != run.counters.end())
                    lists[run.run_name.function_name] = list->second;
            }
        }
    }

    // Real and CPU time of `a` over `b`; false if one of them did not run.
    bool ratios(const std::string &a, const std::string &b, double *real, double *cpu) const
    {
        const auto timesA = times.find(a), timesB = times.find(b);
        if (timesA == times.end() || timesB == times.end())
            return false;
        *real = timesA->second.first / timesB->second.first;
        *cpu = timesA->second.second / timesB->second.second;
        return true;
    }

    // Real and CPU time in milliseconds and peak memory in MiB; false if it did not run.
    bool figures(const std::string &name, double *milliseconds, double *cpuMilliseconds,
                 double *peakMiB) const
    {
        const auto time = times.find(name);
        const auto peak = peaks.find(name);
        if (time == times.end() || peak == peaks.end())
            return false;
        *milliseconds = time->second.first;
        *cpuMilliseconds = time->second.second;
        *peakMiB = peak->second;
        return true;
    }

private:
    std::map<std::string, std::pair<double, double>> times; // real, CPU
    std::map<std::string, double> peaks;

public:
    std::map<std::string, double> lists; // what the resulting record list holds, MiB
};

void printRatio(const WorkbookReporter &reporter, const char *what, const std::string &a,
                const std::string &b)
{
    double real, cpu;
    if (reporter.ratios(a, b, &real, &cpu))
        std::printf("%-44s real time %.3f, CPU time %.3f\n", what, real, cpu);
}

const std::string writerBenchmark = "write/KrXlsxWriter";
const std::string directBenchmark = "write/libxlsxwriter directly";
const std::string exportBenchmark = "export/KrExportExcelFile";
const std::string importBenchmark = "import/KrParseInportExcelFile";
const std::string buildBenchmark = "build/the record list in memory";
const std::string readBenchmark = "read/KrXlsxReader";

void printFigures(const WorkbookReporter &reporter, const std::string &name)
{
    // CPU time is the benchmark thread's: the import and the export work on threads of their own.
    double milliseconds, cpuMilliseconds, peakMiB;
    if (reporter.figures(name, &milliseconds, &cpuMilliseconds, &peakMiB))
        std::printf("%-44s %7.0f ms (CPU %5.0f ms), %6.0f rows/s, peak %6.1f MiB\n",
                    (name + ":").c_str(), milliseconds, cpuMilliseconds,
                    rowCount / (milliseconds / 1000), peakMiB);
}

} // namespace

int main(int argc, char **argv)
{
    // The two writers take turns, so that a machine busy with other work slows both alike;
    // flags given on the command line come later and win.
    std::vector<char *> arguments {
            argv[0], const_cast<char *>("--benchmark_enable_random_interleaving=true")};
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rows=", 7) == 0)
            rowCount = std::max(1, std::atoi(argv[i] + 7));
        else
            arguments.push_back(argv[i]);
    }
    int argumentCount = int(arguments.size());
    QCoreApplication app(argc, argv);
    // The importer logs the whole list it read at debug level: not what is measured here.
    QLoggingCategory::setFilterRules(QStringLiteral("krutils.debug=false"));
    benchmark::Initialize(&argumentCount, arguments.data());
    std::printf("Generating a blotter of %d rows x 20 columns ...\n", rowCount);
    blotter();
    directBlotter();
    blotterWorkbook();

    const auto workbook = [](benchmark::internal::Benchmark *b) {
        b->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(5)->UseRealTime();
    };
    workbook(benchmark::RegisterBenchmark(exportBenchmark.c_str(), exportKrExportExcelFile));
    workbook(benchmark::RegisterBenchmark(writerBenchmark.c_str(), writeKrXlsxWriter));
    workbook(benchmark::RegisterBenchmark(directBenchmark.c_str(), writeLibxlsxwriter));
    workbook(benchmark::RegisterBenchmark(importBenchmark.c_str(), importKrParseInportExcelFile));
    workbook(benchmark::RegisterBenchmark(buildBenchmark.c_str(), buildRecordList));
    workbook(benchmark::RegisterBenchmark(readBenchmark.c_str(), readKrXlsxReader));

    WorkbookReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    for (const std::string &name : {exportBenchmark, writerBenchmark, directBenchmark,
                                    importBenchmark, buildBenchmark, readBenchmark})
        printFigures(reporter, name);
    std::printf("\n");
    printRatio(reporter, "KrExportExcelFile / libxlsxwriter directly:", exportBenchmark,
               directBenchmark);
    printRatio(reporter, "KrXlsxWriter / libxlsxwriter directly:", writerBenchmark,
               directBenchmark);
    printRatio(reporter, "KrParseInportExcelFile / building the list:", importBenchmark,
               buildBenchmark);
    double importMs, importCpuMs, importPeak;
    const auto list = reporter.lists.find(importBenchmark);
    if (reporter.figures(importBenchmark, &importMs, &importCpuMs, &importPeak)
        && list != reporter.lists.end() && list->second > 0)
        std::printf("%-44s peak memory %.1f MiB / the list read %.1f MiB = %.2f\n",
                    "KrParseInportExcelFile:", importPeak, list->second, importPeak / list->second);
    return 0;
}
