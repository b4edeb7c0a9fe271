#include "TreeModelTestSupport.h"

#include <krutils/TreeView.h>

#include <QAbstractItemModelTester>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace {

// Reaches the protected index factory, for indexes no well-behaved model hands out.
class OpenModel : public TreeModel
{
public:
    using TreeModel::TreeModel;
    QModelIndex rawIndex(int row, int column, void *pointer) const
    {
        return createIndex(row, column, pointer);
    }
};

// Claims a parent that does not list it.
class StrayItem : public TreeItem
{
public:
    TreeItem *claimedParent = nullptr;
    TreeItem *parent() const override { return claimedParent; }
};

using Misuse = std::function<bool()>;

} // namespace

Q_DECLARE_METATYPE(Misuse)

// The model: its answers, taking items out, every contract check, random edit sequences under
// Qt's model tester, and views on a model that changes while they show it.
class tst_TreeModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void removeItemHandsTheItemOver();
    void setRootItemDeletesTheOldTree();
    void modelAnswers();
    void headerAndColumns_data();
    void headerAndColumns();
    void setDataOnlyWhenTheItemAccepts_data();
    void setDataOnlyWhenTheItemAccepts();
    void contractChecks_data();
    void contractChecks();
    void randomEditsUnderModelTester_data();
    void randomEditsUnderModelTester();
    void viewExpandsAndActivates();
    void viewShowsRowsInsertedWhileShown_data();
    void viewShowsRowsInsertedWhileShown();
};

void tst_TreeModel::removeItemHandsTheItemOver()
{
    QStringList deletions; // outlives the items
    TreeModel model;
    model.setRootItem(buildTree(QStringLiteral("r(a(x,y),b)")));
    TreeItem *a = find(model.rootItem(), QStringLiteral("a"));
    TreeItem *y = find(model.rootItem(), QStringLiteral("y"));

    model.rootItem()->walkTree([&](TreeItem *item) { named(item)->destroyed = &deletions; });

    QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
    model.removeItem(y);
    QCOMPARE(removed.count(), 1);
    QCOMPARE(removed.first().at(0).toModelIndex(), a->index());
    QCOMPARE(removed.first().at(1).toInt(), 1);

    // A direct child of the root: the parent index is the invalid one.
    model.removeItem(a);
    QCOMPARE(removed.count(), 2);
    QCOMPARE(removed.last().at(0).toModelIndex(), QModelIndex());
    QCOMPARE(removed.last().at(1).toInt(), 0);

    QCOMPARE(shape(model.rootItem()), QStringLiteral("r(b)"));
    QVERIFY(deletions.isEmpty());
    std::unique_ptr<TreeItem> takenA(a);
    std::unique_ptr<TreeItem> takenY(y);
    QCOMPARE(a->parent(), nullptr);
    QCOMPARE(a->model(), &model);
    QCOMPARE(y->model(), &model);
    QCOMPARE(shape(a), QStringLiteral("a(x)"));
}

void tst_TreeModel::setRootItemDeletesTheOldTree()
{
    TreeModel model;
    model.setRootItem(buildTree(QStringLiteral("r(a(x,y),b)")));
    QStringList deletions;
    model.rootItem()->walkTree([&](TreeItem *item) { named(item)->destroyed = &deletions; });

    QSignalSpy aboutToReset(&model, &QAbstractItemModel::modelAboutToBeReset);
    QSignalSpy reset(&model, &QAbstractItemModel::modelReset);
    QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
    TreeItem *replacement = buildTree(QStringLiteral("s(c(z))"));
    model.setRootItem(replacement);

    deletions.sort();
    QCOMPARE(deletions, QStringList({"a", "b", "r", "x", "y"}));
    QCOMPARE(aboutToReset.count() + reset.count() + removed.count(), 0);
    QCOMPARE(model.rootItem(), replacement);
    QCOMPARE(find(replacement, QStringLiteral("z"))->model(), &model);
    QCOMPARE(modelShape(model, QModelIndex()), QStringLiteral("(c(z))"));

    // An empty model: every question has its neutral answer.
    model.setRootItem(nullptr);
    QCOMPARE(model.rootItem(), nullptr);
    MessageCapture capture;
    QCOMPARE(model.rowCount(), 0);
    QVERIFY(!model.index(0, 0).isValid());
    model.removeItems();
    QCOMPARE(names(model.untypedLevelItems(1)), QStringList());
    QCOMPARE(softAsserts(capture), QStringList({assertText("item", 914), assertText("item", 914)}));
}

