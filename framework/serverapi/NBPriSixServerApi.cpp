#include "NBPriSixServerApi.h"

#include "CNBLoggerWrapper.h"
#include "NBRequestParams.h"

NBPriSixServerApi::NBPriSixServerApi() = default;

NBPriSixServerApi::~NBPriSixServerApi() = default;

long long NBPriSixServerApi::getSyncDataForDisk(
    const NBServerApiGetSyncDataModel& model, NBCompletionCallback done)
{
    return getSyncDataImpl(
        combineReqUrl(baseUrlString(), versionString(), m_getSyncDataUrl), model, std::move(done));
}

long long NBPriSixServerApi::getAssignSyncData(
    const NBServerApiGetSyncDataModel& model, NBCompletionCallback done)
{
    return getSyncDataImpl(
        combineReqUrl(baseUrlString(), versionString(), m_assignSyncDeltaUrl), model, std::move(done));
}

long long NBPriSixServerApi::getSyncDataImpl(
    const QString& address, const NBServerApiGetSyncDataModel& model, NBCompletionCallback done)
{
    // The sync engine's readers of the log find these lines by their tag, line 129 included.
    auto logged = [address, done = std::move(done)](const ResponseData& response) {
        CNBLoggerWrapper::instTransfer().error(QStringLiteral("responsedata: ") + address + response.body,
            QStringLiteral(__FILE__), QStringLiteral("operator()"), 129);
        if (done)
            done(response);
    };
    return requestTo(address)
        .method(POST)
        .number("syncUid", model.syncUid)
        .number("syncCid", model.syncCid)
        .number("pullJid", model.pullJid)
        .number("deltaDataId", model.deltaDataId)
        .number("assign_Jid", model.assignJid)
        .param(NBKey::Path, model.path)
        .paramsIfSet({ { NBKey::PathType, model.pathType }, { NBKey::From, model.from },
            { NBKey::PrefixNeid, model.prefixNeid } })
        .withDefaults()
        .send(std::move(logged));
}

long long NBPriSixServerApi::getAssingJid(const NBServerApiEntryModel& model, NBCompletionCallback done)
{
    return request(m_assignJIdUrl)
        .method(GET)
        .param(NBKey::Path, model.path)
        .param(NBKey::PathType, model.pathType)
        .withDefaults()
        .send(std::move(done));
}

long long NBPriSixServerApi::queryHash(const NBServerApiQueryHashSixModel& model, NBCompletionCallback done)
{
    return queryHashSix(model.serverUrl, { model.hash }, model.extra, std::move(done));
}

long long NBPriSixServerApi::chunkedUpload(const NBServerApiChunkedUploadSixModel& model,
    NBCompletionCallback done, NBUploadProgressCallback onProgress)
{
    return requestOn(model.serverUrl, m_chunkedUploadUrl)
        .with(chunkQuery, model)
        .paramIfSet("&", model.extra)
        .defaultHeaders()
        .upload(model.data, std::move(onProgress), std::move(done));
}
