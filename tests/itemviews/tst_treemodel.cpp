#include "KrTestSupport.h"

#include <krutils/TreeModel.h>
#include <krutils/TreeView.h>

#include <QAbstractItemModelTester>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QtTest>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

using Utils::TreeItem;
using Utils::TreeModel;

namespace {

// An item with one editable name (column 0) and a second column with its level. It may be lazy:
// populate() then adds `lazyRows` children, and reports each population through a hook.
class NamedItem : public TreeItem
{
public:
    explicit NamedItem(const QString &name, int lazyRows = 0) : m_name(name), m_lazyRows(lazyRows)
    {
        setLazy(lazyRows > 0);
    }
    ~NamedItem() override
    {
        if (destroyed)
            destroyed->append(m_name);
    }

    QString name() const { return m_name; }

    QVariant data(int column, int role) const override
    {
        if (role != Qt::DisplayRole && role != Qt::EditRole)
            return QVariant();
        if (column == 0)
            return m_name;
        if (column == 1)
            return level();
        return QVariant();
    }

    bool setData(int column, const QVariant &data, int role) override
    {
        if (column != 0 || role != Qt::EditRole)
            return false;
        m_name = data.toString();
        return true;
    }

    void populate() override
    {
        ++populations;
        for (int i = 0; i < m_lazyRows; ++i)
            appendChild(new NamedItem(m_name + QLatin1Char('.') + QString::number(i)));
        if (onPopulate)
            onPopulate(this);
    }

    int populations = 0;
    std::function<void(NamedItem *)> onPopulate;
    QStringList *destroyed = nullptr;

private:
    QString m_name;
    int m_lazyRows;
};

NamedItem *named(TreeItem *item)
{
    return static_cast<NamedItem *>(item);
}

const NamedItem *named(const TreeItem *item)
{
    return static_cast<const NamedItem *>(item);
}

// "a(b(d),c)": the names of the subtree in pre-order, children in brackets.
QString shape(const TreeItem *item)
{
    QString text = item->data(0, Qt::DisplayRole).toString();
    const QVector<TreeItem *> children = item->children();
    if (children.isEmpty())
        return text;
    QStringList parts;
    for (const TreeItem *child : children)
        parts.append(shape(child));
    return text + QLatin1Char('(') + parts.join(QLatin1Char(',')) + QLatin1Char(')');
}

// The same through the model's interface only.
QString modelShape(const QAbstractItemModel &model, const QModelIndex &index)
{
    QString text = model.data(index).toString();
    const int rows = model.rowCount(index);
    if (rows == 0)
        return text;
    QStringList parts;
    for (int row = 0; row < rows; ++row)
        parts.append(modelShape(model, model.index(row, 0, index)));
    return text + QLatin1Char('(') + parts.join(QLatin1Char(',')) + QLatin1Char(')');
}

// Builds a tree from "a(b(d),c)"; names ending in "*N" make lazy items with N rows.
TreeItem *buildTree(const QString &text, int &pos)
{
    int end = pos;
    while (end < text.size() && !QStringLiteral("(),").contains(text.at(end)))
        ++end;
    const QString token = text.mid(pos, end - pos);
    const int star = token.indexOf(QLatin1Char('*'));
    auto item = star < 0 ? new NamedItem(token)
                         : new NamedItem(token.left(star), token.mid(star + 1).toInt());
    pos = end;
    if (pos < text.size() && text.at(pos) == QLatin1Char('(')) {
        do {
            ++pos;
            item->appendChild(buildTree(text, pos));
        } while (text.at(pos) == QLatin1Char(','));
        ++pos; // ')'
    }
    return item;
}

TreeItem *buildTree(const QString &text)
{
    int pos = 0;
    return buildTree(text, pos);
}

// Looks an item up by name in pre-order.
TreeItem *find(TreeItem *root, const QString &name)
{
    TreeItem *found = nullptr;
    root->walkTree([&](TreeItem *item) {
        if (!found && item->data(0, Qt::DisplayRole).toString() == name)
            found = item;
    });
    return found;
}

QStringList names(const Utils::UntypedTreeLevelItems &items)
{
    QStringList result;
    for (TreeItem *item : items)
        result.append(item->data(0, Qt::DisplayRole).toString());
    return result;
}

QStringList softAsserts(const MessageCapture &capture)
{
    QStringList texts;
    for (const CapturedMessage &message : capture.messages()) {
        if (message.type == QtDebugMsg && message.text.startsWith(QLatin1String("SOFT ASSERT: ")))
            texts.append(message.text.mid(13));
    }
    return texts;
}

QString assertText(const char *condition, int line, const char *file = "shell/krutils/TreeModel")
{
    return QStringLiteral("\"%1\" in file %2, line %3")
            .arg(QLatin1String(condition), QLatin1String(file))
            .arg(line);
}

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

using Misuse = std::function<bool()>;

} // namespace

