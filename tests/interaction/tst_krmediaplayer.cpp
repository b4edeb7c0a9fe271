#include "KrTestSupport.h"

#include <krutils/KrMediaPlayer.h>

#include <QAudioDeviceInfo>
#include <QDataStream>
#include <QMediaPlayer>
#include <QMediaPlaylist>
#include <QMetaEnum>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <cmath>
#include <thread>

// The player's states by name in failure messages.
char *toString(QMediaPlayer::State state)
{
    const QMetaEnum states = QMediaPlayer::staticMetaObject.enumerator(
            QMediaPlayer::staticMetaObject.indexOfEnumerator("State"));
    return qstrdup(states.valueToKey(state));
}

namespace {

// A sine tone as a 16-bit PCM mono 44.1 kHz WAV file.
bool writeTone(const QString &path, double frequency, int milliseconds)
{
    constexpr quint32 rate = 44100;
    const quint32 samples = rate * milliseconds / 1000;
    const quint32 dataBytes = samples * 2;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QDataStream out(&file);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + dataBytes);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(1) << quint16(1) << rate << quint32(rate * 2) << quint16(2)
        << quint16(16);
    out.writeRawData("data", 4);
    out << dataBytes;
    for (quint32 i = 0; i < samples; ++i)
        out << qint16(std::lround(8000 * std::sin(2 * M_PI * frequency * i / rate)));
    return out.status() == QDataStream::Ok && file.flush();
}

bool writeBytes(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush();
}

QString pulseaudioProgram()
{
    return QStandardPaths::findExecutable(QStringLiteral("pulseaudio"));
}

// Runs pulseaudio with the test's environment; its exit code, or -1 with the reason in output.
int runPulseaudio(const QStringList &arguments, QString *output = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(pulseaudioProgram(), arguments);
    const bool finished = process.waitForFinished(30000);
    if (output) {
        *output = QString::fromLocal8Bit(process.readAll());
        if (process.error() != QProcess::UnknownError)
            *output += process.errorString();
    }
    return finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

} // namespace

// The player is process-wide: the functions run in order, the first ones before and during its
// start. Each later function begins with the player stopped (init()).
//
// A private PulseAudio server with a null sink stands in for a sound card, so sounds really
// play (silently) and requests meet a player in PlayingState.
class tst_KrMediaPlayer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();

    void requestsBeforeInitAreLost();
    void initStartsPlayerOnItsThread();
    void requestsRightAfterInitArePlayed_data();
    void requestsRightAfterInitArePlayed();
    void requestWhilePlaying_data();
    void requestWhilePlaying();
    void requestWhileNotPlaying_data();
    void requestWhileNotPlaying();
    void relativePathIsResolved();
    void missingFileIsSkipped_data();
    void missingFileIsSkipped();
    void playerErrorIsLogged_data();
    void playerErrorIsLogged();

private:
    QString sound(const QString &name) const { return m_sounds.filePath(name); }

    // Reads the player on its own thread, after every request queued before.
    template<typename Fn> auto onPlayerThread(Fn fn) -> decltype(fn())
    {
        decltype(fn()) result {};
        runOnThreadOf(KrMediaPlayer::getInstance(), [&] { result = fn(); });
        return result;
    }
    QMediaPlayer::State state()
    {
        return onPlayerThread([this] { return m_player->state(); });
    }
    qint64 position()
    {
        return onPlayerThread([this] { return m_player->position(); });
    }
    QString currentName()
    {
        return onPlayerThread([this] {
            return QFileInfo(m_player->currentMedia().request().url().toLocalFile()).fileName();
        });
    }
    // The file names in the playlist.
    QStringList playlistNames()
    {
        return onPlayerThread([this] {
            QStringList names;
            const QMediaPlaylist *playlist = m_player->playlist();
            for (int i = 0; i < playlist->mediaCount(); ++i)
                names << QFileInfo(playlist->media(i).request().url().toLocalFile()).fileName();
            return names;
        });
    }
    QString describePlayer()
    {
        return onPlayerThread([this] {
            QString status;
            QDebug(&status) << m_player->state() << m_player->mediaStatus() << m_player->error()
                            << m_player->errorString();
            return status;
        });
    }
    // Requests a sound while the player does not play, and waits until it plays it.
    bool startSound(const QString &name)
    {
        KrMediaPlayer::getInstance()->playSignalMusic(sound(name));
        return QTest::qWaitFor(
                [&] { return state() == QMediaPlayer::PlayingState && currentName() == name; },
                10000);
    }

    QTemporaryDir m_runtimeDir;
    QTemporaryDir m_soundDir;
    QDir m_sounds;
    bool m_serverStarted = false;
    QMediaPlayer *m_player = nullptr; // lives on the player's thread; read only there
};

