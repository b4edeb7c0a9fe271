#include "KrTestSupport.h"

#include <krutils/KrCommonUtils.h>

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

namespace {

bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

QByteArray fileContent(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

const QByteArray fullAlgoFile = R"({
    "InitialBasicParam": [{"name": "symbol", "type": "string"}, {"name": "side"}],
    "InitialParamList": [{"name": "volume", "default": 100}, 7],
    "PerformParam": [{"name": "slices", "default": 12}],
    "ReportParam": [],
    "LogParam": [{"level": "info"}],
    "CreateUIParam": {"width": 400},
    "MonitorUIParam": {"columns": ["a", "b"]}
})";

} // namespace

class tst_KrCommonUtilsFiles : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void algoParamFile();
    void algoParamListsAccumulate();
    void indicatorParamFile();
    void badParamFiles_data();
    void badParamFiles();
    void readAndWriteText();
    void delDirRemovesTheTreeButNoLinkTarget();
    void cleanDirectoryEmptiesTheTreeButNoLinkTarget();
    void directoryEdgeCases();
    void copyFile();
    void fileExists();
    void tipString_data();
    void tipString();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    QString m_previousCurrent;
    QString path(const QString &relative) const { return m_dir->filePath(relative); }
};

void tst_KrCommonUtilsFiles::init()
{
    m_dir.reset(new QTemporaryDir);
    QVERIFY(m_dir->isValid());
    m_previousCurrent = QDir::currentPath();
    QDir::setCurrent(m_dir->path()); // the parameter folders are relative to it
}

void tst_KrCommonUtilsFiles::cleanup()
{
    QDir::setCurrent(m_previousCurrent);
    m_dir.reset();
}

void tst_KrCommonUtilsFiles::algoParamFile()
{
    QVERIFY(writeFile(path(QStringLiteral("res/plugindata/algo/twap.json")), fullAlgoFile));
    QList<QVariantMap> basic, initial, perform, report, log;
    QVariantMap first {{QStringLiteral("stale"), 1}}, second {{QStringLiteral("stale"), 1}};
    QCOMPARE(KrCommonUtils::praseAlgoParamJsonFile(QStringLiteral("twap.json"), basic, initial,
                                                   perform, report, log, first, second),
             0);
    QCOMPARE(basic.size(), 2);
    QCOMPARE(basic.at(0).value(QStringLiteral("name")), QVariant(QStringLiteral("symbol")));
    QCOMPARE(initial.size(), 2);
    QCOMPARE(initial.at(1), QVariantMap()); // 7 is no object: an empty record, still appended
    QCOMPARE(perform.at(0).value(QStringLiteral("default")).toInt(), 12);
    QVERIFY(report.isEmpty());
    QCOMPARE(log.size(), 1);
    // crosswise: the first map receives MonitorUIParam, the last CreateUIParam
    QCOMPARE(first.keys(), QStringList {QStringLiteral("columns")});
    QCOMPARE(second, (QVariantMap {{QStringLiteral("width"), 400}}));
}

void tst_KrCommonUtilsFiles::algoParamListsAccumulate()
{
    QVERIFY(writeFile(path(QStringLiteral("res/plugindata/algo/a.json")), fullAlgoFile));
    QList<QVariantMap> basic, initial, perform, report, log;
    QVariantMap monitor, create;
    for (int i = 0; i < 2; ++i)
        QCOMPARE(KrCommonUtils::praseAlgoParamJsonFile(QStringLiteral("a.json"), basic, initial,
                                                       perform, report, log, monitor, create),
                 0);
    QCOMPARE(basic.size(), 4);
    QCOMPARE(log.size(), 2);
    QCOMPARE(create.size(), 1); // maps are replaced, not merged
}

