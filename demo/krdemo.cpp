#include "krdemo.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QMutex>
#include <QThread>
#include <QTimer>

#include <cstdio>

namespace krdemo {

namespace {
// One line at a time on the console, from whichever thread writes it.
QMutex outputMutex;
} // namespace

void say(const char *format, const QString &argument)
{
    QMutexLocker locker(&outputMutex);
    std::printf(format, qUtf8Printable(argument));
    std::fflush(stdout);
}

void section(const char *title, const char *what)
{
    say("\n%s\n", QString::fromUtf8(title));
    say("%s\n", QString(QString::fromUtf8(title).size(), QLatin1Char('-')));
    say("%s\n", QString::fromUtf8(what));
}

void printLogLine(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    static const QMap<QtMsgType, const char *> levels = {{QtDebugMsg, "debug"},
                                                         {QtInfoMsg, "info"},
                                                         {QtWarningMsg, "WARNING"},
                                                         {QtCriticalMsg, "CRITICAL"},
                                                         {QtFatalMsg, "FATAL"}};
    QString thread = QThread::currentThread()->objectName();
    if (thread.isEmpty())
        thread = QThread::currentThread() == qApp->thread() ? QStringLiteral("main")
                                                            : QStringLiteral("(unnamed)");
    QMutexLocker locker(&outputMutex);
    std::printf("    log %-7s [%s] %s\n", levels.value(type, "?"), qUtf8Printable(thread),
                qUtf8Printable(text));
    std::fflush(stdout);
}

void pumpEvents(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

bool waitUntil(const std::function<bool()> &done)
{
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < 10000)
        pumpEvents(10);
    return done();
}

} // namespace krdemo
