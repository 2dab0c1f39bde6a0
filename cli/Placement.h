// Where put and get place what they copy, as cp -r does: into TARGET/NAME when TARGET
// ends in "/", is a folder that exists, or takes several sources; otherwise as TARGET
// itself (a file's new name, or the folder a folder becomes). NAME is the source's own
// name whatever form its path takes ("tree", "./tree", "tree/", "../tree", an absolute
// path; the current folder's name for "."; a symlink's own name, not its target's).
#pragma once

#include <QString>

namespace Placement {

// The name a local path is called by; empty for the root.
QString localName(const QString& local);
// Whether the sources go into the target rather than becoming it.
bool intoFolder(int sources, const QString& target, bool targetIsFolder);
// The remote path a local source lands at.
QString remoteFor(const QString& target, const QString& local, bool into);
// The local path a remote entry (of that name) lands at.
QString localFor(const QString& target, const QString& remoteName, bool into);

} // namespace Placement
