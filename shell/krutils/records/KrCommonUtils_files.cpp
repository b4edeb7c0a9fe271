// KrCommonUtils: deleting, emptying and copying in the file system.

#include "KrCommonUtils.h"

#include "runtime/KrLogging_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

// How a delete treats the entries of one directory.
struct RemovalRules
{
    QDir::Filters listed; // the entries it sees
    bool liftReadOnly; // makes a file writable first: Windows refuses to delete a read-only one
    bool stopAtFailure; // or goes on, leaving what cannot be removed where it is
    bool (*removeSubdirectory)(const QFileInfo &entry);
};

// The entry at which a walk stopped, and whether it was a file (a link counts as one) or a
// subdirectory.
struct RemovalFailure
{
    enum { None, File, Subdirectory } what = None;
    QFileInfo entry;
};

// The walk every delete shares: removes each entry of `directory` that the rules list, a file
// or a symbolic link as itself (a link is neither followed nor its target's permissions
// touched, so the walk never leaves the tree), anything else through the rules' subdirectory
// delete.
RemovalFailure removeEntries(QDir &directory, const RemovalRules &rules)
{
    const QFileInfoList entries = directory.entryInfoList(rules.listed);
    for (const QFileInfo &entry : entries) {
        RemovalFailure failure;
        if (entry.isFile() || entry.isSymLink()) {
            if (rules.liftReadOnly && !entry.isSymLink())
                QFile::setPermissions(entry.filePath(),
                                      QFile::ReadOther | QFile::WriteOther | QFile::ExeOther);
            if (!directory.remove(entry.fileName()))
                failure = {RemovalFailure::File, entry};
        } else if (!rules.removeSubdirectory(entry)) {
            failure = {RemovalFailure::Subdirectory, entry};
        }
        if (failure.what != RemovalFailure::None && rules.stopAtFailure)
            return failure;
    }
    return {};
}

bool delDirectoryPri(const QString &path);

bool privateDelete(const QFileInfo &directory)
{
    return delDirectoryPri(directory.filePath());
}

bool delDir(const QFileInfo &directory)
{
    return KrCommonUtils::DelDir(directory.absoluteFilePath());
}

const QDir::Filters everyEntry
        = QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden | QDir::System;
const QDir::Filters visibleEntries = QDir::NoDotAndDotDot | QDir::AllEntries;

// {entries listed, lift read-only, stop at failure, subdirectory delete}: the private delete and
// cleanDirectory see everything and stop at the first failure; DelDir sees no hidden entries and
// leaves behind what it cannot remove.
const RemovalRules privateDeleteRules {everyEntry, true, true, privateDelete};
const RemovalRules cleanRules {everyEntry, false, true, privateDelete};
const RemovalRules delDirRules {visibleEntries, false, false, delDir};

// Deletes a directory tree, hidden and read-only entries included; false at the first failure.
bool delDirectoryPri(const QString &path)
{
    QDir directory(path);
    if (!directory.exists())
        return false;
    const RemovalFailure failure = removeEntries(directory, privateDeleteRules);
    if (failure.what == RemovalFailure::File) {
        krDebug(KrCommonUtils) << "rm file failed:" << failure.entry.fileName();
        return false;
    }
    if (failure.what == RemovalFailure::Subdirectory) {
        krDebug(KrCommonUtils) << "rm dir failed:" << failure.entry.filePath();
        return false;
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
    removeEntries(directory, delDirRules);
    return directory.rmpath(directory.absolutePath());
}

bool KrCommonUtils::cleanDirectory(QString path)
{
    QDir directory(path);
    if (!directory.exists())
        return false;
    const RemovalFailure failure = removeEntries(directory, cleanRules);
    if (failure.what == RemovalFailure::File)
        krDebug(KrCommonUtils) << "remove the file " << failure.entry.absoluteFilePath()
                               << " failed";
    else if (failure.what == RemovalFailure::Subdirectory)
        krDebug(KrCommonUtils) << "del the dir " << failure.entry.filePath() << " failed";
    return failure.what == RemovalFailure::None;
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
