#include "identity/KrIdentityFormat_p.h"
#include "identity/KrMachineIdentity_unix_p.h"

#include <krutils/KrCommonUtils.h>

#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QNetworkInterface>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <cpuid.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <cstdio>
#include <cstring>
#include <sstream>

// The machine identity on Linux. The formatting rules are checked on fixed values; the
// operations on this machine against what the test finds out by other means: the mount table,
// findmnt (util-linux), statfs and statvfs, the CPUID instruction and QNetworkInterface.

namespace {

// The type of the last "/" entry of /proc/self/mounts, which hides any earlier one.
QString rootTypeFromMounts()
{
    QFile mounts(QStringLiteral("/proc/self/mounts"));
    if (!mounts.open(QIODevice::ReadOnly))
        return QString();
    QString type;
    for (const QByteArray &line : mounts.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() >= 3 && fields[1] == "/")
            type = QString::fromUtf8(fields[2]);
    }
    return type;
}

// What findmnt says of the mount that holds the path; a null string when findmnt cannot be run.
QString findmntType(const QString &path)
{
    if (QStandardPaths::findExecutable(QStringLiteral("findmnt")).isEmpty())
        return QString();
    QProcess findmnt;
    findmnt.start(QStringLiteral("findmnt"),
                  {QStringLiteral("-n"), QStringLiteral("-o"), QStringLiteral("FSTYPE"),
                   QStringLiteral("--target"), path});
    if (!findmnt.waitForFinished(30000) || findmnt.exitCode() != 0)
        return QString();
    // One line per mount on the point, in mount order: the last is the one on top.
    const QStringList types = QString::fromUtf8(findmnt.readAllStandardOutput())
                                      .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return types.isEmpty() ? QString() : types.last().trimmed();
}

// The low word of statfs's file-system id; false when statfs fails.
bool fsidLowWord(const QString &path, quint32 &word)
{
    struct statfs info;
    if (statfs(QFile::encodeName(path).constData(), &info) != 0)
        return false;
    int words[2];
    std::memcpy(words, &info.f_fsid, sizeof words);
    word = static_cast<quint32>(words[0]);
    return true;
}

// The rule written out once more, with the C library: "%X", then the dash after four digits.
QString dashedHex(quint32 value)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "%X", value);
    QString text = QString::fromLatin1(digits);
    return text.left(4) + QLatin1Char('-') + text.mid(4);
}

} // namespace

class tst_KrCommonUtilsIdentity : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    // The formatting rules, on fixed values.
    void cpuIdText_data();
    void cpuIdText();
    void volumeSerialText_data();
    void volumeSerialText();
    void decimalSerialText_data();
    void decimalSerialText();
    void wholeGiB_data();
    void wholeGiB();
    void fileSystemNameText_data();
    void fileSystemNameText();
    void systemDiskFlagText_data();
    void systemDiskFlagText();
    void firstInterfaceMac_data();
    void firstInterfaceMac();
    void mountTable_data();
    void mountTable();

    // The operations on this machine.
    void cpuIdOfThisProcessor();
    void fileSystemName_data();
    void fileSystemName();
    void serialNumber_data();
    void serialNumber();
    void totalSize_data();
    void totalSize();
    void missingPath_data();
    void missingPath();
    void systemDisk();
    void localMachineMac_data();
    void localMachineMac();

private:
    // Paths of this machine that lie on different mounts, shared by the volume tests.
    void addVolumeRows();

    QTemporaryDir m_dir;
};

void tst_KrCommonUtilsIdentity::initTestCase()
{
    QVERIFY(m_dir.isValid());
    // A link from the test's directory to another mount: the volume is the target's.
    QVERIFY(QFile::link(QStringLiteral("/dev/shm"), m_dir.filePath(QStringLiteral("shm-link"))));
}

void tst_KrCommonUtilsIdentity::cpuIdText_data()
{
    QTest::addColumn<quint32>("eax");
    QTest::addColumn<quint32>("edx");
    QTest::addColumn<QString>("expected");
    QTest::newRow("EDX first, then EAX") << 0x00A20F12u << 0x178BFBFFu << "178BFBFFA20F12";
    QTest::newRow("no leading zeros in either") << 0x000906EAu << 0x0FEBFBFFu << "FEBFBFF906EA";
    QTest::newRow("upper-case digits") << 0xabcdefu << 0xfedcbau << "FEDCBAABCDEF";
    QTest::newRow("zero registers") << 0u << 0u << "00";
    QTest::newRow("full registers") << 0xFFFFFFFFu << 0x80000000u << "80000000FFFFFFFF";
}

