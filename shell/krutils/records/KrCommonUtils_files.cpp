// KrCommonUtils: deleting, emptying and copying in the file system.

#include "KrCommonUtils.h"

#include "runtime/KrLogging_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// Deletes a directory tree, hidden and read-only entries included; false at the first failure.
bool delDirectoryPri(const QString &path)
{
    QDir directory(path);
    if (!directory.exists())
        return false;
    const QFileInfoList entries = directory.entryInfoList(QDir::NoDotAndDotDot | QDir::AllEntries
                                                          | QDir::Hidden | QDir::System);
    for (const QFileInfo &entry : entries) {
        // a link is removed as the link: neither followed nor its target's permissions touched
        if (entry.isFile() || entry.isSymLink()) {
            if (!entry.isSymLink())
                QFile::setPermissions(entry.filePath(),
                                      QFile::ReadOther | QFile::WriteOther | QFile::ExeOther);
            if (!directory.remove(entry.fileName())) {
                krDebug(KrCommonUtils) << "rm file failed:" << entry.fileName();
                return false;
            }
        } else if (!delDirectoryPri(entry.filePath())) {
            krDebug(KrCommonUtils) << "rm dir failed:" << entry.filePath();
            return false;
        }
    }
    const QString name = directory.dirName();
    directory.cdUp();
    const bool removed = directory.rmdir(name);
    if (!removed)
        krDebug(KrCommonUtils) << "rmdir " << name << " failed!";
    return removed;
}

} // namespace

bool KrCommonUtils::DelDir(const QString &path)
{
    if (path.isEmpty())
        return false;
    QDir directory(path);
    if (!directory.exists())
        return true;
    const QFileInfoList entries = directory.entryInfoList(QDir::NoDotAndDotDot | QDir::AllEntries);
    for (const QFileInfo &entry : entries) {
        if (entry.isFile() || entry.isSymLink()) // a link is removed, never followed
            entry.dir().remove(entry.fileName());
        else
            DelDir(entry.absoluteFilePath());
    }
    return directory.rmpath(directory.absolutePath());
}

bool KrCommonUtils::cleanDirectory(QString path)
{
    QDir directory(path);
    if (!directory.exists())
        return false;
    const QFileInfoList entries = directory.entryInfoList(QDir::NoDotAndDotDot | QDir::AllEntries
                                                          | QDir::Hidden | QDir::System);
    for (const QFileInfo &entry : entries) {
        if (entry.isFile() || entry.isSymLink()) {
            if (!directory.remove(entry.fileName())) {
                krDebug(KrCommonUtils)
                        << "remove the file " << entry.absoluteFilePath() << " failed";
                return false;
            }
        } else if (!delDirectoryPri(entry.filePath())) {
            krDebug(KrCommonUtils) << "del the dir " << entry.filePath() << " failed";
            return false;
        }
    }
    return true;
}

bool KrCommonUtils::copyFileToPath(QString source, QString target, bool overwrite)
{
    target.replace(QLatin1Char('\\'), QLatin1Char('/'));
    if (source == target)
        return true;
    if (!QFile::exists(source))
        return false;
    if (overwrite && QFile::exists(target))
        QFile::remove(target);
    return QFile::copy(source, target);
}

bool KrCommonUtils::isFileExist(const QString &path)
{
    QFile file(path);
    // QFile opens a directory for reading on Unix; it is no file all the same
    if (QFileInfo(path).isDir() || !file.open(QIODevice::ReadOnly))
        return false;
    file.close();
    return true;
}
