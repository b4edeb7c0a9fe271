#include "KrTestSupport.h"

#include <krutils/KrCommonUtils.h>

#include <QDirIterator>
#include <QScreen>
#include <QTemporaryDir>
#include <QWidget>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

// The parameter files, the file and directory helpers, tooltips and screenshots.

static bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

static QByteArray fileContent(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

// Each list member has as many elements as its place among the algorithm parser's arguments.
static const QByteArray fullParamFile = R"({"InitialBasicParam": [{"name": "symbol"}],
    "InitialParamList": [{}, 7], "PerformParam": [{}, {}, {}], "ReportParam": [{}, {}, {}, {}],
    "LogParam": [{}, {}, {}, {}, {}], "CreateUIParam": {"width": 400},
    "MonitorUIParam": {"columns": ["a", "b"], "rows": 2}})";

class tst_KrCommonUtilsFiles : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_previousCurrent;
    QString path(const QString &relative) const { return m_dir->filePath(relative); }

private Q_SLOTS:
    void init()
    {
        m_dir.reset(new QTemporaryDir);
        QVERIFY(m_dir->isValid());
        m_previousCurrent = QDir::currentPath();
        QDir::setCurrent(m_dir->path()); // the parameter folders are relative to it
    }

    void cleanup()
    {
        QDir::setCurrent(m_previousCurrent);
        m_dir.reset();
    }

    // Each output starts with a stale entry: lists are appended to, maps replaced.
    void paramFile_data()
    {
        QTest::addColumn<QByteArray>("content"); // "<none>": no file at all
        QTest::addColumn<int>("code");
        // what the algorithm parser delivers: the sizes of InitialBasicParam, InitialParamList,
        // PerformParam, ReportParam, LogParam, MonitorUIParam and CreateUIParam
        QTest::addColumn<QList<int>>("sizes");
        const QList<int> untouched {1, 1, 1, 1, 1, 1, 1}, noMaps {1, 1, 1, 1, 1, 0, 0};
        QTest::newRow("parsed") << fullParamFile << 0 << QList<int> {2, 3, 4, 5, 6, 2, 1};
        QTest::newRow("missing") << QByteArray("<none>") << -1 << untouched;
        QTest::newRow("empty") << QByteArray() << -1 << untouched;
        QTest::newRow("huge") << QByteArray("<huge>") << -1 << untouched;
        QTest::newRow("truncated") << fullParamFile.left(100) << -2 << untouched;
        QTest::newRow("not UTF-8")
                << QByteArray("{\"ReportParam\": [\xff\xfe]}") << -2 << untouched;
        QTest::newRow("not JSON") << QByteArray("ReportParam = 1") << -2 << untouched;
        QTest::newRow("top level is an array") << QByteArray("[]") << 0 << noMaps;
        QTest::newRow("members of other shapes")
                << QByteArray(R"({"ReportParam": {}, "CreateUIParam": [1], "MonitorUIParam": 2})")
                << 0 << noMaps;
    }

    void paramFile()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, code);
        QFETCH(QList<int>, sizes);
        for (const char *file :
             {"res/plugindata/algo/a.json", "res/plugindata/Indicatoration/i.json"}) {
            if (content == "<huge>")
                QVERIFY(writeFile(file, "{}")
                        && QFile(file).resize(KrCommonUtils::MaxReadAllBytes + 1));
            else if (content != "<none>")
                QVERIFY(writeFile(file, content));
        }
        const QVariantMap stale {{"stale", 1}};
        QList<QVariantMap> basic {stale}, initial {stale}, perform {stale}, report {stale},
                log {stale};
        QVariantMap first = stale, second = stale;
        QCOMPARE(KrCommonUtils::praseAlgoParamJsonFile("a.json", basic, initial, perform, report,
                                                       log, first, second),
                 code);
        // crosswise: the first map receives MonitorUIParam, the second CreateUIParam
        QCOMPARE((QList<int> {basic.size(), initial.size(), perform.size(), report.size(),
                              log.size(), first.size(), second.size()}),
                 sizes);
        QCOMPARE(basic.last(), (sizes[0] > 1 ? QVariantMap {{"name", "symbol"}} : stale));
        QCOMPARE(initial.last(), sizes[1] > 1 ? QVariantMap() : stale); // 7 is no object: {}

        basic = initial = report = {stale};
        second = stale;
        QCOMPARE(KrCommonUtils::praseIndicatorParamJsonFile("i.json", basic, initial, report,
                                                            second),
                 code);
        QCOMPARE((QList<int> {basic.size(), initial.size(), report.size(), second.size()}),
                 (QList<int> {sizes[0], sizes[1], sizes[3], sizes[6]}));
    }

    void writeAndReadText()
    {
        const QString text = QStringLiteral("委托 order 42");
        KrCommonUtils::writeall(path("note.txt"), text);
        QCOMPARE(fileContent(path("note.txt")), text.toUtf8() + "\r\n");
        QCOMPARE(KrCommonUtils::readAll(path("note.txt")), text + "\r\n");
        KrCommonUtils::writeall(path("note.txt"), "short");
        QCOMPARE(fileContent(path("note.txt")), QByteArray("short\r\n")); // truncated
    }

    void deleteKeepsWhatLinksPointTo_data()
    {
        QTest::addColumn<bool>("clean"); // cleanDirectory, or DelDir
        QTest::addColumn<QStringList>("left"); // what remains in the tree
        // DelDir lists no hidden entries: it leaves them, and the directories that hold them
        QTest::newRow("DelDir") << false << QStringList {"sub", "sub/.hidden"};
        QTest::newRow("cleanDirectory") << true << QStringList {};
    }

    // tree/ holds files, a hidden and a read-only one, links to a file, a directory and an
    // ancestor outside it, and a broken link; nothing outside may change, permissions included.
    void deleteKeepsWhatLinksPointTo()
    {
        QFETCH(bool, clean);
        QFETCH(QStringList, left);
        QVERIFY(writeFile(path("outside/dir/keep.txt"), "keep"));
        QVERIFY(writeFile(path("tree/a.txt"), "a"));
        QVERIFY(writeFile(path("tree/sub/.hidden"), "h"));
        QVERIFY(writeFile(path("tree/sub/readonly.txt"), "r"));
        QVERIFY(QFile::setPermissions(path("tree/sub/readonly.txt"), QFile::ReadOwner));
        QVERIFY(QFile::link(path("outside/dir/keep.txt"), path("tree/file-link")));
        QVERIFY(QFile::link(path("outside/dir"), path("tree/sub/dir-link")));
        QVERIFY(QFile::link(m_dir->path(), path("tree/ancestor-link")));
        QVERIFY(QFile::link(path("nowhere"), path("tree/sub/broken-link")));
        const auto entries = [this](const QString &directory) {
            QStringList found;
            QDirIterator it(path(directory), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                            QDirIterator::Subdirectories);
            while (it.hasNext()) {
                const QString entry = QDir(path(directory)).relativeFilePath(it.next());
                found << (directory == "outside"
                                  ? entry + QString::number(it.fileInfo().permissions())
                                  : entry);
            }
            found.sort();
            return found;
        };
        const QStringList outside = entries("outside");

        MessageCapture capture;
        QCOMPARE(clean ? KrCommonUtils::cleanDirectory(path("tree"))
                       : KrCommonUtils::DelDir(path("tree")),
                 clean);
        QVERIFY(QFileInfo(path("tree")).isDir());
        QCOMPARE(entries("tree"), left);
        QCOMPARE(entries("outside"), outside);
        QVERIFY(capture.messages().isEmpty());
    }

    void directoryEdgeCases()
    {
        QVERIFY(!KrCommonUtils::DelDir(QString()));
        QVERIFY(KrCommonUtils::DelDir(path("missing")));
        QVERIFY(!KrCommonUtils::cleanDirectory(path("missing")));
        QVERIFY(QDir().mkpath(path("empty")));
        QVERIFY(KrCommonUtils::cleanDirectory(path("empty")));
        QVERIFY(QFileInfo(path("empty")).isDir());
        // like QDir::rmpath, DelDir also removes the parents that it leaves empty
        QVERIFY(writeFile(path("parent/flat/one.txt"), "1"));
        QVERIFY(writeFile(path("parent/flat/two.txt"), "2"));
        QVERIFY(KrCommonUtils::DelDir(path("parent/flat")));
        QVERIFY(!QFileInfo::exists(path("parent")));
        QVERIFY(QFileInfo::exists(path("empty"))); // a parent that is not empty stays

        // A directory that refuses the delete: a read-only one (root may empty it all the same)
        // that also holds an entry no listing shows, a name that is no UTF-8.
        QVERIFY(writeFile(path("locked/inner/x.txt"), "x"));
        const QByteArray unlisted = QFile::encodeName(path("locked/inner")) + "/\xff";
        QCOMPARE(::mkdir(unlisted.constData(), 0700), 0);
        const auto writable = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
        QVERIFY(QFile::setPermissions(path("locked/inner"), writable & ~QFile::WriteOwner));
        MessageCapture capture;
        QVERIFY(!KrCommonUtils::cleanDirectory(path("locked")));
        QVERIFY(QFile::setPermissions(path("locked/inner"), writable));
        QCOMPARE(::rmdir(unlisted.constData()), 0);
        const bool root = geteuid() == 0;
        QCOMPARE(capture.matching(QtDebugMsg, "rm file failed:").size(), root ? 0 : 1);
        QCOMPARE(capture.matching(QtDebugMsg, "rmdir ").size(), root ? 1 : 0);
        QCOMPARE(capture.matching(QtDebugMsg, "del the dir ").size(), 1);
    }

    void copyFile()
    {
        const QString source = path("source.txt"), target = path("target.txt");
        QVERIFY(KrCommonUtils::copyFileToPath(path("ghost.txt"), path("ghost.txt"), false));
        QVERIFY(!KrCommonUtils::copyFileToPath(path("ghost.txt"), target, true));
        QVERIFY(writeFile(source, "new"));
        QVERIFY(writeFile(target, "old"));
        QVERIFY(!KrCommonUtils::copyFileToPath(source, target, false));
        QCOMPARE(fileContent(target), QByteArray("old"));
        QVERIFY(KrCommonUtils::copyFileToPath(source, QString(target).replace('/', '\\'), true));
        QCOMPARE(fileContent(target), QByteArray("new"));
        QVERIFY(!KrCommonUtils::copyFileToPath(source, path("no/such/dir/t.txt"), true));
        QVERIFY(KrCommonUtils::isFileExist(target));
        QVERIFY(!KrCommonUtils::isFileExist(path("ghost.txt")));
        QVERIFY(!KrCommonUtils::isFileExist(m_dir->path()));
    }

    void tipString_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<QList<int>>("lineLengths"); // the first line holds one more
        QTest::newRow("100") << 100 << QList<int> {100};
        QTest::newRow("101") << 101 << QList<int> {101, 0};
        QTest::newRow("250") << 250 << QList<int> {101, 100, 49};
        QTest::newRow("301") << 301 << QList<int> {101, 100, 100, 0};
    }

    void tipString()
    {
        QFETCH(int, length);
        QFETCH(QList<int>, lineLengths);
        QList<int> lengths;
        for (const QString &line : KrCommonUtils::getMyTipString(QString(length, 'x')).split('\n'))
            lengths.append(line.size());
        QCOMPARE(lengths, lineLengths);
    }

    // On the offscreen platform (the tests' default) a grab is clipped to the window, which
    // has no frame, and there is no desktop to grab.
    void screenShot()
    {
        const bool offscreen = QGuiApplication::platformName() == "offscreen";
        QWidget widget;
        widget.resize(200, 120);
        widget.show();
        QVERIFY(QTest::qWaitForWindowExposed(&widget));
        const QPixmap picture = KrCommonUtils::screenShot(&widget);
        QCOMPARE(picture.size() / picture.devicePixelRatio(),
                 offscreen ? widget.size() : QSize(204, 150));
        if (offscreen)
            return;
        const QPixmap desktop = KrCommonUtils::screenShot(nullptr);
        QCOMPARE(desktop.size() / desktop.devicePixelRatio(),
                 QGuiApplication::primaryScreen()->size());
    }
};

QTEST_MAIN(tst_KrCommonUtilsFiles)
#include "tst_krcommonutils_files.moc"
