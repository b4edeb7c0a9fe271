// Item views: a tree model of accounts, strategies and positions, walked and shown in a view.

#include "krdemo.h"

#include <krutils/TreeModel.h>
#include <krutils/TreeView.h>

#include <QApplication>
#include <QKeyEvent>

namespace krdemo {

namespace {

// A position: code, quantity, price; its market value is what the walks add up.
class PositionItem : public Utils::TreeItem
{
public:
    PositionItem(const QString &code, int quantity, double price)
        : Utils::TreeItem({code, QString::number(quantity), QString::number(price, 'f', 2)}),
          marketValue(quantity * price)
    {
    }
    const double marketValue;
};

// A strategy loads its positions only when someone looks inside it.
class StrategyItem : public Utils::TreeItem
{
public:
    StrategyItem(const QString &name, QList<PositionItem *> positions)
        : Utils::TreeItem({name}), m_positions(std::move(positions))
    {
        setLazy(true);
    }
    ~StrategyItem() override { qDeleteAll(m_positions); }

    void populate() override
    {
        say("    (strategy %s loads its positions now)\n", data(0, Qt::DisplayRole).toString());
        for (PositionItem *position : qAsConst(m_positions))
            appendChild(position);
        m_positions.clear();
    }

private:
    QList<PositionItem *> m_positions;
};

// Prints the tree indented by level and adds each account's market value on the way back up.
class ValuationVisitor : public Utils::TreeItemVisitor
{
public:
    void visit(Utils::TreeItem *item) override
    {
        if (level() == 1) // the root
            return;
        QStringList columns;
        for (int column = 0; column < 3; ++column)
            columns << item->data(column, Qt::DisplayRole).toString();
        say("  %s\n",
            QString(4 * (level() - 2), QLatin1Char(' '))
                    + columns.join(QLatin1String("  ")).trimmed());
        if (auto position = dynamic_cast<PositionItem *>(item))
            accountValue += position->marketValue;
    }
    void postVisit(Utils::TreeItem *item) override
    {
        if (item->level() == 1) {
            say("  %s\n",
                QStringLiteral("  = market value of %1: %2")
                        .arg(item->data(0, Qt::DisplayRole).toString())
                        .arg(accountValue, 0, 'f', 2));
            accountValue = 0;
        }
    }

private:
    double accountValue = 0;
};

// Two accounts with two strategies each; a strategy keeps its positions until asked for them.
void addBooks(Utils::TreeModel &model)
{
    const struct
    {
        const char *account;
        const char *strategy;
        QList<PositionItem *> positions;
    } books[] = {
            {"ACC-001 Alpha Fund",
             "Index arbitrage",
             {new PositionItem(QStringLiteral("510300.SH"), 20000, 3.87),
              new PositionItem(QStringLiteral("IF2412"), -2, 3921.40)}},
            {"ACC-001 Alpha Fund",
             "Market making",
             {new PositionItem(QStringLiteral("600519.SH"), 300, 1528.00)}},
            {"ACC-002 Beta Capital", "Trend", {}},
            {"ACC-002 Beta Capital",
             "Pairs",
             {new PositionItem(QStringLiteral("601318.SH"), 5000, 42.15),
              new PositionItem(QStringLiteral("601601.SH"), -4000, 27.30)}},
    };
    QMap<QString, Utils::TreeItem *> accounts;
    for (const auto &book : books) {
        const QString account = QString::fromUtf8(book.account);
        if (!accounts.contains(account)) {
            accounts.insert(account, new Utils::TreeItem({account}));
            model.rootItem()->appendChild(accounts.value(account));
        }
        accounts.value(account)->appendChild(
                new StrategyItem(QString::fromUtf8(book.strategy), book.positions));
    }
}

// The names of all items at one depth, left to right.
QString levelNames(const Utils::TreeModel &model, int level)
{
    QStringList names;
    for (Utils::TreeItem *item : model.untypedLevelItems(level))
        names << item->data(0, Qt::DisplayRole).toString();
    return names.join(QLatin1String(", "));
}

// A view on the model: the model asks it to expand the account and its first strategy, and
// Return activates the current row.
void browseInView(Utils::TreeView &view, Utils::TreeModel &model, Utils::TreeItem *account)
{
    view.setModel(&model);
    QObject::connect(&model, &Utils::TreeModel::requestExpansion, &view, &QTreeView::expand);
    QObject::connect(&view, &QAbstractItemView::activated, [](const QModelIndex &index) {
        say("  activated in the view: %s\n", index.data().toString());
    });
    view.resize(480, 300);
    view.show();
    account->expand();
    account->child(0)->expand();
    QStringList visible;
    for (QModelIndex index = model.index(0, 0); index.isValid(); index = view.indexBelow(index))
        visible << QString(2 * (model.itemFromIndex(index)->level() - 1), QLatin1Char(' '))
                        + index.data().toString();
    say("\n  Rows a trader sees after the model asked the view to expand \"%s\" and its first "
        "strategy:\n",
        account->data(0, Qt::DisplayRole).toString());
    for (const QString &row : qAsConst(visible))
        say("    | %s\n", row);
    view.setCurrentIndex(account->child(0)->child(1)->index());
    QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    QApplication::sendEvent(&view, &enter);
}
} // namespace

void tourTreeModel()
{
    section("9. Tree model and views (Utils::TreeModel, TreeItem, TreeItemVisitor, "
            "UntypedTreeLevelItems, Utils::TreeView)",
            "Accounts, strategies and positions in one model; a strategy loads its positions "
            "lazily,\nthe first time anything asks for its rows.");
    Utils::TreeModel model;
    model.setHeader({QStringLiteral("Name"), QStringLiteral("Quantity"), QStringLiteral("Price")});
    addBooks(model);

    say("\n  Level 1 (accounts):   %s\n", levelNames(model, 1));
    say("  Level 2 (strategies): %s\n", levelNames(model, 2));
    say("  Level 3 (positions), walking into every strategy:\n");
    say("  %s\n", levelNames(model, 3));

    say("\n  The whole tree, walked with a visitor that values each account:\n");
    ValuationVisitor valuation;
    model.rootItem()->walkTree(&valuation);

    Utils::TreeView view;
    Utils::TreeItem *alpha = model.rootItem()->child(0);
    browseInView(view, model, alpha);

    say("\n  A position closed: the model takes the item out and hands it over.\n");
    Utils::TreeItem *closed = alpha->child(0)->child(1);
    model.removeItem(closed);
    say("  %s\n",
        QStringLiteral("taken out: %1; the strategy now has %2 row(s)")
                .arg(closed->data(0, Qt::DisplayRole).toString())
                .arg(alpha->child(0)->rowCount()));
    delete closed;

    say("\n  Misuse is reported, not fatal (QTC_FATAL_ASSERTS makes it fatal):\n");
    model.removeItem(model.rootItem());
}

} // namespace krdemo
