// Starts the alert sound player and asks for the sound files named by its arguments right away,
// as an application does just after start-up. The player is one per process, so
// tst_krmediaplayer runs this in a fresh child process. With "--from-thread" first, the requests
// come from a thread of their own.
//
// Once the first sound plays (or after 10 s) it prints on stdout one line with the player's state,
// its current sound and its playlist, by file name:
//
//     PlayingState, playing a.wav, playlist a.wav b.wav

#include <krutils/KrMediaPlayer.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <QMediaPlayer>
#include <QMediaPlaylist>
#include <QMetaEnum>
#include <QThread>

#include <cstdio>
#include <thread>

namespace {

QString fileNameOf(const QMediaContent &media)
{
    return QFileInfo(media.request().url().toLocalFile()).fileName();
}

struct PlayerView
{
    QMediaPlayer::State state = QMediaPlayer::StoppedState;
    QString current;
    QStringList playlist;
};

// Reads the player on its own thread, after every request queued before.
PlayerView look(KrMediaPlayer *alerts)
{
    PlayerView view;
    QMetaObject::invokeMethod(
            alerts,
            [&] {
                const auto *player = alerts->findChild<QMediaPlayer *>();
                if (!player)
                    return;
                view.state = player->state();
                view.current = fileNameOf(player->currentMedia());
                const QMediaPlaylist *playlist = player->playlist();
                for (int i = 0; i < playlist->mediaCount(); ++i)
                    view.playlist << fileNameOf(playlist->media(i));
            },
            Qt::BlockingQueuedConnection);
    return view;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QStringList files = app.arguments().mid(1);
    const bool fromOtherThread
            = !files.isEmpty() && files.first() == QLatin1String("--from-thread");
    if (fromOtherThread)
        files.removeFirst();

    KrMediaPlayer *alerts = KrMediaPlayer::getInstance();
    alerts->initMediaPlay();
    const auto request = [&] {
        for (const QString &file : qAsConst(files))
            alerts->playSignalMusic(file);
    };
    if (fromOtherThread)
        std::thread(request).join();
    else
        request();

    // The sound may take a moment to start, or fail to.
    const QString first = files.isEmpty() ? QString() : QFileInfo(files.first()).fileName();
    const QDeadlineTimer deadline(10000);
    PlayerView view = look(alerts);
    while (!(view.state == QMediaPlayer::PlayingState && view.current == first)
           && !deadline.hasExpired()) {
        QThread::msleep(20);
        view = look(alerts);
    }

    const QMetaEnum states = QMediaPlayer::staticMetaObject.enumerator(
            QMediaPlayer::staticMetaObject.indexOfEnumerator("State"));
    std::printf("%s, playing %s, playlist %s\n", states.valueToKey(view.state),
                qPrintable(view.current), qPrintable(view.playlist.join(QLatin1Char(' '))));
    std::fflush(stdout);
    QMetaObject::invokeMethod(
            alerts,
            [alerts] {
                if (auto *player = alerts->findChild<QMediaPlayer *>())
                    player->stop();
            },
            Qt::BlockingQueuedConnection);
    return 0;
}