void tst_KrCommonUtilsIdentity::cpuIdText()
{
    QFETCH(quint32, eax);
    QFETCH(quint32, edx);
    QFETCH(QString, expected);
    QCOMPARE(KrIdentityFormat::cpuId(eax, edx), expected);
}

void tst_KrCommonUtilsIdentity::volumeSerialText_data()
{
    QTest::addColumn<quint32>("serial");
    QTest::addColumn<QString>("expected");
    QTest::newRow("eight digits") << 0x1A2B3C4Du << "1A2B-3C4D";
    QTest::newRow("seven digits, no zero padding") << 0xA2B3C4Du << "A2B3-C4D";
    QTest::newRow("upper-case digits") << 0xabcdef12u << "ABCD-EF12";
    QTest::newRow("largest") << 0xFFFFFFFFu << "FFFF-FFFF";
    QTest::newRow("five digits") << 0x12345u << "1234-5";
    QTest::newRow("four digits: the dash last") << 0x1234u << "1234-";
    QTest::newRow("two digits: the dash after them") << 0x12u << "12-";
    QTest::newRow("zero") << 0u << "0-";
}

void tst_KrCommonUtilsIdentity::volumeSerialText()
{
    QFETCH(quint32, serial);
    QFETCH(QString, expected);
    QCOMPARE(KrIdentityFormat::volumeSerial(serial), expected);
}

void tst_KrCommonUtilsIdentity::decimalSerialText_data()
{
    QTest::addColumn<quint32>("serial");
    QTest::addColumn<QString>("expected");
    QTest::newRow("0x1A2B3C4D") << 0x1A2B3C4Du << "439041101";
    QTest::newRow("high bit set: unsigned") << 0xFFFFFFFFu << "4294967295";
    QTest::newRow("zero") << 0u << "0";
}

void tst_KrCommonUtilsIdentity::decimalSerialText()
{
    QFETCH(quint32, serial);
    QFETCH(QString, expected);
    QCOMPARE(KrIdentityFormat::decimalSerial(serial), expected);
}

void tst_KrCommonUtilsIdentity::wholeGiB_data()
{
    QTest::addColumn<quint64>("bytes");
    QTest::addColumn<long>("expected");
    QTest::newRow("a 500 GB disk") << Q_UINT64_C(500000000000) << 465L;
    QTest::newRow("one byte short of 1 GiB") << Q_UINT64_C(1073741823) << 0L;
    QTest::newRow("exactly 1 GiB") << Q_UINT64_C(1073741824) << 1L;
    QTest::newRow("a 4 TB disk") << Q_UINT64_C(4000000000000) << 3725L;
    QTest::newRow("16 TiB") << (Q_UINT64_C(16) << 40) << 16384L;
    QTest::newRow("nothing") << Q_UINT64_C(0) << 0L;
}

void tst_KrCommonUtilsIdentity::wholeGiB()
{
    QFETCH(quint64, bytes);
    QFETCH(long, expected);
    QCOMPARE(KrIdentityFormat::wholeGiB(bytes), expected);
}

void tst_KrCommonUtilsIdentity::fileSystemNameText_data()
{
    QTest::addColumn<QString>("reported");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << "NTFS"
                           << "NTFS";
    QTest::newRow("double quotes") << "\"NTFS\""
                                   << "NTFS";
    QTest::newRow("apostrophes") << "'ext4'"
                                 << "ext4";
    QTest::newRow("both, inside the name") << "fuse.\"my'fs\""
                                           << "fuse.myfs";
    QTest::newRow("nothing else") << "a\"`b'\u201cc\u201d"
                                  << "a`b\u201cc\u201d";
    QTest::newRow("only quotes") << "\"'\""
                                 << "";
    QTest::newRow("empty") << ""
                           << "";
}

