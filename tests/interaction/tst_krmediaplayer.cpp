#include "KrTestSupport.h"

#include <krutils/KrMediaPlayer.h>

#include <QAudioDeviceInfo>
#include <QMediaPlayer>
#include <QMediaPlaylist>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <thread>

namespace {

bool writeFile(const QString &name, const QByteArray &bytes)
{
    QFile file(name);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// A silent minute as a WAV file (PCM, 8 kHz, 16-bit mono): far longer than any test waits, so
// a sound seen playing still plays when the next request is handled, however loaded the
// machine is.
QByteArray silentMinute()
{
    QByteArray wav(
            "RIFF\x24\xa6\x0e\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x80\x3e\0\0\2\0\x10\0data"
            "\0\xa6\x0e\0",
            44);
    return wav.append(8000 * 2 * 60, 0);
}

// Runs pulseaudio; its exit code, or -1, with what it said in output.
int pulseaudio(const QStringList &arguments, QString *output = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("pulseaudio"), arguments);
    const bool finished = process.waitForFinished(30000);
    if (output)
        *output = QString::fromLocal8Bit(process.readAll()) + process.errorString();
    return finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

void request(const QString &file)
{
    KrMediaPlayer::getInstance()->playSignalMusic(file);
}

// The player's log lines without the function's name, but for the line every request starts
// with, which tells what the back end knows of its audio.
QStringList lines(const MessageCapture &capture)
{
    QStringList lines;
    for (const CapturedMessage &message : capture.messages()) {
        if (message.file == QLatin1String("shell/krutils/KrMediaPlayer")
            && !message.text.contains(QLatin1String("audio available = ")))
            lines << message.text.section(QLatin1Char(' '), 1);
    }
    return lines;
}

} // namespace

// The player is process-wide: the functions run in order, the first one before and during its
// start; each later one begins with the player stopped (init()). A private PulseAudio server
// with a null sink stands in for a sound card, so sounds really play, silently. The sounds are
// asked for by names relative to the current directory, which is theirs.
class tst_KrMediaPlayer : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir; // the sounds, and the server's runtime directory
    bool m_serverStarted = false;
    QMediaPlayer *m_player = nullptr; // lives on the player's thread; read only there

    // The player's state, its sound and its playlist, by file name: "PlayingState a.wav |
    // a.wav b.wav". Read on the player's thread, after every request queued before.
    QString look()
    {
        QString text = QStringLiteral("no player");
        runOnThreadOf(KrMediaPlayer::getInstance(), [&] {
            if (!m_player)
                return;
            const auto name = [](const QMediaContent &media) {
                return QFileInfo(media.request().url().toLocalFile()).fileName();
            };
            static const QStringList states {"StoppedState", "PlayingState", "PausedState"};
            QStringList parts {states.at(m_player->state()), name(m_player->currentMedia()), "|"};
            for (int i = 0; i < m_player->playlist()->mediaCount(); ++i)
                parts << name(m_player->playlist()->media(i));
            text = parts.join(QLatin1Char(' '));
        });
        return text;
    }

    // Requests a sound while the player does not play, and waits until it plays it.
    void start(const QString &name)
    {
        request(name);
        QTRY_COMPARE(look(), QStringLiteral("PlayingState %1 | %1").arg(name));
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_dir.isValid(), qPrintable(m_dir.errorString()));
        QVERIFY(QDir::setCurrent(m_dir.path()));
        for (const char *name : {"a.wav", "b.wav", "c.wav"})
            QVERIFY(writeFile(QLatin1String(name), silentMinute()));