void tst_TreeModel::modelAnswers()
{
    // Lazy loading the Qt way: canFetchMore/fetchMore reach the item.
    class FetchingItem : public NamedItem
    {
    public:
        using NamedItem::NamedItem;
        bool canFetchMore() const override { return !fetched; }
        void fetchMore() override
        {
            fetched = true;
            appendChild(new NamedItem(QStringLiteral("fetched")));
        }
        bool fetched = false;
    };

    TreeModel model;
    model.setColumnCount(2);
    auto fetching = new FetchingItem(QStringLiteral("f"));
    fetching->setFlags(Qt::ItemIsEnabled | Qt::ItemNeverHasChildren);
    model.rootItem()->appendChild(fetching);
    const QModelIndex index = fetching->index();

    QVERIFY(!model.canFetchMore(QModelIndex()));
    QVERIFY(model.canFetchMore(index));
    QVERIFY(model.hasChildren(index)); // can fetch more, no rows yet
    QCOMPARE(model.rowCount(index), 0);
    model.fetchMore(index);
    QVERIFY(!model.canFetchMore(index));
    QCOMPARE(model.rowCount(index), 1);
    QCOMPARE(model.rowCount(index.sibling(0, 1)), 0); // only column 0 has rows
    QCOMPARE(model.columnCount(index), 2);
    QCOMPARE(model.columnCount(index.sibling(0, 1)), 0);

    QCOMPARE(model.flags(index), Qt::ItemIsEnabled | Qt::ItemNeverHasChildren);
    QCOMPARE(model.flags(QModelIndex()), Qt::NoItemFlags);
    QCOMPARE(model.data(index.sibling(0, 1)).toInt(), 1);
    QVERIFY(model.hasChildren(QModelIndex()));
}

void tst_TreeModel::headerAndColumns_data()
{
    QTest::addColumn<QStringList>("header");
    QTest::addColumn<int>("columnCount"); // -1: leave it to setHeader
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("expectedColumns");
    QTest::addColumn<QVariant>("expected");

    const QStringList header {QStringLiteral("Account"), QStringLiteral("Strategy")};
    QTest::newRow("header sets the columns")
            << header << -1 << 1 << 2 << QVariant(QStringLiteral("Strategy"));
    QTest::newRow("section at the size") << header << -1 << 2 << 2 << QVariant();
    QTest::newRow("section beyond") << header << -1 << 7 << 2 << QVariant();
    QTest::newRow("columns set later win") << header << 5 << 0 << 5 << QVariant(header.first());
    QTest::newRow("no header") << QStringList() << 3 << 0 << 3 << QVariant();
}

void tst_TreeModel::headerAndColumns()
{
    QFETCH(QStringList, header);
    QFETCH(int, columnCount);
    QFETCH(int, section);
    QFETCH(int, expectedColumns);
    QFETCH(QVariant, expected);

    TreeModel model;
    model.rootItem()->appendChild(new NamedItem(QStringLiteral("a")));
    if (!header.isEmpty())
        model.setHeader(header);
    if (columnCount >= 0)
        model.setColumnCount(columnCount);

    QCOMPARE(model.columnCount(), expectedColumns);
    QCOMPARE(model.columnCount(model.index(0, 0)), expectedColumns);
    QCOMPARE(model.headerData(section, Qt::Horizontal), expected);
    QCOMPARE(model.headerData(section, Qt::Vertical), QVariant());
    QCOMPARE(model.headerData(section, Qt::Horizontal, Qt::ToolTipRole), QVariant());
}

void tst_TreeModel::setDataOnlyWhenTheItemAccepts_data()
{
    QTest::addColumn<int>("column");
    QTest::addColumn<int>("role");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("name") << 0 << int(Qt::EditRole) << true;
    QTest::newRow("level column") << 1 << int(Qt::EditRole) << false;
    QTest::newRow("display role") << 0 << int(Qt::DisplayRole) << false;
}