void tst_KrMediaPlayer::initTestCase()
{
    QVERIFY2(m_soundDir.isValid(), qPrintable(m_soundDir.errorString()));
    m_sounds.setPath(m_soundDir.path());
    // long enough that requests made right after a start meet the sound still playing
    QVERIFY(writeTone(sound(QStringLiteral("a.wav")), 440, 2000));
    QVERIFY(writeTone(sound(QStringLiteral("b.wav")), 660, 1500));
    QVERIFY(writeTone(sound(QStringLiteral("c.wav")), 880, 1500));

    // The server and the player meet in a private runtime directory; the server's cookie stays
    // in there too.
    QVERIFY2(m_runtimeDir.isValid(), qPrintable(m_runtimeDir.errorString()));
    const QString runtime = m_runtimeDir.path();
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(runtime));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(runtime + QStringLiteral("/config")));
    qputenv("PULSE_SERVER",
            QFile::encodeName(QStringLiteral("unix:") + runtime + QStringLiteral("/pulse/native")));

    QVERIFY2(!pulseaudioProgram().isEmpty(),
             "pulseaudio is not installed; the player needs a sound server (setup.sh installs "
             "it)");
    // No client for a minute only happens once this process is gone: a test that crashed
    // leaves no server behind for long.
    QString output;
    const int code = runPulseaudio({QStringLiteral("-n"), QStringLiteral("--daemonize=yes"),
                                    QStringLiteral("--exit-idle-time=60"), QStringLiteral("-L"),
                                    QStringLiteral("module-null-sink"), QStringLiteral("-L"),
                                    QStringLiteral("module-native-protocol-unix")},
                                   &output);
    QVERIFY2(code == 0,
             qPrintable(QStringLiteral("pulseaudio did not start (exit code %1): %2")
                                .arg(code)
                                .arg(output)));
    m_serverStarted = true;
    QTRY_VERIFY2_WITH_TIMEOUT(QFileInfo::exists(runtime + QStringLiteral("/pulse/native"))
                                      && runPulseaudio({QStringLiteral("--check")}) == 0,
                              "pulseaudio started but does not answer", 10000);
    QVERIFY2(!QAudioDeviceInfo::defaultOutputDevice().isNull(),
             "the test process does not reach its PulseAudio server");
}

void tst_KrMediaPlayer::cleanupTestCase()
{
    if (m_player)
        runOnThreadOf(KrMediaPlayer::getInstance(), [this] { m_player->stop(); });
    if (m_serverStarted) {
        QString output;
        QVERIFY2(runPulseaudio({QStringLiteral("--kill")}, &output) == 0, qPrintable(output));
        QTRY_VERIFY(runPulseaudio({QStringLiteral("--check")}) != 0);
    }
}

void tst_KrMediaPlayer::init()
{
    if (!m_player)
        return;
    runOnThreadOf(KrMediaPlayer::getInstance(), [this] { m_player->stop(); });
    QTRY_COMPARE(state(), QMediaPlayer::StoppedState);
}

void tst_KrMediaPlayer::requestsBeforeInitAreLost()
{
    MessageCapture capture;
    KrMediaPlayer *instance = KrMediaPlayer::getInstance();
    QCOMPARE(instance->thread(), QThread::currentThread());
    QVERIFY(!instance->findChild<QMediaPlayer *>());
    instance->playSignalMusic(sound(QStringLiteral("a.wav")));
    QVERIFY(capture.matching(QtDebugMsg, QStringLiteral("audio available = ")).isEmpty());

    // the slot reached by name before there is a player only logs the request
    QVERIFY(QMetaObject::invokeMethod(instance, "slotPlaySignalMusic",
                                      Q_ARG(QString, sound(QStringLiteral("a.wav")))));
    const auto asked = capture.matching(QtDebugMsg, QStringLiteral("audio available = "));
    QCOMPARE(asked.size(), 1);
    QCOMPARE(asked.first().text,
             QStringLiteral("KrMediaPlayer::slotPlaySignalMusic audio available =  false false ")
                     + sound(QStringLiteral("a.wav")));
    QVERIFY(capture.matching(QtDebugMsg, QStringLiteral("current play status = ")).isEmpty());
    capture.clear();

    instance->initMediaPlay();
    m_player = onPlayerThread([instance] { return instance->findChild<QMediaPlayer *>(); });
    QVERIFY(m_player);
    QCOMPARE(state(), QMediaPlayer::StoppedState);
    QCOMPARE(playlistNames(), QStringList());
    QVERIFY(capture.matching(QtDebugMsg, QStringLiteral("audio available = ")).isEmpty());
}

