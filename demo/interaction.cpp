// Interaction services: the token bucket, order ids, shortcuts, alert sounds.

#include "krdemo.h"

#include <krdefine/krdefine.h>
#include <krutils/CKrUUID.h>
#include <krutils/KrMediaPlayer.h>
#include <krutils/KrShortcutMgr.h>
#include <krutils/KrThread.h>
#include <krutils/KrTokenBucket.h>

#include <QAudioDeviceInfo>
#include <QCoreApplication>
#include <QDataStream>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMediaPlayer>
#include <QMutex>
#include <QTemporaryDir>
#include <QThread>
#include <QWidget>

#include <cmath>
#include <thread>
#include <vector>

namespace krdemo {

namespace {

// Order requests of three trading desks, sent through one shared token bucket.
struct OrderRequest
{
    QString desk;
    int number;
};

// Notes which key presses reach a widget past the filters installed after it.
class KeyWitness : public QObject
{
public:
    QList<int> pressesSeen;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::KeyPress)
            pressesSeen << static_cast<QKeyEvent *>(event)->key();
        return false;
    }
};

// What a keyboard sends for one key with modifiers: the modifier presses, the key, the
// releases in reverse order.
void typeKey(QWidget *target, Qt::Key key, Qt::KeyboardModifiers modifiers, const QString &text)
{
    const QList<QPair<Qt::KeyboardModifier, Qt::Key>> modifierKeys {
            {Qt::ShiftModifier, Qt::Key_Shift},
            {Qt::ControlModifier, Qt::Key_Control},
            {Qt::AltModifier, Qt::Key_Alt},
            {Qt::MetaModifier, Qt::Key_Meta}};
    auto send = [target](QEvent::Type type, Qt::Key sent, Qt::KeyboardModifiers held,
                         const QString &sentText) {
        QKeyEvent event(type, sent, held, sentText);
        QCoreApplication::sendEvent(target, &event);
    };
    for (const auto &modifier : modifierKeys) {
        if (modifiers & modifier.first)
            send(QEvent::KeyPress, modifier.second, modifiers, QString());
    }
    send(QEvent::KeyPress, key, modifiers, text);
    send(QEvent::KeyRelease, key, modifiers, text);
    for (auto modifier = modifierKeys.crbegin(); modifier != modifierKeys.crend(); ++modifier) {
        if (modifiers & modifier->first)
            send(QEvent::KeyRelease, modifier->second, modifiers, QString());
    }
}

// A short alert: a tone that fades out, as a 16-bit PCM mono 44.1 kHz WAV file.
bool writeAlertSound(const QString &fileName, double frequency, int milliseconds)
{
    constexpr quint32 rate = 44100;
    const quint32 samples = rate * milliseconds / 1000;
    QFile file(fileName);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QDataStream out(&file);
    out.setByteOrder(QDataStream::LittleEndian);
    out.writeRawData("RIFF", 4);
    out << quint32(36 + 2 * samples);
    out.writeRawData("WAVEfmt ", 8);
    out << quint32(16) << quint16(1) << quint16(1) << rate << quint32(2 * rate) << quint16(2)
        << quint16(16);
    out.writeRawData("data", 4);
    out << quint32(2 * samples);
    for (quint32 i = 0; i < samples; ++i) {
        const double fade = 1.0 - double(i) / samples;
        out << qint16(12000 * fade * std::sin(2 * M_PI * frequency * i / rate));
    }
    return out.status() == QDataStream::Ok;
}

} // namespace

