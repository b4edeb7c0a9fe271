// Benchmarks of the record utilities on a generated blotter of 1,000,000 rows x 10 columns,
// each beside the straightforward code a client developer would otherwise write.
//
//     build/default/bench/krbench_records [--rows=N] [Google Benchmark flags]

#include "../tests/records/KrFilterReference.h"
#include "KrBenchSupport.h"
#include "KrBlotter.h"

#include <krdefine/krdefine.h>
#include <krutils/KrCommonUtils.h>

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

int rowCount = 1000000;

const QList<QMap<int, QVariantMap>> &blotter()
{
    static const QList<QMap<int, QVariantMap>> rows = KrBlotter::generate(rowCount);
    return rows;
}

QVariantMap condition(const QString &compare, const QVariant &operand, const QString &logic)
{
    return {{Orvex_Fields::Infomation::compareOperator, compare},
            {Orvex_Fields::System::filterValue, operand},
            {Orvex_Fields::Infomation::logicOperator, logic}};
}

// Three filtered columns, each two groups of three conditions, as a trader builds them.
QMap<int, QList<QList<QVariantMap>>> priceSideTimeFilter()
{
    using namespace Orvex_Values;
    const QString and_ = LogicOperator::andOperator, or_ = LogicOperator::orOperator,
                  not_ = LogicOperator::notOperator;
    const QDateTime open(QDate(2024, 11, 22), QTime(9, 30), Qt::UTC);
    return {
            {KrBlotter::Price,
             {{condition(CompareOperator::greaterOrEqual, 10.0, and_),
               condition(CompareOperator::lessOrEqual, 50.0, and_),
               condition(CompareOperator::noEqual, 25.0, and_)},
              {condition(CompareOperator::greater, 90.0, or_),
               condition(CompareOperator::less, 1.0, and_),
               condition(CompareOperator::noEqual, 0.0, and_)}}},
            {KrBlotter::Side,
             {{condition(CompareOperator::equal, QStringLiteral("Buy"), or_),
               condition(CompareOperator::equal, QStringLiteral("Sell"), and_),
               condition(CompareOperator::noEqual, QString(), and_)},
              {condition(CompareOperator::greater, QStringLiteral("S"), and_),
               condition(CompareOperator::less, QStringLiteral("T"), not_),
               condition(CompareOperator::equal, QStringLiteral("Short"), and_)}}},
            {KrBlotter::Time,
             {{condition(CompareOperator::greaterOrEqual, open.addSecs(1800), and_),
               condition(CompareOperator::less, open.addSecs(7200), not_),
               condition(CompareOperator::equal, open.addSecs(3600), and_)},
              {condition(CompareOperator::greater, open.addSecs(12000), or_),
               condition(CompareOperator::less, open.addSecs(600), and_),
               condition(CompareOperator::noEqual, open, and_)}}},
    };
}

// A blotter filter on three columns of different types, each with two groups of three
// conditions that use all six operators and the and / or / not joins: an int column, a
// date-time column, and a text column, whose texts QVariant orders without case first (an
// upper- and a lower-case spelling of one text are unequal, and each is "greater" than the
// other). About 60% of the rows pass, most only after all three columns were looked at.
QMap<int, QList<QList<QVariantMap>>> quantityTimeSymbolFilter()
{
    using namespace Orvex_Values;
    const QString and_ = LogicOperator::andOperator, or_ = LogicOperator::orOperator,
                  not_ = LogicOperator::notOperator;
    const QDateTime open(QDate(2024, 11, 22), QTime(9, 30), Qt::UTC);
    return {
            {KrBlotter::Quantity,
             {{condition(CompareOperator::greaterOrEqual, 500, and_),
               condition(CompareOperator::lessOrEqual, 4000, not_),
               condition(CompareOperator::equal, 1000, and_)},
              {condition(CompareOperator::greater, 4500, or_),
               condition(CompareOperator::less, 300, and_),
               condition(CompareOperator::noEqual, 200, and_)}}},
            {KrBlotter::Time,
             {{condition(CompareOperator::greaterOrEqual, open.addSecs(1800), and_),
               condition(CompareOperator::less, open.addSecs(12600), not_),
               condition(CompareOperator::equal, open.addSecs(3600), and_)},
              {condition(CompareOperator::greater, open.addSecs(13200), or_),
               condition(CompareOperator::lessOrEqual, open.addSecs(900), and_),
               condition(CompareOperator::noEqual, open, and_)}}},
            {KrBlotter::Symbol,
             {{condition(CompareOperator::greater, QStringLiteral("3"), and_),
               condition(CompareOperator::lessOrEqual, QStringLiteral("601318.sh"), not_),
               condition(CompareOperator::equal, QStringLiteral("300750.SZ"), and_)},
              {condition(CompareOperator::less, QStringLiteral("IF"), or_),
               condition(CompareOperator::greaterOrEqual, QStringLiteral("ic2412"), and_),
               condition(CompareOperator::noEqual, QStringLiteral("000001.SZ"), and_)}}},
    };
}

