#ifndef KRSHORTCUTMGR_H
#define KRSHORTCUTMGR_H

#include <krutils/krutils_export.h>

#include <QKeySequence>
#include <QList>
#include <QMap>
#include <QPair>
#include <QString>
#include <QVariant>
#include <QVector>
#include <QWidget>

/// @file
/// Keyboard shortcuts: the shortcut manager (KrShortcutMgr) and the key-name tables.

/// Short display names of keys (Qt::Key values), for code that shows a key code as text:
/// "Esc", "PgUp", "F5", "A", "!"... Qt::Key_Delete is named "Del" and Qt::Key_AltGr "Ctrl+Alt+".
/// Lower-case letters have no entry: Qt reports letter keys with the upper-case code.
KRUTILS_EXPORT extern const QMap<int, QString> keyNameMap;

/// Names of the modifier keys (Shift, Ctrl, Win, Alt) and of the Meta and Keypad modifier flags;
/// the table mixes key values and modifier flags.
KRUTILS_EXPORT extern const QMap<int, QString> modifierNameMap;

/// The 95 printable ASCII characters (space to '~'), each once, in a fixed non-sorted order.
KRUTILS_EXPORT extern const QList<char> printableCharList;

/// One registered shortcut: the caller's id and parameters, handed back when it fires, and the
/// sequence it was registered under. A default record has id 0 and an empty sequence.
struct KRUTILS_EXPORT ShortcutInfo
{
    int id = 0; ///< The caller's id of the shortcut.
    QMap<QString, QVariant> infoMap; ///< The caller's parameters.
    QKeySequence keySequence; ///< The sequence of one or two keys.
};

/// Application-wide keyboard shortcuts of one or two keys for the client's pages, apart from
/// QShortcut and QAction.
///
/// A page registers its top widget and the child widgets that receive its key presses, then
/// declares its shortcuts:
///
///     KrShortcutMgr *shortcuts = KrShortcutMgr::instance();
///     shortcuts->RegisterObject(page, {table, searchEdit}, pluginInstId, menuId);
///     shortcuts->AlterShortcutInfo(page, Orvex_Values::AlterType::create,
///                                  QKeySequence(Qt::CTRL + Qt::Key_K, Qt::CTRL + Qt::Key_D), 7,
///                                  {});
///     connect(shortcuts, &KrShortcutMgr::signalShortcutTriggered, page, &Page::onShortcut);
///
/// The manager filters the key events of those widgets. A key code is the key with the Ctrl,
/// Alt and Meta modifiers; Shift and the keypad flag are ignored (Shift+F5 is F5, "!" is told
/// apart from "1" by its own key), keypad Enter counts as Return, and Shift, Ctrl, Meta, Alt and
/// Backspace alone never make a key code. Key presses that belong to a shortcut of the page are
/// consumed; a shortcut fires on the release of its last key. After the first key of a two-key
/// sequence the second must follow within a second; when the pair is unknown but the second key
/// alone is a shortcut, that one fires.
///
/// signalShortcutTriggered() is emitted from a thread of the manager's own
/// ("ShortcutSenderThread"), created when the first shortcut fires, so that receivers on the
/// GUI thread are called after the key event has been handled. It names the registered widget
/// (also when the keys arrived in one of its children), with its plug-in instance and menu ids.
///
/// The manager is a QWidget that is never shown; it lives on the GUI thread, and every call
/// is made there. instance() needs a QApplication. A registered widget or child that is
/// destroyed is forgotten with its shortcuts.
class KRUTILS_EXPORT KrShortcutMgr : public QWidget
{
    Q_OBJECT

public:
    /// The manager, created on the first call (on the GUI thread, with a QApplication).
    static KrShortcutMgr *instance();

    /// Filters the key events of obj and of the given children (null entries are skipped). A
    /// second registration of obj replaces its child list; children of the earlier list stay
    /// filtered. Empty pluginInstId and menuId leave the ids stored earlier.
    void RegisterObject(QWidget *obj, const QList<QWidget *> &childs, const QString &pluginInstId,
                        const QString &menuId);
    /// Forgets obj, its ids and its shortcuts, and stops filtering it and its children.
    void UnregisterObject(QWidget *obj);

    /// Creates, updates (id and parameters) or removes obj's shortcut for keySeq; alterType is
    /// Orvex_Values::AlterType::create, update or remove. Returns false when the sequence is
    /// already taken (create), unknown (update, remove) or alterType is none of the three.
    bool AlterShortcutInfo(QWidget *obj, const QString &alterType, QKeySequence keySeq, int id,
                           const QMap<QString, QVariant> &infoMap);
    /// The record of obj's shortcut for keySeq, or a default record.
    ShortcutInfo GetShortcutInfoByObjAndSeq(QWidget *obj, QKeySequence keySeq);

Q_SIGNALS:
    /// A shortcut of `obj` fired: its id and parameters, and the ids `obj` was registered with.
    /// Emitted on the sender thread; connect with an automatic or queued connection.
    void signalShortcutTriggered(QObject *obj, int id, const QMap<QString, QVariant> &infoMap,
                                 const QString &pluginInstId, const QString &menuId);

protected:
    /// Watches the key presses and releases of the registered widgets and their children.
    bool eventFilter(QObject *watched, QEvent *event) override;
    /// Ends a two-key sequence whose second key did not come within a second.
    void timerEvent(QTimerEvent *event) override;

private:
    explicit KrShortcutMgr(QWidget *parent);
    ~KrShortcutMgr() override;
    Q_DISABLE_COPY(KrShortcutMgr)

    QKeySequence::SequenceMatch procKeyPress(const QKeyEvent *event);
    QKeySequence::SequenceMatch procKeyRelease();
    QKeySequence::SequenceMatch checkKeySeq(bool emitOnMatch);
    void clearTempInfo();

    void stopSequenceTimer();
    void resetSequence();
    void watchDestruction(QWidget *widget);
    void forgetDestroyed(QWidget *widget);

    QMap<QWidget *, QMap<QKeySequence, ShortcutInfo>> shortcutTable;
    QMap<QWidget *, QPair<QString, QString>> ownerIds;
    QMap<QWidget *, QWidget *> childOwners;
    QMap<QWidget *, QList<QWidget *>> registeredObjects;
    QWidget *currentObject = nullptr;
    int timerId = 0;
    int keyBuffer[4] = {0, 0, 0, 0};
    int leadKey = 0;
    int keyCount = 0;
    // Time-out timers replaced by a newer one while a sequence stayed open; each is stopped
    // at its first tick.
    QVector<int> supersededTimers;
};

#endif // KRSHORTCUTMGR_H
