#include "KrMediaPlayer.h"

#include "runtime/KrLogging_p.h"
#include <krutils/KrCommonUtils.h>
#include <krutils/KrThread.h>

#include <QFileInfo>
#include <QMediaPlayer>
#include <QMediaPlaylist>
#include <QUrl>

KrMediaPlayer *KrMediaPlayer::getInstance()
{
    static KrMediaPlayer instance;
    return &instance;
}

KrMediaPlayer::KrMediaPlayer() = default;

KrMediaPlayer::~KrMediaPlayer()
{
    if (workerThread)
        workerThread->quit();
    // The instance dies at process exit, after Qt Multimedia's own registry of back ends (made
    // later, so destroyed earlier): deleting the player now would reach into freed memory, and
    // from a thread that is not the player's. The process takes it with everything else.
    if (player)
        player->setParent(nullptr);
}

void KrMediaPlayer::initMediaPlay()
{
    // A second thread would get a second player answering every request.
    if (workerThread)
        return;
    workerThread = new KrThread;
    workerThread->setObjectName(QStringLiteral("KrMediaPlayer"));
    moveToThread(workerThread);
    connect(workerThread, &QThread::started, this, &KrMediaPlayer::slotInitData);
    // Connected before the thread starts, so that every request made once this returns is heard:
    // it waits in the thread's queue, which is served only after slotInitData() has made the
    // player.
    connect(this, &KrMediaPlayer::signalPlaySignalMusic, this, &KrMediaPlayer::slotPlaySignalMusic);
    connect(workerThread, &QThread::finished, workerThread, &QObject::deleteLater);
    workerThread->start(QThread::InheritPriority);
}

void KrMediaPlayer::playSignalMusic(const QString &fileName)
{
    emit signalPlaySignalMusic(fileName);
}

void KrMediaPlayer::slotInitData()
{
    player = new QMediaPlayer(this);
    player->setPlaylist(new QMediaPlaylist);
    connect(
            player, QOverload<QMediaPlayer::Error>::of(&QMediaPlayer::error), this,
            [this](QMediaPlayer::Error error) {
                krDebug(KrMediaPlayer) << error << player->errorString();
            },
            Qt::DirectConnection);
}

void KrMediaPlayer::slotPlaySignalMusic(const QString &fileName)
{
    // Reached by name through the meta-object, the slot may run before the player exists.
    krDebug(KrMediaPlayer) << "audio available = " << (player && player->isAudioAvailable())
                           << (player && player->isMuted()) << fileName;
    if (!KrCommonUtils::isFileExist(fileName)) {
        krDebug(KrMediaPlayer) << "KrMediaPlayer play music filed, file is not exist" << fileName;
        return;
    }
    if (!player)
        return;
    krDebug(KrMediaPlayer) << "current play status = " << player->state();

    // A relative name is resolved here, as the existence test did: GStreamer cannot open a
    // relative file URL.
    const QMediaContent media(QUrl::fromLocalFile(QFileInfo(fileName).absoluteFilePath()));
    QMediaPlaylist *playlist = player->playlist();
    if (player->state() != QMediaPlayer::PlayingState) {
        // Whatever waited behind a paused or finished sound is stale by now.
        playlist->clear();
        playlist->addMedia(media);
        player->play();
    } else if (media != player->currentMedia()) {
        playlist->addMedia(media);
    }
}
