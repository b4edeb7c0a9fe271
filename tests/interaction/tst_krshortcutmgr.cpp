#include "KrTestSupport.h"

#include <krdefine/krdefine.h>
#include <krutils/KrShortcutMgr.h>

#include <QAbstractEventDispatcher>
#include <QDir>
#include <QElapsedTimer>
#include <QtTest>

#include <algorithm>

namespace {

// A child widget of a page that takes every key event that reaches it and notes it as "+K"
// (press), "%K" (auto-repeated press) or "-K" (release): the events the manager let through.
class KeyProbe : public QWidget
{
public:
    using QWidget::QWidget;
    QStringList seen;

protected:
    void keyPressEvent(QKeyEvent *event) override { note(event); }
    void keyReleaseEvent(QKeyEvent *event) override { note(event); }

private:
    void note(QKeyEvent *event)
    {
        const QChar kind = event->type() == QEvent::KeyRelease ? QLatin1Char('-')
                : event->isAutoRepeat()                        ? QLatin1Char('%')
                                                               : QLatin1Char('+');
        seen << kind + keyNameMap.value(event->key(), QString::number(event->key()));
        event->accept();
    }
};

struct Announcement
{
    QThread *thread;
    QObject *obj;
    int id;
    QVariantMap infoMap;
    QString pluginInstId;
    QString menuId;
};

// "Ctrl+K" -> (Qt::Key_K, Qt::ControlModifier); lone modifiers by name.
QPair<Qt::Key, Qt::KeyboardModifiers> parseKey(const QString &text)
{
    static const QMap<QString, Qt::Key> modifierKeys {{QStringLiteral("Ctrl"), Qt::Key_Control},
                                                      {QStringLiteral("Shift"), Qt::Key_Shift},
                                                      {QStringLiteral("Alt"), Qt::Key_Alt},
                                                      {QStringLiteral("Meta"), Qt::Key_Meta}};
    if (modifierKeys.contains(text))
        return {modifierKeys.value(text), Qt::NoModifier};
    const int code = QKeySequence::fromString(text, QKeySequence::PortableText)[0];
    return {Qt::Key(code & ~Qt::KeyboardModifierMask),
            Qt::KeyboardModifiers(code & Qt::KeyboardModifierMask)};
}

// "Ctrl+K, Ctrl+D=12" -> (sequence, 12).
QPair<QKeySequence, int> parseShortcut(const QString &text)
{
    const int equals = text.lastIndexOf(QLatin1Char('='));
    const QString keys = text.left(equals);
    const QKeySequence sequence = keys == QLatin1String("Ctrl")
            ? QKeySequence(Qt::Key_Control)
            : QKeySequence::fromString(keys, QKeySequence::PortableText);
    return {sequence, text.mid(equals + 1).toInt()};
}

// Threads of this process whose system name begins with the prefix (Linux names a thread after
// its QThread's object name, cut to 15 characters).
int threadsNamed(const QByteArray &prefix)
{
    int count = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + QStringLiteral("/comm")));
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().startsWith(prefix))
            ++count;
    }
    return count;
}

} // namespace

// The shortcut manager driven through real key events on a shown page whose registered
// children receive the keys. Time-outs are delivered as timer events, except in one test.
class tst_KrShortcutMgr : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void keyNames_data();
    void keyNames();
    void keyNameMapShape();
    void modifierNames();
    void printableCharacters();

    void recognises_data();
    void recognises();
    void announcesTheRegisteredWidget();
    void guiReceiverIsCalledAfterTheKeyEvent();
    void announcementsKeepTheirOrder();
    void twoKeyWindowWithRealWait();
    void timeOutCanStillAnnounce();

    void registeringAgainReplacesTheChildList();
    void registrationIds();
    void unregisterForgetsTheWidget();
    void destroyedWidgetsAreForgotten();

    void createTwiceIsRefused();
    void alterShortcutInfo_data();
    void alterShortcutInfo();
    void unknownShortcutGivesDefaultRecord();