void tst_KrCommonUtilsFiles::indicatorParamFile()
{
    QVERIFY(writeFile(path(QStringLiteral("res/plugindata/Indicatoration/ma.json")),
                      R"({"InitialBasicParam": [{"period": 5}], "ReportParam": [{"line": "ma5"}],
                          "PerformParam": [{"ignored": true}], "CreateUIParam": [1, 2]})"));
    QList<QVariantMap> basic, initial, report;
    QVariantMap create {{QStringLiteral("stale"), 1}};
    QCOMPARE(KrCommonUtils::praseIndicatorParamJsonFile(QStringLiteral("ma.json"), basic, initial,
                                                        report, create),
             0);
    QCOMPARE(basic, (QList<QVariantMap> {{{QStringLiteral("period"), 5}}}));
    QVERIFY(initial.isEmpty());
    QCOMPARE(report.size(), 1);
    QVERIFY(create.isEmpty()); // an array where an object belongs
}

void tst_KrCommonUtilsFiles::badParamFiles_data()
{
    QTest::addColumn<QByteArray>("content"); // "<none>": no file at all
    QTest::addColumn<int>("code");

    QTest::newRow("missing") << QByteArray("<none>") << -1;
    QTest::newRow("empty") << QByteArray() << -1;
    QTest::newRow("truncated") << fullAlgoFile.left(fullAlgoFile.size() / 2) << -2;
    QTest::newRow("not UTF-8") << QByteArray("{\"InitialBasicParam\": [\xff\xfe]}") << -2;
    QTest::newRow("not JSON") << QByteArray("InitialBasicParam = 1") << -2;
    QTest::newRow("top level is an array") << QByteArray("[]") << 0;
    QTest::newRow("huge") << QByteArray("<huge>") << -1;
}

void tst_KrCommonUtilsFiles::badParamFiles()
{
    QFETCH(QByteArray, content);
    QFETCH(int, code);
    const QString file = path(QStringLiteral("res/plugindata/algo/bad.json"));
    if (content == "<huge>") {
        QVERIFY(writeFile(file, "{}"));
        QFile huge(file);
        QVERIFY(huge.resize(KrCommonUtils::MaxReadAllBytes + 1)); // sparse: costs no disk
    } else if (content != "<none>") {
        QVERIFY(writeFile(file, content));
    }
    const QVariantMap stale {{QStringLiteral("stale"), 1}};
    QList<QVariantMap> basic {stale}, initial, perform, report, log;
    QVariantMap monitor = stale, create = stale;
    QCOMPARE(KrCommonUtils::praseAlgoParamJsonFile(QStringLiteral("bad.json"), basic, initial,
                                                   perform, report, log, monitor, create),
             code);
    QCOMPARE(basic, QList<QVariantMap> {stale});
    QCOMPARE(monitor, code == 0 ? QVariantMap() : stale);
    QCOMPARE(create, code == 0 ? QVariantMap() : stale);
}

void tst_KrCommonUtilsFiles::readAndWriteText()
{
    const QString file = path(QStringLiteral("note.txt"));
    const QString text = QStringLiteral("委托 order 42");
    KrCommonUtils::writeall(file, text);
    QCOMPARE(fileContent(file), text.toUtf8() + "\r\n");
    QCOMPARE(KrCommonUtils::readAll(file), text + QStringLiteral("\r\n"));
    KrCommonUtils::writeall(file, QStringLiteral("short"));
    QCOMPARE(fileContent(file), QByteArray("short\r\n")); // truncated, not appended

    QCOMPARE(KrCommonUtils::readAll(QString()), QString());
    QCOMPARE(KrCommonUtils::readAll(path(QStringLiteral("missing.txt"))), QString());
    KrCommonUtils::writeall(QString(), text); // does nothing
    KrCommonUtils::writeall(m_dir->path(), text); // a directory cannot be opened: skipped
    QVERIFY(QFileInfo(m_dir->path()).isDir());

    QJsonDocument document;
    QVERIFY(KrCommonUtils::canCreateJsonDocu(document, QStringLiteral("{\"a\": 1}")));
    QCOMPARE(document.object().value(QStringLiteral("a")).toInt(), 1);
    QVERIFY(!KrCommonUtils::canCreateJsonDocu(document, QStringLiteral("{\"a\": ")));
    QVERIFY(document.isNull());
}