void tst_TreeModel::setDataOnlyWhenTheItemAccepts()
{
    QFETCH(int, column);
    QFETCH(int, role);
    QFETCH(bool, accepted);

    TreeModel model;
    model.setColumnCount(2);
    model.rootItem()->appendChild(new NamedItem(QStringLiteral("old")));
    const QModelIndex index = model.index(0, column);
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);

    QCOMPARE(model.setData(index, QStringLiteral("new"), role), accepted);
    QCOMPARE(model.data(model.index(0, 0)).toString(),
             accepted ? QStringLiteral("new") : QStringLiteral("old"));
    QCOMPARE(changed.count(), accepted ? 1 : 0);
    if (accepted) {
        QCOMPARE(changed.first().at(0).toModelIndex(), index);
        QCOMPARE(changed.first().at(1).toModelIndex(), index);
        QCOMPARE(changed.first().at(2).value<QVector<int>>(), QVector<int>());
    }
    // The plain item takes no edits.
    TreeModel plain;
    plain.rootItem()->appendChild(new TreeItem({QStringLiteral("x")}));
    QVERIFY(!plain.setData(plain.index(0, 0), QStringLiteral("y"), role));
}

namespace {

// Misuse of an item and of the level range.
void addItemContractRows()
{
    QTest::newRow("child at a negative row") << Misuse([] {
        TreeModel model;
        model.rootItem()->appendChild(buildTree(QStringLiteral("a(x)")));
        return model.rootItem()->child(-1) == nullptr;
    }) << QStringList({assertText("pos >= 0", 634)});

    QTest::newRow("index of an item outside a model") << Misuse([] {
        NamedItem loose(QStringLiteral("loose"));
        return !loose.index().isValid();
    }) << QStringList({assertText("m_model", 785)});

    QTest::newRow("inserting an item of another model")
            << Misuse([] {
                   TreeModel mine;
                   OpenModel theirs;
                   TreeItem *foreign = buildTree(QStringLiteral("f(g)"));
                   theirs.rootItem()->appendChild(foreign);
                   theirs.removeItem(foreign);
                   QSignalSpy inserted(&mine, &QAbstractItemModel::rowsInserted);
                   mine.rootItem()->appendChild(foreign);
                   // Listed, but still of the other model, so this model refuses to index it.
                   return inserted.count() == 1 && foreign->model() == &theirs
                           && foreign->firstChild()->model() == &theirs
                           && mine.itemFromIndex(mine.index(0, 0)) == nullptr;
               })
            << QStringList({assertText("m_model == 0 || m_model == m", 844),
                            assertText("item->m_model == this", 1022)});

    QTest::newRow("level zero") << Misuse([] {
        TreeModel model;
        model.rootItem()->appendChild(new NamedItem(QStringLiteral("a")));
        return names(model.untypedLevelItems(0)).isEmpty();
    }) << QStringList({assertText("level > 0", 1085), assertText("level > 0", 1085)});

    QTest::newRow("advancing past the end") << Misuse([] {
        TreeModel model;
        model.rootItem()->appendChild(new NamedItem(QStringLiteral("a")));
        const Utils::UntypedTreeLevelItems items = model.untypedLevelItems(1);
        auto it = items.end();
        ++it;
        return it == items.end();
    }) << QStringList({assertText("m_depth != -1", 181, "shell/krutils/TreeModel.h")});
}

// Misuse of the model: indexes without an item or of another model, items it cannot take out.
void addModelContractRows()
{
    QTest::newRow("parent of an index without item") << Misuse([] {
        OpenModel model;
        return !model.parent(model.rawIndex(0, 0, nullptr)).isValid();
    }) << QStringList({assertText("item", 1021), assertText("item", 890)});

    QTest::newRow("rows below an index without item") << Misuse([] {
        OpenModel model;
        return model.rowCount(model.rawIndex(0, 0, nullptr)) == 0;
    }) << QStringList({assertText("item", 1021), assertText("item", 914)});

    QTest::newRow("index below a foreign item") << Misuse([] {
        // A model that claims rows everywhere gets past the bounds check.
        class Claiming : public OpenModel
        {
        public:
            int rowCount(const QModelIndex &) const override { return 1; }
        };
        Claiming model;
        OpenModel other;
        other.rootItem()->appendChild(new NamedItem(QStringLiteral("o")));
        return !model.index(0, 0, other.index(0, 0)).isValid();
    }) << QStringList({assertText("item->m_model == this", 1022), assertText("item", 1011)});

    QTest::newRow("foreign index: no item, yet children")
            << Misuse([] {
                   TreeModel model;
                   OpenModel other;
                   other.rootItem()->appendChild(new NamedItem(QStringLiteral("o")));
                   const QModelIndex foreign = other.index(0, 0);
                   return model.itemFromIndex(foreign) == nullptr && model.hasChildren(foreign)
                           && model.flags(foreign) == (Qt::ItemIsSelectable | Qt::ItemIsEnabled)
                           && !model.data(foreign).isValid() && !model.setData(foreign, 1)
                           && !model.canFetchMore(foreign);
               })
            << QStringList({assertText("item->m_model == this", 1022),
                            assertText("item->m_model == this", 1022),
                            assertText("item->m_model == this", 1022),
                            assertText("item->m_model == this", 1022),
                            assertText("item->m_model == this", 1022),
                            assertText("item->m_model == this", 1022)});

    QTest::newRow("index from no item") << Misuse([] {
        TreeModel model;
        return !model.indexFromItem(nullptr).isValid();
    }) << QStringList({assertText("item", 1028)});

    QTest::newRow("removing no item") << Misuse([] {
        TreeModel model;
        model.removeItem(nullptr);
        return true;
    }) << QStringList({assertText("item", 1061)});

    QTest::newRow("removing the root") << Misuse([] {
        TreeModel model;
        model.rootItem()->appendChild(new NamedItem(QStringLiteral("a")));
        model.removeItem(model.rootItem());
        return model.rowCount() == 1;
    }) << QStringList({assertText("parent", 1063)});

    QTest::newRow("removing an item its parent does not list") << Misuse([] {
        TreeModel model;
        model.rootItem()->appendChild(new NamedItem(QStringLiteral("a")));
        StrayItem stray;
        stray.claimedParent = model.rootItem();
        QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
        model.removeItem(&stray);
        return removed.isEmpty() && model.rowCount() == 1;
    }) << QStringList({assertText("pos != -1", 1065)});
}

} // namespace