private:
    KrShortcutMgr *manager() const { return KrShortcutMgr::instance(); }
    void create(const QString &shortcut);
    void play(const QString &script);
    QList<int> managerTimers() const;
    void timeOut();
    void flushAnnouncements();
    QVector<Announcement> announcements();
    QList<int> announcedIds();

    QMutex m_mutex;
    QVector<Announcement> m_announcements;
    QObject *m_onSenderThread = nullptr;

    QWidget *m_page = nullptr;
    KeyProbe *m_child = nullptr;
    KeyProbe *m_other = nullptr;
    KeyProbe *m_stray = nullptr; // a child of the page that is not registered
};

void tst_KrShortcutMgr::initTestCase()
{
    QCOMPARE(threadsNamed("ShortcutSender"), 0);

    connect(
            manager(), &KrShortcutMgr::signalShortcutTriggered, this,
            [this](QObject *obj, int id, const QVariantMap &infoMap, const QString &pluginInstId,
                   const QString &menuId) {
                QMutexLocker locker(&m_mutex);
                m_announcements.append(
                        {QThread::currentThread(), obj, id, infoMap, pluginInstId, menuId});
            },
            Qt::DirectConnection);

    // The first shortcut creates the sender thread; a helper object on it lets the tests wait
    // until everything recognised so far has been announced.
    init();
    create(QStringLiteral("F1=1"));
    play(QStringLiteral("*F1"));
    QTRY_COMPARE(announcements().size(), 1);
    QThread *senderThread = announcements().first().thread;
    QCOMPARE(senderThread->objectName(), QStringLiteral("ShortcutSenderThread"));
    QCOMPARE(threadsNamed("ShortcutSender"), 1);
    m_onSenderThread = new QObject;
    m_onSenderThread->moveToThread(senderThread);
    cleanup();
}

void tst_KrShortcutMgr::init()
{
    m_page = new QWidget;
    m_page->resize(200, 100);
    m_child = new KeyProbe(m_page);
    m_other = new KeyProbe(m_page);
    m_stray = new KeyProbe(m_page);
    m_page->show();
    QVERIFY(QTest::qWaitForWindowExposed(m_page));
    manager()->RegisterObject(m_page, {m_child, m_other}, QStringLiteral("inst-1"),
                              QStringLiteral("menu-1"));
}

void tst_KrShortcutMgr::cleanup()
{
    // A release that opens nothing ends any sequence a test left open, and the sequence's
    // timers go with it.
    QTest::keyRelease(m_child, Qt::Key_Escape);
    timeOut();
    QCOMPARE(managerTimers().size(), 0);
    delete m_page;
    flushAnnouncements();
    QMutexLocker locker(&m_mutex);
    m_announcements.clear();
}

void tst_KrShortcutMgr::cleanupTestCase()
{
    m_onSenderThread->deleteLater();
}

void tst_KrShortcutMgr::create(const QString &shortcut)
{
    const auto [sequence, id] = parseShortcut(shortcut);
    QVERIFY(manager()->AlterShortcutInfo(m_page, Orvex_Values::AlterType::create, sequence, id,
                                         {{QStringLiteral("id"), id}}));
}

// Steps separated by spaces, each on the registered child: "+Ctrl+K" press (QTest presses the
// modifiers first), "-Ctrl+K" release (the modifiers after), "*Ctrl+K" both, "%A" an
// auto-repeated press, "~" the sequence time-out.
void tst_KrShortcutMgr::play(const QString &script)
{
    for (const QString &step : script.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (step == QLatin1String("~")) {
            timeOut();
            continue;
        }
        const auto [key, modifiers] = parseKey(step.mid(1));
        switch (step.at(0).toLatin1()) {
        case '+':
            QTest::keyPress(m_child, key, modifiers);
            break;
        case '-':
            QTest::keyRelease(m_child, key, modifiers);
            break;
        case '*':
            QTest::keyClick(m_child, key, modifiers);
            break;
        case '%': {
            QKeyEvent repeated(QEvent::KeyPress, key, modifiers, QString(), true);
            QApplication::sendEvent(m_child, &repeated);
            break;
        }
        default:
            QFAIL(qPrintable(QStringLiteral("bad step ") + step));
        }
    }
}

