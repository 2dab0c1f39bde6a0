// The endpoint of a private deployment: its own sign-in, upload authorisation,
// folder creation, extra metadata, download routing and existence test.
#pragma once

#include "NBServerApi.h"

class NBPriServerApi : public NBServerApi
{
public:
    NBPriServerApi();
    ~NBPriServerApi() override;

    long long login(const NBServerApiLoginModel& model, NBCompletionCallback done) override;
    // POST, the path once as "target_path" and not in the address.
    long long authUpload(const NBServerApiEntryModel& model, long long bytes, NBCompletionCallback done,
        QString extraQuery) override;
    long long createFolder(const NBServerApiCreateFolderModel& model, NBCompletionCallback done) override;
    // Private deployments create no files: sends nothing, never calls back, returns -1.
    long long createFile(const NBServerApiCreateFileModel& model, NBCompletionCallback done) override;
    long long extra(QList<QString> neids, NBCompletionCallback done) override;
    // downloadRouterInternal(..., false): the base's request.
    long long downloadRouter(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress) override;
    // All five parameters always, empty or not.
    long long fileExist(const QString& neid, const QString& path, const QString& nsid, const QString& from,
        const QString& prefixNeid, NBCompletionCallback done) override;

    // With usePost, a POST to the bare routing path naming the file as "target_path".
    long long downloadRouterInternal(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress, bool usePost);

    static inline const QString m_fileopsAuthUploadUrl = QStringLiteral("/fileops/auth_upload/databox");
    static inline const QString m_revisionsUrl = QStringLiteral("/revisions/databox");
    static inline const QString m_dlRouterUrl = QStringLiteral("/dl_router/databox");
    static inline const QString m_loginUrl = QStringLiteral("/user/login");
    static inline const QString m_fileopsCreateFolderUrl = QStringLiteral("/fileops/create_folder/databox");
    static inline const QString m_fileopsCreateFileUrl = QStringLiteral("/fileops/create_file");
    static inline const QString m_extraMetadataUrl = QStringLiteral("/extra_metadata");
    static inline const QString m_fileExistUrl = QStringLiteral("/fileops/fileExists");
};
