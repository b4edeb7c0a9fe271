#include "TreeModelTestSupport.h"

#include <QSignalSpy>
#include <QtTest>

#include <memory>

namespace {

// A pre-order record of a visitor's calls.
class TracingVisitor : public Utils::TreeItemVisitor
{
public:
    QStringList trace;
    QString skip;

    bool preVisit(TreeItem *item) override
    {
        trace.append(QLatin1String("pre ") + named(item)->name());
        return named(item)->name() != skip;
    }
    void visit(TreeItem *item) override
    {
        trace.append(QStringLiteral("visit %1@%2").arg(named(item)->name()).arg(level()));
    }
    void postVisit(TreeItem *item) override
    {
        trace.append(QLatin1String("post ") + named(item)->name());
    }
};

} // namespace

// The items of a tree model and the level range: defaults, lazy population, structure changes
// and their signals, walks and levels.
class tst_TreeItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void itemDefaults();
    void displayData_data();
    void displayData();
    void lazyItemPopulatesOnce_data();
    void lazyItemPopulatesOnce();
    void populateMayAskForItsOwnRows();
    void insertionSignals_data();
    void insertionSignals();
    void insertionBounds_data();
    void insertionBounds();
    void insertingAnItemWithAParent();
    void removeChildren_data();
    void removeChildren();
    void sortChildren();
    void sortChildrenKeepsPersistentIndexes();
    void updateSignals();
    void expandRequestsExpansion();
    void walkTreeVisitor_data();
    void walkTreeVisitor();
    void levelAndIndex();
    void levelItems_data();
    void levelItems();
    void levelItemsPopulateLazyBranches();
};

void tst_TreeItem::initTestCase()
{
    qRegisterMetaType<QList<QPersistentModelIndex>>();
    qRegisterMetaType<QAbstractItemModel::LayoutChangeHint>();
}

void tst_TreeItem::itemDefaults()
{
    TreeItem plain;
    QCOMPARE(int(plain.flags(0)), 33);
    QCOMPARE(int(plain.flags(7)), 33);
    QVERIFY(!plain.data(0, Qt::DisplayRole).isValid());
    QVERIFY(!plain.setData(0, QStringLiteral("x"), Qt::EditRole));
    QVERIFY(!plain.isLazy());
    QVERIFY(!plain.hasChildren());
    QVERIFY(!plain.canFetchMore());
    QCOMPARE(plain.parent(), nullptr);
    QCOMPARE(plain.model(), nullptr);
    QCOMPARE(plain.firstChild(), nullptr);
    QCOMPARE(plain.lastChild(), nullptr);
    QCOMPARE(plain.child(0), nullptr); // beyond the rows: no assertion

    TreeModel model;
    QVERIFY(model.rootItem());
    QCOMPARE(model.rootItem()->model(), &model);
    QCOMPARE(model.columnCount(), 1);
    QCOMPARE(model.rowCount(), 0);
    QCOMPARE(int(model.rootItem()->flags(0)), 33);
}

void tst_TreeItem::displayData_data()
{
    QTest::addColumn<int>("column");
    QTest::addColumn<int>("role");
    QTest::addColumn<QVariant>("expected");

    const QVariant none;
    QTest::newRow("first column") << 0 << int(Qt::DisplayRole) << QVariant(QStringLiteral("ACC-1"));
    QTest::newRow("last column") << 2 << int(Qt::DisplayRole) << QVariant(QStringLiteral("CNY"));
    QTest::newRow("past the texts") << 3 << int(Qt::DisplayRole) << none;
    QTest::newRow("negative column") << -1 << int(Qt::DisplayRole) << none;
    QTest::newRow("edit role") << 0 << int(Qt::EditRole) << none;
    QTest::newRow("tool tip role") << 1 << int(Qt::ToolTipRole) << none;
}