QList<int> tst_KrShortcutMgr::managerTimers() const
{
    QList<int> ids;
    for (const auto &timer : QAbstractEventDispatcher::instance()->registeredTimers(manager()))
        ids << timer.timerId;
    return ids;
}

void tst_KrShortcutMgr::timeOut()
{
    for (int id : managerTimers())
        sendTimerEvents(manager(), id);
}

void tst_KrShortcutMgr::flushAnnouncements()
{
    if (m_onSenderThread)
        waitForQueuedReports(m_onSenderThread);
}

QVector<Announcement> tst_KrShortcutMgr::announcements()
{
    QMutexLocker locker(&m_mutex);
    return m_announcements;
}

QList<int> tst_KrShortcutMgr::announcedIds()
{
    flushAnnouncements();
    QList<int> ids;
    for (const Announcement &announcement : announcements())
        ids << announcement.id;
    return ids;
}

void tst_KrShortcutMgr::keyNames_data()
{
    QTest::addColumn<int>("key");
    QTest::addColumn<QString>("name");

    QTest::newRow("Delete: the later name wins") << int(Qt::Key_Delete) << "Del";
    QTest::newRow("AltGr: the combination text") << int(Qt::Key_AltGr) << "Ctrl+Alt+";
    QTest::newRow("Meta is the Windows key") << int(Qt::Key_Meta) << "Win";
    QTest::newRow("Backtab") << int(Qt::Key_Backtab) << "Shift+Tab";
    QTest::newRow("Backspace") << int(Qt::Key_Backspace) << "BackSpace";
    QTest::newRow("Insert") << int(Qt::Key_Insert) << "Ins";
    QTest::newRow("PageDown") << int(Qt::Key_PageDown) << "PgDown";
    QTest::newRow("F1") << int(Qt::Key_F1) << "F1";
    QTest::newRow("F35") << int(Qt::Key_F35) << "F35";
    QTest::newRow("Space") << int(Qt::Key_Space) << "Space";
}

void tst_KrShortcutMgr::keyNames()
{
    QFETCH(int, key);
    QFETCH(QString, name);
    QCOMPARE(keyNameMap.value(key), name);
}

void tst_KrShortcutMgr::keyNameMapShape()
{
    QCOMPARE(keyNameMap.size(), 132);
    for (int code = 33; code <= 126; ++code) {
        const bool lowerCase = code >= 97 && code <= 122;
        QCOMPARE(keyNameMap.contains(code), !lowerCase);
        if (!lowerCase)
            QCOMPARE(keyNameMap.value(code), QString(QLatin1Char(char(code))));
    }
    QVERIFY(!keyNameMap.contains(Qt::Key_F35 + 1));
    QVERIFY(!keyNameMap.contains(Qt::Key_unknown));
}

void tst_KrShortcutMgr::modifierNames()
{
    const QMap<int, QString> expected {{Qt::Key_Shift, QStringLiteral("Shift")},
                                       {Qt::Key_Control, QStringLiteral("Ctrl")},
                                       {Qt::Key_Meta, QStringLiteral("Win")},
                                       {Qt::Key_Alt, QStringLiteral("Alt")},
                                       {int(Qt::MetaModifier), QStringLiteral("Meta")},
                                       {int(Qt::KeypadModifier), QStringLiteral("Keypad")}};
    QCOMPARE(modifierNameMap, expected);
}