void tst_KrMediaPlayer::initStartsPlayerOnItsThread()
{
    KrMediaPlayer *instance = KrMediaPlayer::getInstance();
    QThread *playerThread = instance->thread();
    QVERIFY(playerThread != QThread::currentThread());
    QCOMPARE(playerThread->objectName(), QStringLiteral("KrMediaPlayer"));
    QVERIFY(playerThread->isRunning());
    QCOMPARE(m_player->parent(), instance);
    QCOMPARE(m_player->thread(), playerThread);
    QCOMPARE(onPlayerThread([this] { return m_player->playlist()->playbackMode(); }),
             QMediaPlaylist::Sequential);

    // a second start changes nothing
    instance->initMediaPlay();
    QCOMPARE(instance->thread(), playerThread);
    QCOMPARE(onPlayerThread([instance] { return instance->findChildren<QMediaPlayer *>().size(); }),
             1);
}

void tst_KrMediaPlayer::requestsRightAfterInitArePlayed_data()
{
    QTest::addColumn<QStringList>("requests");
    QTest::addColumn<bool>("fromOtherThread");
    QTest::addColumn<QString>("playlist");

    const QString a = QStringLiteral("a.wav"), b = QStringLiteral("b.wav");
    QTest::newRow("one sound") << QStringList {a} << false << a;
    QTest::newRow("a repeat and another sound") << QStringList {a, a, b} << false << "a.wav b.wav";
    QTest::newRow("from another thread") << QStringList {a, b} << true << "a.wav b.wav";
}

// Requests made at once after initMediaPlay(), before the player's thread has made the player.
// The player starts once per process, so a fresh helper process starts it and makes them.
void tst_KrMediaPlayer::requestsRightAfterInitArePlayed()
{
    QFETCH(QStringList, requests);
    QFETCH(bool, fromOtherThread);
    QFETCH(QString, playlist);

    QStringList arguments;
    if (fromOtherThread)
        arguments << QStringLiteral("--from-thread");
    for (const QString &name : qAsConst(requests))
        arguments << sound(name);
    QProcess helper;
    helper.start(QStringLiteral(KRMEDIAPLAYER_HELPER), arguments);
    QVERIFY2(helper.waitForFinished(60000), qPrintable(helper.errorString()));
    const QByteArray errors = helper.readAllStandardError();
    QVERIFY2(helper.exitStatus() == QProcess::NormalExit && helper.exitCode() == 0,
             errors.constData());
    QCOMPARE(QString::fromLocal8Bit(helper.readAllStandardOutput()).trimmed(),
             QStringLiteral("PlayingState, playing %1, playlist %2")
                     .arg(requests.first(), playlist));
}

void tst_KrMediaPlayer::requestWhilePlaying_data()
{
    QTest::addColumn<QStringList>("requests");
    QTest::addColumn<bool>("fromOtherThread");
    QTest::addColumn<QStringList>("playlist");

    const QString a = QStringLiteral("a.wav"), b = QStringLiteral("b.wav"),
                  c = QStringLiteral("c.wav");
    QTest::newRow("the playing sound again, then another twice")
            << QStringList {a, a, b, b} << false << QStringList {a, b, b};
    QTest::newRow("the same from another thread")
            << QStringList {a, a, b, b} << true << QStringList {a, b, b};
    QTest::newRow("another, the playing one, another")
            << QStringList {b, a, b} << false << QStringList {a, b, b};
    QTest::newRow("the playing sound alone") << QStringList {a} << false << QStringList {a};
    QTest::newRow("two others in order") << QStringList {c, b} << true << QStringList {a, c, b};
}