void tourTokenBucket()
{
    section("6. Token bucket (KrTokenBucket)",
            "Three desks send 4 orders each at once through one bucket of 5 tokens that gets 3 "
            "tokens back\nper second. Orders without a token wait for signalTokenCountRenew and "
            "retry.");
    auto *throttleThread = new KrThread;
    throttleThread->setObjectName(QStringLiteral("OrderThrottle"));
    auto *bucket = new KrTokenBucket(5, 3);
    bucket->moveToThread(throttleThread);
    throttleThread->start();

    QMutex waitingMutex;
    QList<OrderRequest> waiting;
    auto send = [&](const OrderRequest &order, const char *when) {
        const bool granted = bucket->consumeTokens(1) == 1;
        say("    %s\n",
            QStringLiteral("%1 order %2 %3: %4")
                    .arg(order.desk)
                    .arg(order.number)
                    .arg(QLatin1String(when),
                         granted ? QStringLiteral("sent") : QStringLiteral("no token, waits")));
        return granted;
    };

    // The burst: each desk sends from its own thread.
    std::vector<std::thread> desks;
    for (const QString &desk :
         {QStringLiteral("desk-A"), QStringLiteral("desk-B"), QStringLiteral("desk-C")}) {
        desks.emplace_back([&, desk] {
            for (int number = 1; number <= 4; ++number) {
                const OrderRequest order {desk, number};
                if (!send(order, "at once")) {
                    QMutexLocker locker(&waitingMutex);
                    waiting.append(order);
                }
            }
        });
    }
    for (std::thread &desk : desks)
        desk.join();

    QEventLoop loop;
    QElapsedTimer clock;
    clock.start();
    QObject::connect(bucket, &KrTokenBucket::signalTokenCountRenew, &loop, [&] {
        say("  after %s s: tokens came back\n", QString::number(clock.elapsed() / 1000.0, 'f', 1));
        QMutexLocker locker(&waitingMutex);
        while (!waiting.isEmpty() && send(waiting.first(), "retried"))
            waiting.removeFirst();
        if (waiting.isEmpty())
            loop.quit();
    });
    say("  %s orders wait for tokens.\n", QString::number(waiting.size()));
    loop.exec();
    say("  All 12 orders sent after %s s: 5 at once, then 3 per second.\n",
        QString::number(clock.elapsed() / 1000.0, 'f', 1));

    QMetaObject::invokeMethod(bucket, &QObject::deleteLater);
    QObject::connect(throttleThread, &QThread::finished, throttleThread, &QObject::deleteLater);
    throttleThread->quit();
    throttleThread->wait();
}

void tourIds()
{
    section("7. Order ids (CKrUUID)",
            "After login the client sets the user's name; every id carries it.");
    CKrUUID *ids = CKrUUID::GetInstance();
    say("  before login:  %s\n", ids->GetUuid());
    ids->setLoginName(QStringLiteral("trader01"));
    for (int i = 0; i < 3; ++i)
        say("  order id:      %s\n", ids->GetUuid());
    constexpr int count = 200000;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < count; ++i)
        ids->GetUuid();
    say("  %s\n",
        QStringLiteral("%1 ids in %2 ms on one thread")
                .arg(count)
                .arg(clock.nsecsElapsed() / 1e6, 0, 'f', 0));
}

void tourShortcuts()
{
    section("8. Shortcuts (KrShortcutMgr)",
            "An order page registers itself and its edit field, then declares F2 (buy), Ctrl+S "
            "(sell) and the\ntwo-key Ctrl+K, Ctrl+C (cancel all). Keys typed into the edit "
            "field fire the page's shortcuts;\nannouncements arrive from "
            "\"ShortcutSenderThread\" after the key event has returned.");
    QWidget page;
    page.setObjectName(QStringLiteral("orderPage"));
    auto *edit = new QLineEdit(&page);
    KeyWitness witness; // installed first, so it runs after the manager's filter
    edit->installEventFilter(&witness);
    KrShortcutMgr *shortcuts = KrShortcutMgr::instance();
    shortcuts->RegisterObject(&page, {edit}, QStringLiteral("orders#1"), QStringLiteral("trade"));
    const QString &create = Orvex_Values::AlterType::create;
    shortcuts->AlterShortcutInfo(&page, create, QKeySequence(Qt::Key_F2), 1,
                                 {{QStringLiteral("action"), QStringLiteral("buy")}});
    shortcuts->AlterShortcutInfo(&page, create, QKeySequence(Qt::CTRL + Qt::Key_S), 2,
                                 {{QStringLiteral("action"), QStringLiteral("sell")}});
    shortcuts->AlterShortcutInfo(&page, create,
                                 QKeySequence(Qt::CTRL + Qt::Key_K, Qt::CTRL + Qt::Key_C), 3,
                                 {{QStringLiteral("action"), QStringLiteral("cancel all")}});
    say("  Declaring F2 a second time is refused:\n");
    shortcuts->AlterShortcutInfo(&page, create, QKeySequence(Qt::Key_F2), 9, {});

    QEventLoop loop;
    QObject::connect(shortcuts, &KrShortcutMgr::signalShortcutTriggered, &loop,
                     [](QObject *obj, int id, const QVariantMap &infoMap,
                        const QString &pluginInstId, const QString &menuId) {
                         say("    %s\n",
                             QStringLiteral("fired: id %1 \"%2\" on %3 (%4 / %5), received on "
                                            "thread \"%6\"")
                                     .arg(id)
                                     .arg(infoMap.value(QStringLiteral("action")).toString(),
                                          obj->objectName(), pluginInstId, menuId,
                                          QThread::currentThread()->objectName()));
                     });
    auto type = [&](const char *what, Qt::Key key, Qt::KeyboardModifiers modifiers,
                    const QString &text = QString()) {
        witness.pressesSeen.clear();
        typeKey(edit, key, modifiers, text);
        say("  typed %s\n",
            QStringLiteral("%1: %2").arg(
                    QLatin1String(what),
                    witness.pressesSeen.contains(key)
                            ? QStringLiteral("the key reached the edit field")
                            : QStringLiteral("the key was taken by the manager")));
        pumpEvents(50);
    };
    type("F2", Qt::Key_F2, Qt::NoModifier);
    type("Shift+F2 (Shift is ignored)", Qt::Key_F2, Qt::ShiftModifier);
    type("Ctrl+S", Qt::Key_S, Qt::ControlModifier);
    type("Ctrl+K (the first of two keys)", Qt::Key_K, Qt::ControlModifier);
    type("Ctrl+C within the second", Qt::Key_C, Qt::ControlModifier);
    type("the letter x", Qt::Key_X, Qt::NoModifier, QStringLiteral("x"));
    type("Ctrl+C alone (copy, no shortcut)", Qt::Key_C, Qt::ControlModifier);
    say("  The edit field now reads \"%s\".\n", edit->text());
    shortcuts->UnregisterObject(&page);
}