void tst_KrShortcutMgr::printableCharacters()
{
    QCOMPARE(printableCharList.size(), 95);
    QList<char> sorted = printableCharList;
    std::sort(sorted.begin(), sorted.end());
    for (int i = 0; i < sorted.size(); ++i)
        QCOMPARE(int(sorted.at(i)), 0x20 + i);
    QVERIFY(sorted != printableCharList);
}

void tst_KrShortcutMgr::recognises_data()
{
    QTest::addColumn<QStringList>("shortcuts");
    QTest::addColumn<QString>("script");
    QTest::addColumn<QList<int>>("fired");
    QTest::addColumn<QString>("letThrough"); // the key events that reached the child

    const QStringList ctrlS {QStringLiteral("Ctrl+S=1")};
    const QStringList pairKD {QStringLiteral("Ctrl+K, Ctrl+D=12")};

    QTest::newRow("one key: the press is consumed, nothing fires yet")
            << ctrlS << "+Ctrl+S" << QList<int>() << "+Ctrl";
    QTest::newRow("one key fires on its release; the modifier's release passes")
            << ctrlS << "*Ctrl+S" << QList<int> {1} << "+Ctrl -Ctrl";
    QTest::newRow("the same shortcut twice")
            << ctrlS << "*Ctrl+S *Ctrl+S" << QList<int> {1, 1} << "+Ctrl -Ctrl +Ctrl -Ctrl";
    QTest::newRow("Shift+F5 is F5")
            << QStringList {"F5=5"} << "*Shift+F5" << QList<int> {5} << "+Shift -Shift";
    QTest::newRow("Ctrl+Shift+A is Ctrl+A") << QStringList {"Ctrl+A=6"} << "*Ctrl+Shift+A"
                                            << QList<int> {6} << "+Shift +Ctrl -Ctrl -Shift";
    QTest::newRow("keypad Enter with Ctrl is Ctrl+Return")
            << QStringList {"Ctrl+Return=7"} << "*Ctrl+Num+Enter" << QList<int> {7}
            << "+Ctrl -Ctrl";
    QTest::newRow("Meta and Alt are part of the code")
            << QStringList {"Meta+Alt+X=8"} << "*Meta+Alt+X" << QList<int> {8}
            << "+Alt +Win -Win -Alt";
    QTest::newRow("Meta and Alt must both be held")
            << QStringList {"Meta+Alt+X=8"} << "*Alt+X" << QList<int>() << "+Alt +X -X -Alt";
    QTest::newRow("a shifted character is its own key")
            << QStringList {"Ctrl+1=9"} << "*Ctrl+!" << QList<int>() << "+Ctrl +! -! -Ctrl";
    QTest::newRow("Backspace never fires") << QStringList {"Backspace=10"} << "*Backspace"
                                           << QList<int>() << "+BackSpace -BackSpace";
    QTest::newRow("a lone modifier never fires")
            << QStringList {"Ctrl=11"} << "*Ctrl" << QList<int>() << "+Ctrl -Ctrl";
    QTest::newRow("two keys within the second")
            << pairKD << "*Ctrl+K *Ctrl+D" << QList<int> {12} << "+Ctrl +Ctrl -Ctrl";
    QTest::newRow("the pair is dropped at the time-out")
            << pairKD << "*Ctrl+K ~ *Ctrl+D" << QList<int>() << "+Ctrl +Ctrl +D -D -Ctrl";
    QTest::newRow("after the time-out the second key counts alone")
            << QStringList {"Ctrl+K, Ctrl+D=12", "Ctrl+D=13"} << "*Ctrl+K ~ *Ctrl+D"
            << QList<int> {13} << "+Ctrl +Ctrl -Ctrl";
    QTest::newRow("an unknown pair falls back to its second key")
            << QStringList {"Ctrl+K, Ctrl+X=14", "Ctrl+D=13"} << "*Ctrl+K *Ctrl+D"
            << QList<int> {13} << "+Ctrl +Ctrl -Ctrl";
    QTest::newRow("a key that opens no sequence forms no pair")
            << QStringList {"Ctrl+D=13"} << "*Ctrl+K *Ctrl+D" << QList<int> {13}
            << "+Ctrl +K -K -Ctrl +Ctrl -Ctrl";
    QTest::newRow("an unknown second key ends the sequence")
            << pairKD << "*Ctrl+K *Ctrl+Y *Ctrl+D" << QList<int>()
            << "+Ctrl +Ctrl +Y -Y -Ctrl +Ctrl +D -D -Ctrl";
    QTest::newRow("a third key while the second is down settles the pair")
            << pairKD << "*Ctrl+K +Ctrl+D +Ctrl+X -Ctrl+X -Ctrl+D" << QList<int> {12}
            << "+Ctrl +Ctrl +Ctrl -X -Ctrl -D -Ctrl";
    QTest::newRow("auto-repeated presses pass and add no key")
            << QStringList {"A=1", "A, A=2"} << "+A %A %A -A" << QList<int> {1} << "%A %A";
}