void tst_KrCommonUtilsIdentity::fileSystemNameText()
{
    QFETCH(QString, reported);
    QFETCH(QString, expected);
    QCOMPARE(KrIdentityFormat::fileSystemName(reported), expected);
}

void tst_KrCommonUtilsIdentity::systemDiskFlagText_data()
{
    QTest::addColumn<QString>("systemDirectory");
    QTest::addColumn<QString>("expected");
    QTest::newRow("Windows") << "C:\\Windows\\system32"
                             << "C";
    QTest::newRow("another drive") << "D:\\WINNT\\System32"
                                   << "D";
    QTest::newRow("up to the first colon") << "E:\\a:b"
                                           << "E";
    QTest::newRow("no colon: the whole path") << "/"
                                              << "/";
    QTest::newRow("UNC path without colon") << "\\\\server\\share\\system32"
                                            << "\\\\server\\share\\system32";
    QTest::newRow("colon first") << ":\\x"
                                 << "";
    QTest::newRow("empty") << ""
                           << "";
}

void tst_KrCommonUtilsIdentity::systemDiskFlagText()
{
    QFETCH(QString, systemDirectory);
    QFETCH(QString, expected);
    QCOMPARE(KrIdentityFormat::systemDiskFlag(systemDirectory), expected);
}

void tst_KrCommonUtilsIdentity::firstInterfaceMac_data()
{
    QTest::addColumn<QStringList>("hardwareAddresses");
    QTest::addColumn<QStringList>("hostAddresses");
    QTest::addColumn<QString>("ip");
    QTest::addColumn<QString>("expected");
    const QStringList interfaces {QStringLiteral("00:00:00:00:00:00"),
                                  QStringLiteral("AA:BB:CC:DD:EE:FF"),
                                  QStringLiteral("02:42:AC:11:00:02")};
    const QStringList addresses {QStringLiteral("127.0.0.1"), QStringLiteral("::1"),
                                 QStringLiteral("192.168.1.10"), QStringLiteral("fe80::1%eth0")};
    QTest::newRow("the first interface's address") << interfaces << addresses << "127.0.0.1"
                                                   << "000000000000";
    QTest::newRow("an address of a later interface gives the first")
            << interfaces << addresses << "192.168.1.10"
            << "000000000000";
    QTest::newRow("colons removed")
            << QStringList {QStringLiteral("AA:BB:CC:DD:EE:FF")} << addresses << "::1"
            << "AABBCCDDEEFF";
    QTest::newRow("an address the host does not have") << interfaces << addresses << "203.0.113.7"
                                                       << "";
    QTest::newRow("a prefix of an address") << interfaces << addresses << "192.168.1.1"
                                            << "";
    QTest::newRow("compared case-sensitively") << interfaces << addresses << "FE80::1%eth0"
                                               << "";
    QTest::newRow("empty ip") << interfaces << (addresses + QStringList {QString()}) << ""
                              << "";
    QTest::newRow("no interfaces") << QStringList() << addresses << "127.0.0.1"
                                   << "";
    QTest::newRow("a first interface without hardware address")
            << (QStringList {QString()} + interfaces) << addresses << "127.0.0.1"
            << "";
}

void tst_KrCommonUtilsIdentity::firstInterfaceMac()
{
    QFETCH(QStringList, hardwareAddresses);
    QFETCH(QStringList, hostAddresses);
    QFETCH(QString, ip);
    QFETCH(QString, expected);
    QCOMPARE(KrIdentityFormat::firstInterfaceMac(hardwareAddresses, hostAddresses, ip), expected);
}

