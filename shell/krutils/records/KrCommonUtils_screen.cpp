// KrCommonUtils: pictures of widgets and tooltip text.

#include "KrCommonUtils.h"

#include <QGuiApplication>
#include <QPixmap>
#include <QScreen>
#include <QWidget>

QPixmap KrCommonUtils::screenShot(QWidget *widget)
{
    if (!widget) {
        QScreen *screen = QGuiApplication::primaryScreen();
        return screen ? screen->grabWindow(0) : QPixmap();
    }
    QScreen *screen = widget->screen();
    if (!screen)
        return QPixmap();
    return screen->grabWindow(widget->winId(), -2, -26, widget->width() + 4, widget->height() + 30);
}

QString KrCommonUtils::getMyTipString(const QString &text)
{
    if (text.size() <= 100)
        return text;
    QString wrapped;
    wrapped.reserve(text.size() + text.size() / 100);
    for (int i = 0; i < text.size(); ++i) {
        wrapped.append(text.at(i));
        if (i != 0 && i % 100 == 0)
            wrapped.append(QLatin1Char('\n'));
    }
    return wrapped;
}
