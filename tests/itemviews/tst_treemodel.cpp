#include "KrTestSupport.h"

#include <krutils/TreeModel.h>

#include <QAbstractItemModelTester>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QStringListModel>
#include <QtTest>

#include <algorithm>
#include <functional>
#include <memory>

using Utils::TreeItem;
using Utils::TreeModel;

namespace {

QStringList deletions; // the names of the NamedItems deleted, in order

// An item with an editable name (column 0) and its level (column 1). A lazy one adds `lazyRows`
// children in populate(); with -1 rows it fetches one child on request instead.
class NamedItem : public TreeItem
{
public:
    explicit NamedItem(const QString &name, int lazyRows = 0) : m_name(name), m_lazyRows(lazyRows)
    {
        setLazy(lazyRows > 0);
    }
    ~NamedItem() override { deletions.append(m_name); }

    QVariant data(int column, int role) const override
    {
        if (role != Qt::DisplayRole && role != Qt::EditRole)
            return QVariant();
        return column == 0 ? QVariant(m_name) : column == 1 ? QVariant(level()) : QVariant();
    }
    bool setData(int column, const QVariant &data, int role) override
    {
        if (column != 0 || role != Qt::EditRole)
            return false;
        m_name = data.toString();
        return true;
    }
    bool canFetchMore() const override { return m_lazyRows < 0 && children().isEmpty(); }
    void fetchMore() override { appendChild(new NamedItem(QStringLiteral("fetched"))); }
    void populate() override
    {
        ++populations;
        for (int i = 0; i < m_lazyRows; ++i)
            appendChild(new NamedItem(m_name + '.' + QString::number(i)));
        if (onPopulate)
            onPopulate(this);
    }

