#include "runtime/KrLogging_p.h"

#include <QtTest>

class tst_KrLogging : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void qualifiedFunctionName_data();
    void qualifiedFunctionName();
};

void tst_KrLogging::qualifiedFunctionName_data()
{
    QTest::addColumn<QByteArray>("pretty");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("member") << QByteArray("void KrThread::slotInitThreadData()")
                            << QByteArray("KrThread::slotInitThreadData");
    QTest::newRow("constructor") << QByteArray("KrThread::KrThread(QObject*)")
                                 << QByteArray("KrThread::KrThread");
    QTest::newRow("virtual destructor") << QByteArray("virtual KrFunctionGuard::~KrFunctionGuard()")
                                        << QByteArray("KrFunctionGuard::~KrFunctionGuard");
    QTest::newRow("virtual override")
            << QByteArray("virtual void KrMutexManager::timerEvent(QTimerEvent*)")
            << QByteArray("KrMutexManager::timerEvent");
    QTest::newRow("static returning pointer")
            << QByteArray("static KrMutexManager* KrMutexManager::getInstance()")
            << QByteArray("KrMutexManager::getInstance");
    QTest::newRow("template return type")
            << QByteArray("QMap<QString, QVariant> Utils::Store::load(const QString&) const")
            << QByteArray("Utils::Store::load");
    QTest::newRow("reference return, const")
            << QByteArray("const QString& KrObject::name() const") << QByteArray("KrObject::name");
    QTest::newRow("lambda in constructor") << QByteArray("KrThread::KrThread(QObject*)::<lambda()>")
                                           << QByteArray("KrThread::KrThread::<lambda()>");
    QTest::newRow("lambda with parameters")
            << QByteArray("void A::run(int)::<lambda(int, QString)>")
            << QByteArray("A::run::<lambda(int, QString)>");
    QTest::newRow("g++ anonymous namespace") << QByteArray(
            "bool {anonymous}::HandleException(EXCEPTION_POINTERS*, const QString&, bool)")
                                             << QByteArray(
                                                        "`anonymous-namespace'::HandleException");
    QTest::newRow("clang anonymous namespace")
            << QByteArray("bool (anonymous namespace)::HandleException(int)")
            << QByteArray("`anonymous-namespace'::HandleException");
    QTest::newRow("function template") << QByteArray("void f(T) [with T = int]") << QByteArray("f");
    QTest::newRow("msvc calling convention")
            << QByteArray("void __cdecl KrThread::slotInitThreadData(void)")
            << QByteArray("KrThread::slotInitThreadData");
    QTest::newRow("no parameter list")
            << QByteArray("KrThread::run") << QByteArray("KrThread::run");
}

void tst_KrLogging::qualifiedFunctionName()
{
    QFETCH(QByteArray, pretty);
    QFETCH(QByteArray, expected);
    QCOMPARE(KrLogging::qualifiedFunctionName(pretty.constData()), expected);
}

QTEST_GUILESS_MAIN(tst_KrLogging)
#include "tst_krlogging.moc"
