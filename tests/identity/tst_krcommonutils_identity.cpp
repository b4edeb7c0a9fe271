#include "identity/KrIdentityFormat_p.h"
#include "identity/KrMachineIdentity_unix_p.h"

#include <krutils/KrCommonUtils.h>

#include <QHostAddress>
#include <QNetworkInterface>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <cpuid.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <cstring>
#include <sstream>

// The machine identity on Linux: the rules on fixed values, then the operations on this machine
// against what the test finds out by other means (CPUID, findmnt, statfs, statvfs,
// QNetworkInterface).

using namespace KrIdentityFormat;

// The low word of statfs's file-system id, or 0 when statfs fails.
static quint32 fsidLowWord(const QString &path)
{
    struct statfs info;
    quint32 words[2] = {};
    if (statfs(QFile::encodeName(path).constData(), &info) == 0)
        std::memcpy(words, &info.f_fsid, sizeof words);
    return words[0];
}

// The type that a mount table gives for a path, or "none" when no mount holds the path (and the
// type is left alone).
static QString mountedType(const QByteArray &table, const char *path)
{
    std::istringstream mountInfo(table.toStdString());
    std::string type = "none";
    const bool found = KrMachine::mountedFileSystemType(mountInfo, path, type);
    return found == (type != "none") ? QString::fromStdString(type) : "a wrong result";
}

static QByteArray mount(const char *mountPoint, const char *type, const char *optional = "")
{
    return QByteArray("22 1 8:1 / ") + mountPoint + " rw,relatime " + optional
            + (*optional ? " " : "") + "- " + type + " /dev/sda1 rw\n";
}