void tst_TreeItem::displayData()
{
    QFETCH(int, column);
    QFETCH(int, role);
    QFETCH(QVariant, expected);

    const TreeItem item({QStringLiteral("ACC-1"), QStringLiteral("Alpha"), QStringLiteral("CNY")},
                        Qt::ItemIsEnabled | Qt::ItemIsEditable);
    QCOMPARE(item.data(column, role), expected);
    QCOMPARE(item.flags(column), Qt::ItemIsEnabled | Qt::ItemIsEditable);

    TreeModel model;
    model.setColumnCount(3);
    model.rootItem()->appendChild(new TreeItem(
            {QStringLiteral("ACC-1"), QStringLiteral("Alpha"), QStringLiteral("CNY")}));
    if (column >= 0)
        QCOMPARE(model.data(model.index(0, column), role), expected);
}

void tst_TreeItem::lazyItemPopulatesOnce_data()
{
    QTest::addColumn<QString>("first"); // the first call made on the lazy item
    QTest::addColumn<bool>("populates");

    QTest::newRow("rowCount") << "rowCount" << true;
    QTest::newRow("child") << "child" << true;
    QTest::newRow("hasChildren") << "hasChildren" << true;
    QTest::newRow("model rowCount") << "modelRowCount" << true;
    QTest::newRow("firstChild") << "firstChild" << false;
    QTest::newRow("lastChild") << "lastChild" << false;
    QTest::newRow("children") << "children" << false;
    QTest::newRow("walkTree function") << "walkFunction" << false;
    QTest::newRow("walkTree visitor") << "walkVisitor" << false;
}

void tst_TreeItem::lazyItemPopulatesOnce()
{
    QFETCH(QString, first);
    QFETCH(bool, populates);

    TreeModel model;
    auto lazy = new NamedItem(QStringLiteral("acct"), 3);
    model.rootItem()->appendChild(lazy);
    QCOMPARE(lazy->populations, 0);

    if (first == QLatin1String("rowCount"))
        QCOMPARE(lazy->rowCount(), 3);
    else if (first == QLatin1String("child"))
        QCOMPARE(named(lazy->child(2))->name(), QStringLiteral("acct.2"));
    else if (first == QLatin1String("hasChildren"))
        QVERIFY(lazy->hasChildren());
    else if (first == QLatin1String("modelRowCount"))
        QCOMPARE(model.rowCount(model.index(0, 0)), 3);
    else if (first == QLatin1String("firstChild"))
        QCOMPARE(lazy->firstChild(), nullptr);
    else if (first == QLatin1String("lastChild"))
        QCOMPARE(lazy->lastChild(), nullptr);
    else if (first == QLatin1String("children"))
        QVERIFY(lazy->children().isEmpty());
    else if (first == QLatin1String("walkFunction"))
        model.rootItem()->walkTree([](TreeItem *) {});
    else if (first == QLatin1String("walkVisitor")) {
        Utils::TreeItemVisitor visitor;
        model.rootItem()->walkTree(&visitor);
    }
    QCOMPARE(lazy->populations, populates ? 1 : 0);

    // Whatever came first, the rows appear once and only once.
    QCOMPARE(lazy->rowCount(), 3);
    QCOMPARE(lazy->rowCount(), 3);
    QVERIFY(lazy->child(0));
    QCOMPARE(lazy->populations, 1);
    QCOMPARE(shape(lazy), QStringLiteral("acct(acct.0,acct.1,acct.2)"));
}

void tst_TreeItem::populateMayAskForItsOwnRows()
{
    TreeModel model;
    auto lazy = new NamedItem(QStringLiteral("acct"), 2);
    int rowsSeen = -1;
    lazy->onPopulate = [&](NamedItem *item) { rowsSeen = item->rowCount(); };
    model.rootItem()->appendChild(lazy);

    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    QCOMPARE(lazy->rowCount(), 2);
    QCOMPARE(rowsSeen, 2);
    QCOMPARE(lazy->populations, 1);
    QCOMPARE(inserted.count(), 0); // a lazy item's own insertions are not announced
}

