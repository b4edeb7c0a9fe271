#include <krutils/ListView.h>
#include <krutils/ListWidget.h>
#include <krutils/TreeView.h>
#include <krutils/TreeWidget.h>

#include <QSignalSpy>
#include <QStandardItemModel>
#include <QStringListModel>
#include <QtTest>

#include <functional>
#include <memory>

namespace {

// The four views, each with three items and the first one current.
std::unique_ptr<QAbstractItemView> makeView(const QString &kind)
{
    const QStringList items {QStringLiteral("600519.SH"), QStringLiteral("000001.SZ"),
                             QStringLiteral("300750.SZ")};
    std::unique_ptr<QAbstractItemView> view;
    if (kind == QLatin1String("ListWidget")) {
        auto *list = new Utils::ListWidget;
        for (const QString &item : items) {
            auto *listItem = new QListWidgetItem(item, list);
            listItem->setFlags(listItem->flags() | Qt::ItemIsEditable);
        }
        view.reset(list);
    } else if (kind == QLatin1String("TreeWidget")) {
        auto *tree = new Utils::TreeWidget;
        for (const QString &item : items) {
            auto *treeItem = new QTreeWidgetItem(QStringList {item});
            treeItem->setFlags(treeItem->flags() | Qt::ItemIsEditable);
            tree->addTopLevelItem(treeItem);
        }
        view.reset(tree);
    } else {
        if (kind == QLatin1String("ListView"))
            view.reset(new Utils::ListView);
        else
            view.reset(new Utils::TreeView);
        auto *model = new QStandardItemModel(view.get());
        for (const QString &item : items)
            model->appendRow(new QStandardItem(item));
        view->setModel(model);
    }
    view->setCurrentIndex(view->model()->index(0, 0));
    return view;
}

// The activation mode through each class's own interface.
void setMode(QAbstractItemView *view, int mode)
{
    const auto activationMode = Utils::ActivationMode(mode);
    if (auto *list = qobject_cast<Utils::ListView *>(view))
        list->setActivationMode(activationMode);
    else if (auto *listWidget = qobject_cast<Utils::ListWidget *>(view))
        listWidget->setActivationMode(activationMode);
    else if (auto *tree = qobject_cast<Utils::TreeView *>(view))
        tree->setActivationMode(activationMode);
    else if (auto *treeWidget = qobject_cast<Utils::TreeWidget *>(view))
        treeWidget->setActivationMode(activationMode);
}

int modeOf(const QAbstractItemView *view)
{
    if (auto *list = qobject_cast<const Utils::ListView *>(view))
        return list->activationMode();
    if (auto *listWidget = qobject_cast<const Utils::ListWidget *>(view))
        return listWidget->activationMode();
    if (auto *tree = qobject_cast<const Utils::TreeView *>(view))
        return tree->activationMode();
    if (auto *treeWidget = qobject_cast<const Utils::TreeWidget *>(view))
        return treeWidget->activationMode();
    return -1;
}

const QStringList viewKinds {QStringLiteral("ListView"), QStringLiteral("ListWidget"),
                             QStringLiteral("TreeView"), QStringLiteral("TreeWidget")};

} // namespace

// The four item views: their activation mode property and Return/Enter activation.
class tst_UtilsViews : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void classNames();
    void activationMode_data();
    void activationMode();
    void modeSetByOtherCode_data();
    void modeSetByOtherCode();
    void returnActivates_data();
    void returnActivates();
};

void tst_UtilsViews::classNames()
{
    for (const QString &kind : viewKinds) {
        const auto view = makeView(kind);
        QCOMPARE(QString::fromLatin1(view->metaObject()->className()),
                 QStringLiteral("Utils::") + kind);
        QCOMPARE(modeOf(view.get()), int(Utils::PlatformDefaultActivation));
        QVERIFY(view->dynamicPropertyNames().isEmpty());
    }
}

void tst_UtilsViews::activationMode_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QVariant>("property");
    QTest::addColumn<int>("readBack");

    QTest::newRow("double click") << 0 << QVariant(false) << 0;
    QTest::newRow("single click") << 1 << QVariant(true) << 1;
    QTest::newRow("platform default removes the property") << 2 << QVariant() << 2;
    QTest::newRow("any other value is true") << 5 << QVariant(true) << 1;
}

