// What a host does against the emulator, written once for the tests and the uploader
// program: one request waited for, sign-in with the session kept, a chunked upload.
#pragma once

#include "INBSeverApi.h"
#include "NBBaseParse.h"
#include "Wait.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <memory>

namespace EmuHost {

// Sends one request and waits for its completion (bounded); an empty record with
// network error -1 when none came.
inline ResponseData sync(const std::function<long long(NBCompletionCallback)>& send, int timeoutMs = 60000)
{
    // Shared with the completion, which may still come after the wait gave up.
    struct State
    {
        ResponseData result;
        bool done = false;
    };
    const auto state = std::make_shared<State>();
    state->result.networkError = -1;
    send([state](const ResponseData& r) {
        if (!state->done)
            state->result = r;
        state->done = true;
    });
    waitUntil([&] { return state->done; }, timeoutMs);
    return state->result;
}

// A model of one entry: path and path type ("ent" unless named).
template<typename Model> Model at(const QString& path, const QString& pathType = NBPathType::Ent)
{
    Model m;
    m.path = path;
    m.pathType = pathType;
    return m;
}

inline NBServerApiEntryModel entry(const QString& path, const QString& pathType = NBPathType::Ent)
{
    return at<NBServerApiEntryModel>(path, pathType);
}

inline QJsonObject object(const ResponseData& r)
{
    return QJsonDocument::fromJson(r.body.toUtf8()).object();
}

// The error number the library's parser gives the reply (0 for a success).
inline int errorCode(const ResponseData& r)
{
    CNBParseProcessor reading;
    reading.ParseResp(r);
    return reading.hasError() ? reading.errorCode() : 0;
}

// Signs in as a host does and keeps the session; false when refused.
inline bool signIn(const QString& user, const QString& password)
{
    NBServerApiLoginModel login;
    login.kind = 2;
    login.userName = user;
    login.password = password;
    login.deviceName = QStringLiteral("test host");
    login.deviceUuid = QStringLiteral("uuid-test");
    const ResponseData r
        = sync([&](NBCompletionCallback done) { return ServerApi::Login(login, std::move(done)); });
    NBBaseParse reading;
    reading.ParseResp(r);
    if (reading.hasError() || reading.sessiondId().isEmpty())
        return false;
    ServerApi::setSessionID(reading.sessiondId());
    return true;
}

// The library set up for the emulator's address and deployment type, signed in.
inline bool startHost(const QString& url, int type, const QString& user = QStringLiteral("alice"),
    const QString& password = QStringLiteral("secret"))
{
    ServerApi::init(ServerApi::NBServerApiType(type));
    ServerApi::setLogLevel(false);
    ServerApi::setBaseUrlString(url);
    return signIn(user, password);
}

// A whole upload of `data`, replacing what is there.
inline ResponseData upload(const QString& server, const QString& path, const QByteArray& data,
    const QString& pathType = NBPathType::Ent)
{
    NBServerApiUploadDataModel model = at<NBServerApiUploadDataModel>(path, pathType);
    model.serverUrl = server;
    model.data = data;
    model.overwrite = true;
    return sync([&](NBCompletionCallback done) { return ServerApi::UploadData(model, std::move(done)); });
}

// Polls a batch task until it is no longer running (bounded): its last state.
inline QJsonObject pollTask(const QString& taskId, int* polls = nullptr)
{
    QJsonObject state;
    for (int i = 0; i < 20; ++i) {
        state = object(sync(
            [&](NBCompletionCallback d) { return ServerApi::BatchTaskAsyncQuery(taskId, std::move(d)); }));
        if (polls)
            *polls = i + 1;
        if (state.value("state").toString() != QLatin1String("running"))
            break;
    }
    return state;
}

inline QString hashOf(const QByteArray& chunk)
{
    return QString::fromLatin1(QCryptographicHash::hash(chunk, QCryptographicHash::Sha256).toHex());
}

struct ChunkedResult
{
    ResponseData commit;
    int chunksSent = 0;
};

// Hashes the file's chunks, asks which the server lacks, sends those with `inFlight`
// requests at a time and commits the list.
inline ChunkedResult chunkedUpload(const QString& serverUrl, const QString& localPath,
    const QString& remotePath, int inFlight = 4, qint64 chunkSize = 4 << 20, bool overwrite = true)
{
    ChunkedResult result;
    QFile file(localPath);
    if (!file.open(QIODevice::ReadOnly))
        return result;
    QList<QString> hashes;
    while (!file.atEnd())
        hashes << hashOf(file.read(chunkSize));
    QSet<QString> needed;
    for (const QString& hash : hashes) {
        const ResponseData r = sync([&](NBCompletionCallback done) {
            return ServerApi::QueryHash({ serverUrl, hash }, std::move(done));
        });
        for (const QJsonValue& v : object(r).value("needed").toArray())
            needed.insert(v.toString());
    }
    int next = 0;
    // Shared with the completions, which may still come after a wait gave up.
    const auto running = std::make_shared<int>(0);
    const auto failed = std::make_shared<bool>(false);
    std::function<void()> startNext = [&] {
        while (*running < inFlight && next < hashes.size()) {
            const int index = next++;
            if (!needed.contains(hashes[index]))
                continue;
            file.seek(index * chunkSize);
            NBServerApiChunkedUploadModel chunk;
            chunk.serverUrl = serverUrl;
            chunk.uploadId = QStringLiteral("test");
            chunk.hash = hashes[index];
            chunk.data = file.read(chunkSize);
            ++*running;
            ++result.chunksSent;
            ServerApi::ChunkedUpload(chunk, [running, failed](const ResponseData& r) {
                --*running;
                *failed |= r.statusCode != 200;
            });
        }
    };
    for (;;) {
        startNext();
        if (*failed || (next >= hashes.size() && *running == 0))
            break;
        // One of those in flight finishes, and makes room for the next.
        const int before = *running;
        if (!waitUntil([&] { return *running < before; }, 60000))
            return result;
    }
    if (*failed)
        return result;
    NBServerApiCommitHashModel commit;
    commit.serverUrl = serverUrl;
    commit.path = remotePath;
    commit.pathType = NBPathType::Ent;
    commit.hashes = hashes;
    commit.bytes = file.size();
    commit.isFileCommit = true;
    commit.overwrite = overwrite;
    result.commit
        = sync([&](NBCompletionCallback done) { return ServerApi::CommitHash(commit, std::move(done)); });
    return result;
}

} // namespace EmuHost