    int populations = 0;
    std::function<void(NamedItem *)> onPopulate;

private:
    QString m_name;
    int m_lazyRows;
};

QString nameOf(const TreeItem *item)
{
    return item->data(0, Qt::DisplayRole).toString();
}

// "a(b(d),c)": the names in pre-order, children in brackets; the items' own view of the tree.
QString shape(const TreeItem *item)
{
    QStringList parts;
    for (const TreeItem *child : item->children())
        parts.append(shape(child));
    return parts.isEmpty() ? nameOf(item) : nameOf(item) + '(' + parts.join(',') + ')';
}

// The same through the model's interface only.
QString modelShape(const QAbstractItemModel &model, const QModelIndex &index = QModelIndex())
{
    QStringList parts;
    for (int row = 0; row < model.rowCount(index); ++row)
        parts.append(modelShape(model, model.index(row, 0, index)));
    const QString name = model.data(index).toString();
    return parts.isEmpty() ? name : name + '(' + parts.join(',') + ')';
}

// Builds a tree from "a(b(d),c)"; "a*2" is a lazy item with 2 rows.
TreeItem *buildTree(const QString &text)
{
    QVector<TreeItem *> open;
    TreeItem *last = nullptr;
    auto tokens = QRegularExpression(QStringLiteral("[(),]|[^(),]+")).globalMatch(text);
    while (tokens.hasNext()) {
        const QString token = tokens.next().captured();
        if (token == "(") {
            open.append(last);
        } else if (token == ")") {
            last = open.takeLast();
        } else if (token != ",") {
            last = new NamedItem(token.section('*', 0, 0), token.section('*', 1).toInt());
            if (!open.isEmpty())
                open.last()->appendChild(last);
        }
    }
    return last;
}

TreeItem *find(TreeItem *top, const QString &name)
{
    TreeItem *found = nullptr;
    top->walkTree([&](TreeItem *item) {
        if (!found && nameOf(item) == name)
            found = item;
    });
    return found;
}

// A model whose root is the tree built from "r(...)".
struct Fixture
{
    explicit Fixture(const QString &tree) { model.setRootItem(buildTree(tree)); }
    TreeItem *operator[](const QString &name) const { return find(model.rootItem(), name); }
    TreeModel model;
};

QStringList names(const Utils::UntypedTreeLevelItems &items)
{
    QStringList result;
    for (TreeItem *item : items)
        result.append(nameOf(item));
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

// The texts of the given failed checks, {condition, line}, of one source file.
QStringList asserted(std::initializer_list<std::pair<const char *, int>> checks,
                     const char *file = "shell/krutils/TreeModel")
{
    QStringList texts;
    for (const auto &check : checks)
        texts.append(QStringLiteral("\"%1\" in file %2, line %3")
                             .arg(check.first, file)
                             .arg(check.second));
    return texts;
}

// A pre-order record of a visitor's calls; it refuses the item named `skip`.
class TracingVisitor : public Utils::TreeItemVisitor
{
public:
    bool preVisit(TreeItem *item) override
    {
        trace.append('+' + nameOf(item));
        return nameOf(item) != skip;
    }
    void visit(TreeItem *item) override { trace.append(nameOf(item) + QString::number(level())); }
    void postVisit(TreeItem *item) override { trace.append('-' + nameOf(item)); }

    QStringList trace;
    QString skip;
};

using Action = std::function<void(Fixture &)>;
using Misuse = std::function<bool()>; // returns whether the neutral result came back

// Makes random edits to a model and the same edits to a plain reference (the child names of each
// item, by name), and holds a persistent index on every item it inserts, as a view holds its
// selection and expanded rows.
struct RandomEditor
{
    void edit()
    {
        QVector<TreeItem *> all;
        model.rootItem()->walkTree([&](TreeItem *item) { all.append(item); });
        // Insertions and sorts may pick the root, clearing rarely, renaming and taking out never.
        const int operation = random.bounded(10);
        if (operation >= 8 || operation == 5 || (operation == 6 && random.bounded(8) != 0))
            all.removeFirst();
        if (all.isEmpty())
            return;
        TreeItem *item = all.at(random.bounded(all.size()));
        const QString name = nameOf(item);
        if (operation < 5) { // 0 prepends, 1 appends, any other inserts at a random row
            QStringList &rows = children[name];
            const int pos = operation == 0 ? 0
                    : operation == 1       ? rows.size()
                                           : random.bounded(rows.size() + 1);
            auto child = new NamedItem('n' + QString::number(names++),
                                       random.bounded(4) == 0 ? random.bounded(1, 4) : 0);
            rows.insert(pos, nameOf(child));
            // A lazy item populates when the model first asks; the reference follows then.
            child->onPopulate = [this](NamedItem *lazy) {
                for (TreeItem *populated : lazy->children()) {
                    if (!children[nameOf(lazy)].contains(nameOf(populated)))
                        children[nameOf(lazy)].append(nameOf(populated));
                }
            };
            if (operation == 0)
                item->prependChild(child);
            else if (operation == 1)
                item->appendChild(child);
            else
                item->insertChild(pos, child);
            held.insert(child, QPersistentModelIndex(child->index()));
        } else if (operation == 5) { // taken out, then deleted
            children[nameOf(item->parent())].removeOne(name);
            item->walkTree([&](TreeItem *gone) { held.remove(gone); });
            model.removeItem(item);
            delete item;
        } else if (operation == 6) {
            item->ensurePopulated();
            item->walkTree([&](TreeItem *gone) { held.remove(gone); });
            children[name].clear();
            item->removeChildren();
        } else if (operation == 7) {
            std::sort(children[name].begin(), children[name].end());
            item->sortChildren([](const TreeItem *left, const TreeItem *right) {
                return nameOf(left) < nameOf(right);
            });
        } else { // renamed through the model, or in place and announced for the row or the cell
            const QString newName = 'm' + QString::number(names++);
            QStringList &siblings = children[nameOf(item->parent())];
            siblings.replace(siblings.indexOf(name), newName);
            children.insert(newName, children.take(name));
            model.rootItem()->update(); // the root has no row to repaint
            if (operation == 8) {
                QVERIFY(model.setData(item->index(), newName, Qt::EditRole));
            } else {
                item->setData(0, newName, Qt::EditRole);
                random.bounded(2) ? item->update() : item->updateColumn(0);
            }
        }
    }

    QString referenceShape(const QString &name = QString()) const
    {
        QStringList parts;
        for (const QString &child : children.value(name))
            parts.append(referenceShape(child));
        return parts.isEmpty() ? name : name + '(' + parts.join(',') + ')';
    }

    // The first held index that no longer names its item at the item's row in the reference, or
    // none. Rows inserted into a lazy item are not announced, so their siblings may lag behind.
    QString misplacedIndex() const
    {
        for (auto index = held.cbegin(); index != held.cend(); ++index) {
            const TreeItem *item = index.key();
            const int row = children.value(nameOf(item->parent())).indexOf(nameOf(item));
            if (!item->parent()->isLazy()
                && (index->row() != row || index->parent() != item->parent()->index()
                    || *index != item->index()))
                return nameOf(item);
        }
        return QString();
    }

    TreeModel &model;
    QRandomGenerator random;
    QHash<QString, QStringList> children = {};
    QHash<TreeItem *, QPersistentModelIndex> held = {};
    int names = 0;
};

} // namespace

Q_DECLARE_METATYPE(Action)
Q_DECLARE_METATYPE(Misuse)

// The tree items and the model: lazy population, structure changes and their signals, walks and
// level ranges, every contract check, and random edits checked against a plain reference under
// Qt's model tester.
class tst_TreeModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void itemsAndModelAnswers()
    {
        TreeItem plain;
        QCOMPARE(int(plain.flags(7)), 33);
        QVERIFY(!plain.data(0, Qt::DisplayRole).isValid() && !plain.setData(0, 1, Qt::EditRole));
        QVERIFY(!plain.isLazy() && !plain.hasChildren() && !plain.canFetchMore());
        QVERIFY(!plain.parent() && !plain.model() && !plain.firstChild() && !plain.lastChild());
        QCOMPARE(plain.child(0), nullptr); // beyond the rows: no assertion