void tst_TreeModel::contractChecks_data()
{
    QTest::addColumn<Misuse>("misuse"); // returns whether the neutral result came back
    QTest::addColumn<QStringList>("asserts");

    // Each row builds the items and models it misuses.
    addItemContractRows();
    addModelContractRows();
}

void tst_TreeModel::contractChecks()
{
    QFETCH(Misuse, misuse);
    QFETCH(QStringList, asserts);

    MessageCapture capture;
    QVERIFY(misuse());
    QCOMPARE(softAsserts(capture), asserts);
}

void tst_TreeModel::randomEditsUnderModelTester_data()
{
    QTest::addColumn<quint32>("seed");
    for (quint32 seed : {1u, 7u, 42u, 2024u, 90001u})
        QTest::newRow(qPrintable(QStringLiteral("seed %1").arg(seed))) << seed;
}

namespace {

// A plain tree that follows the same edits, for comparison.
struct ReferenceNode
{
    QString name;
    std::vector<std::unique_ptr<ReferenceNode>> children;
};

QString referenceShape(const ReferenceNode &node)
{
    if (node.children.empty())
        return node.name;
    QStringList parts;
    for (const auto &child : node.children)
        parts.append(referenceShape(*child));
    return node.name + QLatin1Char('(') + parts.join(QLatin1Char(',')) + QLatin1Char(')');
}

// Makes random edits to a model and the same edits to a reference tree, and holds a persistent
// index on every item it inserts, as a view holds its selection and expanded rows.
class RandomEditor
{
public:
    RandomEditor(TreeModel &model, quint32 seed) : m_model(model), m_random(seed)
    {
        m_mirror.insert(model.rootItem(), &m_reference);
    }

    void edit()
    {
        const int operation = m_random.bounded(10);
        if (operation < 5)
            insert(operation);
        else if (operation == 5)
            takeOut();
        else if (operation == 6)
            clearBranch();
        else if (operation == 7)
            sortBranch();
        else
            rename(operation == 8);
    }

    QString referenceShape() const { return ::referenceShape(m_reference); }

    // Every held index still names its item, at the item's row in the reference tree. Rows
    // inserted into a lazy item are not announced, so their siblings' indexes may lag behind.
    void checkPersistentIndexes() const
    {
        for (auto held = m_held.cbegin(); held != m_held.cend(); ++held) {
            TreeItem *item = held.key();
            if (item->parent()->isLazy())
                continue;
            const auto &siblings = m_mirror.value(item->parent())->children;
            const ReferenceNode *node = m_mirror.value(item);
            const auto place
                    = std::find_if(siblings.begin(), siblings.end(),
                                   [&](const auto &sibling) { return sibling.get() == node; });
            QCOMPARE(static_cast<TreeItem *>(held->internalPointer()), item);
            QCOMPARE(held->row(), int(place - siblings.begin()));
            QCOMPARE(held->parent(), item->parent()->index());
            QCOMPARE(QModelIndex(*held), item->index());
        }
    }

private:
    TreeItem *randomItem(bool withRoot)
    {
        QVector<TreeItem *> all;
        m_model.rootItem()->walkTree([&](TreeItem *item) { all.append(item); });
        if (!withRoot)
            all.removeFirst();
        return all.isEmpty() ? nullptr : all.at(m_random.bounded(all.size()));
    }