void tst_KrMediaPlayer::requestWhilePlaying()
{
    QFETCH(QStringList, requests);
    QFETCH(bool, fromOtherThread);
    QFETCH(QStringList, playlist);

    QVERIFY2(startSound(QStringLiteral("a.wav")), qPrintable(describePlayer()));
    MessageCapture capture;
    auto request = [&] {
        for (const QString &name : qAsConst(requests))
            KrMediaPlayer::getInstance()->playSignalMusic(sound(name));
    };
    if (fromOtherThread)
        std::thread(request).join();
    else
        request();

    QCOMPARE(playlistNames(), playlist);
    QVERIFY2(state() == QMediaPlayer::PlayingState && currentName() == QLatin1String("a.wav"),
             "a.wav ended before the requests were handled; the result above proves nothing");
    const auto seen = capture.matching(QtDebugMsg, QStringLiteral("current play status = "));
    QCOMPARE(seen.size(), requests.size());
    for (const CapturedMessage &message : seen)
        QCOMPARE(message.text,
                 QStringLiteral("KrMediaPlayer::slotPlaySignalMusic current play status =  "
                                "QMediaPlayer::PlayingState"));
}

void tst_KrMediaPlayer::requestWhileNotPlaying_data()
{
    QTest::addColumn<bool>("pause");
    QTest::addColumn<QString>("request");

    QTest::newRow("paused, the paused sound") << true << QStringLiteral("a.wav");
    QTest::newRow("paused, another sound") << true << QStringLiteral("c.wav");
    QTest::newRow("stopped, the stopped sound") << false << QStringLiteral("a.wav");
    QTest::newRow("stopped, another sound") << false << QStringLiteral("c.wav");
}

void tst_KrMediaPlayer::requestWhileNotPlaying()
{
    QFETCH(bool, pause);
    QFETCH(QString, request);

    QVERIFY2(startSound(QStringLiteral("a.wav")), qPrintable(describePlayer()));
    KrMediaPlayer::getInstance()->playSignalMusic(sound(QStringLiteral("b.wav")));
    QCOMPARE(playlistNames(), QStringList({QStringLiteral("a.wav"), QStringLiteral("b.wav")}));
    QTRY_VERIFY(position() >= 500);
    runOnThreadOf(KrMediaPlayer::getInstance(), [&] {
        if (pause)
            m_player->pause();
        else
            m_player->stop();
    });
    const QMediaPlayer::State interrupted
            = pause ? QMediaPlayer::PausedState : QMediaPlayer::StoppedState;
    QTRY_COMPARE(state(), interrupted);
    const qint64 interruptedAt = position();

    MessageCapture capture;
    KrMediaPlayer::getInstance()->playSignalMusic(sound(request));
    QCOMPARE(playlistNames(), QStringList {request});
    QTRY_COMPARE(state(), QMediaPlayer::PlayingState);
    QCOMPARE(currentName(), request);
    if (pause) // a paused sound would go on from where it stood
        QTRY_VERIFY(position() < interruptedAt);
    const auto seen = capture.matching(QtDebugMsg, QStringLiteral("current play status = "));
    QCOMPARE(seen.size(), 1);
    QCOMPARE(seen.first().text,
             QStringLiteral("KrMediaPlayer::slotPlaySignalMusic current play status =  "
                            "QMediaPlayer::")
                     + QLatin1String(pause ? "PausedState" : "StoppedState"));
}

void tst_KrMediaPlayer::relativePathIsResolved()
{
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(m_soundDir.path()));
    KrMediaPlayer::getInstance()->playSignalMusic(QStringLiteral("b.wav"));
    const QString queued = onPlayerThread(
            [this] { return m_player->playlist()->media(0).request().url().toLocalFile(); });
    QVERIFY(QDir::setCurrent(previous));

    QCOMPARE(queued, sound(QStringLiteral("b.wav")));
    QTRY_VERIFY_WITH_TIMEOUT(position() > 0, 20000);
    QCOMPARE(state(), QMediaPlayer::PlayingState);
    QCOMPARE(currentName(), QStringLiteral("b.wav"));
}

void tst_KrMediaPlayer::missingFileIsSkipped_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("whilePlaying");

    const QString missing = sound(QStringLiteral("missing.wav"));
    QTest::newRow("missing file while playing") << missing << true;
    QTest::newRow("missing file while stopped") << missing << false;
    QTest::newRow("directory while playing") << m_soundDir.path() << true;
    QTest::newRow("empty path while stopped") << QString() << false;
}