        TreeModel model;
        auto texts
                = new TreeItem({"ACC-1", "Alpha", "CNY"}, Qt::ItemIsEnabled | Qt::ItemIsEditable);
        model.rootItem()->appendChild(texts);
        model.setHeader({"Account", "Name"});
        QVERIFY(model.rootItem()->level() == 0 && texts->level() == 1);

        // Display texts per column, for the display role only.
        QCOMPARE(model.data(model.index(0, 1)), QVariant("Alpha"));
        QCOMPARE(texts->data(2, Qt::DisplayRole), QVariant("CNY"));
        QVERIFY(!texts->data(3, Qt::DisplayRole).isValid()
                && !texts->data(-1, Qt::DisplayRole).isValid());
        QVERIFY(!model.data(model.index(0, 0), Qt::EditRole).isValid());
        QCOMPARE(model.flags(model.index(0, 1)), Qt::ItemIsEnabled | Qt::ItemIsEditable);
        QCOMPARE(model.flags(QModelIndex()), Qt::NoItemFlags);
        QVERIFY(!model.setData(model.index(0, 0), QStringLiteral("ACC-2")));

        // The header sets the column count; only its horizontal display texts are answered.
        QCOMPARE(model.columnCount(model.index(0, 0)), 2);
        QCOMPARE(model.columnCount(model.index(0, 1)), 0);
        QCOMPARE(model.rowCount(model.index(0, 1)), 0);
        QCOMPARE(model.headerData(1, Qt::Horizontal), QVariant("Name"));
        QVERIFY(!model.headerData(2, Qt::Horizontal).isValid());
        QVERIFY(!model.headerData(0, Qt::Vertical).isValid());
        QVERIFY(!model.headerData(0, Qt::Horizontal, Qt::ToolTipRole).isValid());
        model.setColumnCount(5);
        QCOMPARE(model.columnCount(), 5);
        QCOMPARE(model.headerData(0, Qt::Horizontal), QVariant("Account"));
    }

