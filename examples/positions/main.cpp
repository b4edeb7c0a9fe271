// A position book: accounts, their strategies and the strategies' positions in a
// Utils::TreeModel, shown in a Utils::TreeView. A strategy loads its positions when it is first
// expanded; Return (or a double click) on a row shows it below the tree.
//
//     positions_example                          the window
//     positions_example --screenshot out.png     expands a branch, activates a row, saves, quits

#include <krutils/TreeModel.h>
#include <krutils/TreeView.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QLocale>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>

namespace {

struct Position
{
    const char *code;
    int quantity;
    double price;
};

// One row of the book; strategies are lazy and load their positions on first look.
class BookItem : public Utils::TreeItem
{
public:
    BookItem(const QString &name, QVector<Position> positions = {}, bool lazy = false)
        : m_name(name), m_positions(std::move(positions))
    {
        setLazy(lazy);
    }

    QVariant data(int column, int role) const override
    {
        if (role == Qt::TextAlignmentRole && column > 0)
            return int(Qt::AlignRight | Qt::AlignVCenter);
        if (role != Qt::DisplayRole)
            return QVariant();
        const QLocale locale;
        switch (column) {
        case 0:
            return m_name;
        case 1:
            return m_quantity ? locale.toString(m_quantity) : QString();
        case 2:
            return m_price ? locale.toString(m_price, 'f', 2) : QString();
        case 3:
            return locale.toString(marketValue(), 'f', 2);
        }
        return QVariant();
    }

    void populate() override
    {
        for (const Position &position : qAsConst(m_positions)) {
            auto item = new BookItem(QString::fromLatin1(position.code));
            item->m_quantity = position.quantity;
            item->m_price = position.price;
            appendChild(item);
        }
    }

    // A position's value, or the sum of the rows below (loading them if need be).
    double marketValue() const
    {
        if (m_quantity)
            return m_quantity * m_price;
        double sum = 0;
        for (int row = 0; row < rowCount(); ++row)
            sum += static_cast<const BookItem *>(child(row))->marketValue();
        return sum;
    }

private:
    QString m_name;
    QVector<Position> m_positions;
    int m_quantity = 0;
    double m_price = 0;
};

Utils::TreeItem *makeBook()
{
    auto root = new BookItem(QString());
    auto alpha = new BookItem(QStringLiteral("ACC-001 Alpha Fund"));
    alpha->appendChild(new BookItem(QStringLiteral("Index arbitrage"),
                                    {{"510300.SH", 20000, 3.87}, {"510500.SH", -8000, 5.62}},
                                    true));
    alpha->appendChild(new BookItem(QStringLiteral("Market making"),
                                    {{"600519.SH", 300, 1528.00}, {"000858.SZ", 1200, 131.45}},
                                    true));
    auto beta = new BookItem(QStringLiteral("ACC-002 Beta Capital"));
    beta->appendChild(new BookItem(QStringLiteral("Pairs"),
                                   {{"601318.SH", 5000, 42.15}, {"601601.SH", -4000, 27.30}},
                                   true));
    beta->appendChild(new BookItem(QStringLiteral("Trend"), {}, true));
    root->appendChild(alpha);
    root->appendChild(beta);
    return root;
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption screenshot(
            QStringLiteral("screenshot"),
            QStringLiteral("Expand a branch, activate a row, save the window to <file> and quit."),
            QStringLiteral("file"));
    parser.addOption(screenshot);
    parser.process(app);

    Utils::TreeModel model(makeBook());
    model.setHeader({QStringLiteral("Account / strategy / position"), QStringLiteral("Quantity"),
                     QStringLiteral("Price"), QStringLiteral("Market value")});

    QWidget window;
    window.setWindowTitle(QStringLiteral("Position book"));
    auto layout = new QVBoxLayout(&window);
    auto view = new Utils::TreeView;
    view->setModel(&model);
    view->setAlternatingRowColors(true);
    view->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    auto status = new QLabel(QStringLiteral("Return or double click on a row shows it here."));
    layout->addWidget(view);
    layout->addWidget(status);
    QObject::connect(&model, &Utils::TreeModel::requestExpansion, view, &QTreeView::expand);
    QObject::connect(view, &QAbstractItemView::activated, status, [&](const QModelIndex &index) {
        const Utils::TreeItem *item = model.itemFromIndex(index);
        status->setText(QStringLiteral("Activated: %1 (level %2), market value %3")
                                .arg(index.siblingAtColumn(0).data().toString())
                                .arg(item->level())
                                .arg(index.siblingAtColumn(3).data().toString()));
    });
    for (Utils::TreeItem *account : model.untypedLevelItems(1))
        account->expand();
    window.resize(640, 340);
    window.show();

    if (parser.isSet(screenshot)) {
        Utils::TreeItem *marketMaking = model.rootItem()->child(0)->child(1);
        marketMaking->expand();
        view->setCurrentIndex(marketMaking->child(0)->index());
        QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
        QApplication::sendEvent(view, &enter);
        QTimer::singleShot(200, &window, [&] {
            const bool saved = window.grab().save(parser.value(screenshot));
            QCoreApplication::exit(saved ? 0 : 1);
        });
    }
    return app.exec();
}