        // The server and the player meet in the private directory, which keeps the server's
        // cookie too. Idle for a minute only once this process is gone, the server does not
        // outlive a crashed test for long.
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_dir.path()));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_dir.path()));
        const QString socket = m_dir.filePath(QStringLiteral("pulse/native"));
        qputenv("PULSE_SERVER", QFile::encodeName(QStringLiteral("unix:") + socket));
        QString output;
        QVERIFY2(pulseaudio({"-n", "--daemonize=yes", "--exit-idle-time=60", "-L",
                             "module-null-sink", "-L", "module-native-protocol-unix"},
                            &output)
                         == 0,
                 qPrintable(output));
        m_serverStarted = true;
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(socket) && pulseaudio({"--check"}) == 0, 10000);
        QVERIFY2(!QAudioDeviceInfo::defaultOutputDevice().isNull(),
                 "the test does not reach its PulseAudio server");
    }

    void cleanupTestCase()
    {
        init();
        if (m_serverStarted) {
            QCOMPARE(pulseaudio({"--kill"}), 0);
            QTRY_VERIFY(pulseaudio({"--check"}) != 0);
        }
    }

    void init()
    {
        if (m_player) {
            runOnThreadOf(KrMediaPlayer::getInstance(), [this] { m_player->stop(); });
            QTRY_VERIFY(look().startsWith(QLatin1String("StoppedState")));
        }
    }

    void startsOnItsThread()
    {
        KrMediaPlayer *alerts = KrMediaPlayer::getInstance();
        QCOMPARE(alerts->thread(), QThread::currentThread());
        MessageCapture capture;
        request(QStringLiteral("c.wav")); // lost: nothing listens yet
        // Reached by name before there is a player, the slot only logs the request.
        QVERIFY(QMetaObject::invokeMethod(alerts, "slotPlaySignalMusic",
                                          Q_ARG(QString, QStringLiteral("c.wav"))));
        QCOMPARE(capture.messages().size(), 1);
        QCOMPARE(capture.messages().first().text,
                 QStringLiteral("KrMediaPlayer::slotPlaySignalMusic audio available =  false false "
                                "c.wav"));

        // Requests made at once wait until the player's thread has made the player.
        alerts->initMediaPlay();
        for (const char *name : {"a.wav", "a.wav", "b.wav"})
            request(QLatin1String(name));
        alerts->initMediaPlay(); // a second start changes nothing

        QThread *thread = alerts->thread();
        QVERIFY(thread != QThread::currentThread());
        QCOMPARE(thread->objectName(), QStringLiteral("KrMediaPlayer"));
        QList<QMediaPlayer *> players;
        runOnThreadOf(alerts, [&] { players = alerts->findChildren<QMediaPlayer *>(); });
        QCOMPARE(players.size(), 1);
        m_player = players.first();
        QCOMPARE(m_player->thread(), thread);
        QTRY_COMPARE(look(), QStringLiteral("PlayingState a.wav | a.wav b.wav"));
    }

    void requests_data()
    {
        QTest::addColumn<QString>("state"); // a.wav playing, or paused or stopped with b.wav queued
        QTest::addColumn<QStringList>("names");
        QTest::addColumn<bool>("fromOtherThread");
        QTest::addColumn<QString>("after");

        // While a sound plays, a request is compared with it, not with the playlist.
        QTest::newRow("the playing sound again, then another twice")
                << "PlayingState" << QStringList {"a.wav", "a.wav", "b.wav", "b.wav"} << false
                << "PlayingState a.wav | a.wav b.wav b.wav";
        QTest::newRow("others around the playing one, from another thread")
                << "PlayingState" << QStringList {"c.wav", "a.wav", "b.wav"} << true
                << "PlayingState a.wav | a.wav c.wav b.wav";
        // Otherwise the playlist left behind is dropped and the new sound starts at once.
        QTest::newRow("paused, the paused sound")
                << "PausedState" << QStringList {"a.wav"} << false << "PlayingState a.wav | a.wav";
        QTest::newRow("stopped, another sound")
                << "StoppedState" << QStringList {"c.wav"} << false << "PlayingState c.wav | c.wav";
        // What cannot be opened is skipped.
        QTest::newRow("a missing file while playing") << "PlayingState" << QStringList {"none.wav"}
                                                      << false << "PlayingState a.wav | a.wav";
        QTest::newRow("a directory and an empty path while stopped")
                << "StoppedState" << QStringList {".", ""} << false
                << "StoppedState a.wav | a.wav b.wav";
    }

    void requests()
    {
        QFETCH(QString, state);
        QFETCH(QStringList, names);
        QFETCH(bool, fromOtherThread);
        QFETCH(QString, after);

        start(QStringLiteral("a.wav"));
        if (state != QLatin1String("PlayingState")) {
            request(QStringLiteral("b.wav"));
            runOnThreadOf(KrMediaPlayer::getInstance(), [&] {
                state == QLatin1String("PausedState") ? m_player->pause() : m_player->stop();
            });
            QTRY_COMPARE(look(), state + QStringLiteral(" a.wav | a.wav b.wav"));
        }

        // Each request logs the state it met, or why it was skipped.
        QStringList expected;
        for (const QString &name : qAsConst(names)) {
            expected << (QFileInfo(name).isFile()
                                 ? QStringLiteral("current play status =  QMediaPlayer::") + state
                                 : QStringLiteral("KrMediaPlayer play music filed, file is not "
                                                  "exist ")
                                         + name);
        }
        MessageCapture capture;
        const auto send = [&] {
            for (const QString &name : qAsConst(names))
                request(name);
        };
        fromOtherThread ? std::thread(send).join() : send();
        QTRY_COMPARE(look(), after);
        QCOMPARE(lines(capture), expected);
    }

    void playerErrorIsLogged()
    {
        QVERIFY(writeFile(QStringLiteral("broken.wav"), QByteArray(2048, 'x')));
        MessageCapture capture;
        request(QStringLiteral("broken.wav"));
        QTRY_VERIFY_WITH_TIMEOUT(lines(capture).size() > 1, 20000); // the state, then an error
        // The latest report and the player's error, read together on the thread that makes both
        // (the handler is a lambda, whose name each compiler writes its own way).
        QString logged, error;
        runOnThreadOf(KrMediaPlayer::getInstance(), [&] {
            logged = lines(capture).last();
            QDebug(&error).noquote() << m_player->error() << m_player->errorString();
        });
        QVERIFY2(logged.endsWith(error.trimmed()),
                 qPrintable(logged + QLatin1String(" / ") + error));
        QVERIFY(!error.startsWith(QLatin1String("QMediaPlayer::NoError")));

        // The player is not reset and takes the next request as usual.
        start(QStringLiteral("a.wav"));
    }
};

QTEST_GUILESS_MAIN(tst_KrMediaPlayer)
#include "tst_krmediaplayer.moc"