void tst_KrShortcutMgr::recognises()
{
    QFETCH(QStringList, shortcuts);
    QFETCH(QString, script);
    QFETCH(QList<int>, fired);
    QFETCH(QString, letThrough);

    for (const QString &shortcut : shortcuts)
        create(shortcut);
    play(script);
    QCOMPARE(m_child->seen.join(QLatin1Char(' ')), letThrough);
    QCOMPARE(announcedIds(), fired);
}

void tst_KrShortcutMgr::announcesTheRegisteredWidget()
{
    MessageCapture capture;
    const QVariantMap infoMap {{QStringLiteral("side"), QStringLiteral("buy")},
                               {QStringLiteral("qty"), 100}};
    QVERIFY(manager()->AlterShortcutInfo(m_page, Orvex_Values::AlterType::create,
                                         QKeySequence(Qt::CTRL + Qt::Key_B), 21, infoMap));
    play(QStringLiteral("+Ctrl+B"));
    flushAnnouncements();
    QVERIFY(announcements().isEmpty());

    play(QStringLiteral("-Ctrl+B"));
    QCOMPARE(announcedIds(), QList<int> {21});
    const Announcement announced = announcements().first();
    QCOMPARE(announced.obj, m_page);
    QCOMPARE(announced.infoMap, infoMap);
    QCOMPARE(announced.pluginInstId, QStringLiteral("inst-1"));
    QCOMPARE(announced.menuId, QStringLiteral("menu-1"));
    QCOMPARE(announced.thread->objectName(), QStringLiteral("ShortcutSenderThread"));

    const auto lines = capture.matching(QtInfoMsg, QStringLiteral("ShortcutSender::"));
    QCOMPARE(lines.size(), 1);
    QString page;
    QDebug(&page).nospace() << static_cast<const void *>(m_page);
    QCOMPARE(lines.first().text,
             QStringLiteral("ShortcutSender::slotSendShortcut 快捷键触发： ") + page
                     + QStringLiteral(" 21 \"inst-1\" \"menu-1\" QMap((\"qty\", QVariant(int, "
                                      "100))(\"side\", QVariant(QString, \"buy\")))"));
    QCOMPARE(lines.first().file, QStringLiteral("shell/krutils/ShortcutSender"));
}

void tst_KrShortcutMgr::guiReceiverIsCalledAfterTheKeyEvent()
{
    create(QStringLiteral("Ctrl+S=1"));
    bool insideKeyEvent = false;
    QVector<bool> calledInside;
    QVector<QThread *> calledOn;
    QMetaObject::Connection connection
            = connect(manager(), &KrShortcutMgr::signalShortcutTriggered, this, [&] {
                  calledInside << insideKeyEvent;
                  calledOn << QThread::currentThread();
              });

    play(QStringLiteral("+Ctrl+S"));
    insideKeyEvent = true;
    QTest::keyRelease(m_child, Qt::Key_S, Qt::ControlModifier);
    insideKeyEvent = false;
    QTRY_COMPARE(calledInside.size(), 1);
    disconnect(connection);
    QCOMPARE(calledInside.first(), false);
    QCOMPARE(calledOn.first(), QThread::currentThread());
}