void tst_TreeItem::insertionSignals_data()
{
    QTest::addColumn<QString>("tree");
    QTest::addColumn<QString>("target"); // "" = the root
    QTest::addColumn<QString>("how");
    QTest::addColumn<int>("pos");
    QTest::addColumn<bool>("attached");
    QTest::addColumn<int>("signalRow"); // -1: no signals
    QTest::addColumn<QString>("after");

    QTest::newRow("append to root") << "r(a,b)"
                                    << ""
                                    << "append" << 0 << true << 2 << "r(a,b,n)";
    QTest::newRow("prepend to root") << "r(a,b)"
                                     << ""
                                     << "prepend" << 0 << true << 0 << "r(n,a,b)";
    QTest::newRow("insert in the middle") << "r(a(x,y),b)"
                                          << "a"
                                          << "insert" << 1 << true << 1 << "r(a(x,n,y),b)";
    QTest::newRow("insert at the size appends") << "r(a(x,y),b)"
                                                << "a"
                                                << "insert" << 2 << true << 2 << "r(a(x,y,n),b)";
    QTest::newRow("lazy target is silent") << "r(a*2,b)"
                                           << "a"
                                           << "append" << 0 << true << -1 << "r(a(n,a.0,a.1),b)";
    QTest::newRow("detached tree is silent") << "r(a(x),b)"
                                             << "a"
                                             << "prepend" << 0 << false << -1 << "r(a(n,x),b)";
}

void tst_TreeItem::insertionSignals()
{
    QFETCH(QString, tree);
    QFETCH(QString, target);
    QFETCH(QString, how);
    QFETCH(int, pos);
    QFETCH(bool, attached);
    QFETCH(int, signalRow);
    QFETCH(QString, after);

    TreeModel model;
    TreeItem *top = buildTree(tree);
    std::unique_ptr<TreeItem> detached;
    if (attached)
        model.rootItem()->appendChild(top);
    else
        detached.reset(top);
    TreeItem *parent = target.isEmpty() ? top : find(top, target);
    QVERIFY(parent);

    QSignalSpy aboutToInsert(&model, &QAbstractItemModel::rowsAboutToBeInserted);
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    auto item = new NamedItem(QStringLiteral("n"));
    if (how == QLatin1String("append"))
        parent->appendChild(item);
    else if (how == QLatin1String("prepend"))
        parent->prependChild(item);
    else
        parent->insertChild(pos, item);

    QCOMPARE(item->parent(), parent);
    QCOMPARE(item->model(), attached ? &model : nullptr);
    parent->rowCount(); // a lazy target adds its own rows after the inserted one
    QCOMPARE(shape(top), after);
    if (signalRow < 0) {
        QCOMPARE(aboutToInsert.count(), 0);
        QCOMPARE(inserted.count(), 0);
        return;
    }
    QCOMPARE(aboutToInsert.count(), 1);
    QCOMPARE(inserted.count(), 1);
    const QModelIndex parentIndex = parent->index();
    for (const QList<QVariant> &arguments : {aboutToInsert.first(), inserted.first()}) {
        QCOMPARE(arguments.at(0).toModelIndex(), parentIndex);
        QCOMPARE(arguments.at(1).toInt(), signalRow);
        QCOMPARE(arguments.at(2).toInt(), signalRow);
    }
    QCOMPARE(model.index(signalRow, 0, parentIndex).internalPointer(), item);
}

void tst_TreeItem::insertionBounds_data()
{
    QTest::addColumn<int>("pos");
    QTest::addColumn<bool>("inserted");

    QTest::newRow("before the first") << -1 << false;
    QTest::newRow("first") << 0 << true;
    QTest::newRow("size") << 2 << true;
    QTest::newRow("size + 1") << 3 << false;
}