// tree/ holds files, a subdirectory, a read-only file, and links to a file, a directory and an
// ancestor outside or above it; outside/ must survive every delete.
static void buildTreeWithLinks(const QString &root)
{
    QVERIFY(writeFile(root + QStringLiteral("/outside/keep.txt"), "keep"));
    QVERIFY(writeFile(root + QStringLiteral("/outside/dir/keep2.txt"), "keep"));
    QVERIFY(writeFile(root + QStringLiteral("/tree/a.txt"), "a"));
    QVERIFY(writeFile(root + QStringLiteral("/tree/sub/b.txt"), "b"));
    QVERIFY(writeFile(root + QStringLiteral("/tree/sub/readonly.txt"), "r"));
    QVERIFY(QFile::setPermissions(root + QStringLiteral("/tree/sub/readonly.txt"),
                                  QFile::ReadOwner));
    QVERIFY(QFile::link(root + QStringLiteral("/outside/keep.txt"),
                        root + QStringLiteral("/tree/file-link")));
    QVERIFY(QFile::link(root + QStringLiteral("/outside/dir"),
                        root + QStringLiteral("/tree/sub/dir-link")));
    QVERIFY(QFile::link(root, root + QStringLiteral("/tree/ancestor-link")));
}

static void verifyOutsideIntact(const QString &root)
{
    QCOMPARE(fileContent(root + QStringLiteral("/outside/keep.txt")), QByteArray("keep"));
    QCOMPARE(fileContent(root + QStringLiteral("/outside/dir/keep2.txt")), QByteArray("keep"));
    QCOMPARE(QFile::permissions(root + QStringLiteral("/outside/keep.txt")) & QFile::ReadOther,
             QFile::permissions(root + QStringLiteral("/outside/dir/keep2.txt"))
                     & QFile::ReadOther);
}

void tst_KrCommonUtilsFiles::delDirRemovesTheTreeButNoLinkTarget()
{
    const QString root = m_dir->path();
    buildTreeWithLinks(root);
    const auto before = QFile::permissions(root + QStringLiteral("/outside/keep.txt"));
    // (the result is false here: "sub", listed last, is deleted with QDir::rmpath, which then
    // also removes the emptied "tree", so the final rmpath of "tree" finds nothing to remove)
    KrCommonUtils::DelDir(root + QStringLiteral("/tree"));
    QVERIFY(!QFileInfo::exists(root + QStringLiteral("/tree")));
    verifyOutsideIntact(root);
    QCOMPARE(QFile::permissions(root + QStringLiteral("/outside/keep.txt")), before);
}

void tst_KrCommonUtilsFiles::cleanDirectoryEmptiesTheTreeButNoLinkTarget()
{
    const QString root = m_dir->path();
    buildTreeWithLinks(root);
    QVERIFY(writeFile(root + QStringLiteral("/tree/.hidden"), "h"));
    QVERIFY(QFile::link(root + QStringLiteral("/nowhere"),
                        root + QStringLiteral("/tree/sub/broken-link")));
    const auto before = QFile::permissions(root + QStringLiteral("/outside/keep.txt"));

    MessageCapture capture;
    QVERIFY(KrCommonUtils::cleanDirectory(root + QStringLiteral("/tree")));
    QVERIFY(QFileInfo(root + QStringLiteral("/tree")).isDir()); // the directory itself stays
    QVERIFY(QDir(root + QStringLiteral("/tree"))
                    .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden
                               | QDir::System)
                    .isEmpty());
    QVERIFY(capture.messages().isEmpty());
    verifyOutsideIntact(root);
    QCOMPARE(QFile::permissions(root + QStringLiteral("/outside/keep.txt")), before);
}