void tst_KrShortcutMgr::announcementsKeepTheirOrder()
{
    const QList<Qt::Key> digits {Qt::Key_1, Qt::Key_2, Qt::Key_3, Qt::Key_4, Qt::Key_5};
    for (int i = 0; i < digits.size(); ++i) {
        QVERIFY(manager()->AlterShortcutInfo(m_page, Orvex_Values::AlterType::create,
                                             QKeySequence(Qt::CTRL + digits.at(i)), i + 1, {}));
    }
    for (Qt::Key digit : {Qt::Key_3, Qt::Key_1, Qt::Key_5, Qt::Key_2, Qt::Key_4, Qt::Key_3})
        QTest::keyClick(m_child, digit, Qt::ControlModifier);
    QCOMPARE(announcedIds(), (QList<int> {3, 1, 5, 2, 4, 3}));
}

void tst_KrShortcutMgr::twoKeyWindowWithRealWait()
{
    create(QStringLiteral("Ctrl+K, Ctrl+D=12"));
    play(QStringLiteral("*Ctrl+K"));
    QVERIFY(!managerTimers().isEmpty());
    QElapsedTimer elapsed;
    elapsed.start();
    QTRY_VERIFY_WITH_TIMEOUT(managerTimers().isEmpty(), 5000);
    // A coarse one-second timer fires within 5 % of its interval.
    QVERIFY2(elapsed.elapsed() >= 900, qPrintable(QString::number(elapsed.elapsed())));
    play(QStringLiteral("*Ctrl+D"));
    QCOMPARE(announcedIds(), QList<int>());
    QCOMPARE(m_child->seen.join(QLatin1Char(' ')), QStringLiteral("+Ctrl +Ctrl +D -D -Ctrl"));
}

void tst_KrShortcutMgr::timeOutCanStillAnnounce()
{
    // A shortcut created while the sequence is open is found at the time-out.
    create(QStringLiteral("Ctrl+K, Ctrl+D=12"));
    play(QStringLiteral("*Ctrl+K"));
    create(QStringLiteral("Ctrl+K=15"));
    timeOut();
    QCOMPARE(announcedIds(), QList<int> {15});
    QCOMPARE(managerTimers().size(), 0);
}

void tst_KrShortcutMgr::registeringAgainReplacesTheChildList()
{
    create(QStringLiteral("Ctrl+S=1"));
    manager()->RegisterObject(m_page, {m_other}, QString(), QString());
    // Children of the earlier list stay filtered and keep their owner.
    play(QStringLiteral("*Ctrl+S"));
    QCOMPARE(announcedIds(), QList<int> {1});

    manager()->UnregisterObject(m_page);
    create(QStringLiteral("Ctrl+S=2")); // a widget needs no registration to own shortcuts
    QTest::keyClick(m_other, Qt::Key_S, Qt::ControlModifier);
    QCOMPARE(m_other->seen.join(QLatin1Char(' ')), QStringLiteral("+Ctrl +S -S -Ctrl"));
    play(QStringLiteral("*Ctrl+S")); // m_child was not in the stored list: still filtered
    QCOMPARE(announcedIds(), (QList<int> {1, 2}));
}