void tst_KrCommonUtilsIdentity::mountTable_data()
{
    QTest::addColumn<QByteArray>("table");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("expected"); // null: no mount holds the path

    auto entry = [](const char *mountPoint, const char *type, const char *optional = "") {
        return QByteArray("22 1 8:1 / ") + mountPoint + " rw,relatime " + optional
                + (*optional ? " " : "") + "- " + type + " /dev/sda1 rw\n";
    };
    const QByteArray root = entry("/", "ext4", "shared:1");
    QTest::newRow("the root") << root << "/"
                              << "ext4";
    QTest::newRow("below the root") << root << "/usr/lib"
                                    << "ext4";
    QTest::newRow("the mount point itself") << root + entry("/home", "xfs") << "/home"
                                            << "xfs";
    QTest::newRow("the longest mount point, listed first")
            << entry("/home/u/data", "btrfs") + entry("/home", "xfs") + root << "/home/u/data/x"
            << "btrfs";
    QTest::newRow("the longest mount point, listed last")
            << root + entry("/home", "xfs") + entry("/home/u/data", "btrfs") << "/home/u/data/x"
            << "btrfs";
    QTest::newRow("whole components only") << root + entry("/mnt/data", "xfs") << "/mnt/database"
                                           << "ext4";
    QTest::newRow("the last of stacked mounts")
            << root + entry("/dev/shm", "tmpfs") + entry("/dev/shm", "ramfs") << "/dev/shm/x"
            << "ramfs";
    QTest::newRow("an escaped space in the mount point")
            << root + entry("/media/my\\040disk", "vfat") << "/media/my disk/photo.jpg"
            << "vfat";
    QTest::newRow("an escaped backslash and tab")
            << root + entry("/mnt/a\\134b\\011c", "ntfs3") << "/mnt/a\\b\tc"
            << "ntfs3";
    QTest::newRow("a sub-type") << root + entry("/srv/remote", "fuse.sshfs") << "/srv/remote/f"
                                << "fuse.sshfs";
    QTest::newRow("several optional fields")
            << root + entry("/opt", "tmpfs", "shared:4 master:2 propagate_from:1") << "/opt/x"
            << "tmpfs";
    QTest::newRow("lines that are no entries skipped")
            << QByteArray("\ngarbage\n22 1 8:1 / /home rw - \n1 2 3 4 /home 6 7 8\n") + root
                    + QByteArray("22 1 8:1 / /home rw,relatime shared:9\n")
            << "/home"
            << "ext4";
    QTest::newRow("no mount holds the path") << entry("/home", "xfs") << "/usr" << QString();
    QTest::newRow("an empty table") << QByteArray() << "/" << QString();
}

void tst_KrCommonUtilsIdentity::mountTable()
{
    QFETCH(QByteArray, table);
    QFETCH(QString, path);
    QFETCH(QString, expected);
    std::istringstream mountInfo(table.toStdString());
    std::string type = "untouched";
    const bool found = KrMachine::mountedFileSystemType(mountInfo, path.toStdString(), type);
    QCOMPARE(found, !expected.isNull());
    QCOMPARE(QString::fromStdString(type), found ? expected : QStringLiteral("untouched"));
}

void tst_KrCommonUtilsIdentity::cpuIdOfThisProcessor()
{
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    QVERIFY(__get_cpuid(1, &eax, &ebx, &ecx, &edx));
    char expected[32];
    std::snprintf(expected, sizeof expected, "%X%X", edx, eax);
    const QString id = KrCommonUtils::getCpuID();
    QVERIFY2(QRegularExpression(QStringLiteral("^[0-9A-F]+$")).match(id).hasMatch(),
             qPrintable(id));
    QCOMPARE(id, QString::fromLatin1(expected));
}

void tst_KrCommonUtilsIdentity::addVolumeRows()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("the root") << "/";
    QTest::newRow("proc") << "/proc";
    QTest::newRow("a link inside proc") << "/proc/self";
    QTest::newRow("a tmpfs") << "/dev/shm";
    QTest::newRow("\"..\" out of a mount") << "/dev/shm/..";
    QTest::newRow("a link to another mount") << m_dir.filePath(QStringLiteral("shm-link"));
    QTest::newRow("a directory below a mount point") << m_dir.path();
    QTest::newRow("a file") << QCoreApplication::applicationFilePath();
    QTest::newRow("a relative path") << ".";
}

void tst_KrCommonUtilsIdentity::fileSystemName_data()
{
    addVolumeRows();
}

void tst_KrCommonUtilsIdentity::fileSystemName()
{
    QFETCH(QString, path);
    const QString expected = findmntType(QFileInfo(path).absoluteFilePath());
    if (expected.isNull())
        QSKIP("findmnt (util-linux) cannot be run");
    QCOMPARE(KrCommonUtils::getDiskFileSysName(path), expected);
    if (path == QLatin1String("/"))
        QCOMPARE(KrCommonUtils::getDiskFileSysName(path), rootTypeFromMounts());
}

