#include "KrTestSupport.h"

#include <krutils/UAssert.h>

#include <QProcess>
#include <QtTest>

#include <cstring>

namespace {

const char childFlag[] = "--assert-child";

// A child process: asserts twice, setting QTC_FATAL_ASSERTS in between when asked to, and exits
// normally unless an assertion ends it.
int runChild(bool setVariableAfterFirst)
{
    Utils::writeAssertLocation("\"first\" in file child, line 1");
    if (setVariableAfterFirst)
        qputenv("QTC_FATAL_ASSERTS", "1");
    Utils::writeAssertLocation("\"second\" in file child, line 2");
    return 0;
}

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
    void logsAndCarriesOn();
    void macroReportsConditionFileAndLine_data();
    void macroReportsConditionFileAndLine();
    void fatalMode_data();
    void fatalMode();
};

void tst_UAssert::logsAndCarriesOn()
{
    MessageCapture capture;
    Utils::writeAssertLocation("\"m_model\" in file shell/krutils/TreeModel, line 785");
    Utils::writeAssertLocation("\"m_model\" in file shell/krutils/TreeModel, line 785");

    const auto messages = capture.messages();
    QCOMPARE(messages.size(), 2); // no suppression of repeats
    for (const CapturedMessage &message : messages) {
        QCOMPARE(message.type, QtDebugMsg);
        QCOMPARE(message.text,
                 QStringLiteral("SOFT ASSERT: \"m_model\" in file shell/krutils/TreeModel, line "
                                "785"));
        QCOMPARE(message.file, QStringLiteral("shell/krutils/UAssert"));
        QCOMPARE(message.line, 43);
        QCOMPARE(message.function,
                 QStringLiteral("void __cdecl Utils::writeAssertLocation(const char *)"));
    }
}

void tst_UAssert::macroReportsConditionFileAndLine_data()
{
    QTest::addColumn<int>("value"); // -1: no value at all
    QTest::addColumn<int>("result");
    QTest::addColumn<QString>("message");

    QTest::newRow("holds") << 4 << 4 << QString();
    QTest::newRow("first check fails")
            << -1 << -1 << "SOFT ASSERT: \"value\" in file shell/krutils/TreeModel, line 1021";
    QTest::newRow("second check fails, condition text as written")
            << 12 << -2
            << "SOFT ASSERT: \"*value >= 0 && *value <= 9\" in file shell/krutils/TreeModel, line "
               "697";
}

void tst_UAssert::macroReportsConditionFileAndLine()
{
    QFETCH(int, value);
    QFETCH(int, result);
    QFETCH(QString, message);

    MessageCapture capture;
    QCOMPARE(checkedValue(value == -1 ? nullptr : &value), result);
    QStringList texts;
    for (const CapturedMessage &captured : capture.messages())
        texts << captured.text;
    QCOMPARE(texts, message.isEmpty() ? QStringList() : QStringList {message});
}

void tst_UAssert::fatalMode_data()
{
    QTest::addColumn<QByteArray>("variable"); // "-" leaves it unset
    QTest::addColumn<bool>("setAfterFirst");
    QTest::addColumn<bool>("fatal");

    QTest::newRow("unset") << QByteArray("-") << false << false;
    QTest::newRow("empty") << QByteArray() << false << false;
    QTest::newRow("set") << QByteArray("1") << false << true;
    QTest::newRow("set after the first assertion") << QByteArray("-") << true << false;
}

void tst_UAssert::fatalMode()
{
    QFETCH(QByteArray, variable);
    QFETCH(bool, setAfterFirst);
    QFETCH(bool, fatal);

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QTC_FATAL_ASSERTS"));
    if (variable != "-")
        environment.insert(QStringLiteral("QTC_FATAL_ASSERTS"), QString::fromLatin1(variable));
    QProcess child;
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
                {QString::fromLatin1(childFlag),
                 setAfterFirst ? QStringLiteral("set-after-first") : QStringLiteral("as-is")});
    QVERIFY(child.waitForFinished(30000));
    const QString output = QString::fromLocal8Bit(child.readAllStandardError());

    if (fatal) {
        QCOMPARE(child.exitStatus(), QProcess::CrashExit);
        QVERIFY2(output.contains(QLatin1String("SOFT ASSERT made fatal: \"first\" in file child, "
                                               "line 1")),
                 qPrintable(output));
        QVERIFY2(!output.contains(QLatin1String("second")), qPrintable(output));
    } else {
        QCOMPARE(child.exitStatus(), QProcess::NormalExit);
        QCOMPARE(child.exitCode(), 0);
        QVERIFY2(output.contains(QLatin1String("SOFT ASSERT: \"second\" in file child, line 2")),
                 qPrintable(output));
        QVERIFY2(!output.contains(QLatin1String("made fatal")), qPrintable(output));
    }
}

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], childFlag) == 0)
        return runChild(std::strcmp(argv[2], "set-after-first") == 0);
    QCoreApplication app(argc, argv);
    tst_UAssert test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_uassert.moc"