void tst_KrShortcutMgr::registrationIds()
{
    create(QStringLiteral("Ctrl+S=1"));
    manager()->RegisterObject(nullptr, {m_child}, QStringLiteral("x"), QStringLiteral("y"));
    manager()->RegisterObject(m_page, {m_child, nullptr, m_other}, QString(), QString());
    play(QStringLiteral("*Ctrl+S"));
    manager()->RegisterObject(m_page, {m_child}, QString(), QStringLiteral("menu-2"));
    play(QStringLiteral("*Ctrl+S"));

    QCOMPARE(announcedIds(), (QList<int> {1, 1}));
    const auto announced = announcements();
    QCOMPARE(announced.at(0).pluginInstId, QStringLiteral("inst-1")); // empty ids keep the old
    QCOMPARE(announced.at(0).menuId, QStringLiteral("menu-1"));
    QCOMPARE(announced.at(1).pluginInstId, QString());
    QCOMPARE(announced.at(1).menuId, QStringLiteral("menu-2"));
}

void tst_KrShortcutMgr::unregisterForgetsTheWidget()
{
    create(QStringLiteral("Ctrl+S=1"));
    manager()->UnregisterObject(m_stray); // never registered: nothing happens
    manager()->UnregisterObject(m_page);
    QCOMPARE(manager()->GetShortcutInfoByObjAndSeq(m_page, QKeySequence(Qt::CTRL + Qt::Key_S)).id,
             0);
    play(QStringLiteral("*Ctrl+S"));
    QTest::keyClick(m_page, Qt::Key_S, Qt::ControlModifier);
    QCOMPARE(m_child->seen.join(QLatin1Char(' ')), QStringLiteral("+Ctrl +S -S -Ctrl"));
    QCOMPARE(announcedIds(), QList<int>());
}

void tst_KrShortcutMgr::destroyedWidgetsAreForgotten()
{
    create(QStringLiteral("Ctrl+K, Ctrl+D=12"));
    create(QStringLiteral("Ctrl+K=15"));

    // A destroyed child is dropped from its owner's list: unregistering later must not touch it.
    delete m_other;
    m_other = nullptr;
    manager()->RegisterObject(m_page, {m_child}, QString(), QString());

    // A page destroyed in the middle of a sequence: the time-out finds nothing to announce.
    auto *page = new QWidget;
    auto *child = new KeyProbe(page);
    manager()->RegisterObject(page, {child}, QStringLiteral("inst-2"), QString());
    QVERIFY(manager()->AlterShortcutInfo(page, Orvex_Values::AlterType::create,
                                         QKeySequence(Qt::CTRL + Qt::Key_K, Qt::Key_Z), 3, {}));
    QTest::keyClick(child, Qt::Key_K, Qt::ControlModifier);
    QVERIFY(!managerTimers().isEmpty());
    QWidget *const gone = page;
    delete page;
    timeOut();
    QCOMPARE(announcedIds(), QList<int>());
    QCOMPARE(manager()
                     ->GetShortcutInfoByObjAndSeq(gone,
                                                  QKeySequence(Qt::CTRL + Qt::Key_K, Qt::Key_Z))
                     .id,
             0);

    manager()->UnregisterObject(m_page);
    QCOMPARE(manager()->GetShortcutInfoByObjAndSeq(m_page, QKeySequence(Qt::CTRL + Qt::Key_K)).id,
             0);
}

void tst_KrShortcutMgr::createTwiceIsRefused()
{
    MessageCapture capture;
    const QKeySequence sequence(Qt::CTRL + Qt::Key_K, Qt::CTRL + Qt::Key_D);
    QVERIFY(manager()->AlterShortcutInfo(m_page, Orvex_Values::AlterType::create, sequence, 1,
                                         {{QStringLiteral("n"), 1}}));
    QVERIFY(!manager()->AlterShortcutInfo(m_page, Orvex_Values::AlterType::create, sequence, 2,
                                          {{QStringLiteral("n"), 2}}));

    const auto warnings = capture.matching(QtWarningMsg, QString());
    QCOMPARE(warnings.size(), 1);
    QCOMPARE(warnings.first().text,
             QStringLiteral("KrShortcutMgr::AlterShortcutInfo Ctrl+K, Ctrl+D快捷键已被占用"));
    QCOMPARE(warnings.first().file, QStringLiteral("shell/krutils/KrShortcutMgr"));
    const ShortcutInfo kept = manager()->GetShortcutInfoByObjAndSeq(m_page, sequence);
    QCOMPARE(kept.id, 1);
    QCOMPARE(kept.infoMap.value(QStringLiteral("n")).toInt(), 1);
    QCOMPARE(kept.keySequence, sequence);
}