using FilterMaker = QMap<int, QList<QList<QVariantMap>>> (*)();

struct FilterCase
{
    const char *name;
    FilterMaker filter;
};

const FilterCase filterCases[] {{"price,side,time", priceSideTimeFilter},
                                {"quantity,time,symbol", quantityTimeSymbolFilter}};

void filterLibrary(benchmark::State &state, FilterMaker makeFilter)
{
    const auto &rows = blotter();
    const auto filter = makeFilter();
    int matched = 0;
    for (auto _ : state)
        matched = KrCommonUtils::getMatchRecordListByFilterList(rows, filter, {}).size();
    state.SetItemsProcessed(state.iterations() * rows.size());
    state.counters["matched"] = matched;
}

void filterObviousLoop(benchmark::State &state, FilterMaker makeFilter)
{
    const auto &rows = blotter();
    const auto filter = makeFilter();
    int matched = 0;
    for (auto _ : state)
        matched = KrFilterReference::matchRecords(rows, filter).size();
    state.SetItemsProcessed(state.iterations() * rows.size());
    state.counters["matched"] = matched;
}

std::string filterName(const FilterCase &filterCase, const char *how)
{
    return std::string("filter/") + filterCase.name + "/" + how;
}

// RatioReporter's real times, and the CPU times beside them: on a loaded machine a benchmark
// on one thread varies far less in CPU time than in real time.
class FilterReporter : public RatioReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        RatioReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                cpuTimes[run.benchmark_name()] = run.GetAdjustedCPUTime();
        }
    }

    std::map<std::string, double> cpuTimes;
};

void printFilterRatios(const FilterReporter &reporter)
{
    // the reported names carry the benchmark's options ("/min_time:2.000") after ours, and the
    // times are in the benchmarks' unit, milliseconds
    const auto milliseconds
            = [](const std::map<std::string, double> &times, const std::string &name) {
                  for (const auto &[reported, time] : times) {
                      if (reported.compare(0, name.size(), name) == 0)
                          return time;
                  }
                  return 0.0;
              };
    std::printf("\nFilter, ratios to the obvious loop (real time; CPU time):\n");
    for (const FilterCase &filterCase : filterCases) {
        const std::string library = filterName(filterCase, "KrCommonUtils"),
                          loop = filterName(filterCase, "obvious loop");
        const double realLibrary = milliseconds(reporter.nanoseconds, library),
                     realLoop = milliseconds(reporter.nanoseconds, loop),
                     cpuLibrary = milliseconds(reporter.cpuTimes, library),
                     cpuLoop = milliseconds(reporter.cpuTimes, loop);
        if (realLibrary > 0 && realLoop > 0 && cpuLibrary > 0 && cpuLoop > 0)
            std::printf("  %-21s %7.1f ms, obvious loop %7.1f ms = %.2fx; CPU %7.1f ms, %7.1f "
                        "ms = %.2fx\n",
                        filterCase.name, realLibrary, realLoop, realLoop / realLibrary, cpuLibrary,
                        cpuLoop, cpuLoop / cpuLibrary);
    }
}