void tst_KrCommonUtilsFiles::directoryEdgeCases()
{
    QVERIFY(!KrCommonUtils::DelDir(QString()));
    QVERIFY(KrCommonUtils::DelDir(path(QStringLiteral("missing"))));
    // like QDir::rmpath, DelDir also removes the parents that it leaves empty
    QVERIFY(writeFile(path(QStringLiteral("marker.txt")), "m"));
    QVERIFY(writeFile(path(QStringLiteral("parent/flat/one.txt")), "1"));
    QVERIFY(writeFile(path(QStringLiteral("parent/flat/two.txt")), "2"));
    QVERIFY(KrCommonUtils::DelDir(path(QStringLiteral("parent/flat"))));
    QVERIFY(!QFileInfo::exists(path(QStringLiteral("parent"))));
    QVERIFY(QFileInfo::exists(
            path(QStringLiteral("marker.txt")))); // a parent that is not empty stays
    QVERIFY(!KrCommonUtils::cleanDirectory(path(QStringLiteral("missing"))));
    QVERIFY(QDir().mkpath(path(QStringLiteral("empty"))));
    QVERIFY(KrCommonUtils::cleanDirectory(path(QStringLiteral("empty"))));
    QVERIFY(QFileInfo(path(QStringLiteral("empty"))).isDir());

    // a directory that refuses the delete: reported, and the failure logged
    QVERIFY(writeFile(path(QStringLiteral("locked/inner/x.txt")), "x"));
    QVERIFY(QFile::setPermissions(path(QStringLiteral("locked/inner")),
                                  QFile::ReadOwner | QFile::ExeOwner));
    MessageCapture capture;
    const bool cleaned = KrCommonUtils::cleanDirectory(path(QStringLiteral("locked")));
    QFile::setPermissions(path(QStringLiteral("locked/inner")),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    if (geteuid() == 0)
        QSKIP("root may delete in a read-only directory");
    QVERIFY(!cleaned);
    QCOMPARE(capture.matching(QtDebugMsg, QStringLiteral("rm file failed:")).size(), 1);
    QCOMPARE(capture.matching(QtDebugMsg, QStringLiteral("del the dir ")).size(), 1);
}

void tst_KrCommonUtilsFiles::copyFile()
{
    const QString source = path(QStringLiteral("source.txt")),
                  target = path(QStringLiteral("target.txt"));
    QVERIFY(KrCommonUtils::copyFileToPath(path(QStringLiteral("ghost.txt")),
                                          path(QStringLiteral("ghost.txt")), false));
    QVERIFY(!KrCommonUtils::copyFileToPath(path(QStringLiteral("ghost.txt")), target, true));
    QVERIFY(writeFile(source, "new"));
    QVERIFY(writeFile(target, "old"));
    QVERIFY(!KrCommonUtils::copyFileToPath(source, target, false));
    QCOMPARE(fileContent(target), QByteArray("old"));
    QString backslashed = target;
    backslashed.replace(QLatin1Char('/'), QLatin1Char('\\'));
    QVERIFY(KrCommonUtils::copyFileToPath(source, backslashed, true));
    QCOMPARE(fileContent(target), QByteArray("new"));
    QVERIFY(!KrCommonUtils::copyFileToPath(source, path(QStringLiteral("no/such/dir/t.txt")),
                                           true));
}

void tst_KrCommonUtilsFiles::fileExists()
{
    QVERIFY(writeFile(path(QStringLiteral("f.txt")), "f"));
    QVERIFY(KrCommonUtils::isFileExist(path(QStringLiteral("f.txt"))));
    QVERIFY(!KrCommonUtils::isFileExist(path(QStringLiteral("g.txt"))));
    QVERIFY(!KrCommonUtils::isFileExist(m_dir->path()));
}

void tst_KrCommonUtilsFiles::tipString_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<QList<int>>("lineLengths");
    QTest::newRow("100") << 100 << QList<int> {100};
    QTest::newRow("101") << 101 << QList<int> {101, 0};
    QTest::newRow("250") << 250 << QList<int> {101, 100, 49};
    QTest::newRow("301") << 301 << QList<int> {101, 100, 100, 0};
}

void tst_KrCommonUtilsFiles::tipString()
{
    QFETCH(int, length);
    QFETCH(QList<int>, lineLengths);
    QString text;
    for (int i = 0; i < length; ++i)
        text.append(QChar(u'a' + i % 26));
    const QString wrapped = KrCommonUtils::getMyTipString(text);
    QList<int> lengths;
    for (const QString &line : wrapped.split(QLatin1Char('\n')))
        lengths.append(line.size());
    QCOMPARE(lengths, lineLengths);
    QCOMPARE(QString(wrapped).remove(QLatin1Char('\n')), text);
}

QTEST_GUILESS_MAIN(tst_KrCommonUtilsFiles)
#include "tst_krcommonutils_files.moc"