class tst_KrCommonUtilsIdentity : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private Q_SLOTS:
    void rules_data()
    {
        QTest::addColumn<QString>("text"); // as the rule writes it
        QTest::addColumn<QString>("expected");
        QTest::newRow("cpu: EDX, then EAX") << cpuId(0xA20F12, 0x178BFBFF) << "178BFBFFA20F12";
        QTest::newRow("cpu: no leading zeros") << cpuId(0x906EA, 0x0FEBFBFF) << "FEBFBFF906EA";
        QTest::newRow("cpu: upper case") << cpuId(0xabcdef, 0xfedcba98) << "FEDCBA98ABCDEF";
        QTest::newRow("serial: eight digits") << volumeSerial(0x1A2B3C4D) << "1A2B-3C4D";
        QTest::newRow("serial: seven, no padding") << volumeSerial(0xA2B3C4D) << "A2B3-C4D";
        QTest::newRow("serial: upper case") << volumeSerial(0xabcdef12) << "ABCD-EF12";
        QTest::newRow("serial: four, dash last") << volumeSerial(0x1234) << "1234-";
        QTest::newRow("serial: zero") << volumeSerial(0) << "0-";
        QTest::newRow("decimal serial") << decimalSerial(0xFFFFFFFF) << "4294967295";
        QTest::newRow("GiB: 500 GB") << QString::number(wholeGiB(500000000000)) << "465";
        QTest::newRow("GiB: exactly one") << QString::number(wholeGiB(1073741824)) << "1";
        QTest::newRow("GiB: 16 TiB") << QString::number(wholeGiB(16ull << 40)) << "16384";
        QTest::newRow("fs: quotes") << fileSystemName("fuse.\"my'fs\"") << "fuse.myfs";
        QTest::newRow("fs: nothing else")
                << fileSystemName("a`b\u201cc\u201d") << "a`b\u201cc\u201d";
        QTest::newRow("disk: first colon") << systemDiskFlag("E:\\a:b") << "E";
        QTest::newRow("disk: no colon")
                << systemDiskFlag("\\\\server\\share") << "\\\\server\\share";
        QTest::newRow("disk: colon first") << systemDiskFlag(":\\x") << "";

        // The MAC of the first interface for any address of the host, whichever holds it.
        const QStringList macs {"00:00:00:00:00:01", "AA:BB:CC:DD:EE:FF"};
        const QStringList hosts {"127.0.0.1", "192.168.1.10", "fe80::1%eth0", ""};
        QTest::newRow("mac: first interface's address")
                << firstInterfaceMac(macs, hosts, "127.0.0.1") << "000000000001";
        QTest::newRow("mac: a later one's")
                << firstInterfaceMac(macs, hosts, "192.168.1.10") << "000000000001";
        QTest::newRow("mac: not the host's") << firstInterfaceMac(macs, hosts, "203.0.113.7") << "";
        QTest::newRow("mac: case-sensitive")
                << firstInterfaceMac(macs, hosts, "FE80::1%eth0") << "";
        QTest::newRow("mac: empty ip") << firstInterfaceMac(macs, hosts, "") << "";
        QTest::newRow("mac: no interfaces") << firstInterfaceMac({}, hosts, "127.0.0.1") << "";
        QTest::newRow("mac: first without one")
                << firstInterfaceMac(QStringList {""} + macs, hosts, "127.0.0.1") << "";

        // The mount with the longest mount point on the path, the last of several on one point.
        const QByteArray root = mount("/", "ext4", "shared:1");
        QTest::newRow("mount: the root") << mountedType(root, "/usr/lib") << "ext4";
        QTest::newRow("mount: a mount point")
                << mountedType(root + mount("/home", "xfs"), "/home") << "xfs";
        QTest::newRow("mount: longest, first") << mountedType(
                mount("/home/u", "btrfs") + mount("/home", "xfs") + root, "/home/u/x")
                                               << "btrfs";
        QTest::newRow("mount: longest, last") << mountedType(
                root + mount("/home", "xfs") + mount("/home/u", "btrfs"), "/home/u/x")
                                              << "btrfs";
        QTest::newRow("mount: whole components")
                << mountedType(root + mount("/mnt/data", "xfs"), "/mnt/database") << "ext4";
        QTest::newRow("mount: stacked") << mountedType(
                root + mount("/dev/shm", "tmpfs") + mount("/dev/shm", "ramfs"), "/dev/shm/x")
                                        << "ramfs";
        QTest::newRow("mount: escaped space")
                << mountedType(root + mount("/media/my\\040disk", "vfat"), "/media/my disk/a")
                << "vfat";
        QTest::newRow("mount: escaped \\ and tab")
                << mountedType(root + mount("/mnt/a\\134b\\011c", "ntfs3"), "/mnt/a\\b\tc")
                << "ntfs3";
        QTest::newRow("mount: optional fields") << mountedType(
                root + mount("/opt", "fuse.sshfs", "shared:4 master:2 propagate_from:1"), "/opt/x")
                                                << "fuse.sshfs";
        QTest::newRow("mount: no entries")
                << mountedType("\ngarbage\n22 1 8:1 / /home rw - \n1 2 3 4 /home 6 7 8\n" + root
                                       + "22 1 8:1 / /home rw,relatime shared:9\n",
                               "/home")
                << "ext4";
        QTest::newRow("mount: none holds it")
                << mountedType(mount("/home", "xfs"), "/usr") << "none";
        QTest::newRow("mount: empty table") << mountedType("", "/") << "none";
    }

    void rules()
    {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(text, expected);
    }

    void cpuIdOfThisProcessor()
    {
        unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
        QVERIFY(__get_cpuid(1, &eax, &ebx, &ecx, &edx));
        QCOMPARE(KrCommonUtils::getCpuID(), QString::asprintf("%X%X", edx, eax));
    }

    // Paths on different mounts, through links and "..", and paths that do not exist.
    void volume_data()
    {
        QVERIFY(QFile::link("/dev/shm", m_dir.filePath("shm-link")));
        QTest::addColumn<QString>("path");
        const QString file = QCoreApplication::applicationFilePath();
        for (const QString &path :
             QStringList {"/", "/proc", "/proc/self", "/dev/shm", "/dev/shm/..", ".", file,
                          m_dir.filePath("shm-link"), "/no/such/path", "no/such/directory", "", "C",
                          file + "/x"})
            QTest::addRow("\"%s\"", qPrintable(path)) << path;
    }

    void volume()
    {
        QFETCH(QString, path);
        const bool exists = QFileInfo::exists(path);
        struct statvfs size = {};
        QCOMPARE(statvfs(QFile::encodeName(path).constData(), &size) == 0, exists);
        QCOMPARE(KrCommonUtils::getDiskTotalSize(path),
                 long(quint64(size.f_blocks) * size.f_frsize >> 30));
        // a failed query gives serial number 0 all the same
        QCOMPARE(KrCommonUtils::getDiskSerialNumber(path), volumeSerial(fsidLowWord(path)));
        QProcess findmnt; // the last line: the mount on top
        findmnt.start("findmnt",
                      {"-n", "-o", "FSTYPE", "--target", QFileInfo(path).absoluteFilePath()});
        QVERIFY(findmnt.waitForFinished(30000));
        const QString type
                = QString::fromUtf8(findmnt.readAllStandardOutput()).trimmed().split('\n').last();
        QCOMPARE(KrCommonUtils::getDiskFileSysName(path), exists ? type : "");
    }

    void systemDisk()
    {
        QCOMPARE(KrCommonUtils::getSystemDiskFlag(), QString("/"));
        QCOMPARE(KrCommonUtils::getHardDiskNumer(), QString::number(fsidLowWord("/")));
    }

    void localMachineMac_data()
    {
        QTest::addColumn<QString>("ip");
        QTest::addColumn<QString>("expected");
        const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
        QVERIFY(!interfaces.isEmpty());
        const QString first = interfaces.first().hardwareAddress().remove(':');
        for (const QHostAddress &address : QNetworkInterface::allAddresses()) {
            const QString text = address.toString();
            QTest::addRow("%s", qPrintable(text)) << text << first;
            if (text.toUpper() != text)
                QTest::addRow("%s in upper case", qPrintable(text)) << text.toUpper() << "";
        }
    }

    void localMachineMac()
    {
        QFETCH(QString, ip);
        QFETCH(QString, expected);
        QCOMPARE(KrCommonUtils::get_localmachine_mac(ip), expected);
    }
};

QTEST_GUILESS_MAIN(tst_KrCommonUtilsIdentity)
#include "tst_krcommonutils_identity.moc"
