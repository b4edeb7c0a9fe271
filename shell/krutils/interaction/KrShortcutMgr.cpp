#include "KrShortcutMgr.h"

#include "ShortcutSender_p.h"
#include "runtime/KrLogging_p.h"

#include <krdefine/krdefine.h>

#include <QKeyEvent>
#include <QTimerEvent>

namespace {

QMap<int, QString> buildKeyNameMap()
{
    QMap<int, QString> names;
    const auto name = [&names](int key, const QString &text) { names.insert(key, text); };
    name(Qt::Key_Escape, QStringLiteral("Esc"));
    name(Qt::Key_Tab, QStringLiteral("Tab"));
    name(Qt::Key_Backtab, QStringLiteral("Shift+Tab"));
    name(Qt::Key_Backspace, QStringLiteral("BackSpace"));
    name(Qt::Key_Return, QStringLiteral("Return"));
    name(Qt::Key_Enter, QStringLiteral("Enter"));
    name(Qt::Key_Insert, QStringLiteral("Ins"));
    // Named twice on purpose; the short name wins, as users know it from the keyboard.
    name(Qt::Key_Delete, QStringLiteral("Delete"));
    name(Qt::Key_Delete, QStringLiteral("Del"));
    name(Qt::Key_Pause, QStringLiteral("Pause"));
    name(Qt::Key_Print, QStringLiteral("Print"));
    name(Qt::Key_SysReq, QStringLiteral("SysReq"));
    name(Qt::Key_Clear, QStringLiteral("Clear"));
    name(Qt::Key_Home, QStringLiteral("Home"));
    name(Qt::Key_End, QStringLiteral("End"));
    name(Qt::Key_Left, QStringLiteral("Left"));
    name(Qt::Key_Up, QStringLiteral("Up"));
    name(Qt::Key_Right, QStringLiteral("Right"));
    name(Qt::Key_Down, QStringLiteral("Down"));
    name(Qt::Key_PageUp, QStringLiteral("PgUp"));
    name(Qt::Key_PageDown, QStringLiteral("PgDown"));
    name(Qt::Key_Shift, QStringLiteral("Shift"));
    name(Qt::Key_Control, QStringLiteral("Ctrl"));
    name(Qt::Key_Meta, QStringLiteral("Win"));
    name(Qt::Key_Alt, QStringLiteral("Alt"));
    // AltGr is what Ctrl+Alt gives on the client's keyboards.
    name(Qt::Key_AltGr, QStringLiteral("Ctrl+Alt+"));
    name(Qt::Key_CapsLock, QStringLiteral("CapsLock"));
    name(Qt::Key_NumLock, QStringLiteral("NumLock"));
    name(Qt::Key_ScrollLock, QStringLiteral("ScrollLock"));
    for (int number = 1; number <= 35; ++number)
        name(Qt::Key_F1 + number - 1, QLatin1Char('F') + QString::number(number));
    name(Qt::Key_Space, QStringLiteral("Space"));
    // Qt's key values of the printable characters are their ASCII codes; letters come in
    // upper case only.
    for (int code = 33; code <= 96; ++code)
        name(code, QString(QLatin1Char(char(code))));
    for (int code = 123; code <= 126; ++code)
        name(code, QString(QLatin1Char(char(code))));
    return names;
}

QMap<int, QString> buildModifierNameMap()
{
    QMap<int, QString> names;
    names.insert(Qt::Key_Shift, QStringLiteral("Shift"));
    names.insert(Qt::Key_Control, QStringLiteral("Ctrl"));
    names.insert(Qt::Key_Meta, QStringLiteral("Win"));
    names.insert(Qt::Key_Alt, QStringLiteral("Alt"));
    names.insert(Qt::MetaModifier, QStringLiteral("Meta"));
    names.insert(Qt::KeypadModifier, QStringLiteral("Keypad"));
    return names;
}

QList<char> buildPrintableCharList()
{
    // Keyboard order, unshifted then shifted, then the space.
    static const char keyboard[] = "`1234567890-=qwertyuiop[]\\asdfghjkl;'zxcvbnm,./"
                                   "~!@#$%^&*()_+QWERTYUIOP{}|ASDFGHJKL:\"ZXCVBNM<>? ";
    return QList<char>(std::begin(keyboard), std::end(keyboard) - 1);
}

// Keypad Enter and the main Return key give the same shortcut.
int pressedKey(const QKeyEvent &event)
{
    return event.key() == Qt::Key_Enter ? int(Qt::Key_Return) : event.key();
}

// Shift, Ctrl, Meta, Alt and Backspace pass through: alone they never make a key code.
bool neverAKeyCode(int key)
{
    return (key >= Qt::Key_Shift && key <= Qt::Key_Alt) || key == Qt::Key_Backspace;
}

// Shift and the keypad flag are left out: a shifted character has its own key value ("!"
// rather than "1"), and Shift+F5 is meant as F5.
int keyCode(int key, Qt::KeyboardModifiers modifiers)
{
    if (modifiers & Qt::ControlModifier)
        key += Qt::CTRL;
    if (modifiers & Qt::MetaModifier)
        key += Qt::META;
    if (modifiers & Qt::AltModifier)
        key += Qt::ALT;
    return key;
}

} // namespace