void tst_TreeItem::insertionBounds()
{
    QFETCH(int, pos);
    QFETCH(bool, inserted);

    TreeModel model;
    TreeItem *top = buildTree(QStringLiteral("t(a*5,b)"));
    model.rootItem()->appendChild(top);
    TreeItem *lazy = find(top, QStringLiteral("a"));

    // The bounds are those of the rows present: a lazy item is not populated to check them.
    MessageCapture capture;
    auto item = new NamedItem(QStringLiteral("n"));
    std::unique_ptr<TreeItem> refused(item);
    top->insertChild(pos, item);
    auto lazyItem = new NamedItem(QStringLiteral("m"));
    std::unique_ptr<TreeItem> refusedByLazy(lazyItem);
    lazy->insertChild(pos == 2 ? 0 : pos, lazyItem);
    QCOMPARE(named(lazy)->populations, 0);

    if (inserted) {
        refused.release();
        refusedByLazy.release();
        QCOMPARE(item->parent(), top);
        QCOMPARE(top->children().indexOf(item), pos);
        QCOMPARE(softAsserts(capture), QStringList());
    } else {
        QCOMPARE(item->parent(), nullptr);
        QCOMPARE(item->model(), nullptr);
        QCOMPARE(lazyItem->parent(), nullptr);
        QCOMPARE(shape(top), QStringLiteral("t(a,b)"));
        const QString text = assertText("0 <= pos && pos <= m_children.size()", 697);
        QCOMPARE(softAsserts(capture), QStringList({text, text}));
    }
}

void tst_TreeItem::insertingAnItemWithAParent()
{
    TreeModel model;
    TreeItem *top = buildTree(QStringLiteral("t(a(x),b)"));
    model.rootItem()->appendChild(top);
    TreeItem *a = find(top, QStringLiteral("a"));
    TreeItem *b = find(top, QStringLiteral("b"));
    TreeItem *x = find(top, QStringLiteral("x"));

    MessageCapture capture;
    QSignalSpy inserted(&model, &QAbstractItemModel::rowsInserted);
    b->appendChild(x);
    QCOMPARE(softAsserts(capture), QStringList({assertText("!item->parent()", 696)}));
    // Inserted all the same: now both parents list it, and it names the new one.
    QCOMPARE(inserted.count(), 1);
    QCOMPARE(shape(top), QStringLiteral("t(a(x),b(x))"));
    QCOMPARE(x->parent(), b);

    // Give it back to a single owner before the tree is deleted.
    model.removeItem(x);
    QCOMPARE(a->children(), QVector<TreeItem *>({x}));
    QVERIFY(b->children().isEmpty());
}

void tst_TreeItem::removeChildren_data()
{
    QTest::addColumn<QString>("tree");
    QTest::addColumn<QString>("target");
    QTest::addColumn<bool>("attached");
    QTest::addColumn<int>("lastRow"); // -1: no signals
    QTest::addColumn<QStringList>("destroyed");

    QTest::newRow("last row first") << "t(a(x,y,z),b)"
                                    << "a" << true << 2 << QStringList({"z", "y", "x"});
    QTest::newRow("with grandchildren") << "t(a(x(p,q)),b)"
                                        << "a" << true << 0 << QStringList({"x", "q", "p"});
    QTest::newRow("no rows, no signal") << "t(a,b)"
                                        << "b" << true << -1 << QStringList();
    QTest::newRow("lazy item is populated first")
            << "t(a*2,b)"
            << "a" << true << 1 << QStringList({"a.1", "a.0"});
    QTest::newRow("detached") << "t(a(x,y),b)"
                              << "a" << false << -1 << QStringList({"y", "x"});
}

void tst_TreeItem::removeChildren()
{
    QFETCH(QString, tree);
    QFETCH(QString, target);
    QFETCH(bool, attached);
    QFETCH(int, lastRow);
    QFETCH(QStringList, destroyed);

    QStringList deletions; // outlives the items
    TreeModel model;
    TreeItem *top = buildTree(tree);
    std::unique_ptr<TreeItem> detached;
    if (attached)
        model.rootItem()->appendChild(top);
    else
        detached.reset(top);
    TreeItem *parent = find(top, target);

    auto lazy = named(parent);
    lazy->onPopulate = [&](NamedItem *item) {
        for (TreeItem *child : item->children())
            named(child)->destroyed = &deletions;
    };
    top->walkTree([&](TreeItem *item) { named(item)->destroyed = &deletions; });

    QSignalSpy aboutToRemove(&model, &QAbstractItemModel::rowsAboutToBeRemoved);
    QSignalSpy removed(&model, &QAbstractItemModel::rowsRemoved);
    const QModelIndex parentIndex = attached ? parent->index() : QModelIndex();
    parent->removeChildren();

    QCOMPARE(deletions, destroyed);
    QCOMPARE(parent->rowCount(), 0);
    if (lastRow < 0) {
        QCOMPARE(aboutToRemove.count(), 0);
        QCOMPARE(removed.count(), 0);
        return;
    }
    QCOMPARE(aboutToRemove.count(), 1);
    QCOMPARE(removed.count(), 1);
    for (const QList<QVariant> &arguments : {aboutToRemove.first(), removed.first()}) {
        QCOMPARE(arguments.at(0).toModelIndex(), parentIndex);
        QCOMPARE(arguments.at(1).toInt(), 0);
        QCOMPARE(arguments.at(2).toInt(), lastRow);
    }
}

