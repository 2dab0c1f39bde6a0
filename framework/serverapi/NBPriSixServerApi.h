// The endpoint of a private deployment of the 6.0 generation: the private endpoint
// with the sync data of virtual boxes and assigned jobs, and 6.0 forms of the hash
// query and the chunk upload that carry their extra text in the model.
#pragma once

#include "NBPriServerApi.h"

struct NBServerApiQueryHashSixModel
{
    QString serverUrl;
    QString hash; // one "hashes[]"
    QString extra; // the parameter named "&", always sent
};

struct NBServerApiChunkedUploadSixModel
{
    QString serverUrl;
    QString uploadId; // "upload_id"
    QString hash; // "hash"
    QByteArray data; // the chunk
    QString extra; // the query item named "&", when set
};

class NBPriSixServerApi : public NBPriServerApi
{
public:
    NBPriSixServerApi();
    ~NBPriSixServerApi() override;

    using NBServerApi::chunkedUpload;
    using NBServerApi::queryHash;

    long long getSyncDataForDisk(
        const NBServerApiGetSyncDataModel& model, NBCompletionCallback done) override;
    // An explicit GET.
    long long getAssingJid(const NBServerApiEntryModel& model, NBCompletionCallback done) override;
    long long getAssignSyncData(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done) override;

    // Every reply, whatever its outcome, is written to the log with the address before
    // the caller sees it.
    long long getSyncDataImpl(
        const QString& address, const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);
    long long queryHash(const NBServerApiQueryHashSixModel& model, NBCompletionCallback done);
    long long chunkedUpload(const NBServerApiChunkedUploadSixModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress);

    static inline const QString m_fileopsAuthUploadUrl = QStringLiteral("/fileops/auth_upload/databox");
    static inline const QString m_revisionsUrl = QStringLiteral("/revisions/databox");
    static inline const QString m_dlRouterUrl = QStringLiteral("/dl_router/databox");
    static inline const QString m_getSyncDataUrl = QStringLiteral("/syncdata/virtualBox");
    static inline const QString m_assignJIdUrl = QStringLiteral("/syncdata/returnAssignJid");
    static inline const QString m_assignSyncDeltaUrl = QStringLiteral("/syncdata/assignVirtualBox");
};
