#ifndef KRMEDIAPLAYER_H
#define KRMEDIAPLAYER_H

#include <krutils/krutils_export.h>

#include <QObject>
#include <QString>

class KrThread;
class QMediaPlayer;

/// The process-wide player of short alert sounds (order fills, price alerts).
///
/// Any thread asks for a sound file; the multimedia back end runs on a thread of the player's
/// own ("KrMediaPlayer"), so the GUI thread never waits for it. Requests that arrive while a
/// sound plays are queued and played one after the other; a request for the very sound that
/// plays at that moment is dropped. A request while nothing plays (stopped or paused) throws
/// the queue away and starts the new sound at once.
///
/// The application starts the player once, from the thread that owns the instance (the main
/// thread), before the first alert:
///
///     KrMediaPlayer::getInstance()->initMediaPlay();
///     ...
///     KrMediaPlayer::getInstance()->playSignalMusic(QStringLiteral("sounds/filled.wav"));
///
/// Requests made before initMediaPlay() are lost; those made once it has returned wait, if need
/// be, until the player's thread has made the player. A relative file name is resolved against the
/// current directory when the request is handled. A file that cannot be opened is logged and
/// skipped; errors of the back end are logged and leave the player usable for the next request.
///
/// Threads: playSignalMusic() may be called from any thread and only queues the request. The
/// player and its slots live on the player's thread. The instance lives until the process exits;
/// its destruction asks the thread to quit and does not wait for it.
class KRUTILS_EXPORT KrMediaPlayer : public QObject
{
    Q_OBJECT

public:
    /// The instance, created on the first call.
    static KrMediaPlayer *getInstance();

    /// Creates and starts the player's thread; the player itself is created first thing there.
    /// Call it once, from the instance's thread; later calls do nothing.
    void initMediaPlay();

    /// Emits signalPlaySignalMusic(fileName) and returns; callable from any thread.
    Q_INVOKABLE void playSignalMusic(const QString &fileName);

Q_SIGNALS:
    /// A request for the player's thread; emitting it is the same as calling playSignalMusic().
    void signalPlaySignalMusic(const QString &fileName);

private Q_SLOTS:
    // Both run on the player's thread.
    void slotInitData();
    void slotPlaySignalMusic(const QString &fileName);

private:
    KrMediaPlayer();
    ~KrMediaPlayer() override;
    Q_DISABLE_COPY(KrMediaPlayer)

    QMediaPlayer *player = nullptr; // a child of the instance, made on the player's thread
    KrThread *workerThread = nullptr; // deletes itself once it has finished
};

#endif // KRMEDIAPLAYER_H