void tst_TreeItem::sortChildren()
{
    const auto byNameDescending = [](const TreeItem *left, const TreeItem *right) {
        return named(left)->name() > named(right)->name();
    };

    std::unique_ptr<TreeItem> detached(buildTree(QStringLiteral("t(b,d(q,p),a,c)")));
    detached->sortChildren(byNameDescending);
    QCOMPARE(shape(detached.get()), QStringLiteral("t(d(q,p),c,b,a)"));

    TreeModel model;
    TreeItem *top = buildTree(QStringLiteral("t(b,d(q,p),a,c)"));
    model.rootItem()->appendChild(top);
    QSignalSpy aboutToChange(&model, &QAbstractItemModel::layoutAboutToBeChanged);
    QSignalSpy changed(&model, &QAbstractItemModel::layoutChanged);
    top->sortChildren(byNameDescending);
    QCOMPARE(modelShape(model, QModelIndex()), QStringLiteral("(t(d(q,p),c,b,a))"));
    QCOMPARE(aboutToChange.count(), 1);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(aboutToChange.first().at(0).value<QList<QPersistentModelIndex>>(),
             QList<QPersistentModelIndex>());
    QCOMPARE(aboutToChange.first().at(1).value<QAbstractItemModel::LayoutChangeHint>(),
             QAbstractItemModel::NoLayoutChangeHint);
}

void tst_TreeItem::sortChildrenKeepsPersistentIndexes()
{
    TreeModel model;
    model.setColumnCount(2);
    TreeItem *top = buildTree(QStringLiteral("t(b,d(q,p),a,c)"));
    model.rootItem()->appendChild(top);
    const QModelIndex topIndex = top->index();
    const QPersistentModelIndex b(model.index(0, 1, topIndex));
    const QPersistentModelIndex d(model.index(1, 0, topIndex));
    const QPersistentModelIndex q(model.index(0, 0, d));

    top->sortChildren([](const TreeItem *left, const TreeItem *right) {
        return named(left)->name() < named(right)->name();
    });

    QCOMPARE(b.row(), 1);
    QCOMPARE(b.column(), 1);
    QCOMPARE(b.data(Qt::EditRole).toInt(), 2); // column 1 shows the level
    QCOMPARE(model.data(b.sibling(b.row(), 0)).toString(), QStringLiteral("b"));
    QCOMPARE(d.row(), 3);
    QCOMPARE(d.data().toString(), QStringLiteral("d"));
    QCOMPARE(q.row(), 0); // below the sorted level nothing moves
    QCOMPARE(q.parent(), QModelIndex(d));
}

void tst_TreeItem::updateSignals()
{
    TreeModel model;
    model.setHeader({QStringLiteral("Name"), QStringLiteral("Level"), QStringLiteral("Note")});
    TreeItem *top = buildTree(QStringLiteral("t(a,b)"));
    model.rootItem()->appendChild(top);
    TreeItem *b = find(top, QStringLiteral("b"));
    QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);

    b->update();
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.last().at(0).toModelIndex(), model.index(1, 0, top->index()));
    QCOMPARE(changed.last().at(1).toModelIndex(), model.index(1, 2, top->index()));
    QCOMPARE(changed.last().at(2).value<QVector<int>>(), QVector<int>());

    b->updateColumn(1);
    QCOMPARE(changed.count(), 2);
    QCOMPARE(changed.last().at(0).toModelIndex(), model.index(1, 1, top->index()));
    QCOMPARE(changed.last().at(1).toModelIndex(), model.index(1, 1, top->index()));

    // Nothing to repaint: no model, the root, an item taken out, a column the model lacks.
    NamedItem loose(QStringLiteral("loose"));
    loose.update();
    loose.updateColumn(0);
    model.rootItem()->update();
    b->updateColumn(3);
    b->updateColumn(-1);
    model.removeItem(b);
    std::unique_ptr<TreeItem> taken(b);
    b->update();
    QCOMPARE(changed.count(), 2);
}

