// The signed-in account's own drive, in one space ("ent" unless --space says otherwise).
#pragma once

#include "RemoteTree.h"

#include <QJsonArray>

class DriveTree : public RemoteTree
{
public:
    DriveTree(RequestRunner& remote, const QString& server, const QString& pathType);

    QString describe(const QString& path) const override;
    RequestRunner::Start stat(const QString& path) override;
    RequestRunner::Start listPage(const QString& folder, int offset, int limit) override;
    RequestRunner::Start makeFolder(const QString& path) override;
    RequestRunner::Start authorise(const QString& path, qint64 bytes) override;
    RequestRunner::Start uploadWhole(const Upload& upload, const QString& path, const QString& localPath,
        NBUploadProgressCallback onProgress) override;
    RequestRunner::Start queryChunk(
        const Upload& upload, const QString& path, qint64 bytes, const QString& hash) override;
    RequestRunner::Start uploadChunk(const Upload& upload, const QString& hash, const QByteArray& data,
        NBUploadProgressCallback onProgress) override;
    RequestRunner::Start commit(
        const Upload& upload, const QString& path, qint64 bytes, const QStringList& hashes) override;
    RequestRunner::Start revisions(const QString& path) override;
    RequestRunner::Start downloadWhole(const QString& path, const QString& rev, const QString& localPath,
        NBDownloadProgressCallback onProgress) override;
    RequestRunner::Start downloadRange(const QString& path, const QString& rev, const QString& range,
        NBDataCallback onData, NBDownloadProgressCallback onProgress) override;
    std::unique_ptr<RemoteTree> on(RequestRunner& runner) const override;

    RequestRunner::Start move(const QString& from, const QString& to);
    // One server task that deletes the entries.
    RequestRunner::Start remove(const QStringList& paths);
    // The results of a server task of copies, moves or deletions, one per entry, once it ended.
    QJsonArray taskResults(const QString& what, const QJsonObject& started);
    // The failure of one entry of a task.
    static Failure entryFailure(const QString& what, const QJsonObject& result);

    // An entry model of this space: path and path type set.
    template<typename Model> Model at(const QString& path) const
    {
        Model model;
        model.path = path;
        model.pathType = m_pathType;
        return model;
    }

private:
    QString m_server;
    QString m_pathType;
};
