#include "KrTestSupport.h"

#include <krutils/KrMediaPlayer.h>

#include <QAudioDeviceInfo>
#include <QMediaPlayer>
#include <QMediaPlaylist>
#include <QMetaEnum>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <thread>

namespace {

// A silent minute as a WAV file (PCM, 8 kHz, 16-bit mono): far longer than any test waits, so
// a sound that was seen playing still plays when the next request is handled, however loaded
// the machine is.
bool writeSound(const QString &path)
{
    constexpr quint32 bytes = 8000 * 2 * 60;
    const auto le32 = [](quint32 value) {
        value = qToLittleEndian(value);
        return QByteArray(reinterpret_cast<const char *>(&value), 4);
    };
    const QByteArray wav = "RIFF" + le32(36 + bytes)
            + QByteArray("WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x80\x3e\0\0\2\0\x10\0data", 28)
            + le32(bytes) + QByteArray(bytes, 0);
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(wav) == wav.size();
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

const char *enumKey(const char *enumeration, int value)
{
    const QMetaObject &player = QMediaPlayer::staticMetaObject;
    return player.enumerator(player.indexOfEnumerator(enumeration)).valueToKey(value);
}

void request(const QString &file)
{
    KrMediaPlayer::getInstance()->playSignalMusic(file);
}

} // namespace

// The player is process-wide: the functions run in order, the first one before and during its
// start; each later one begins with the player stopped (init()). A private PulseAudio server
// with a null sink stands in for a sound card, so sounds really play, silently.
class tst_KrMediaPlayer : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir; // the sounds, and the server's runtime directory
    bool m_serverStarted = false;
    QMediaPlayer *m_player = nullptr; // lives on the player's thread; read only there

    QString sound(const QString &name) const { return m_dir.filePath(name); }

    // Runs fn on the player's thread, after every request queued before.
    template<typename Fn> auto onPlayerThread(Fn fn)
    {
        decltype(fn()) result {};
        runOnThreadOf(KrMediaPlayer::getInstance(), [&] { result = fn(); });
        return result;
    }

    // The player's state, its sound and its playlist, by file name: "PlayingState a.wav |
    // a.wav b.wav".
    QString look()
    {
        if (!m_player)
            return QStringLiteral("no player");
        return onPlayerThread([this] {
            const auto name = [](const QMediaContent &media) {
                return QFileInfo(media.request().url().toLocalFile()).fileName();
            };
            QStringList parts {enumKey("State", m_player->state()), name(m_player->currentMedia()),
                               QStringLiteral("|")};
            for (int i = 0; i < m_player->playlist()->mediaCount(); ++i)
                parts << name(m_player->playlist()->media(i));
            return parts.join(QLatin1Char(' '));
        });
    }

    // Requests a sound while the player does not play, and waits until it plays it.
    void start(const QString &name)
    {
        request(sound(name));
        QTRY_COMPARE(look(), QStringLiteral("PlayingState %1 | %1").arg(name));
    }