void tst_KrMediaPlayer::missingFileIsSkipped()
{
    QFETCH(QString, path);
    QFETCH(bool, whilePlaying);

    if (whilePlaying) {
        QVERIFY2(startSound(QStringLiteral("a.wav")), qPrintable(describePlayer()));
        KrMediaPlayer::getInstance()->playSignalMusic(sound(QStringLiteral("b.wav")));
    }
    const QStringList before = playlistNames();
    const QMediaPlayer::State stateBefore = state();

    MessageCapture capture;
    KrMediaPlayer::getInstance()->playSignalMusic(path);
    QCOMPARE(playlistNames(), before);
    if (!whilePlaying) // (a playing sound may end by itself meanwhile)
        QCOMPARE(state(), stateBefore);
    const auto skipped = capture.matching(QtDebugMsg, QStringLiteral("play music filed"));
    QCOMPARE(skipped.size(), 1);
    QCOMPARE(skipped.first().text,
             QStringLiteral("KrMediaPlayer::slotPlaySignalMusic KrMediaPlayer play music filed, "
                            "file is not exist ")
                     + path);
    QCOMPARE(skipped.first().file, QStringLiteral("shell/krutils/KrMediaPlayer"));
    QVERIFY(capture.matching(QtDebugMsg, QStringLiteral("current play status = ")).isEmpty());
    const auto asked = capture.matching(QtDebugMsg, QStringLiteral("audio available = "));
    QCOMPARE(asked.size(), 1);
    QVERIFY2(asked.first().text.startsWith(
                     QLatin1String("KrMediaPlayer::slotPlaySignalMusic audio available = "))
                     && asked.first().text.endsWith(path),
             qPrintable(asked.first().text));
}

void tst_KrMediaPlayer::playerErrorIsLogged_data()
{
    QTest::addColumn<QByteArray>("content");

    QTest::newRow("text") << QByteArray("these bytes are no sound at all\n").repeated(64);
    QTest::newRow("truncated header") << QByteArray("RIFF\x24\x00\x00\x00WAVEfm", 14);
    QTest::newRow("empty file") << QByteArray();
}

void tst_KrMediaPlayer::playerErrorIsLogged()
{
    QFETCH(QByteArray, content);
    const QString broken = sound(QStringLiteral("broken.wav"));
    QVERIFY(writeBytes(broken, content));

    // What the handler should write for each error, noted as the player reports it (after the
    // handler, which was connected first): a back end may report more than one error.
    const QString handler
            = QStringLiteral("KrMediaPlayer::slotInitData::<lambda(QMediaPlayer::Error)> ");
    const QMetaEnum errors = QMediaPlayer::staticMetaObject.enumerator(
            QMediaPlayer::staticMetaObject.indexOfEnumerator("Error"));
    QStringList expected; // touched on the player's thread only
    const QMetaObject::Connection noting = onPlayerThread([&] {
        return connect(
                m_player, QOverload<QMediaPlayer::Error>::of(&QMediaPlayer::error), m_player,
                [&](QMediaPlayer::Error error) {
                    expected << handler + QLatin1String("QMediaPlayer::")
                                    + QLatin1String(errors.valueToKey(error)) + QLatin1Char(' ')
                                    + m_player->errorString();
                },
                Qt::DirectConnection);
    });

    MessageCapture capture;
    KrMediaPlayer::getInstance()->playSignalMusic(broken);
    QTRY_VERIFY_WITH_TIMEOUT(onPlayerThread([&] { return !expected.isEmpty(); }), 20000);

    // both lists read between two reports, on the thread that makes them
    QStringList logged;
    QVector<CapturedMessage> messages;
    runOnThreadOf(KrMediaPlayer::getInstance(), [&] {
        disconnect(noting);
        messages = capture.matching(QtDebugMsg, handler);
    });
    for (const CapturedMessage &message : qAsConst(messages)) {
        QCOMPARE(message.file, QStringLiteral("shell/krutils/KrMediaPlayer"));
        logged << message.text;
    }
    QCOMPARE(logged, expected);
    QVERIFY(!expected.first().startsWith(handler + QLatin1String("QMediaPlayer::NoError")));

    // the player is not reset and takes the next request as usual
    QVERIFY2(startSound(QStringLiteral("a.wav")), qPrintable(describePlayer()));
}

QTEST_GUILESS_MAIN(tst_KrMediaPlayer)

#include "tst_krmediaplayer.moc"