const QMap<int, QString> keyNameMap = buildKeyNameMap();
const QMap<int, QString> modifierNameMap = buildModifierNameMap();
const QList<char> printableCharList = buildPrintableCharList();

KrShortcutMgr *KrShortcutMgr::instance()
{
    static KrShortcutMgr manager(nullptr);
    return &manager;
}

KrShortcutMgr::KrShortcutMgr(QWidget *parent) : QWidget(parent, Qt::WindowFlags())
{
}

KrShortcutMgr::~KrShortcutMgr() = default;

void KrShortcutMgr::RegisterObject(QWidget *obj, const QList<QWidget *> &childs,
                                   const QString &pluginInstId, const QString &menuId)
{
    if (!obj)
        return;
    obj->installEventFilter(this);
    watchDestruction(obj);
    registeredObjects.insert(obj, childs);
    for (QWidget *child : childs) {
        if (!child)
            continue;
        childOwners.insert(child, obj);
        child->installEventFilter(this);
        watchDestruction(child);
    }
    if (pluginInstId.isEmpty() && menuId.isEmpty())
        return;
    ownerIds.insert(obj, qMakePair(pluginInstId, menuId));
}

void KrShortcutMgr::UnregisterObject(QWidget *obj)
{
    // A sequence in progress on obj is left to finish or time out: it can no longer match.
    ownerIds.remove(obj);
    shortcutTable.remove(obj);
    const auto registered = registeredObjects.find(obj);
    if (registered == registeredObjects.end())
        return;
    obj->removeEventFilter(this);
    for (QWidget *child : *registered) {
        if (!child)
            continue;
        child->removeEventFilter(this);
        childOwners.remove(child);
    }
    registeredObjects.erase(registered);
}

bool KrShortcutMgr::AlterShortcutInfo(QWidget *obj, const QString &alterType, QKeySequence keySeq,
                                      int id, const QMap<QString, QVariant> &infoMap)
{
    krInfo(KrShortcutMgr) << KrLogging::quoted << obj << alterType << keySeq << id;
    if (alterType == Orvex_Values::AlterType::create) {
        QMap<QKeySequence, ShortcutInfo> &shortcuts = shortcutTable[obj];
        if (shortcuts.contains(keySeq)) {
            krWarning(KrShortcutMgr) << QStringLiteral("%1快捷键已被占用")
                                                .arg(keySeq.toString(QKeySequence::PortableText));
            return false;
        }
        shortcuts.insert(keySeq, ShortcutInfo {id, infoMap, keySeq});
        return true;
    }
    if (alterType == Orvex_Values::AlterType::remove) {
        const auto shortcuts = shortcutTable.find(obj);
        return shortcuts != shortcutTable.end() && shortcuts->remove(keySeq) > 0;
    }
    if (alterType == Orvex_Values::AlterType::update) {
        const auto shortcuts = shortcutTable.find(obj);
        if (shortcuts == shortcutTable.end())
            return false;
        const auto shortcut = shortcuts->find(keySeq);
        if (shortcut == shortcuts->end())
            return false;
        shortcut->id = id;
        shortcut->infoMap = infoMap;
        return true;
    }
    return false;
}

ShortcutInfo KrShortcutMgr::GetShortcutInfoByObjAndSeq(QWidget *obj, QKeySequence keySeq)
{
    return shortcutTable.value(obj).value(keySeq);
}

bool KrShortcutMgr::eventFilter(QObject *watched, QEvent *event)
{
    // Every key event of the registered widgets passes here: no allocation on these paths.
    switch (event->type()) {
    case QEvent::KeyPress: {
        const auto *keyEvent = static_cast<const QKeyEvent *>(event);
        if (keyEvent->isAutoRepeat())
            return false;
        QWidget *widget = watched->isWidgetType() ? static_cast<QWidget *>(watched) : nullptr;
        if (registeredObjects.contains(widget)) {
            currentObject = widget;
        } else {
            const auto owner = childOwners.constFind(widget);
            if (owner == childOwners.cend())
                return false;
            currentObject = *owner;
        }
        return procKeyPress(keyEvent) != QKeySequence::NoMatch;
    }
    case QEvent::KeyRelease:
        return procKeyRelease() != QKeySequence::NoMatch;
    default:
        return false;
    }
}