    QString nextName(char prefix)
    {
        return QStringLiteral("%1%2")
                .arg(QLatin1Char(prefix))
                .arg(m_names++, 4, 10, QLatin1Char('0'));
    }

    // Lazy items populate whenever the model first asks; the reference follows at that moment.
    void adoptPopulated(NamedItem *item)
    {
        ReferenceNode *node = m_mirror.value(item);
        for (TreeItem *child : item->children()) {
            if (m_mirror.contains(child))
                continue;
            node->children.push_back(std::make_unique<ReferenceNode>());
            node->children.back()->name = named(child)->name();
            m_mirror.insert(child, node->children.back().get());
        }
    }

    void forget(TreeItem *item)
    {
        item->walkTree([&](TreeItem *descendant) {
            m_mirror.remove(descendant);
            m_held.remove(descendant);
        });
    }

    // 0 prepends, 1 appends, any other inserts at a random row.
    void insert(int how)
    {
        TreeItem *parent = randomItem(true);
        ReferenceNode *node = m_mirror.value(parent);
        const int size = int(node->children.size());
        const int pos = how == 0 ? 0 : how == 1 ? size : m_random.bounded(size + 1);
        const QString name = nextName('n');
        auto item = new NamedItem(name, m_random.bounded(4) == 0 ? m_random.bounded(1, 4) : 0);
        item->onPopulate = [this](NamedItem *populated) { adoptPopulated(populated); };
        auto child = std::make_unique<ReferenceNode>();
        child->name = name;
        m_mirror.insert(item, child.get());
        node->children.insert(node->children.begin() + pos, std::move(child));
        if (how == 0)
            parent->prependChild(item);
        else if (how == 1)
            parent->appendChild(item);
        else
            parent->insertChild(pos, item);
        m_held.insert(item, QPersistentModelIndex(item->index()));
    }

    // Takes an item out, then deletes it.
    void takeOut()
    {
        TreeItem *item = randomItem(false);
        if (!item)
            return;
        auto &siblings = m_mirror.value(item->parent())->children;
        siblings.erase(std::find_if(siblings.begin(), siblings.end(), [&](const auto &node) {
            return node.get() == m_mirror.value(item);
        }));
        forget(item);
        m_model.removeItem(item);
        delete item;
    }

    void clearBranch()
    {
        TreeItem *item = randomItem(m_random.bounded(8) == 0);
        if (!item)
            return;
        item->ensurePopulated();
        for (TreeItem *child : item->children())
            forget(child);
        m_mirror.value(item)->children.clear();
        item->removeChildren();
    }

    void sortBranch()
    {
        TreeItem *item = randomItem(true);
        auto &children = m_mirror.value(item)->children;
        std::sort(children.begin(), children.end(),
                  [](const auto &left, const auto &right) { return left->name < right->name; });
        item->sortChildren([](const TreeItem *left, const TreeItem *right) {
            return named(left)->name() < named(right)->name();
        });
    }

    // Through the model, or in place and announced.
    void rename(bool throughModel)
    {
        TreeItem *item = randomItem(false);
        if (!item)
            return;
        const QString name = nextName('m');
        m_mirror.value(item)->name = name;
        if (throughModel) {
            QVERIFY(m_model.setData(item->index(), name, Qt::EditRole));
        } else {
            item->setData(0, name, Qt::EditRole);
            item->update();
        }
    }

    TreeModel &m_model;
    QRandomGenerator m_random;
    ReferenceNode m_reference;
    QHash<TreeItem *, ReferenceNode *> m_mirror;
    QHash<TreeItem *, QPersistentModelIndex> m_held;
    int m_names = 0;
};

} // namespace

void tst_TreeModel::randomEditsUnderModelTester()
{
    QFETCH(quint32, seed);

    TreeModel model;
    model.setColumnCount(2);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);
    RandomEditor editor(model, seed);

    for (int step = 0; step < 400; ++step) {
        editor.edit();
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("model tester failed at step %1").arg(step)));
        // The model's view of the tree is the reference's; asking also populates lazy items,
        // which the reference follows, so the model is asked first.
        const QString seen = modelShape(model, QModelIndex());
        QCOMPARE(seen, editor.referenceShape());
        editor.checkPersistentIndexes();
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("persistent index wrong at step %1").arg(step)));
    }
}