    // The player's log lines about requests, without the function's name and what the back
    // end tells of its audio; or its other lines.
    static QStringList lines(const MessageCapture &capture, bool requests)
    {
        static const QRegularExpression request(
                QStringLiteral("^KrMediaPlayer::slotPlaySignalMusic (?:(audio available =)  \\w+ "
                               "\\w+)?"));
        QStringList lines;
        for (const CapturedMessage &message : capture.messages()) {
            QString text = message.text;
            if (message.file == QLatin1String("shell/krutils/KrMediaPlayer")
                && (text.replace(request, QStringLiteral("\\1")) != message.text) == requests)
                lines << text;
        }
        return lines;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(m_dir.isValid(), qPrintable(m_dir.errorString()));
        for (const char *name : {"a.wav", "b.wav", "c.wav"})
            QVERIFY(writeSound(sound(QLatin1String(name))));

        // The server and the player meet in the private directory, which keeps the server's
        // cookie too.
        qputenv("XDG_RUNTIME_DIR", QFile::encodeName(m_dir.path()));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(m_dir.path()));
        const QString socket = m_dir.filePath(QStringLiteral("pulse/native"));
        qputenv("PULSE_SERVER", QFile::encodeName(QStringLiteral("unix:") + socket));
        // Idle for a minute only once this process is gone: a crashed test leaves no server
        // behind for long.
        QString output;
        m_serverStarted = pulseaudio({"-n", "--daemonize=yes", "--exit-idle-time=60", "-L",
                                      "module-null-sink", "-L", "module-native-protocol-unix"},
                                     &output)
                == 0;
        QVERIFY2(m_serverStarted,
                 qPrintable(QStringLiteral("pulseaudio did not start: ") + output));
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(socket) && pulseaudio({"--check"}) == 0, 10000);
        QVERIFY2(!QAudioDeviceInfo::defaultOutputDevice().isNull(),
                 "the test does not reach its PulseAudio server");
    }

    void cleanupTestCase()
    {
        if (m_player)
            runOnThreadOf(KrMediaPlayer::getInstance(), [this] { m_player->stop(); });
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
        request(sound(QStringLiteral("c.wav"))); // lost: nothing listens yet
        // Reached by name before there is a player, the slot only logs the request.
        QVERIFY(QMetaObject::invokeMethod(alerts, "slotPlaySignalMusic",
                                          Q_ARG(QString, sound(QStringLiteral("c.wav")))));
        QCOMPARE(capture.messages().size(), 1);
        QCOMPARE(
                capture.messages().first().text,
                QStringLiteral("KrMediaPlayer::slotPlaySignalMusic audio available =  false false ")
                        + sound(QStringLiteral("c.wav")));

        // Requests made at once wait until the player's thread has made the player.
        alerts->initMediaPlay();
        for (const char *name : {"a.wav", "a.wav", "b.wav"})
            request(sound(QLatin1String(name)));
        alerts->initMediaPlay(); // a second start changes nothing

        QThread *thread = alerts->thread();
        QVERIFY(thread != QThread::currentThread());
        QCOMPARE(thread->objectName(), QStringLiteral("KrMediaPlayer"));
        const auto players
                = onPlayerThread([alerts] { return alerts->findChildren<QMediaPlayer *>(); });
        QCOMPARE(players.size(), 1);
        m_player = players.first();
        QCOMPARE(m_player->thread(), thread);
        QTRY_COMPARE(look(), QStringLiteral("PlayingState a.wav | a.wav b.wav"));
    }

    void requests_data()
    {
        QTest::addColumn<QString>("state"); // a.wav playing, or paused or stopped with b.wav queued
        QTest::addColumn<QStringList>("names"); // requested in the sounds' directory
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
            request(sound(QStringLiteral("b.wav")));
            runOnThreadOf(KrMediaPlayer::getInstance(), [&] {
                state == QLatin1String("PausedState") ? m_player->pause() : m_player->stop();
            });
            QTRY_COMPARE(look(), state + QStringLiteral(" a.wav | a.wav b.wav"));
        }

        // Each request logs what it asks for, then the state it met or why it was skipped.
        QStringList paths, expected;
        for (const QString &name : qAsConst(names)) {
            paths << (name.isEmpty() ? name : sound(name));
            expected << QStringLiteral("audio available = ") + paths.last()
                     << (QFileInfo(paths.last()).isFile()
                                 ? QStringLiteral("current play status =  QMediaPlayer::") + state
                                 : QStringLiteral("KrMediaPlayer play music filed, file is not "
                                                  "exist ")
                                         + paths.last());
        }
        MessageCapture capture;
        const auto send = [&] {
            for (const QString &path : qAsConst(paths))
                request(path);
        };
        fromOtherThread ? std::thread(send).join() : send();
        QTRY_COMPARE(look(), after);
        QCOMPARE(lines(capture, true), expected);
    }

    void relativePathIsResolved()
    {
        const QString previous = QDir::currentPath();
        QVERIFY(QDir::setCurrent(m_dir.path()));
        request(QStringLiteral("b.wav"));
        const QString queued = onPlayerThread(
                [this] { return m_player->playlist()->media(0).request().url().toLocalFile(); });
        QVERIFY(QDir::setCurrent(previous));
        QCOMPARE(queued, sound(QStringLiteral("b.wav")));
        QTRY_COMPARE(look(), QStringLiteral("PlayingState b.wav | b.wav"));
    }

    void playerErrorIsLogged()
    {
        const QString broken = sound(QStringLiteral("broken.wav"));
        QFile file(broken);
        QVERIFY(file.open(QIODevice::WriteOnly)
                && file.write(QByteArray("these bytes are no sound at all\n").repeated(64)) > 0);
        file.close();

        MessageCapture capture;
        request(broken);
        QTRY_VERIFY_WITH_TIMEOUT(!lines(capture, false).isEmpty(), 20000);
        // The latest report and the player's error, read together on the thread that makes both.
        // (The handler is a lambda, whose name each compiler writes its own way.)
        QString logged, error;
        runOnThreadOf(KrMediaPlayer::getInstance(), [&] {
            logged = lines(capture, false).last();
            error = QStringLiteral(" QMediaPlayer::%1 %2")
                            .arg(QLatin1String(enumKey("Error", m_player->error())),
                                 m_player->errorString());
        });
        QVERIFY2(logged.endsWith(error) && !error.contains(QLatin1String("NoError")),
                 qPrintable(logged + QStringLiteral(" / ") + error));

        // The player is not reset and takes the next request as usual.
        start(QStringLiteral("a.wav"));
    }
};

QTEST_GUILESS_MAIN(tst_KrMediaPlayer)
#include "tst_krmediaplayer.moc"
