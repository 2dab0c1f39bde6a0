#include "RemotePath.h"

#include <QStringList>

QString RemotePath::normalise(const QString& path)
{
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    return QLatin1Char('/') + parts.join(QLatin1Char('/'));
}

QString RemotePath::join(const QString& folder, const QString& name)
{
    return normalise(folder + QLatin1Char('/') + name);
}

QString RemotePath::parent(const QString& path)
{
    const QString normal = normalise(path);
    const int slash = normal.lastIndexOf(QLatin1Char('/'));
    return slash <= 0 ? QStringLiteral("/") : normal.left(slash);
}

QString RemotePath::name(const QString& path)
{
    const QString normal = normalise(path);
    return normal.mid(normal.lastIndexOf(QLatin1Char('/')) + 1);
}

bool RemotePath::spelledAsFolder(const QString& path)
{
    return path.endsWith(QLatin1Char('/'));
}
