#ifndef SHORTCUTSENDER_P_H
#define SHORTCUTSENDER_P_H

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

class QThread;

// Internal: announces the shortcuts that KrShortcutMgr recognised, from a thread of its own
// ("ShortcutSenderThread"). The manager's event filter only queues the announcement and
// returns, so receivers on the GUI thread are called after the key event has been handled, one
// shortcut at a time in the order they were recognised.
//
// The one instance is created when the first shortcut fires and lives until the process
// exits; its destruction quits and joins the thread.
class ShortcutSender : public QObject
{
    Q_OBJECT

public:
    static ShortcutSender *instance();

Q_SIGNALS:
    void signalSendShortcut(QObject *obj, int id, const QMap<QString, QVariant> &infoMap,
                            const QString &pluginInstId, const QString &menuId);

private Q_SLOTS:
    void slotSendShortcut(QObject *obj, int id, const QMap<QString, QVariant> &infoMap,
                          const QString &pluginInstId, const QString &menuId);

private:
    ShortcutSender();
    ~ShortcutSender() override;
    Q_DISABLE_COPY(ShortcutSender)

    QThread *senderThread; // never deleted: it may still be referenced at process exit
};

#endif // SHORTCUTSENDER_P_H