    void setDataAndFetchMore()
    {
        // Lazy loading the Qt way: canFetchMore/fetchMore reach the item.
        TreeModel model;
        model.setColumnCount(2);
        model.rootItem()->appendChild(new NamedItem(QStringLiteral("old"), -1));
        const QModelIndex index = model.index(0, 0);
        QVERIFY(!model.canFetchMore(QModelIndex()));
        QVERIFY(model.canFetchMore(index));
        QVERIFY(model.hasChildren(index)); // can fetch more, no rows yet
        QCOMPARE(model.rowCount(index), 0);
        model.fetchMore(index);
        QVERIFY(!model.canFetchMore(index));
        QCOMPARE(model.rowCount(index), 1);

        // Only edits the item takes are announced.
        QSignalSpy changed(&model, &QAbstractItemModel::dataChanged);
        QVERIFY(!model.setData(index.siblingAtColumn(1), QStringLiteral("level")));
        QVERIFY(!model.setData(index, QStringLiteral("display"), Qt::DisplayRole));
        QCOMPARE(changed.count(), 0);
        QVERIFY(model.setData(index, QStringLiteral("new")));
        QCOMPARE(changed.value(0),
                 QVariantList({index, index, QVariant::fromValue(QVector<int>())}));
    }

    void lazyPopulation_data()
    {
        QTest::addColumn<Action>("first"); // the first call made on the lazy item "a"
        QTest::addColumn<bool>("populates");
        QTest::newRow("child") << Action([](Fixture &f) {
            QCOMPARE(nameOf(f["a"]->child(2)), "a.2");
        }) << true;
        QTest::newRow("hasChildren")
                << Action([](Fixture &f) { QVERIFY(f["a"]->hasChildren()); }) << true;
        QTest::newRow("model rowCount")
                << Action([](Fixture &f) { QCOMPARE(f.model.rowCount(f.model.index(0, 0)), 3); })
                << true;
        QTest::newRow("first, last child, children") << Action([](Fixture &f) {
            QVERIFY(!f["a"]->firstChild() && !f["a"]->lastChild() && f["a"]->children().isEmpty());
        }) << false;
        QTest::newRow("walks") << Action([](Fixture &f) {
            Utils::TreeItemVisitor visitor;
            f.model.rootItem()->walkTree(&visitor);
            QStringList order;
            f.model.rootItem()->walkTree([&](TreeItem *item) { order.append(nameOf(item)); });
            QCOMPARE(order, QStringList({"r", "a", "b", "c"}));
        }) << false;
    }

    void lazyPopulation()
    {
        QFETCH(Action, first);
        QFETCH(bool, populates);
        Fixture f(QStringLiteral("r(a*3,b(c))"));
        auto lazy = static_cast<NamedItem *>(f["a"]);
        int rowsSeen = -1;
        lazy->onPopulate = [&](NamedItem *item) { rowsSeen = item->rowCount(); };
        QSignalSpy inserted(&f.model, &QAbstractItemModel::rowsInserted);
        first(f);
        QCOMPARE(lazy->populations, populates ? 1 : 0);

        // Whatever came first, the rows appear once, unannounced, and populate() may ask for them.
        QCOMPARE(lazy->rowCount(), 3);
        QCOMPARE(lazy->populations, 1);
        QCOMPARE(rowsSeen, 3);
        QCOMPARE(inserted.count(), 0);
        QCOMPARE(shape(lazy), QStringLiteral("a(a.0,a.1,a.2)"));
    }

    void removeChildren_data()
    {
        QTest::addColumn<QString>("tree");
        QTest::addColumn<bool>("attached");
        QTest::addColumn<QStringList>("destroyed");
        QTest::newRow("last row first, subtrees too")
                << "r(b,a(x(p,q),y,z))" << true << QStringList({"z", "y", "x", "q", "p"});
        QTest::newRow("no rows") << "r(b,a)" << true << QStringList();
        QTest::newRow("lazy item is populated first")
                << "r(b,a*2)" << true << QStringList({"a.1", "a.0"});
        QTest::newRow("no model") << "r(b,a(x,y))" << false << QStringList({"y", "x"});
    }