void tourAlertSounds()
{
    section("13. Alert sounds (KrMediaPlayer)",
            "An order fill is announced twice in a row, then a price alert and a sound that was "
            "never\ninstalled. The player works on its own thread \"KrMediaPlayer\": the first "
            "request starts the\nfill sound, the repeat while it plays is dropped, the price "
            "alert waits its turn, and the\nmissing file is logged as \"file is not exist\".");
    QTemporaryDir folder;
    const QString fill = folder.filePath(QStringLiteral("fill.wav"));
    const QString price = folder.filePath(QStringLiteral("price.wav"));
    if (!writeAlertSound(fill, 880, 600) || !writeAlertSound(price, 1320, 400)) {
        say("  Could not write the alert sounds into %s; skipped.\n", folder.path());
        return;
    }
    const QAudioDeviceInfo output = QAudioDeviceInfo::defaultOutputDevice();

    KrMediaPlayer *alerts = KrMediaPlayer::getInstance();
    alerts->initMediaPlay();
    // Only the demo looks at the player itself, to tell what was heard; the client just asks.
    QMediaPlayer *player = nullptr;
    QMetaObject::invokeMethod(
            alerts, [&] { player = alerts->findChild<QMediaPlayer *>(); },
            Qt::BlockingQueuedConnection);
    QObject watcher;
    QElapsedTimer clock;
    clock.start();
    bool played = false, finished = false, failed = false;
    int sounds = 0;
    QObject::connect(player, &QMediaPlayer::currentMediaChanged, &watcher,
                     [&](const QMediaContent &media) {
                         const QString name = media.request().url().fileName();
                         if (name.isEmpty()) // the playlist itself, as it is set up
                             return;
                         ++sounds;
                         say("  %s\n",
                             QStringLiteral("%1 s: playing %2")
                                     .arg(clock.elapsed() / 1000.0, 0, 'f', 1)
                                     .arg(name));
                     });
    QObject::connect(player, &QMediaPlayer::stateChanged, &watcher, [&](QMediaPlayer::State state) {
        played = played || state == QMediaPlayer::PlayingState;
        finished = played && state == QMediaPlayer::StoppedState;
    });
    QObject::connect(player, QOverload<QMediaPlayer::Error>::of(&QMediaPlayer::error), &watcher,
                     [&] { failed = finished = true; });

    alerts->playSignalMusic(fill);
    alerts->playSignalMusic(fill);
    alerts->playSignalMusic(price);
    alerts->playSignalMusic(folder.filePath(QStringLiteral("margin-call.wav")));
    waitUntil([&] { return finished; });
    say("  %s\n",
        QStringLiteral("%1 s: the player stopped; %2 sound(s) played.")
                .arg(clock.elapsed() / 1000.0, 0, 'f', 1)
                .arg(sounds));
    if (failed)
        say("  The sound back end reported an error (the log line above), so the alerts stayed "
            "silent;\n  the player takes the next request all the same.\n");
    else if (output.isNull())
        say("  No sound device or sound server here: GStreamer played the alerts into a silent "
            "sink,\n  in real time, so the order of events above is the same.\n");
    else
        say("  The alerts went to the sound output \"%s\".\n", output.deviceName());
}

} // namespace krdemo
