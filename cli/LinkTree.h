// A shared link's folder, as an outside user reaches it: authorised with the link's code
// and password, then addressed by paths inside the folder ("/" is the folder itself).
// The link's requests name a path with the folder's own name in front.
#pragma once

#include "RemotePath.h"
#include "RemoteTree.h"

class LinkTree : public RemoteTree
{
public:
    LinkTree(RequestRunner& remote, const QString& server, const QString& code, const QString& password);

    // The link's authorisation: the token, the link's session and its folder's name.
    void open();

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

private:
    // The path as the link's requests name it: the folder's name, then the path inside.
    QString outside(const QString& path) const;
    template<typename Model> Model linked(const QString& path) const
    {
        Model model;
        model.serverUrl = m_server;
        model.code = m_code;
        model.path = outside(path);
        model.token = m_token;
        model.session = m_session;
        return model;
    }

    // The models of a chunked upload name the path inside the folder, on the upload's server.
    template<typename Model> Model chunked(const Upload& upload, const QString& path) const
    {
        Model model;
        model.serverUrl = upload.server;
        model.code = m_code;
        model.relativePath = RemotePath::normalise(path);
        model.token = m_token;
        model.session = m_session;
        return model;
    }

    QString m_server;
    QString m_code;
    QString m_password;
    QString m_token;
    QString m_session;
    QString m_root;
};
