#include "ShortcutSender_p.h"

#include "KrShortcutMgr.h"
#include "runtime/KrLogging_p.h"

#include <QDeadlineTimer>
#include <QThread>

ShortcutSender *ShortcutSender::instance()
{
    static ShortcutSender sender;
    return &sender;
}

ShortcutSender::ShortcutSender() : QObject(nullptr), senderThread(new QThread(nullptr))
{
    senderThread->setObjectName(QStringLiteral("ShortcutSenderThread"));
    moveToThread(senderThread);
    senderThread->start(QThread::InheritPriority);
    // Emitted on the GUI thread, received here: a queued call run on "ShortcutSenderThread".
    connect(this, &ShortcutSender::signalSendShortcut, this, &ShortcutSender::slotSendShortcut,
            Qt::AutoConnection);
}

ShortcutSender::~ShortcutSender()
{
    senderThread->quit();
    senderThread->wait(QDeadlineTimer(QDeadlineTimer::Forever));
}

void ShortcutSender::slotSendShortcut(QObject *obj, int id, const QMap<QString, QVariant> &infoMap,
                                      const QString &pluginInstId, const QString &menuId)
{
    // obj is logged by address only: the widget lives on the GUI thread and may already be
    // gone, so it is never dereferenced here.
    krInfo(ShortcutSender) << QStringLiteral("快捷键触发：") << KrLogging::quoted
                           << static_cast<const void *>(obj) << id << pluginInstId << menuId
                           << infoMap;
    emit KrShortcutMgr::instance()->signalShortcutTriggered(obj, id, infoMap, pluginInstId, menuId);
}