void tst_TreeModel::viewExpandsAndActivates()
{
    TreeModel model;
    model.setHeader({QStringLiteral("Name"), QStringLiteral("Level")});
    model.setRootItem(buildTree(QStringLiteral("r(acct(alpha(p1,p2),beta(p3)),acct2)")));
    Utils::TreeView view;
    view.setModel(&model);
    connect(&model, &TreeModel::requestExpansion, &view, &QTreeView::expand);
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));

    TreeItem *acct = find(model.rootItem(), QStringLiteral("acct"));
    TreeItem *alpha = find(model.rootItem(), QStringLiteral("alpha"));
    QVERIFY(!view.isExpanded(acct->index()));
    acct->expand();
    alpha->expand();
    QVERIFY(view.isExpanded(acct->index()));
    QVERIFY(view.isExpanded(alpha->index()));
    QVERIFY(!view.isExpanded(find(model.rootItem(), QStringLiteral("beta"))->index()));

    // The rows a user now sees, top to bottom.
    QStringList visible;
    for (QModelIndex index = model.index(0, 0); index.isValid(); index = view.indexBelow(index))
        visible.append(index.data().toString());
    QCOMPARE(visible, QStringList({"acct", "alpha", "p1", "p2", "beta", "acct2"}));

    QSignalSpy activated(&view, &QAbstractItemView::activated);
    const QModelIndex p2 = find(model.rootItem(), QStringLiteral("p2"))->index();
    view.setCurrentIndex(p2);
    view.setFocus();
    QTest::keyClick(&view, Qt::Key_Return);
    QCOMPARE(activated.count(), 1);
    QCOMPARE(activated.first().at(0).toModelIndex(), p2);
}

void tst_TreeModel::viewShowsRowsInsertedWhileShown_data()
{
    // Edits on "r(a(a0),b(b0))", all expanded and shown: "a+x" appends x under a, "a^x"
    // prepends it. New accounts come collapsed, as in any view.
    QTest::addColumn<QString>("edits");
    QTest::addColumn<QStringList>("visible");

    QTest::newRow("appended in turn under shown accounts")
            << "a+a1 b+b1 a+a2 b+b2" << QStringList({"a", "a0", "a1", "a2", "b", "b0", "b1", "b2"});
    QTest::newRow("prepended") << "a^x b^y a^z"
                               << QStringList({"a", "z", "x", "a0", "b", "y", "b0"});
    QTest::newRow("under accounts that moved down")
            << "r^c r^d a+a1 b+b1 c+c0 r+e b+b2"
            << QStringList({"d", "c", "a", "a0", "a1", "b", "b0", "b1", "b2", "e"});
    QTest::newRow("below a row appended under a shown row")
            << "a+a1 a1+p a^x a1+q" << QStringList({"a", "x", "a0", "a1", "b", "b0"});
}

void tst_TreeModel::viewShowsRowsInsertedWhileShown()
{
    QFETCH(QString, edits);
    QFETCH(QStringList, visible);

    TreeModel model;
    model.setRootItem(buildTree(QStringLiteral("r(a(a0),b(b0))")));
    Utils::TreeView view;
    view.setModel(&model);
    view.expandAll();
    view.show();
    QVERIFY(QTest::qWaitForWindowExposed(&view));

    const QRegularExpression edit(QStringLiteral("^(\\w+)([+^])(\\w+)$"));
    for (const QString &text : edits.split(QLatin1Char(' '))) {
        const QRegularExpressionMatch parts = edit.match(text);
        QVERIFY(parts.hasMatch());
        TreeItem *parent = find(model.rootItem(), parts.captured(1));
        QVERIFY(parent);
        auto item = new NamedItem(parts.captured(3));
        if (parts.captured(2) == QLatin1String("+"))
            parent->appendChild(item);
        else
            parent->prependChild(item);
        QCoreApplication::processEvents(); // the view lays its rows out between arrivals
    }

    QStringList shown;
    for (QModelIndex index = model.index(0, 0); index.isValid(); index = view.indexBelow(index))
        shown.append(index.data().toString());
    QCOMPARE(shown, visible);
}

QTEST_MAIN(tst_TreeModel)

#include "tst_treemodel.moc"