void tst_KrCommonUtilsIdentity::serialNumber_data()
{
    addVolumeRows();
}

void tst_KrCommonUtilsIdentity::serialNumber()
{
    QFETCH(QString, path);
    quint32 fsid = 0;
    QVERIFY(fsidLowWord(path, fsid));
    QCOMPARE(KrCommonUtils::getDiskSerialNumber(path), dashedHex(fsid));

    // What the header promises a person: the high half of the number `stat -f -c %i` prints.
    if (QStandardPaths::findExecutable(QStringLiteral("stat")).isEmpty())
        return;
    QProcess stat;
    stat.start(QStringLiteral("stat"),
               {QStringLiteral("-f"), QStringLiteral("-c"), QStringLiteral("%i"), path});
    QVERIFY(stat.waitForFinished(30000));
    const QString printed = QString::fromLatin1(stat.readAllStandardOutput()).trimmed();
    bool ok = false;
    const quint64 number = printed.toULongLong(&ok, 16);
    QVERIFY2(ok, qPrintable(printed));
    QCOMPARE(KrCommonUtils::getDiskSerialNumber(path), dashedHex(quint32(number >> 32)));
}

void tst_KrCommonUtilsIdentity::totalSize_data()
{
    addVolumeRows();
}

void tst_KrCommonUtilsIdentity::totalSize()
{
    QFETCH(QString, path);
    struct statvfs info;
    QCOMPARE(statvfs(QFile::encodeName(path).constData(), &info), 0);
    const quint64 bytes = quint64(info.f_blocks) * info.f_frsize;
    QCOMPARE(KrCommonUtils::getDiskTotalSize(path), long(bytes / (1024 * 1024 * 1024)));
}

void tst_KrCommonUtilsIdentity::missingPath_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("absolute") << "/no/such/path";
    QTest::newRow("relative") << "no-such-directory/below";
    QTest::newRow("below a file") << QCoreApplication::applicationFilePath() + "/x";
    QTest::newRow("empty") << "";
    QTest::newRow("a Windows drive letter") << "C";
}

void tst_KrCommonUtilsIdentity::missingPath()
{
    QFETCH(QString, path);
    QVERIFY(!QFileInfo::exists(path));
    QCOMPARE(KrCommonUtils::getDiskFileSysName(path), QString());
    QCOMPARE(KrCommonUtils::getDiskTotalSize(path), 0L);
    // The serial number's query is not looked at: serial 0.
    QCOMPARE(KrCommonUtils::getDiskSerialNumber(path), QStringLiteral("0-"));
}

void tst_KrCommonUtilsIdentity::systemDisk()
{
    QCOMPARE(KrCommonUtils::getSystemDiskFlag(), QStringLiteral("/"));
    quint32 rootFsid = 0;
    QVERIFY(fsidLowWord(QStringLiteral("/"), rootFsid));
    QCOMPARE(KrCommonUtils::getHardDiskNumer(), QString::number(rootFsid));
}

void tst_KrCommonUtilsIdentity::localMachineMac_data()
{
    QTest::addColumn<QString>("ip");
    QTest::addColumn<QString>("expected");
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    QVERIFY(!interfaces.isEmpty());
    const QString first = interfaces.first().hardwareAddress().remove(QLatin1Char(':'));

    QTest::newRow("empty") << ""
                           << "";
    QTest::newRow("an address the host does not have") << "203.0.113.7"
                                                       << "";
    QTest::newRow("127.0.0.1") << "127.0.0.1" << first;
    // Every address of the host, whichever interface holds it, gives the first interface's.
    for (const QHostAddress &address : QNetworkInterface::allAddresses()) {
        const QString text = address.toString();
        QTest::addRow("%s", qPrintable(text)) << text << first;
        if (text.toUpper() != text)
            QTest::addRow("%s in upper case", qPrintable(text)) << text.toUpper() << "";
    }
}

void tst_KrCommonUtilsIdentity::localMachineMac()
{
    QFETCH(QString, ip);
    QFETCH(QString, expected);
    QCOMPARE(KrCommonUtils::get_localmachine_mac(ip), expected);
}

QTEST_GUILESS_MAIN(tst_KrCommonUtilsIdentity)
#include "tst_krcommonutils_identity.moc"