void tst_KrShortcutMgr::alterShortcutInfo_data()
{
    QTest::addColumn<QString>("alterType");
    QTest::addColumn<bool>("ownWidget"); // else a widget without shortcuts
    QTest::addColumn<bool>("knownSequence");
    QTest::addColumn<bool>("result");
    QTest::addColumn<int>("idAfter");

    const QString &update = Orvex_Values::AlterType::update;
    const QString &remove = Orvex_Values::AlterType::remove;
    QTest::newRow("update a known sequence") << update << true << true << true << 42;
    QTest::newRow("update an unknown sequence") << update << true << false << false << 0;
    QTest::newRow("update on a widget without shortcuts") << update << false << false << false << 0;
    QTest::newRow("remove a known sequence") << remove << true << true << true << 0;
    QTest::newRow("remove an unknown sequence") << remove << true << false << false << 0;
    QTest::newRow("remove on a widget without shortcuts") << remove << false << false << false << 0;
    QTest::newRow("unknown alteration") << "rename" << true << true << false << 1;
    QTest::newRow("empty alteration") << QString() << true << true << false << 1;
}

void tst_KrShortcutMgr::alterShortcutInfo()
{
    QFETCH(QString, alterType);
    QFETCH(bool, ownWidget);
    QFETCH(bool, knownSequence);
    QFETCH(bool, result);
    QFETCH(int, idAfter);

    create(QStringLiteral("Ctrl+S=1"));
    QWidget *widget = ownWidget ? m_page : m_stray;
    const QKeySequence sequence(Qt::CTRL + (knownSequence ? Qt::Key_S : Qt::Key_U));
    const QVariantMap infoMap {{QStringLiteral("n"), 42}};

    MessageCapture capture;
    QCOMPARE(manager()->AlterShortcutInfo(widget, alterType, sequence, 42, infoMap), result);
    const ShortcutInfo after = manager()->GetShortcutInfoByObjAndSeq(widget, sequence);
    QCOMPARE(after.id, idAfter);
    if (idAfter != 0)
        QCOMPARE(after.keySequence, sequence);
    if (idAfter == 42)
        QCOMPARE(after.infoMap, infoMap);

    // One entry line with the arguments; no warning.
    const auto lines = capture.messages();
    QCOMPARE(lines.size(), 1);
    QCOMPARE(lines.first().type, QtInfoMsg);
    QString arguments;
    QDebug(&arguments) << widget << alterType << sequence << 42;
    QCOMPARE(lines.first().text,
             QStringLiteral("KrShortcutMgr::AlterShortcutInfo ") + arguments.trimmed());
}

void tst_KrShortcutMgr::unknownShortcutGivesDefaultRecord()
{
    create(QStringLiteral("Ctrl+S=1"));
    for (const auto &[widget, sequence] :
         {qMakePair<QWidget *>(m_page, QKeySequence(Qt::Key_F2)),
          qMakePair<QWidget *>(m_stray, QKeySequence(Qt::CTRL + Qt::Key_S)),
          qMakePair<QWidget *>(nullptr, QKeySequence())}) {
        const ShortcutInfo info = manager()->GetShortcutInfoByObjAndSeq(widget, sequence);
        QCOMPARE(info.id, 0);
        QVERIFY(info.infoMap.isEmpty());
        QVERIFY(info.keySequence.isEmpty());
    }
}

QTEST_MAIN(tst_KrShortcutMgr)
#include "tst_krshortcutmgr.moc"