Q_DECLARE_METATYPE(Misuse)

// The item, the model and the level range: defaults, structure changes and their signals,
// lazy population, every contract check, and random edit sequences under Qt's model tester.
class tst_TreeModel : public QObject
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
    void removeItemHandsTheItemOver();
    void setRootItemDeletesTheOldTree();
    void sortChildren();
    void sortChildrenKeepsPersistentIndexes();
    void updateSignals();
    void expandRequestsExpansion();
    void walkTreeVisitor_data();
    void walkTreeVisitor();
    void levelAndIndex();
    void modelAnswers();
    void headerAndColumns_data();
    void headerAndColumns();
    void setDataOnlyWhenTheItemAccepts_data();
    void setDataOnlyWhenTheItemAccepts();
    void levelItems_data();
    void levelItems();
    void levelItemsPopulateLazyBranches();
    void contractChecks_data();
    void contractChecks();
    void randomEditsUnderModelTester_data();
    void randomEditsUnderModelTester();
    void viewExpandsAndActivates();
};

void tst_TreeModel::initTestCase()
{
    qRegisterMetaType<QList<QPersistentModelIndex>>();
    qRegisterMetaType<QAbstractItemModel::LayoutChangeHint>();
}

void tst_TreeModel::itemDefaults()
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

void tst_TreeModel::displayData_data()
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

void tst_TreeModel::displayData()
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

void tst_TreeModel::lazyItemPopulatesOnce_data()
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

void tst_TreeModel::lazyItemPopulatesOnce()
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

void tst_TreeModel::populateMayAskForItsOwnRows()
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

void tst_TreeModel::insertionSignals_data()
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

void tst_TreeModel::insertionSignals()
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

void tst_TreeModel::insertionBounds_data()
{
    QTest::addColumn<int>("pos");
    QTest::addColumn<bool>("inserted");

    QTest::newRow("before the first") << -1 << false;
    QTest::newRow("first") << 0 << true;
    QTest::newRow("size") << 2 << true;
    QTest::newRow("size + 1") << 3 << false;
}

void tst_TreeModel::insertionBounds()
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

void tst_TreeModel::insertingAnItemWithAParent()
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

void tst_TreeModel::removeChildren_data()
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

void tst_TreeModel::removeChildren()
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

void tst_TreeModel::sortChildren()
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

void tst_TreeModel::sortChildrenKeepsPersistentIndexes()
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

void tst_TreeModel::updateSignals()
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

void tst_TreeModel::expandRequestsExpansion()
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

void tst_TreeModel::walkTreeVisitor_data()
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

void tst_TreeModel::walkTreeVisitor()
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

void tst_TreeModel::levelAndIndex()
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

void tst_TreeModel::levelItems_data()
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

void tst_TreeModel::levelItems()
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

void tst_TreeModel::levelItemsPopulateLazyBranches()
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

void tst_TreeModel::contractChecks_data()
{
    QTest::addColumn<Misuse>("misuse"); // returns whether the neutral result came back
    QTest::addColumn<QStringList>("asserts");

    // Each row builds its own model: r(a(x),b), attached.
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

} // namespace

