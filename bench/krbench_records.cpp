// Benchmarks of the record utilities on a generated blotter of 1,000,000 rows x 10 columns,
// each beside the straightforward code a client developer would otherwise write.
//
//     build/default/bench/krbench_records [--rows=N] [Google Benchmark flags]

#include "../tests/KrFilterReference.h"
#include "KrBlotter.h"

#include <krdefine/krdefine.h>
#include <krutils/KrCommonUtils.h>

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <cstdio>
#include <cstring>

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
QMap<int, QList<QList<QVariantMap>>> blotterFilter()
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

void filterLibrary(benchmark::State &state)
{
    const auto &rows = blotter();
    const auto filter = blotterFilter();
    int matched = 0;
    for (auto _ : state)
        matched = KrCommonUtils::getMatchRecordListByFilterList(rows, filter, {}).size();
    state.SetItemsProcessed(state.iterations() * rows.size());
    state.counters["matched"] = matched;
}

void filterObviousLoop(benchmark::State &state)
{
    const auto &rows = blotter();
    const auto filter = blotterFilter();
    int matched = 0;
    for (auto _ : state)
        matched = KrFilterReference::matchRecords(rows, filter).size();
    state.SetItemsProcessed(state.iterations() * rows.size());
    state.counters["matched"] = matched;
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

    benchmark::RegisterBenchmark("filter/KrCommonUtils::getMatchRecordListByFilterList",
                                 filterLibrary)
            ->Unit(benchmark::kMillisecond)
            ->MinTime(2);
    benchmark::RegisterBenchmark("filter/obvious loop", filterObviousLoop)
            ->Unit(benchmark::kMillisecond)
            ->MinTime(2);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