// The filter must pass the very rows the plain rules pass.
bool filtersAgreeWithTheObviousLoop()
{
    for (const FilterCase &filterCase : filterCases) {
        const auto filter = filterCase.filter();
        if (KrCommonUtils::getMatchRecordListByFilterList(blotter(), filter, {})
            != KrFilterReference::matchRecords(blotter(), filter))
            return false;
    }
    return true;
}

// --- Sorts -------------------------------------------------------------------------------------

const QList<QPair<int, Qt::SortOrder>> sortColumns {{KrBlotter::Symbol, Qt::AscendingOrder},
                                                    {KrBlotter::Price, Qt::DescendingOrder}};

// The blotter as field records, for sortDataListByKeys.
const QList<QVariantMap> &blotterRecords()
{
    static const QList<QVariantMap> records = [] {
        QList<QVariantMap> result;
        result.reserve(blotter().size());
        for (const auto &row : blotter()) {
            QVariantMap record;
            for (auto cell = row.cbegin(); cell != row.cend(); ++cell)
                record.insert(QString::number(cell.key()),
                              cell->value(QStringLiteral("256"), cell->value(QStringLiteral("0"))));
            result.append(record);
        }
        return result;
    }();
    return records;
}

QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
// What a client writes without the library: std::stable_sort, reading each value per comparison.
template<typename Record, typename Key, typename ReadValue>
void stableSortByKeys(QList<Record> &records, const QList<QPair<Key, Qt::SortOrder>> &keys,
                      ReadValue readValue)
{
    std::stable_sort(records.begin(), records.end(), [&](const Record &a, const Record &b) {
        for (const auto &key : keys) {
            const QVariant va = readValue(a, key.first), vb = readValue(b, key.first);
            if (va < vb)
                return key.second == Qt::AscendingOrder;
            if (vb < va)
                return key.second == Qt::DescendingOrder;
        }
        return false;
    });
}
QT_WARNING_POP

QVariant cellSortValue(const QMap<int, QVariantMap> &row, int column)
{
    const QVariantMap cell = row.value(column);
    for (const char *role : {"263", "256", "0", "257"}) {
        if (cell.contains(QLatin1String(role)))
            return cell.value(QLatin1String(role));
    }
    return QVariant();
}

template<typename List, typename Sort>
void runSort(benchmark::State &state, const List &input, Sort sort)
{
    List sorted;
    for (auto _ : state) {
        state.PauseTiming();
        sorted = input;
        sorted.detach();
        state.ResumeTiming();
        sort(sorted);
    }
    state.SetItemsProcessed(state.iterations() * input.size());
}

void sortTableLibrary(benchmark::State &state)
{
    runSort(state, blotter(),
            [](auto &rows) { KrCommonUtils::sortTableViewRecordListByKeys(rows, sortColumns); });
}

void sortTableStableSort(benchmark::State &state)
{
    runSort(state, blotter(),
            [](auto &rows) { stableSortByKeys(rows, sortColumns, cellSortValue); });
}

const QList<QPair<QString, Qt::SortOrder>> sortFields {
        {QString::number(KrBlotter::Symbol), Qt::AscendingOrder},
        {QString::number(KrBlotter::Price), Qt::DescendingOrder}};

void sortDataLibrary(benchmark::State &state)
{
    runSort(state, blotterRecords(),
            [](auto &records) { KrCommonUtils::sortDataListByKeys(records, sortFields); });
}

void sortDataStableSort(benchmark::State &state)
{
    runSort(state, blotterRecords(), [](auto &records) {
        stableSortByKeys(records, sortFields,
                         [](const QVariantMap &r, const QString &key) { return r.value(key); });
    });
}

// --- Summary row and intersection ---------------------------------------------------------------

void sumRecord(benchmark::State &state)
{
    const auto &rows = blotter();
    for (auto _ : state)
        benchmark::DoNotOptimize(KrCommonUtils::getTableViewSumRecord(rows, {}));
    state.SetItemsProcessed(state.iterations() * rows.size());
}