    void removeChildren()
    {
        QFETCH(QString, tree);
        QFETCH(bool, attached);
        QFETCH(QStringList, destroyed);
        TreeModel model;
        std::unique_ptr<TreeItem> loose(buildTree(tree));
        if (attached)
            model.setRootItem(loose.release());
        TreeItem *a = find(attached ? model.rootItem() : loose.get(), QStringLiteral("a"));
        QSignalSpy removed(&model, &QAbstractItemModel::rowsAboutToBeRemoved);
        deletions.clear();
        a->removeChildren();
        QCOMPARE(deletions, destroyed);
        QCOMPARE(removed.count(), attached && !destroyed.isEmpty() ? 1 : 0);
    }

    void sortChildren()
    {
        const auto byName = [](const TreeItem *left, const TreeItem *right) {
            return nameOf(left) < nameOf(right);
        };
        std::unique_ptr<TreeItem> loose(buildTree(QStringLiteral("t(b,d(q,p),a,c)")));
        loose->sortChildren(byName);
        QCOMPARE(shape(loose.get()), QStringLiteral("t(a,b,c,d(q,p))"));

        qRegisterMetaType<QList<QPersistentModelIndex>>();
        qRegisterMetaType<QAbstractItemModel::LayoutChangeHint>();
        Fixture f(QStringLiteral("r(b,d(q,p),a,c)"));
        f.model.setColumnCount(2);
        const QPersistentModelIndex b(f.model.index(0, 1));
        QSignalSpy aboutToChange(&f.model, &QAbstractItemModel::layoutAboutToBeChanged);
        QSignalSpy changed(&f.model, &QAbstractItemModel::layoutChanged);
        f.model.rootItem()->sortChildren(byName);
        QVERIFY(aboutToChange.count() == 1 && changed.count() == 1);
        QVERIFY(aboutToChange.first().at(0).value<QList<QPersistentModelIndex>>().isEmpty());
        QCOMPARE(aboutToChange.first().at(1).value<QAbstractItemModel::LayoutChangeHint>(),
                 QAbstractItemModel::NoLayoutChangeHint);
        // A held index follows its item in its own column (which shows the level).
        QCOMPARE(QModelIndex(b), f.model.index(1, 1));
        QCOMPARE(b.data(), QVariant(1));
        QCOMPARE(b.sibling(1, 0).data(), QVariant("b"));
    }

    void signalsForViews()
    {
        Fixture f(QStringLiteral("r(t(a,b(y)))"));
        f.model.setHeader({"Name", "Level", "Note"});
        TreeItem *b = f["b"];
        const QModelIndex t = f["t"]->index();
        QSignalSpy changed(&f.model, &QAbstractItemModel::dataChanged);
        QSignalSpy expansion(&f.model, &TreeModel::requestExpansion);
        b->update();
        b->updateColumn(1);
        b->expand();
        const QVariant noRoles = QVariant::fromValue(QVector<int>());
        QCOMPARE(changed.count(), 2);
        QCOMPARE(changed.at(0),
                 QVariantList({f.model.index(1, 0, t), f.model.index(1, 2, t), noRoles}));
        QCOMPARE(changed.at(1),
                 QVariantList({f.model.index(1, 1, t), f.model.index(1, 1, t), noRoles}));
        QCOMPARE(expansion.value(0), QVariantList({f.model.index(1, 0, t)}));

        // Taken out, an item is handed over undeleted, still of the model.
        deletions.clear();
        f.model.removeItem(b);
        std::unique_ptr<TreeItem> taken(b);
        QVERIFY(deletions.isEmpty() && !b->parent());
        QCOMPARE(find(b, QStringLiteral("y"))->model(), &f.model);

        // Nothing to repaint: no model, the root, a column the model lacks, an item taken out.
        NamedItem loose(QStringLiteral("loose"));
        loose.update();
        loose.updateColumn(0);
        f.model.rootItem()->update();
        f["a"]->updateColumn(3);
        f["a"]->updateColumn(-1);
        b->update();
        b->updateColumn(0);
        QCOMPARE(changed.count(), 2);
    }

