#include <krutils/ListView.h>
#include <krutils/ListWidget.h>
#include <krutils/TreeView.h>
#include <krutils/TreeWidget.h>

#include <QSignalSpy>
#include <QStringListModel>
#include <QtTest>

#include <memory>
#include <type_traits>

namespace {

template<class View> std::unique_ptr<View> make()
{
    auto view = std::make_unique<View>();
    const QString text = QStringLiteral("600519.SH");
    const Qt::ItemFlags editable = Qt::ItemIsSelectable | Qt::ItemIsEnabled | Qt::ItemIsEditable;
    if constexpr (std::is_same_v<View, Utils::ListWidget>)
        (new QListWidgetItem(text, view.get()))->setFlags(editable);
    else if constexpr (std::is_same_v<View, Utils::TreeWidget>)
        (new QTreeWidgetItem(view.get(), {text}))->setFlags(editable);
    else
        view->setModel(new QStringListModel({text}, view.get()));
    view->setCurrentIndex(view->model()->index(0, 0));
    return view;
}

// Runs `check` on each of the four views, each with one editable item, the current one.
template<class Check> void forEachView(const Check &check)
{
    check(make<Utils::ListView>().get());
    check(make<Utils::ListWidget>().get());
    check(make<Utils::TreeView>().get());
    check(make<Utils::TreeWidget>().get());
}

} // namespace

// The four item views: their class names, activation mode property and Return/Enter activation.
class tst_UtilsViews : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void activationMode_data()
    {
        QTest::addColumn<int>("mode"); // -1: other code sets the property
        QTest::addColumn<QVariant>("property");
        QTest::addColumn<int>("readBack");
        QTest::newRow("double click") << 0 << QVariant(false) << 0;
        QTest::newRow("single click") << 1 << QVariant(true) << 1;
        QTest::newRow("platform default removes the property") << 2 << QVariant() << 2;
        QTest::newRow("any other value is true") << 5 << QVariant(true) << 1;
        QTest::newRow("string \"0\" from other code") << -1 << QVariant("0") << 0;
        QTest::newRow("string \"true\" from other code") << -1 << QVariant("true") << 1;
        QTest::newRow("empty string from other code") << -1 << QVariant(QString()) << 0;
        QTest::newRow("integer 0 from other code") << -1 << QVariant(0) << 0;
        QTest::newRow("integer 7 from other code") << -1 << QVariant(7) << 1;
        QTest::newRow("removed by other code") << -1 << QVariant() << 2;
    }

    void activationMode()
    {
        QFETCH(int, mode);
        QFETCH(QVariant, property);
        QFETCH(int, readBack);
        forEachView([&](auto *view) {
            // A class of its own, named after its base; no mode until one is set.
            const QMetaObject *meta = view->metaObject();
            QCOMPARE(QByteArray(meta->className()),
                     "Utils::" + QByteArray(meta->superClass()->className()).mid(1));
            QCOMPARE(view->activationMode(), Utils::PlatformDefaultActivation);
            view->setActivationMode(Utils::ActivationMode(1 - readBack % 2)); // to be overwritten
            if (mode < 0)
                view->setProperty("ActivationMode", property);
            else
                view->setActivationMode(Utils::ActivationMode(mode));
            const QVariant stored = view->property("ActivationMode");
            QCOMPARE(stored, property);
            QCOMPARE(stored.userType(), property.userType());
            QCOMPARE(view->dynamicPropertyNames().contains("ActivationMode"), property.isValid());
            QCOMPARE(int(view->activationMode()), readBack);
        });
    }

    void returnActivates_data()
    {
        QTest::addColumn<int>("key");
        QTest::addColumn<Qt::KeyboardModifiers>("modifiers");
        QTest::addColumn<bool>("current");
        QTest::addColumn<bool>("editing");
        QTest::addColumn<bool>("byTheView"); // else the base class handled the key
        using Modifiers = Qt::KeyboardModifiers;
        const Modifiers none;
        QTest::newRow("Return") << int(Qt::Key_Return) << none << true << false << true;
        QTest::newRow("Enter") << int(Qt::Key_Enter) << none << true << false << true;
        QTest::newRow("keypad Enter")
                << int(Qt::Key_Enter) << Modifiers(Qt::KeypadModifier) << true << false << false;
        QTest::newRow("Shift+Return")
                << int(Qt::Key_Return) << Modifiers(Qt::ShiftModifier) << true << false << false;
        QTest::newRow("no current item") << int(Qt::Key_Return) << none << false << false << false;
        QTest::newRow("editor open") << int(Qt::Key_Return) << none << true << true << false;
        QTest::newRow("another key") << int(Qt::Key_Space) << none << true << false << false;
    }

    void returnActivates()
    {
        QFETCH(int, key);
        QFETCH(Qt::KeyboardModifiers, modifiers);
        QFETCH(bool, current);
        QFETCH(bool, editing);
        QFETCH(bool, byTheView);
        forEachView([&](QAbstractItemView *view) {
            view->show();
            QVERIFY(QTest::qWaitForWindowExposed(view));
            if (!current)
                view->setCurrentIndex(QModelIndex());
            if (editing) {
                view->edit(view->currentIndex());
                view->clearFocus();
            }
            QCOMPARE(view->indexWidget(view->currentIndex()) != nullptr, editing);
            QSignalSpy activated(view, &QAbstractItemView::activated);

            // The base class ignores Return and Enter (and activates, too, in some states); the
            // view's own activation keeps the event accepted and activates exactly once.
            QKeyEvent event(QEvent::KeyPress, key, modifiers);
            QApplication::sendEvent(view, &event);
            QVERIFY2((event.isAccepted() && activated.count() == 1) == byTheView,
                     view->metaObject()->className());
            if (byTheView)
                QCOMPARE(activated.first().first().toModelIndex(), view->currentIndex());
        });
    }
};

QTEST_MAIN(tst_UtilsViews)
#include "tst_utilsviews.moc"