// Five lists of `size` order ids as text, overlapping by about half.
QList<QList<std::string>> idLists(int size)
{
    QRandomGenerator random(7);
    QList<QList<std::string>> lists;
    for (int l = 0; l < 5; ++l) {
        QList<std::string> list;
        list.reserve(size);
        for (int i = 0; i < size; ++i)
            list.append("ORD" + std::to_string(random.bounded(2 * size)));
        lists.append(list);
    }
    return lists;
}

void intersectStrings(benchmark::State &state)
{
    const auto lists = idLists(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(KrCommonUtils::getIntersection(lists));
    state.SetItemsProcessed(state.iterations() * 5 * state.range(0));
}

void intersectVariants(benchmark::State &state)
{
    QList<QVariantList> lists;
    for (const auto &list : idLists(int(state.range(0)))) {
        QVariantList variants;
        for (const std::string &id : list)
            variants.append(QString::fromStdString(id));
        lists.append(variants);
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(KrCommonUtils::getIntersection(lists));
    state.SetItemsProcessed(state.iterations() * 5 * state.range(0));
}

// The sorts must give the very order std::stable_sort gives on the blotter's consistent values.
bool sortsAgreeWithStableSort()
{
    auto rows = blotter(), expectedRows = blotter();
    KrCommonUtils::sortTableViewRecordListByKeys(rows, sortColumns);
    stableSortByKeys(expectedRows, sortColumns, cellSortValue);
    auto records = blotterRecords(), expectedRecords = blotterRecords();
    KrCommonUtils::sortDataListByKeys(records, sortFields);
    stableSortByKeys(expectedRecords, sortFields,
                     [](const QVariantMap &r, const QString &key) { return r.value(key); });
    return rows == expectedRows && records == expectedRecords;
}

} // namespace

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--rows=", 7) == 0)
            rowCount = std::atoi(argv[i] + 7);
    }
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    std::printf("Generating a blotter of %d rows x %d columns ...\n", rowCount,
                int(KrBlotter::ColumnCount));
    blotter();

    for (const FilterCase &filterCase : filterCases) {
        benchmark::RegisterBenchmark(filterName(filterCase, "KrCommonUtils").c_str(), filterLibrary,
                                     filterCase.filter)
                ->Unit(benchmark::kMillisecond)
                ->MinTime(2);
        benchmark::RegisterBenchmark(filterName(filterCase, "obvious loop").c_str(),
                                     filterObviousLoop, filterCase.filter)
                ->Unit(benchmark::kMillisecond)
                ->MinTime(2);
    }
    const auto slow = [](benchmark::internal::Benchmark *b) {
        b->Unit(benchmark::kMillisecond)->Iterations(2);
    };
    slow(benchmark::RegisterBenchmark("sortTableViewRecordListByKeys/KrCommonUtils",
                                      sortTableLibrary));
    slow(benchmark::RegisterBenchmark("sortTableViewRecordListByKeys/std::stable_sort",
                                      sortTableStableSort));
    slow(benchmark::RegisterBenchmark("sortDataListByKeys/KrCommonUtils", sortDataLibrary));
    slow(benchmark::RegisterBenchmark("sortDataListByKeys/std::stable_sort", sortDataStableSort));
    benchmark::RegisterBenchmark("getTableViewSumRecord/all columns", sumRecord)
            ->Unit(benchmark::kMillisecond)
            ->MinTime(2);
    benchmark::RegisterBenchmark("getIntersection/std::string", intersectStrings)
            ->Arg(10000)
            ->Arg(100000)
            ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("getIntersection/QVariant(QString)", intersectVariants)
            ->Arg(10000)
            ->Arg(100000)
            ->Unit(benchmark::kMillisecond);
    FilterReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printFilterRatios(reporter);
    std::printf("Filtered rows identical to the obvious loop: %s\n",
                filtersAgreeWithTheObviousLoop() ? "yes" : "NO");
    std::printf("Sorted orders identical to std::stable_sort: %s\n",
                sortsAgreeWithStableSort() ? "yes" : "NO");
    return 0;
}
