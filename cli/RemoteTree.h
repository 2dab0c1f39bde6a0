// A remote tree, whether the account's own drive or a shared link's folder: what put,
// get and the other commands need of it, each operation as a request that the runner
// starts (and retries), plus the waited-for forms built on them.
#pragma once

#include "RequestRunner.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>
#include <memory>
#include <optional>

struct RemoteEntry
{
    QString name;
    bool dir = false;
    qint64 bytes = 0;
    QString rev;
    QString hash;
    qint64 modified = 0;
    QString lockOwner; // empty unless locked by someone the server names
    qint64 lockExpires = 0;
    bool locked = false;
    QJsonObject json; // as the server gave it

    static RemoteEntry fromJson(const QJsonObject& object);
    // The entry as nbcli reports it, at the path the user names it by:
    // {"path","name","type","bytes","rev","modified","hash","locked"[,"lock_owner","lock_expires"]}.
    QJsonObject report(const QString& path) const;
};

class RemoteTree
{
public:
    // Where the chunks of one upload go: the transfer server and the upload's id.
    struct Upload
    {
        QString server;
        QString uploadId;
        qint64 chunkSize = 0; // the server's, when it names one
    };

    explicit RemoteTree(RequestRunner& runner)
        : m_runner(runner)
    {
    }
    virtual ~RemoteTree() = default;

    // How a path is named in messages.
    virtual QString describe(const QString& path) const = 0;

    virtual RequestRunner::Start stat(const QString& path) = 0;
    virtual RequestRunner::Start listPage(const QString& folder, int offset, int limit) = 0;
    virtual RequestRunner::Start makeFolder(const QString& path) = 0;
    virtual RequestRunner::Start authorise(const QString& path, qint64 bytes) = 0;
    virtual RequestRunner::Start uploadWhole(const Upload& upload, const QString& path,
        const QString& localPath, NBUploadProgressCallback onProgress)
        = 0;
    virtual RequestRunner::Start queryChunk(
        const Upload& upload, const QString& path, qint64 bytes, const QString& hash)
        = 0;
    virtual RequestRunner::Start uploadChunk(const Upload& upload, const QString& hash,
        const QByteArray& data, NBUploadProgressCallback onProgress)
        = 0;
    virtual RequestRunner::Start commit(
        const Upload& upload, const QString& path, qint64 bytes, const QStringList& hashes)
        = 0;
    virtual RequestRunner::Start revisions(const QString& path) = 0;
    // Downloads of the revision `rev` (empty: the current one).
    virtual RequestRunner::Start downloadWhole(const QString& path, const QString& rev,
        const QString& localPath, NBDownloadProgressCallback onProgress)
        = 0;
    virtual RequestRunner::Start downloadRange(const QString& path, const QString& rev, const QString& range,
        NBDataCallback onData, NBDownloadProgressCallback onProgress)
        = 0;

    // The same tree, its requests run by `runner` (of another thread).
    virtual std::unique_ptr<RemoteTree> on(RequestRunner& runner) const = 0;

    // Waited for; a refusal throws its Failure.
    RemoteEntry entry(const QString& path);
    // The file at `path` as it was in revision `rev`: its size, hash and time.
    RemoteEntry revision(const QString& path, const QString& rev);
    // The entry, or none when there is nothing at `path` (any other refusal throws).
    std::optional<RemoteEntry> find(const QString& path);
    // Every entry of a folder, page after page.
    QList<RemoteEntry> list(const QString& folder);
    Upload authorised(const QString& path, qint64 bytes, const QString& fallbackServer);
    // Creates a folder; one that exists already is fine.
    void ensureFolder(const QString& path);

    RequestRunner& runner() { return m_runner; }
    // Whether the server's name of an entry is one a local file may take: not empty, not
    // "." or "..", no "/" and no NUL.
    static bool isName(const QString& name);

protected:
    // The entry of a reply, checked: a type, a size for a file, a name that is one (or,
    // unless `named`, none: a root's); otherwise a damaged reply.
    static RemoteEntry checked(const QString& what, const QJsonObject& object, bool named = false);

    // A listing model asking for one page, entries by name.
    template<typename Model> static Model pageByName(Model model, int offset, int limit)
    {
        model.orderby = QStringLiteral("name");
        model.sort = QStringLiteral("asc");
        model.offset = offset;
        model.limit = limit;
        return model;
    }

    RequestRunner& m_runner;
};
