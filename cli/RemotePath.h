// Paths of the remote namespace as nbcli writes them: absolute, "/" between segments,
// no trailing slash but for the root.
#pragma once

#include <QString>

class RemotePath
{
public:
    static QString normalise(const QString& path);
    static QString join(const QString& folder, const QString& name);
    static QString parent(const QString& path);
    static QString name(const QString& path);
    // "DIR/" and "/" name folders by their spelling.
    static bool spelledAsFolder(const QString& path);
};