void tst_TreeItem::expandRequestsExpansion()
{
    TreeModel model;
    TreeItem *top = buildTree(QStringLiteral("t(a(x),b)"));
    model.rootItem()->appendChild(top);
    QSignalSpy expansion(&model, &TreeModel::requestExpansion);

    find(top, QStringLiteral("a"))->expand();
    QCOMPARE(expansion.count(), 1);
    QCOMPARE(expansion.first().at(0).toModelIndex(), model.index(0, 0, top->index()));

    MessageCapture capture;
    NamedItem loose(QStringLiteral("loose"));
    loose.expand();
    QCOMPARE(expansion.count(), 1);
    QCOMPARE(softAsserts(capture), QStringList({assertText("m_model", 828)}));
}

void tst_TreeItem::walkTreeVisitor_data()
{
    QTest::addColumn<QString>("skip");
    QTest::addColumn<QStringList>("trace");

    QTest::newRow("everything") << QString()
                                << QStringList({"pre a", "visit a@1", "pre b", "visit b@2", "pre d",
                                                "visit d@3", "post d", "post b", "pre c",
                                                "visit c@2", "post c", "post a"});
    QTest::newRow("a refused branch still gets its post visit")
            << "b"
            << QStringList({"pre a", "visit a@1", "pre b", "post b", "pre c", "visit c@2", "post c",
                            "post a"});
    QTest::newRow("refused start") << "a" << QStringList({"pre a", "post a"});
}

void tst_TreeItem::walkTreeVisitor()
{
    QFETCH(QString, skip);
    QFETCH(QStringList, trace);

    std::unique_ptr<TreeItem> tree(buildTree(QStringLiteral("a(b(d),c)")));
    TracingVisitor visitor;
    visitor.skip = skip;
    tree->walkTree(&visitor);
    QCOMPARE(visitor.trace, trace);
    QCOMPARE(visitor.level(), 0);

    // A copy starts from the level of the original.
    TracingVisitor copy(visitor);
    QCOMPARE(copy.level(), 0);

    QStringList order;
    tree->walkTree([&](TreeItem *item) { order.append(named(item)->name()); });
    QCOMPARE(order, QStringList({"a", "b", "d", "c"}));
}

void tst_TreeItem::levelAndIndex()
{
    TreeModel model;
    TreeItem *top = buildTree(QStringLiteral("t(a(x(p)),b)"));
    model.rootItem()->appendChild(top);

    QCOMPARE(model.rootItem()->level(), 0);
    QCOMPARE(top->level(), 1);
    QCOMPARE(find(top, QStringLiteral("p"))->level(), 4);
    QVERIFY(!model.rootItem()->index().isValid());

    TreeItem *x = find(top, QStringLiteral("x"));
    const QModelIndex xIndex = x->index();
    QCOMPARE(xIndex.row(), 0);
    QCOMPARE(xIndex.column(), 0);
    QCOMPARE(model.itemFromIndex(xIndex), x);
    QCOMPARE(model.indexFromItem(x), xIndex);
    QCOMPARE(model.itemFromIndex(QModelIndex()), model.rootItem());
    QCOMPARE(model.parent(xIndex), find(top, QStringLiteral("a"))->index());
    QCOMPARE(model.parent(top->index()), QModelIndex());
    QCOMPARE(model.index(1, 0, top->index()).internalPointer(), find(top, QStringLiteral("b")));
    QVERIFY(!model.index(2, 0, top->index()).isValid());
    QVERIFY(!model.index(0, 1, top->index()).isValid()); // one column
}

