// What put, get and their recursion need of a remote tree, whether it is the account's
// own drive or a shared link's folder: each operation as a request that Remote starts
// (and retries), plus the waited-for forms built on them.
#pragma once

#include "Remote.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

struct RemoteEntry
{
    QString name;
    bool dir = false;
    qint64 bytes = 0;
    QString rev;
    QString hash;
    qint64 modified = 0;
    QJsonObject json;

    static RemoteEntry fromJson(const QJsonObject& object);
};

class TransferEndpoint
{
public:
    // Where the chunks of one upload go: the transfer server and the upload's id.
    struct Upload
    {
        QString server;
        QString uploadId;
    };

    explicit TransferEndpoint(Remote& remote)
        : m_remote(remote)
    {
    }
    virtual ~TransferEndpoint() = default;

    // How a path is named in messages.
    virtual QString describe(const QString& path) const = 0;

    virtual Remote::Start stat(const QString& path) = 0;
    virtual Remote::Start listPage(const QString& folder, int offset, int limit) = 0;
    virtual Remote::Start makeFolder(const QString& path) = 0;
    virtual Remote::Start authorise(const QString& path, qint64 bytes) = 0;
    virtual Remote::Start uploadWhole(const Upload& upload, const QString& path, const QString& localPath,
        NBUploadProgressCallback onProgress) = 0;
    virtual Remote::Start queryChunk(const Upload& upload, const QString& path, qint64 bytes, const QString& hash) = 0;
    virtual Remote::Start uploadChunk(
        const Upload& upload, const QString& hash, const QByteArray& data, NBUploadProgressCallback onProgress) = 0;
    virtual Remote::Start commit(const Upload& upload, const QString& path, qint64 bytes, const QStringList& hashes) = 0;
    virtual Remote::Start downloadWhole(
        const QString& path, const QString& localPath, NBDownloadProgressCallback onProgress) = 0;
    virtual Remote::Start downloadRange(const QString& path, const QString& range, NBDataCallback onData,
        NBDownloadProgressCallback onProgress) = 0;

    // Waited for; a refusal throws its Failure.
    RemoteEntry entry(const QString& path);
    // Every entry of a folder, page after page.
    QList<RemoteEntry> list(const QString& folder);
    Upload authorised(const QString& path, qint64 bytes, const QString& fallbackServer);
    // Creates a folder; one that exists already is fine.
    void ensureFolder(const QString& path);

    Remote& remote() { return m_remote; }

protected:
    // A listing model asking for one page, entries by name.
    template<typename Model> static Model pageByName(Model model, int offset, int limit)
    {
        model.orderby = QStringLiteral("name");
        model.sort = QStringLiteral("asc");
        model.offset = offset;
        model.limit = limit;
        return model;
    }

    Remote& m_remote;
};
