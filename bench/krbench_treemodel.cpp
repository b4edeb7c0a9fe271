// Utils::TreeModel against QStandardItemModel holding the same data: 1,000 accounts with 1,000
// positions each, three display columns per row. Building, live inserts, a full walk, iterating
// level 2 and removing all rows; the heap each model takes per item.
//
// Building is measured twice: with texts made before the clock starts and shared by both models
// (Qt's strings are implicitly shared), which shows the models themselves, and with texts each
// build makes for itself, as a client filling a model from its records does.
//
// Live inserts are what a shown position book sees: the accounts are in the model first, then
// their positions arrive one at a time, each announced to the model's listeners as it comes;
// every item owns its texts.

#include "KrBenchSupport.h"

#include <krutils/TreeModel.h>

#include <QCoreApplication>
#include <QStandardItemModel>

#include <malloc.h>

#include <cstdio>
#include <memory>

namespace {

constexpr int parentCount = 1000;
constexpr int childCount = 1000;
constexpr int itemCount = parentCount * childCount;

// The rows' texts: account rows and position rows, three columns each.
struct Texts
{
    QVector<QStringList> parents;
    QVector<QStringList> children; // parentCount * childCount rows
};

const Texts &texts()
{
    static const Texts made = [] {
        Texts t;
        t.parents.reserve(parentCount);
        t.children.reserve(itemCount);
        for (int p = 0; p < parentCount; ++p) {
            t.parents.append({QStringLiteral("ACC-%1").arg(p, 4, 10, QLatin1Char('0')),
                              QStringLiteral("Account %1").arg(p), QStringLiteral("CNY")});
            for (int c = 0; c < childCount; ++c)
                t.children.append({QStringLiteral("%1.SH").arg(600000 + c),
                                   QString::number((p * 7 + c) % 5000 * 100),
                                   QString::number(10.0 + c * 0.01, 'f', 2)});
        }
        return t;
    }();
    return made;
}

size_t heapInUse()
{
    return mallinfo2().uordblks;
}

// A row's texts made afresh: deep copies of the prepared ones.
QStringList ownCopy(const QStringList &columns)
{
    QStringList copy;
    copy.reserve(columns.size());
    for (const QString &text : columns)
        copy.append(QString(text.constData(), text.size()));
    return copy;
}

enum TextSource { SharedTexts, OwnTexts };

void buildTreeModel(Utils::TreeModel &model, TextSource source = SharedTexts)
{
    const Texts &t = texts();
    model.setHeader({QStringLiteral("Code"), QStringLiteral("Quantity"), QStringLiteral("Price")});
    Utils::TreeItem *root = model.rootItem();
    for (int p = 0; p < parentCount; ++p) {
        auto account = new Utils::TreeItem(t.parents.at(p));
        const QStringList *rows = t.children.constData() + p * childCount;
        for (int c = 0; c < childCount; ++c)
            account->appendChild(
                    new Utils::TreeItem(source == OwnTexts ? ownCopy(rows[c]) : rows[c]));
        root->appendChild(account);
    }
}

QList<QStandardItem *> standardRow(const QStringList &columns)
{
    QList<QStandardItem *> row;
    row.reserve(columns.size());
    for (const QString &text : columns)
        row.append(new QStandardItem(text));
    return row;
}

void buildStandardModel(QStandardItemModel &model, TextSource source = SharedTexts)
{
    const Texts &t = texts();
    model.setHorizontalHeaderLabels(
            {QStringLiteral("Code"), QStringLiteral("Quantity"), QStringLiteral("Price")});
    for (int p = 0; p < parentCount; ++p) {
        QList<QStandardItem *> account = standardRow(t.parents.at(p));
        const QStringList *rows = t.children.constData() + p * childCount;
        for (int c = 0; c < childCount; ++c)
            account.first()->appendRow(
                    standardRow(source == OwnTexts ? ownCopy(rows[c]) : rows[c]));
        model.appendRow(account);
    }
}

// The accounts first, then one position at a time under an account already in the model.
void insertIntoLiveTreeModel(Utils::TreeModel &model)
{
    const Texts &t = texts();
    model.setHeader({QStringLiteral("Code"), QStringLiteral("Quantity"), QStringLiteral("Price")});
    QVector<Utils::TreeItem *> accounts;
    accounts.reserve(parentCount);
    for (int p = 0; p < parentCount; ++p) {
        accounts.append(new Utils::TreeItem(ownCopy(t.parents.at(p))));
        model.rootItem()->appendChild(accounts.last());
    }
    for (int p = 0; p < parentCount; ++p) {
        const QStringList *rows = t.children.constData() + p * childCount;
        for (int c = 0; c < childCount; ++c)
            accounts.at(p)->appendChild(new Utils::TreeItem(ownCopy(rows[c])));
    }
}

void insertIntoLiveStandardModel(QStandardItemModel &model)
{
    const Texts &t = texts();
    model.setHorizontalHeaderLabels(
            {QStringLiteral("Code"), QStringLiteral("Quantity"), QStringLiteral("Price")});
    QVector<QStandardItem *> accounts;
    accounts.reserve(parentCount);
    for (int p = 0; p < parentCount; ++p) {
        QList<QStandardItem *> account = standardRow(ownCopy(t.parents.at(p)));
        accounts.append(account.first());
        model.appendRow(account);
    }
    for (int p = 0; p < parentCount; ++p) {
        const QStringList *rows = t.children.constData() + p * childCount;
        for (int c = 0; c < childCount; ++c)
            accounts.at(p)->appendRow(standardRow(ownCopy(rows[c])));
    }
}

void reportHeap(benchmark::State &state, size_t before)
{
    state.counters["bytes_per_item"] = double(heapInUse() - before) / (itemCount + parentCount);
}

// Times filling a fresh model and reports the heap it took; the empty model is made and the full
// one destroyed off the clock.
template<class Model, class Fill> void measureFill(benchmark::State &state, Fill fill)
{
    texts();
    for (auto _ : state) {
        state.PauseTiming();
        auto model = std::make_unique<Model>();
        const size_t before = heapInUse();
        state.ResumeTiming();
        fill(*model);
        state.PauseTiming();
        reportHeap(state, before);
        model.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * itemCount);
}

void treeModelBuild(benchmark::State &state)
{
    const auto source = TextSource(state.range(0));
    measureFill<Utils::TreeModel>(state,
                                  [=](Utils::TreeModel &model) { buildTreeModel(model, source); });
}

void standardModelBuild(benchmark::State &state)
{
    const auto source = TextSource(state.range(0));
    measureFill<QStandardItemModel>(
            state, [=](QStandardItemModel &model) { buildStandardModel(model, source); });
}

void treeModelLiveInsert(benchmark::State &state)
{
    measureFill<Utils::TreeModel>(state, insertIntoLiveTreeModel);
}

void standardModelLiveInsert(benchmark::State &state)
{
    measureFill<QStandardItemModel>(state, insertIntoLiveStandardModel);
}

// Built once for the read-only benchmarks.
Utils::TreeModel &sharedTreeModel()
{
    static Utils::TreeModel *model = [] {
        auto m = new Utils::TreeModel;
        buildTreeModel(*m);
        return m;
    }();
    return *model;
}

QStandardItemModel &sharedStandardModel()
{
    static QStandardItemModel *model = [] {
        auto m = new QStandardItemModel;
        buildStandardModel(*m);
        return m;
    }();
    return *model;
}

void treeModelWalk(benchmark::State &state)
{
    Utils::TreeItem *root = sharedTreeModel().rootItem();
    for (auto _ : state) {
        qint64 characters = 0;
        root->walkTree([&](Utils::TreeItem *item) {
            characters += item->data(0, Qt::DisplayRole).toString().size();
        });
        benchmark::DoNotOptimize(characters);
    }
    state.SetItemsProcessed(state.iterations() * itemCount);
}

void standardWalk(const QStandardItem *item, qint64 &characters)
{
    characters += item->text().size();
    for (int row = 0, rows = item->rowCount(); row < rows; ++row)
        standardWalk(item->child(row), characters);
}

void standardModelWalk(benchmark::State &state)
{
    const QStandardItem *root = sharedStandardModel().invisibleRootItem();
    for (auto _ : state) {
        qint64 characters = 0;
        standardWalk(root, characters);
        benchmark::DoNotOptimize(characters);
    }
    state.SetItemsProcessed(state.iterations() * itemCount);
}

void treeModelLevel2(benchmark::State &state)
{
    const Utils::TreeModel &model = sharedTreeModel();
    for (auto _ : state) {
        qint64 items = 0;
        for (Utils::TreeItem *item : model.untypedLevelItems(2)) {
            benchmark::DoNotOptimize(item);
            ++items;
        }
        if (items != itemCount)
            state.SkipWithError("wrong item count");
    }
    state.SetItemsProcessed(state.iterations() * itemCount);
}

void standardModelLevel2(benchmark::State &state)
{
    const QStandardItem *root = sharedStandardModel().invisibleRootItem();
    for (auto _ : state) {
        qint64 items = 0;
        for (int p = 0, parents = root->rowCount(); p < parents; ++p) {
            const QStandardItem *account = root->child(p);
            for (int c = 0, children = account->rowCount(); c < children; ++c) {
                benchmark::DoNotOptimize(account->child(c));
                ++items;
            }
        }
        if (items != itemCount)
            state.SkipWithError("wrong item count");
    }
    state.SetItemsProcessed(state.iterations() * itemCount);
}

void treeModelRemoveAll(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        Utils::TreeModel model;
        buildTreeModel(model);
        state.ResumeTiming();
        model.removeItems();
    }
    state.SetItemsProcessed(state.iterations() * itemCount);
}