    void walkTreeVisitor_data()
    {
        QTest::addColumn<QString>("skip");
        QTest::addColumn<QString>("trace");
        // "+a" when a is offered, "a1" when it is visited at level 1, "-a" after its subtree.
        QTest::newRow("everything") << ""
                                    << "+a a1 +b b2 +d d3 -d -b +c c2 -c -a";
        QTest::newRow("a refused branch still gets its post visit") << "b"
                                                                    << "+a a1 +b -b +c c2 -c -a";
        QTest::newRow("refused start") << "a"
                                       << "+a -a";
    }

    void walkTreeVisitor()
    {
        QFETCH(QString, skip);
        QFETCH(QString, trace);
        std::unique_ptr<TreeItem> tree(buildTree(QStringLiteral("a(b(d),c)")));
        TracingVisitor visitor;
        visitor.skip = skip;
        tree->walkTree(&visitor);
        QCOMPARE(visitor.trace.join(' '), trace);
        QCOMPARE(visitor.level(), 0);
    }

    void levelItems_data()
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
        QTest::newRow("children of a subtree") << tree << "a" << 1 << QStringList({"x", "y"});
        QTest::newRow("from a leaf") << tree << "b" << 1 << QStringList();
        QTest::newRow("empty branches first") << "r(a,b(c),d(e(f)),g(h(i),j(k)))"
                                              << "" << 3 << QStringList({"f", "i", "k"});
        QTest::newRow("lazy branches") << "r(a*2,b(c*1),d*0)"
                                       << "" << 2 << QStringList({"a.0", "a.1", "c"});
        QTest::newRow("below lazy branches") << "r(a*2,b(c*1),d*0)"
                                             << "" << 3 << QStringList({"c.0"});
        const QString chain = QStringLiteral("r(a(b(c(d(e(f(g(h(i(j(k(l))))))))))))");
        QTest::newRow("the deepest level") << chain << "" << 11 << QStringList({"k"});
        QTest::newRow("beyond what the iterator holds") << chain << "" << 12 << QStringList();
    }

    void levelItems()
    {
        QFETCH(QString, tree);
        QFETCH(QString, start);
        QFETCH(int, level);
        QFETCH(QStringList, expected);
        Fixture f(tree);
        TreeItem *startItem = start.isEmpty() ? nullptr : f[start];
        MessageCapture capture;
        const Utils::UntypedTreeLevelItems items = f.model.untypedLevelItems(level, startItem);
        QCOMPARE(names(items), expected);
        // The start-only overload takes no root for a missing start item.
        if (level == 1)
            QCOMPARE(names(f.model.untypedLevelItems(startItem)),
                     startItem ? expected : QStringList());
        QCOMPARE(softAsserts(capture), QStringList());

        // Lazy items above the level are populated once, those at or below it not at all.
        f.model.rootItem()->walkTree([&](TreeItem *item) {
            if (item->isLazy())
                QCOMPARE(static_cast<NamedItem *>(item)->populations,
                         item->level() < level ? 1 : 0);
        });
        // Post-increment hands back the old place.
        auto it = items.begin();
        QVERIFY(expected.isEmpty() || (it++ == items.begin() && it != items.begin()));
        QCOMPARE(int(std::distance(items.begin(), items.end())), expected.size());
    }

    void setRootItemDeletesTheOldTree()
    {
        Fixture f(QStringLiteral("r(a(x,y),b)"));
        QSignalSpy aboutToReset(&f.model, &QAbstractItemModel::modelAboutToBeReset);
        QSignalSpy removed(&f.model, &QAbstractItemModel::rowsRemoved);
        deletions.clear();
        f.model.setRootItem(buildTree(QStringLiteral("s(c(z(w)))")));
        QCOMPARE(deletions, QStringList({"r", "b", "a", "y", "x"}));
        QCOMPARE(aboutToReset.count() + removed.count(), 0);
        QCOMPARE(modelShape(f.model), QStringLiteral("(c(z(w)))"));

        deletions.clear();
        f.model.removeItems();
        QCOMPARE(removed.value(0), QVariantList({QModelIndex(), 0, 0}));
        QCOMPARE(deletions, QStringList({"c", "z", "w"}));

        // An empty model: every question has its neutral answer.
        f.model.setRootItem(nullptr);
        MessageCapture capture;
        QVERIFY(f.model.rowCount() == 0 && !f.model.index(0, 0).isValid());
        f.model.removeItems();
        QCOMPARE(names(f.model.untypedLevelItems(1)), QStringList());
        QCOMPARE(softAsserts(capture), asserted({{"item", 914}, {"item", 914}}));
    }

    void contractChecks_data()
    {
        QTest::addColumn<Misuse>("misuse");
        QTest::addColumn<QStringList>("asserts");
        const std::pair<const char *, int> notOfThisModel {"item->m_model == this", 1022};

        QTest::newRow("rows outside the rows present")
                << Misuse([] {
                       Fixture f(QStringLiteral("r(a*5)"));
                       NamedItem item(QStringLiteral("n"));
                       f.model.rootItem()->insertChild(-1, &item);
                       f["a"]->insertChild(1, &item); // a lazy item is not populated to check
                       return !item.parent() && !item.model() && !f.model.rootItem()->child(-1)
                               && static_cast<NamedItem *>(f["a"])->populations == 0;
                   })
                << asserted({{"0 <= pos && pos <= m_children.size()", 697},
                             {"0 <= pos && pos <= m_children.size()", 697},
                             {"pos >= 0", 634}});

        QTest::newRow("inserting an item that has a parent") << Misuse([] {
            Fixture f(QStringLiteral("r(a(x),b)"));
            TreeItem *x = f["x"];
            QSignalSpy inserted(&f.model, &QAbstractItemModel::rowsInserted);
            f["b"]->appendChild(x);
            // Inserted all the same: both parents list it, and it names the new one.
            const bool twice = shape(f.model.rootItem()) == "r(a(x),b(x))" && x->parent() == f["b"];
            f.model.removeItem(x); // back to a single owner
            return twice && inserted.count() == 1 && f["a"]->children() == QVector<TreeItem *>({x});
        }) << asserted({{"!item->parent()", 696}});

        QTest::newRow("index and expansion of an item outside a model") << Misuse([] {
            NamedItem loose(QStringLiteral("loose"));
            loose.expand();
            return !loose.index().isValid();
        }) << asserted({{"m_model", 828}, {"m_model", 785}});

        QTest::newRow("inserting an item of another model") << Misuse([] {
            TreeModel mine;
            Fixture theirs(QStringLiteral("r(f(g))"));
            TreeItem *foreign = theirs["f"];
            theirs.model.removeItem(foreign);
            QSignalSpy inserted(&mine, &QAbstractItemModel::rowsInserted);
            mine.rootItem()->appendChild(foreign);
            // Listed, but still of the other model, so this model refuses to index it.
            return inserted.count() == 1 && foreign->model() == &theirs.model
                    && foreign->firstChild()->model() == &theirs.model
                    && mine.itemFromIndex(mine.index(0, 0)) == nullptr;
        }) << asserted({{"m_model == 0 || m_model == m", 844}, notOfThisModel});

        QTest::newRow("level zero") << Misuse([] {
            return names(Fixture(QStringLiteral("r(a)")).model.untypedLevelItems(0)).isEmpty();
        }) << asserted({{"level > 0", 1085}, {"level > 0", 1085}});

        QTest::newRow("advancing past the end") << Misuse([] {
            Fixture f(QStringLiteral("r(a)"));
            const Utils::UntypedTreeLevelItems items = f.model.untypedLevelItems(1);
            auto it = items.end();
            return ++it == items.end();
        }) << asserted({{"m_depth != -1", 181}}, "shell/krutils/TreeModel.h");

        QTest::newRow("indexes without item, no item") << Misuse([] {
            TreeModel model;
            const QStringListModel list({"x"}); // its indexes carry no pointer
            return !model.parent(list.index(0)).isValid() && model.rowCount(list.index(0)) == 0
                    && !model.indexFromItem(nullptr).isValid();
        })
                                                       << asserted({{"item", 1021},
                                                                    {"item", 890},
                                                                    {"item", 1021},
                                                                    {"item", 914},
                                                                    {"item", 1028}});

        QTest::newRow("index below a foreign item") << Misuse([] {
            // A model that claims rows everywhere gets past the bounds check.
            struct Claiming : TreeModel
            {
                int rowCount(const QModelIndex &) const override { return 1; }
            } model;
            Fixture other(QStringLiteral("r(o)"));
            return !model.index(0, 0, other.model.index(0, 0)).isValid();
        }) << asserted({notOfThisModel, {"item", 1011}});

        QTest::newRow("foreign index: no item, yet children")
                << Misuse([] {
                       TreeModel model;
                       Fixture other(QStringLiteral("r(o)"));
                       const QModelIndex foreign = other.model.index(0, 0);
                       return model.itemFromIndex(foreign) == nullptr && model.hasChildren(foreign)
                               && model.flags(foreign) == (Qt::ItemIsSelectable | Qt::ItemIsEnabled)
                               && !model.data(foreign).isValid() && !model.setData(foreign, 1)
                               && !model.canFetchMore(foreign);
                   })
                << asserted({notOfThisModel, notOfThisModel, notOfThisModel, notOfThisModel,
                             notOfThisModel, notOfThisModel});

        QTest::newRow("removing no item, the root, an item its parent does not list") << Misuse([] {
            struct StrayItem : TreeItem // claims a parent that does not list it
            {
                TreeItem *claimed = nullptr;
                TreeItem *parent() const override { return claimed; }
            } stray;
            Fixture f(QStringLiteral("r(a)"));
            stray.claimed = f.model.rootItem();
            QSignalSpy removed(&f.model, &QAbstractItemModel::rowsRemoved);
            f.model.removeItem(nullptr);
            f.model.removeItem(f.model.rootItem());
            f.model.removeItem(&stray);
            return removed.isEmpty() && f.model.rowCount() == 1;
        }) << asserted({{"item", 1061}, {"parent", 1063}, {"pos != -1", 1065}});
    }

    void contractChecks()
    {
        QFETCH(Misuse, misuse);
        QFETCH(QStringList, asserts);
        MessageCapture capture;
        QVERIFY(misuse());
        QCOMPARE(softAsserts(capture), asserts);
    }

    void randomEditsUnderModelTester_data()
    {
        QTest::addColumn<quint32>("seed");
        for (quint32 seed : {1u, 7u, 42u, 2024u, 90001u})
            QTest::addRow("seed %u", seed) << seed;
    }

    void randomEditsUnderModelTester()
    {
        QFETCH(quint32, seed);
        TreeModel model;
        model.setColumnCount(2);
        // The tester checks the whole model at every signal; as warnings, its passing checks
        // cost nothing, where QtTest reports would format a text for each.
        MessageCapture capture;
        QAbstractItemModelTester tester(&model,
                                        QAbstractItemModelTester::FailureReportingMode::Warning);
        RandomEditor editor {model, QRandomGenerator(seed)};
        for (int step = 0; step < 400 && !QTest::currentTestFailed(); ++step) {
            editor.edit();
            // Asking the model populates lazy items, which the reference follows: model first.
            const QString seen = modelShape(model);
            QCOMPARE(seen, editor.referenceShape());
            QCOMPARE(editor.misplacedIndex(), QString());
            QVERIFY2(capture.messages().isEmpty(), qPrintable(capture.messages().value(0).text));
        }
    }
};

QTEST_MAIN(tst_TreeModel)

#include "tst_treemodel.moc"