void tst_TreeItem::levelItems_data()
{
    QTest::addColumn<QString>("tree");
    QTest::addColumn<QString>("start"); // "" = the root
    QTest::addColumn<int>("level");
    QTest::addColumn<QStringList>("expected");

    const QString tree = QStringLiteral("r(a(x(p,q),y),b,c(z(s)))");
    QTest::newRow("children of the root") << tree << "" << 1 << QStringList({"a", "b", "c"});
    QTest::newRow("level 2 skips a leaf") << tree << "" << 2 << QStringList({"x", "y", "z"});
    QTest::newRow("level 3") << tree << "" << 3 << QStringList({"p", "q", "s"});
    QTest::newRow("deeper than the tree") << tree << "" << 4 << QStringList();
    QTest::newRow("from a subtree") << tree << "a" << 2 << QStringList({"p", "q"});
    QTest::newRow("from a leaf") << tree << "b" << 1 << QStringList();
    QTest::newRow("empty branches first") << "r(a,b(c),d(e(f)),g(h(i),j(k)))"
                                          << "" << 3 << QStringList({"f", "i", "k"});
    QTest::newRow("one long chain") << "r(a(b(c(d(e(f(g(h(i(j(k(l))))))))))))"
                                    << "" << 11 << QStringList({"k"});
}

void tst_TreeItem::levelItems()
{
    QFETCH(QString, tree);
    QFETCH(QString, start);
    QFETCH(int, level);
    QFETCH(QStringList, expected);

    TreeModel model;
    model.setRootItem(buildTree(tree));
    TreeItem *startItem = start.isEmpty() ? nullptr : find(model.rootItem(), start);

    MessageCapture capture;
    QCOMPARE(names(model.untypedLevelItems(level, startItem)), expected);
    if (level == 1 && startItem)
        QCOMPARE(names(model.untypedLevelItems(startItem)), expected);
    QCOMPARE(softAsserts(capture), QStringList());

    // The same as a plain walk picking the items at that depth.
    QStringList walked;
    TreeItem *from = startItem ? startItem : model.rootItem();
    const int base = from->level();
    from->walkTree([&](TreeItem *item) {
        if (item->level() - base == level)
            walked.append(named(item)->name());
    });
    QCOMPARE(walked, expected);

    // Iterators compare equal at the same place, and post-increment returns the old place.
    const Utils::UntypedTreeLevelItems items = model.untypedLevelItems(level, startItem);
    auto it = items.begin();
    QVERIFY(it == items.begin());
    if (!expected.isEmpty()) {
        auto old = it++;
        QVERIFY(old == items.begin());
        QVERIFY(old != it);
    }
    QCOMPARE(int(std::distance(items.begin(), items.end())), expected.size());
}

void tst_TreeItem::levelItemsPopulateLazyBranches()
{
    TreeModel model;
    model.setRootItem(buildTree(QStringLiteral("r(a*2,b(c*1),d*0)")));
    QCOMPARE(names(model.untypedLevelItems(2)), QStringList({"a.0", "a.1", "c"}));
    QCOMPARE(named(find(model.rootItem(), QStringLiteral("a")))->populations, 1);
    QCOMPARE(named(find(model.rootItem(), QStringLiteral("c")))->populations, 0);
    QCOMPARE(names(model.untypedLevelItems(3)), QStringList({"c.0"}));
    QCOMPARE(named(find(model.rootItem(), QStringLiteral("c")))->populations, 1);

    // Empty ranges: no start item, and a level the iterator cannot hold.
    MessageCapture capture;
    QCOMPARE(names(model.untypedLevelItems(nullptr)), QStringList());
    QCOMPARE(names(model.untypedLevelItems(12)), QStringList());
    QCOMPARE(softAsserts(capture), QStringList());
    QCOMPARE(capture.matching(QtWarningMsg, QStringLiteral("level 12")).size(), 1);
}

QTEST_MAIN(tst_TreeItem)

#include "tst_treeitem.moc"