void tst_UtilsViews::activationMode()
{
    QFETCH(int, mode);
    QFETCH(QVariant, property);
    QFETCH(int, readBack);

    for (const QString &kind : viewKinds) {
        const auto view = makeView(kind);
        setMode(view.get(), 1 - readBack % 2); // something else first, to be overwritten
        setMode(view.get(), mode);
        QCOMPARE(view->property("ActivationMode"), property);
        QCOMPARE(view->dynamicPropertyNames().contains("ActivationMode"), property.isValid());
        QCOMPARE(modeOf(view.get()), readBack);
    }
}

void tst_UtilsViews::modeSetByOtherCode_data()
{
    QTest::addColumn<QVariant>("property");
    QTest::addColumn<int>("mode");

    QTest::newRow("string \"0\"") << QVariant(QStringLiteral("0")) << 0;
    QTest::newRow("string \"true\"") << QVariant(QStringLiteral("true")) << 1;
    QTest::newRow("empty string") << QVariant(QString()) << 0;
    QTest::newRow("integer 0") << QVariant(0) << 0;
    QTest::newRow("integer 7") << QVariant(7) << 1;
    QTest::newRow("removed") << QVariant() << 2;
}

void tst_UtilsViews::modeSetByOtherCode()
{
    QFETCH(QVariant, property);
    QFETCH(int, mode);

    for (const QString &kind : viewKinds) {
        const auto view = makeView(kind);
        setMode(view.get(), Utils::SingleClickActivation);
        view->setProperty("ActivationMode", property);
        QCOMPARE(modeOf(view.get()), mode);
    }
}

void tst_UtilsViews::returnActivates_data()
{
    QTest::addColumn<int>("key");
    QTest::addColumn<Qt::KeyboardModifiers>("modifiers");
    QTest::addColumn<bool>("current");
    QTest::addColumn<bool>("editing");
    QTest::addColumn<bool>("byTheView"); // else the base class handled the key

    QTest::newRow("Return") << int(Qt::Key_Return) << Qt::KeyboardModifiers() << true << false
                            << true;
    QTest::newRow("Enter") << int(Qt::Key_Enter) << Qt::KeyboardModifiers() << true << false
                           << true;
    QTest::newRow("keypad Enter") << int(Qt::Key_Enter) << Qt::KeyboardModifiers(Qt::KeypadModifier)
                                  << true << false << false;
    QTest::newRow("Shift+Return") << int(Qt::Key_Return) << Qt::KeyboardModifiers(Qt::ShiftModifier)
                                  << true << false << false;
    QTest::newRow("no current item")
            << int(Qt::Key_Return) << Qt::KeyboardModifiers() << false << false << false;
    QTest::newRow("editor open") << int(Qt::Key_Return) << Qt::KeyboardModifiers() << true << true
                                 << false;
    QTest::newRow("another key") << int(Qt::Key_Space) << Qt::KeyboardModifiers() << true << false
                                 << false;
}

void tst_UtilsViews::returnActivates()
{
    QFETCH(int, key);
    QFETCH(Qt::KeyboardModifiers, modifiers);
    QFETCH(bool, current);
    QFETCH(bool, editing);
    QFETCH(bool, byTheView);

    for (const QString &kind : viewKinds) {
        const auto view = makeView(kind);
        view->show();
        QVERIFY(QTest::qWaitForWindowExposed(view.get()));
        if (!current)
            view->setCurrentIndex(QModelIndex());
        if (editing) {
            view->edit(view->currentIndex());
            view->clearFocus();
        }
        QCOMPARE(view->indexWidget(view->currentIndex()) != nullptr, editing);
        QSignalSpy activated(view.get(), &QAbstractItemView::activated);

        // The base class ignores Return and Enter (and activates, too, in some states); the
        // view's own activation keeps the event accepted and activates exactly once.
        QKeyEvent event(QEvent::KeyPress, key, modifiers);
        QApplication::sendEvent(view.get(), &event);
        const bool handledByTheView = event.isAccepted() && activated.count() == 1;
        QVERIFY2(handledByTheView == byTheView, qPrintable(kind));
        if (byTheView)
            QCOMPARE(activated.first().first().toModelIndex(), view->currentIndex());
    }
}

QTEST_MAIN(tst_UtilsViews)
#include "tst_utilsviews.moc"
