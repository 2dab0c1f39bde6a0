// The signed-in account's own drive, in one space ("ent" unless --space says otherwise).
#pragma once

#include "TransferEndpoint.h"

class DriveEndpoint : public TransferEndpoint
{
public:
    DriveEndpoint(Remote& remote, const QString& server, const QString& pathType);

    QString describe(const QString& path) const override;
    Remote::Start stat(const QString& path) override;
    Remote::Start listPage(const QString& folder, int offset, int limit) override;
    Remote::Start makeFolder(const QString& path) override;
    Remote::Start authorise(const QString& path, qint64 bytes) override;
    Remote::Start uploadWhole(const Upload& upload, const QString& path, const QString& localPath,
        NBUploadProgressCallback onProgress) override;
    Remote::Start queryChunk(const Upload& upload, const QString& path, qint64 bytes, const QString& hash) override;
    Remote::Start uploadChunk(
        const Upload& upload, const QString& hash, const QByteArray& data, NBUploadProgressCallback onProgress) override;
    Remote::Start commit(const Upload& upload, const QString& path, qint64 bytes, const QStringList& hashes) override;
    Remote::Start downloadWhole(
        const QString& path, const QString& localPath, NBDownloadProgressCallback onProgress) override;
    Remote::Start downloadRange(const QString& path, const QString& range, NBDataCallback onData,
        NBDownloadProgressCallback onProgress) override;

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
