#include "KrTestSupport.h"

#include <krutils/UAssert.h>

#include <QProcess>
#include <QtTest>

#include <cstring>

namespace {

const char childFlag[] = "--assert-child";

int checkedValue(const int *value)
{
    UTILS_SOFT_ASSERT(value, "shell/krutils/TreeModel", 1021, return -1);
    UTILS_SOFT_ASSERT(*value >= 0 && *value <= 9, "shell/krutils/TreeModel", 697, return -2);
    return *value;
}

} // namespace

// The soft-assert sink and the assertion macro; fatal mode in child processes.
class tst_UAssert : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void logsAndCarriesOn()
    {
        MessageCapture capture;
        const int values[] = {4, 12};
        QCOMPARE(checkedValue(&values[0]), 4);
        QCOMPARE(checkedValue(nullptr), -1);
        QCOMPARE(checkedValue(&values[1]), -2);
        QCOMPARE(checkedValue(&values[1]), -2); // repeats are logged too
        QStringList logged;
        for (const CapturedMessage &message : capture.messages()) {
            QCOMPARE(message.function,
                     QStringLiteral("void __cdecl Utils::writeAssertLocation(const char *)"));
            logged.append(QStringLiteral("%1 %2:%3 %4")
                                  .arg(message.type == QtDebugMsg ? "debug" : "other", message.file)
                                  .arg(message.line)
                                  .arg(message.text));
        }
        const QString place = "debug shell/krutils/UAssert:43 SOFT ASSERT: ";
        const QString second = place
                + "\"*value >= 0 && *value <= 9\" in file shell/krutils/TreeModel, line 697";
        QCOMPARE(logged,
                 QStringList({place + "\"value\" in file shell/krutils/TreeModel, line 1021",
                              second, second}));
    }

    void fatalMode_data()
    {
        QTest::addColumn<QByteArray>("variable"); // "-" leaves it unset
        QTest::addColumn<bool>("setAfterFirst");
        QTest::addColumn<QString>("expected"); // what the child logs last
        const QString soft
                = "debug shell/krutils/UAssert:43 SOFT ASSERT: \"second\" in file child, line 2";
        QTest::newRow("unset") << QByteArray("-") << false << soft;
        QTest::newRow("empty") << QByteArray() << false << soft;
        QTest::newRow("set") << QByteArray("1") << false
                             << "fatal shell/krutils/UAssert:41 SOFT ASSERT made fatal: \"first\" "
                                "in file child, line 1";
        QTest::newRow("set after the first assertion") << QByteArray("-") << true << soft;
    }

    void fatalMode()
    {
        QFETCH(QByteArray, variable);
        QFETCH(bool, setAfterFirst);
        QFETCH(QString, expected);
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("QTC_FATAL_ASSERTS"));
        if (variable != "-")
            environment.insert(QStringLiteral("QTC_FATAL_ASSERTS"), QString::fromLatin1(variable));
        environment.insert(QStringLiteral("QT_MESSAGE_PATTERN"),
                           QStringLiteral("%{type} %{file}:%{line} %{message}"));
        QProcess child;
        child.setProcessEnvironment(environment);
        child.start(QCoreApplication::applicationFilePath(),
                    {QString::fromLatin1(childFlag), QString::number(setAfterFirst)});
        QVERIFY(child.waitForFinished(30000));
        const QStringList lines = QString::fromLocal8Bit(child.readAllStandardError())
                                          .split('\n', Qt::SkipEmptyParts);
        QCOMPARE(child.exitStatus(),
                 expected.startsWith("fatal") ? QProcess::CrashExit : QProcess::NormalExit);
        QCOMPARE(lines.value(lines.size() - 1), expected);
    }
};

// The child process asserts twice, setting QTC_FATAL_ASSERTS in between when asked to, and
// exits normally unless an assertion ends it.
int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], childFlag) == 0) {
        Utils::writeAssertLocation("\"first\" in file child, line 1");
        if (std::strcmp(argv[2], "1") == 0)
            qputenv("QTC_FATAL_ASSERTS", "1");
        Utils::writeAssertLocation("\"second\" in file child, line 2");
        return 0;
    }
    QCoreApplication app(argc, argv);
    tst_UAssert test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_uassert.moc"