void KrShortcutMgr::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timerId) {
        QWidget::timerEvent(event);
        return;
    }
    // The table may have changed while the sequence was open: one last look.
    checkKeySeq(true);
    resetSequence();
}

QKeySequence::SequenceMatch KrShortcutMgr::procKeyPress(const QKeyEvent *event)
{
    const int key = pressedKey(*event);
    if (leadKey == 0) {
        clearTempInfo();
        leadKey = key;
    }
    if (neverAKeyCode(key))
        return QKeySequence::NoMatch;
    if (keyCount < 2) {
        keyBuffer[keyCount++] = keyCode(key, event->modifiers());
        return checkKeySeq(false);
    }
    // A third key while the second is still down settles the pair that is buffered.
    const QKeySequence::SequenceMatch match = checkKeySeq(true);
    resetSequence();
    return match;
}

QKeySequence::SequenceMatch KrShortcutMgr::procKeyRelease()
{
    const QKeySequence::SequenceMatch match = checkKeySeq(true);
    if (keyCount < 2 && match == QKeySequence::PartialMatch) {
        // The first key of a pair: the second may follow within a second. A timer started by
        // an earlier release of this sequence keeps running until the sequence ends; only the
        // newest one times it out.
        if (timerId > 0)
            supersededTimers.append(timerId);
        timerId = startTimer(1000, Qt::CoarseTimer);
        return match;
    }
    resetSequence();
    return match;
}

QKeySequence::SequenceMatch KrShortcutMgr::checkKeySeq(bool emitOnMatch)
{
    if (keyCount < 1 || keyCount > 2 || !currentObject)
        return QKeySequence::NoMatch;
    const QMap<QKeySequence, ShortcutInfo> shortcuts = shortcutTable.value(currentObject);
    if (shortcuts.isEmpty())
        return QKeySequence::NoMatch;

    const QKeySequence sequence
            = keyCount == 1 ? QKeySequence(keyBuffer[0]) : QKeySequence(keyBuffer[0], keyBuffer[1]);
    auto shortcut = shortcuts.constFind(sequence);
    // An unknown pair falls back to its second key alone.
    if (shortcut == shortcuts.cend() && keyCount == 2)
        shortcut = shortcuts.constFind(QKeySequence(keyBuffer[1]));
    if (shortcut != shortcuts.cend()) {
        if (emitOnMatch) {
            const QPair<QString, QString> ids = ownerIds.value(currentObject);
            emit ShortcutSender::instance()->signalSendShortcut(
                    currentObject, shortcut->id, shortcut->infoMap, ids.first, ids.second);
        }
        return QKeySequence::ExactMatch;
    }
    for (auto registered = shortcuts.keyBegin(); registered != shortcuts.keyEnd(); ++registered) {
        if (sequence.matches(*registered) == QKeySequence::PartialMatch)
            return QKeySequence::PartialMatch;
    }
    return QKeySequence::NoMatch;
}

void KrShortcutMgr::clearTempInfo()
{
    stopSequenceTimer();
    std::fill(std::begin(keyBuffer), std::end(keyBuffer), 0);
    leadKey = 0;
    keyCount = 0;
}

void KrShortcutMgr::resetSequence()
{
    clearTempInfo();
    currentObject = nullptr;
}

void KrShortcutMgr::stopSequenceTimer()
{
    if (timerId > 0) {
        killTimer(timerId);
        timerId = 0;
    }
    for (int superseded : qAsConst(supersededTimers))
        killTimer(superseded);
    supersededTimers.clear();
}

void KrShortcutMgr::watchDestruction(QWidget *widget)
{
    // One connection per widget, however often it is registered.
    disconnect(widget, &QObject::destroyed, this, nullptr);
    connect(widget, &QObject::destroyed, this, [this, widget] { forgetDestroyed(widget); });
}

void KrShortcutMgr::forgetDestroyed(QWidget *widget)
{
    // Plug-in pages come and go; a new widget at the same address must not inherit anything.
    UnregisterObject(widget);
    childOwners.remove(widget);
    for (QList<QWidget *> &children : registeredObjects)
        children.removeAll(widget);
    if (currentObject == widget)
        currentObject = nullptr;
}