void tst_TreeModel::randomEditsUnderModelTester()
{
    QFETCH(quint32, seed);
    QRandomGenerator random(seed);

    TreeModel model;
    model.setColumnCount(2);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::QtTest);

    ReferenceNode reference;
    QHash<TreeItem *, ReferenceNode *> mirror {{model.rootItem(), &reference}};
    int nextName = 0;
    // Lazy items populate whenever the model first asks; the mirror follows at that moment.
    const auto onPopulate = [&](NamedItem *item) {
        ReferenceNode *node = mirror.value(item);
        for (TreeItem *child : item->children()) {
            if (mirror.contains(child))
                continue;
            node->children.push_back(std::make_unique<ReferenceNode>());
            node->children.back()->name = named(child)->name();
            mirror.insert(child, node->children.back().get());
        }
    };
    const auto forget = [&](TreeItem *item) {
        item->walkTree([&](TreeItem *descendant) { mirror.remove(descendant); });
    };
    const auto randomItem = [&](bool withRoot) -> TreeItem * {
        QVector<TreeItem *> all;
        model.rootItem()->walkTree([&](TreeItem *item) { all.append(item); });
        if (!withRoot)
            all.removeFirst();
        return all.isEmpty() ? nullptr : all.at(random.bounded(all.size()));
    };
    const auto nameOrder = [](const TreeItem *left, const TreeItem *right) {
        return named(left)->name() < named(right)->name();
    };

    for (int step = 0; step < 400; ++step) {
        const int operation = random.bounded(10);
        if (operation < 5) { // insert, prepend or append
            TreeItem *parent = randomItem(true);
            ReferenceNode *node = mirror.value(parent);
            const int size = int(node->children.size());
            const int pos = operation == 0 ? 0 : operation == 1 ? size : random.bounded(size + 1);
            const QString name = QStringLiteral("n%1").arg(nextName++, 4, 10, QLatin1Char('0'));
            auto item = new NamedItem(name, random.bounded(4) == 0 ? random.bounded(1, 4) : 0);
            item->onPopulate = onPopulate;
            auto child = std::make_unique<ReferenceNode>();
            child->name = name;
            mirror.insert(item, child.get());
            node->children.insert(node->children.begin() + pos, std::move(child));
            if (operation == 0)
                parent->prependChild(item);
            else if (operation == 1)
                parent->appendChild(item);
            else
                parent->insertChild(pos, item);
        } else if (operation == 5) { // take an item out, then delete it
            TreeItem *item = randomItem(false);
            if (!item)
                continue;
            auto &siblings = mirror.value(item->parent())->children;
            siblings.erase(std::find_if(siblings.begin(), siblings.end(), [&](const auto &node) {
                return node.get() == mirror.value(item);
            }));
            forget(item);
            model.removeItem(item);
            delete item;
        } else if (operation == 6) { // clear a branch
            TreeItem *item = randomItem(random.bounded(8) == 0);
            if (!item)
                continue;
            item->ensurePopulated();
            for (TreeItem *child : item->children())
                forget(child);
            mirror.value(item)->children.clear();
            item->removeChildren();
        } else if (operation == 7) { // sort a branch
            TreeItem *item = randomItem(true);
            auto &children = mirror.value(item)->children;
            std::sort(children.begin(), children.end(),
                      [](const auto &left, const auto &right) { return left->name < right->name; });
            item->sortChildren(nameOrder);
        } else { // rename through the model, or in place and announce
            TreeItem *item = randomItem(false);
            if (!item)
                continue;
            const QString name = QStringLiteral("m%1").arg(nextName++, 4, 10, QLatin1Char('0'));
            mirror.value(item)->name = name;
            if (operation == 8) {
                QVERIFY(model.setData(item->index(), name, Qt::EditRole));
            } else {
                item->setData(0, name, Qt::EditRole);
                item->update();
            }
        }
        if (QTest::currentTestFailed())
            QFAIL(qPrintable(QStringLiteral("model tester failed at step %1").arg(step)));
        // The model's view of the tree is the reference's; asking also populates lazy items.
        const QString seen = modelShape(model, QModelIndex());
        QCOMPARE(seen, referenceShape(reference));
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

QTEST_MAIN(tst_TreeModel)

#include "tst_treemodel.moc"