void standardModelRemoveAll(benchmark::State &state)
{
    for (auto _ : state) {
        state.PauseTiming();
        QStandardItemModel model;
        buildStandardModel(model);
        state.ResumeTiming();
        model.removeRows(0, model.rowCount());
    }
    state.SetItemsProcessed(state.iterations() * itemCount);
}

// Remembers the heap counters too, for the summary.
class TreeReporter : public RatioReporter
{
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        RatioReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            const auto heap = run.counters.find("bytes_per_item");
            if (heap != run.counters.end())
                bytesPerItem[run.benchmark_name()] = heap->second;
        }
    }

    std::map<std::string, double> bytesPerItem;
};

void printSummary(TreeReporter &reporter)
{
    std::printf("\nUtils::TreeModel against QStandardItemModel, %d items:\n", itemCount);
    const auto time = [&](const std::string &name) { // in milliseconds, the benchmarks' unit
        const auto it = reporter.nanoseconds.find(name + "/real_time");
        return it == reporter.nanoseconds.end() ? 0.0 : it->second;
    };
    for (const char *operation :
         {"build/0", "build/1", "liveInsert", "walk", "level2", "removeAll"}) {
        const double tree = time(std::string("TreeModel_") + operation);
        const double standard = time(std::string("QStandardItemModel_") + operation);
        if (tree > 0 && standard > 0)
            std::printf("  %-10s %8.1f ms against %8.1f ms = %.2fx\n", operation, tree, standard,
                        tree / standard);
    }
    for (const char *operation : {"build/0", "build/1", "liveInsert"}) {
        const double tree
                = reporter.bytesPerItem[std::string("TreeModel_") + operation + "/real_time"];
        const double standard = reporter.bytesPerItem[std::string("QStandardItemModel_") + operation
                                                      + "/real_time"];
        if (tree > 0 && standard > 0)
            std::printf("  heap of %-10s %5.0f B per item against %5.0f B = %.2fx\n", operation,
                        tree, standard, tree / standard);
    }
    std::printf("  (/0: shared texts, the models alone; /1 and liveInsert: each item owns its "
                "texts)\n");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);

    const auto add = [](const char *name, void (*fn)(benchmark::State &)) {
        benchmark::RegisterBenchmark(name, fn)->Unit(benchmark::kMillisecond)->UseRealTime();
    };
    for (auto build : {treeModelBuild, standardModelBuild}) {
        benchmark::RegisterBenchmark(
                build == treeModelBuild ? "TreeModel_build" : "QStandardItemModel_build", build)
                ->Arg(SharedTexts)
                ->Arg(OwnTexts)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
    }
    add("TreeModel_liveInsert", treeModelLiveInsert);
    add("QStandardItemModel_liveInsert", standardModelLiveInsert);
    add("TreeModel_walk", treeModelWalk);
    add("QStandardItemModel_walk", standardModelWalk);
    add("TreeModel_level2", treeModelLevel2);
    add("QStandardItemModel_level2", standardModelLevel2);
    add("TreeModel_removeAll", treeModelRemoveAll);
    add("QStandardItemModel_removeAll", standardModelRemoveAll);

    TreeReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printSummary(reporter);
    return 0;
}
