// An order page with one-key and two-key shortcuts (KrShortcutMgr).
//
// Click into the symbol field or the order table and press F2, F3, Ctrl+S, or Ctrl+K followed
// within a second by Ctrl+B or Ctrl+S. The list at the bottom shows what fired, with the ids
// the page registered under.
//
//     shortcuts_example                        the window
//     shortcuts_example --screenshot out.png   types a few keys itself, saves the window, quits

#include <krdefine/krdefine.h>
#include <krutils/KrShortcutMgr.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QTableWidget>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>

namespace {

struct Shortcut
{
    QKeySequence keys;
    int id;
    QString action;
};

const QList<Shortcut> &pageShortcuts()
{
    static const QList<Shortcut> shortcuts {
            {QKeySequence(Qt::Key_F2), 1, QStringLiteral("buy")},
            {QKeySequence(Qt::Key_F3), 2, QStringLiteral("sell")},
            {QKeySequence(Qt::CTRL + Qt::Key_S), 3, QStringLiteral("save the order list")},
            {QKeySequence(Qt::CTRL + Qt::Key_K, Qt::CTRL + Qt::Key_B), 4,
             QStringLiteral("cancel all buys")},
            {QKeySequence(Qt::CTRL + Qt::Key_K, Qt::CTRL + Qt::Key_S), 5,
             QStringLiteral("cancel all sells")}};
    return shortcuts;
}

class OrderPage : public QWidget
{
public:
    OrderPage()
    {
        setWindowTitle(QStringLiteral("krutils shortcuts example"));
        auto *symbol = new QLineEdit;
        symbol->setPlaceholderText(QStringLiteral("symbol, e.g. 600519.SH"));
        auto *orders = new QTableWidget(3, 4);
        orders->setHorizontalHeaderLabels({QStringLiteral("Symbol"), QStringLiteral("Side"),
                                           QStringLiteral("Qty"), QStringLiteral("Price")});
        const QStringList rows[] = {{"600519.SH", "Buy", "100", "1712.50"},
                                    {"000001.SZ", "Sell", "5000", "10.32"},
                                    {"300750.SZ", "Buy", "200", "168.80"}};
        for (int row = 0; row < 3; ++row) {
            for (int column = 0; column < 4; ++column)
                orders->setItem(row, column, new QTableWidgetItem(rows[row].at(column)));
        }
        orders->horizontalHeader()->setStretchLastSection(true);
        orders->setMaximumHeight(135);

        QStringList help;
        for (const Shortcut &shortcut : pageShortcuts()) {
            help << QStringLiteral("%1: %2").arg(shortcut.keys.toString(QKeySequence::NativeText),
                                                 shortcut.action);
        }
        auto *declared = new QLabel(QStringLiteral("Shortcuts of this page: ")
                                    + help.join(QStringLiteral(" | ")));
        declared->setWordWrap(true);
        m_fired = new QListWidget;

        auto *layout = new QVBoxLayout(this);
        layout->addWidget(symbol);
        layout->addWidget(orders);
        layout->addWidget(declared);
        layout->addWidget(new QLabel(QStringLiteral("Fired:")));
        layout->addWidget(m_fired);
        resize(620, 420);

        KrShortcutMgr *manager = KrShortcutMgr::instance();
        manager->RegisterObject(this, {symbol, orders}, QStringLiteral("orderPage#1"),
                                QStringLiteral("trading"));
        for (const Shortcut &shortcut : pageShortcuts()) {
            manager->AlterShortcutInfo(this, Orvex_Values::AlterType::create, shortcut.keys,
                                       shortcut.id, {{QStringLiteral("action"), shortcut.action}});
        }
        // Announcements come from the manager's sender thread; this queued connection brings
        // them to the GUI thread.
        connect(manager, &KrShortcutMgr::signalShortcutTriggered, this,
                [this](QObject *, int id, const QVariantMap &infoMap, const QString &pluginInstId,
                       const QString &menuId) {
                    m_fired->addItem(
                            QStringLiteral("id %1  %2  (page %3, menu %4)")
                                    .arg(id)
                                    .arg(infoMap.value(QStringLiteral("action")).toString(),
                                         pluginInstId, menuId));
                    m_fired->scrollToBottom();
                });
        m_typeInto = symbol;
    }

    ~OrderPage() override { KrShortcutMgr::instance()->UnregisterObject(this); }

    // What a keyboard sends for one key with modifiers, into the symbol field.
    void type(Qt::Key key, Qt::KeyboardModifiers modifiers = Qt::NoModifier)
    {
        const auto send = [this](QEvent::Type type, int sent, Qt::KeyboardModifiers held) {
            QKeyEvent event(type, sent, held);
            QCoreApplication::sendEvent(m_typeInto, &event);
        };
        if (modifiers & Qt::ControlModifier)
            send(QEvent::KeyPress, Qt::Key_Control, modifiers);
        send(QEvent::KeyPress, key, modifiers);
        send(QEvent::KeyRelease, key, modifiers);
        if (modifiers & Qt::ControlModifier)
            send(QEvent::KeyRelease, Qt::Key_Control, Qt::NoModifier);
    }

private:
    QListWidget *m_fired = nullptr;
    QWidget *m_typeInto = nullptr;
};

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption screenshot(QStringLiteral("screenshot"),
                                        QStringLiteral("Type a few keys, save the window to "
                                                       "<file> and quit."),
                                        QStringLiteral("file"));
    parser.addOption(screenshot);
    parser.process(app);

    OrderPage page;
    page.show();
    if (parser.isSet(screenshot)) {
        page.type(Qt::Key_F2);
        page.type(Qt::Key_K, Qt::ControlModifier);
        page.type(Qt::Key_B, Qt::ControlModifier);
        page.type(Qt::Key_F3);
        page.type(Qt::Key_S, Qt::ControlModifier);
        // Give the announcements time to arrive from the sender thread.
        QTimer::singleShot(300, &page, [&] {
            const bool saved = page.grab().save(parser.value(screenshot));
            QCoreApplication::exit(saved ? 0 : 1);
        });
    }
    return app.exec();
}
