#include <krutils/KrCommonUtils.h>

#include <QPixmap>
#include <QScreen>
#include <QWidget>
#include <QtTest>

// screenShot. On the offscreen platform (the tests' default) a grab holds no real pixels and is
// clipped to the window, which has no frame: only non-null-ness and sizes can be checked.
class tst_KrCommonUtilsScreen : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void grabsWidgetWithItsFrame();
    void grabsTheDesktopForNoWidget();
};

void tst_KrCommonUtilsScreen::grabsWidgetWithItsFrame()
{
    QWidget widget;
    widget.resize(200, 120);
    widget.show();
    QVERIFY(QTest::qWaitForWindowExposed(&widget));
    const QPixmap picture = KrCommonUtils::screenShot(&widget);
    QVERIFY(!picture.isNull());
    const QSize size = picture.size() / picture.devicePixelRatio();
    if (QGuiApplication::platformName() == QLatin1String("offscreen"))
        QCOMPARE(size, widget.size()); // the frame margins fall outside the frameless window
    else
        QCOMPARE(size, QSize(204, 150));
}

void tst_KrCommonUtilsScreen::grabsTheDesktopForNoWidget()
{
    if (QGuiApplication::platformName() == QLatin1String("offscreen"))
        QSKIP("the offscreen platform has no desktop to grab");
    const QPixmap desktop = KrCommonUtils::screenShot(nullptr);
    QVERIFY(!desktop.isNull());
    QCOMPARE(desktop.size() / desktop.devicePixelRatio(), QGuiApplication::primaryScreen()->size());
}

QTEST_MAIN(tst_KrCommonUtilsScreen)
#include "tst_krcommonutils_screen.moc"
