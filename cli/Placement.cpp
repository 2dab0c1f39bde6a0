#include "Placement.h"

#include "RemotePath.h"

#include <QDir>
#include <QFileInfo>

namespace Placement {

QString localName(const QString& local)
{
    // Absolute and clean, symlinks left as they are: "tree/." is "tree", "a/../tree" is "tree".
    return QFileInfo(QDir::cleanPath(QDir::current().absoluteFilePath(local))).fileName();
}

bool intoFolder(int sources, const QString& target, bool targetIsFolder)
{
    return sources > 1 || target.endsWith(QLatin1Char('/')) || targetIsFolder;
}

QString remoteFor(const QString& target, const QString& local, bool into)
{
    return into ? RemotePath::join(target, localName(local)) : RemotePath::normalise(target);
}

QString localFor(const QString& target, const QString& remoteName, bool into)
{
    return into ? QDir(target).filePath(remoteName) : target;
}

} // namespace Placement
