// Upload authorisation, download routing, whole-file and chunked transfers: the
// requests on the wire, the chunked protocol driven as a host drives it, and faults.
#include "ChunkServer.h"
#include "Golden.h"
#include "NBHttpClientManager.h"
#include "NBServerApi.h"
#include "TestData.h"
#include "TestMain.h"

#include <NBConfigure.h>
#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTemporaryDir>

namespace {

const qint64 ChunkSize = 4 << 20;

quint16 closedPort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

QJsonObject replyObject(const ResponseData& r)
{
    return QJsonDocument::fromJson(r.body.toUtf8()).object();
}

template<typename Progress> bool monotonic(const QList<Progress>& reports, qint64 Progress::*field)
{
    for (int i = 1; i < reports.size(); ++i) {
        if (reports[i].*field < reports[i - 1].*field)
            return false;
    }
    return !reports.isEmpty();
}

} // namespace

class TestNBServerApiTransfers : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    // Uploads a file as a host does: hash its chunks, ask for each, send the lacking
    // ones all at once, commit the ordered list. Returns the commit's record.
    ResponseData chunkedUpload(ChunkServer& server, const QString& localPath, const QString& remotePath)
    {
        QFile file(localPath);
        file.open(QIODevice::ReadOnly);
        QList<QString> hashes;
        while (!file.atEnd())
            hashes << QString::fromLatin1(ChunkServer::hashOf(file.read(ChunkSize)));

        Calls queries;
        for (const QString& hash : hashes)
            ServerApi::QueryHash({ server.url(), hash }, queries.completion());
        if (!queries.waitForCompletions(hashes.size(), 20000))
            return {};
        QSet<QString> needed;
        for (const ResponseData& r : queries.completions) {
            for (const QJsonValue& v : replyObject(r).value("needed").toArray())
                needed.insert(v.toString());
        }

        Calls chunks;
        int sent = 0;
        for (int i = 0; i < hashes.size(); ++i) {
            if (!needed.contains(hashes[i]))
                continue;
            file.seek(i * ChunkSize);
            NBServerApiChunkedUploadModel chunk;
            chunk.serverUrl = server.url();
            chunk.uploadId = "up-1";
            chunk.hash = hashes[i];
            chunk.data = file.read(ChunkSize);
            ServerApi::ChunkedUpload(chunk, chunks.completion());
            ++sent;
        }
        if (!chunks.waitForCompletions(sent, 30000))
            return {};
        for (const ResponseData& r : chunks.completions) {
            if (r.statusCode != 200)
                return r;
        }

        NBServerApiCommitHashModel commit;
        commit.serverUrl = server.url();
        commit.path = remotePath;
        commit.pathType = NBPathType::Ent;
        commit.hashes = hashes;
        commit.bytes = file.size();
        commit.isFileCommit = true;
        Calls committed;
        ServerApi::CommitHash(commit, committed.completion());
        committed.waitForCompletions(1, 20000);
        return committed.completions.value(0);
    }

private slots:
    void initTestCase() { NBConfigure::setQStringAttribute(NBConfigure::Language, "zh-CN"); }

    void cleanup() { ServerApi::uninit(); }

    void requestsOnTheWire_data()
    {
        Golden::addRows({
            golden("authUpload, path and type only",
                [](GoldenContext& c) {
                    NBServerApiEntryModel m;
                    m.path = "/a b.txt";
                    m.pathType = NBPathType::Ent;
                    return ServerApi::AuthUpload(m, 0, c.calls.completion());
                })
                .sends(Pub,
                    "GET /v2/fileops/auth_upload/databox/a%20b.txt"
                    "?path=%2Fa%20b.txt&path_type=ent&full_path=%2Fa%20b.txt&bytes=0\n{get}\n")
                .sends(Pri | PriSix,
                    "POST "
                    "/v2/fileops/auth_upload/"
                    "databox\n{post}\ntarget_path=%2Fa%20b.txt&path_type=ent&bytes=0"),
            golden("authUpload, extra query without a verification code: one \"&\", no \"?\"",
                [](GoldenContext& c) {
                    NBServerApiEntryModel m;
                    m.path = "/a";
                    m.pathType = NBPathType::Ent;
                    return ServerApi::AuthUpload(m, 7, c.calls.completion(), "a=1");
                })
                .sends(Pub,
                    "GET "
                    "/v2/fileops/auth_upload/databox/"
                    "a&a=1?path=%2Fa&path_type=ent&full_path=%2Fa&bytes=7\n{get}\n")
                .sends(Pri | PriSix,
                    "POST "
                    "/v2/fileops/auth_upload/databox&a=1\n{post}\ntarget_path=%2Fa&path_type=ent&bytes=7"),
            golden("authUpload, every field, a size past 2^31, verification code, extra query",
                [](GoldenContext& c) {
                    NBServerApiEntryModel m;
                    m.path = "/文/x&y.bin";
                    m.pathType = NBPathType::ShareIn;
                    m.from = "f";
                    m.neid = "n";
                    m.nsid = "s";
                    m.prefixNeid = "p";
                    m.ignorePrefixPath = "true";
                    m.root = "not sent";
                    return ServerApi::AuthUpload(m, 5000000000LL, c.calls.completion(), "k=v w&z=1");
                })
                .verifyCode("vc")
                .sends(Pub,
                    "GET /v2/fileops/auth_upload/databox/%E6%96%87/x&y.bin&k=v%20w&z=1"
                    "?path=%2F%E6%96%87%2Fx%26y.bin&path_type=share_in&full_path=%2F%E6%96%87%2Fx%26y.bin"
                    "&ignore_prefix_path=true&from=f&prefix_neid=p&nsid=s&neid=n&bytes=5000000000&S=vc\n{get}"
                    "\n")
                .sends(Pri | PriSix,
                    "POST /v2/fileops/auth_upload/databox?S=vc&k=v%20w&z=1\n{post}\n"
                    "target_path=%2F%E6%96%87%2Fx%26y.bin&path_type=share_in&ignore_prefix_path=true&from=f"
                    "&prefix_neid=p&nsid=s&neid=n&bytes=5000000000"),
            golden("downloadRouter, no range",
                [](GoldenContext& c) {
                    NBSeverApiDLRouterModel m;
                    m.path = "/d/f.txt";
                    m.pathType = NBPathType::Self;
                    return ServerApi::DownloadRouter(m, c.calls.data(), c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET /v2/dl_router/databox/d/f.txt?path=%2Fd%2Ff.txt&path_type=self\n{get}\n"),
            golden("downloadRouter, range and every field",
                [](GoldenContext& c) {
                    NBSeverApiDLRouterModel m;
                    m.path = "/d";
                    m.pathType = NBPathType::Ent;
                    m.from = "f";
                    m.neid = "n";
                    m.prefixNeid = "p";
                    m.rev = "r 1";
                    m.range = "bytes=100-199";
                    m.opType = "preview";
                    return ServerApi::DownloadRouter(
                        m, c.calls.data(), c.calls.completion(), c.calls.downloadProgress());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "GET "
                    "/v2/dl_router/databox/d?path=%2Fd&path_type=ent&from=f&neid=n&rev=r%201&prefix_neid=p"
                    "&op_type=preview&S=vc\n"
                    "Host: {host}\nRange: bytes=100-199\nx-nimbraws-range: bytes=100-199\n{ua}Accept: */*\n"
                    "{cookie}{qt}\n"),
            golden("uploadFile, optional fields empty",
                [](GoldenContext& c) {
                    NBServerApiUploadFileModel m;
                    m.path = "/u.bin";
                    m.pathType = NBPathType::Ent;
                    m.serverUrl = c.url("/ignored/path");
                    m.localPath = writeFile(c.dir + "/u.bin", "file body");
                    return ServerApi::UploadFile(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/files/databox/u.bin?path=/u.bin&path_type=ent&overwrite=false&language=zh-CN\n"
                    "{upload}\nfile body"),
            golden("uploadFile, every field",
                [](GoldenContext& c) {
                    NBServerApiUploadFileModel m;
                    m.path = "/目录/a b&c=d+e.txt";
                    m.pathType = NBPathType::ShareOut;
                    m.from = "f";
                    m.neid = "n";
                    m.prefixNeid = "p";
                    m.rev = "7";
                    m.parentRev = "6";
                    m.serverUrl = c.url();
                    m.localPath = writeFile(c.dir + "/x", "x");
                    m.overwrite = true;
                    m.opType = "sync";
                    return ServerApi::UploadFile(m, c.calls.completion(), c.calls.uploadProgress());
                })
                .verifyCode("v&c")
                .sends(AllDeployments,
                    "POST /v2/files/databox/%E7%9B%AE%E5%BD%95/a%20b&c=d+e.txt"
                    "?path=/%E7%9B%AE%E5%BD%95/"
                    "a%20b%26c%3Dd%2Be.txt&path_type=share_out&from=f&neid=n&prefix_neid=p"
                    "&rev=7&parent_rev=6&overwrite=true&op_type=sync&S=v%26c&language=zh-CN\n"
                    "{upload}\nx"),
            // A server reading the query as a form takes a raw "+" for a space.
            golden("uploadFile, + in the name and the verification code",
                [](GoldenContext& c) {
                    NBServerApiUploadFileModel m;
                    m.path = "/a+b.txt";
                    m.pathType = NBPathType::Ent;
                    m.serverUrl = c.url();
                    m.localPath = writeFile(c.dir + "/p", "p");
                    return ServerApi::UploadFile(m, c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "POST /v2/files/databox/a+b.txt?path=/a%2Bb.txt&path_type=ent&overwrite=false&S=v%2Bc"
                    "&language=zh-CN\n{upload}\np"),
            golden("uploadData, + in the name and the verification code",
                [](GoldenContext& c) {
                    NBServerApiUploadDataModel m;
                    m.path = "/a+b.txt";
                    m.pathType = NBPathType::Ent;
                    m.serverUrl = c.url();
                    m.data = "d";
                    return ServerApi::UploadData(m, c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "POST /v2/files/databox/a+b.txt?path=/a%2Bb.txt&path_type=ent&overwrite=false&S=v%2Bc"
                    "&language=zh-CN\n{upload}\nd"),
            golden("uploadData, never a revision",
                [](GoldenContext& c) {
                    NBServerApiUploadDataModel m;
                    m.path = "/d.bin";
                    m.pathType = NBPathType::Ent;
                    m.rev = "7";
                    m.parentRev = "6";
                    m.serverUrl = c.url();
                    m.data = QByteArray("\x00\x01\xff", 3);
                    return ServerApi::UploadData(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/files/databox/d.bin?path=/d.bin&path_type=ent&parent_rev=6&overwrite=false"
                    "&language=zh-CN\n{upload}\n"
                        + QByteArray("\x00\x01\xff", 3)),
            golden("downloadFile",
                [](GoldenContext& c) {
                    NBServerApiDownloadFileModel m;
                    m.path = "/d f.txt";
                    m.pathType = NBPathType::Ent;
                    m.neid = "n";
                    m.prefixNeid = "p";
                    m.opType = "open";
                    m.serverUrl = c.url();
                    m.localPath = c.dir + "/out.txt";
                    return ServerApi::DownloadFile(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "GET /v2/files/databox/d%20f.txt?path=%2Fd%20f.txt&path_type=ent&neid=n&prefix_neid=p"
                    "&op_type=open&language=zh-CN&S=vc\n{get}\n"),
            golden("downloadData",
                [](GoldenContext& c) {
                    NBServerApiDownloadDataModel m;
                    m.path = "/d";
                    m.pathType = NBPathType::Ent;
                    m.from = "f";
                    m.rev = "3";
                    m.serverUrl = c.url();
                    return ServerApi::DownloadData(m, c.calls.data(), c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET /v2/files/databox/d?path=%2Fd&path_type=ent&from=f&rev=3&language=zh-CN\n{get}\n"),
            golden("queryHash, the model's one hash",
                [](GoldenContext& c) {
                    return ServerApi::QueryHash({ c.url(), "h1" }, c.calls.completion());
                })
                .sends(AllDeployments, "POST /v2/commit_chunked_upload/commit/databox\n{post}\nhashes[]=h1"),
            golden("queryHash, list form: three hashes in the caller's order",
                [](GoldenContext& c) {
                    return ServerApi::serverApi()->queryHash(
                        c.url(), { "h3", "h1", "h 2" }, c.calls.completion(), QString());
                })
                .throughTheEndpoint()
                .sends(AllDeployments,
                    "POST "
                    "/v2/commit_chunked_upload/commit/"
                    "databox\n{post}\nhashes[]=h3&hashes[]=h1&hashes[]=h%202"),
            golden("queryHash, list form: no hash sends no hashes[]",
                [](GoldenContext& c) {
                    return ServerApi::serverApi()->queryHash(c.url(), {}, c.calls.completion(), QString());
                })
                .throughTheEndpoint()
                .sends(AllDeployments, "POST /v2/commit_chunked_upload/commit/databox\n{post}\n"),
            golden("queryHash, verification code and extra query",
                [](GoldenContext& c) {
                    return ServerApi::QueryHash({ c.url(), "h 1" }, c.calls.completion(), "upload_id=u1");
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST "
                    "/v2/commit_chunked_upload/commit/databox?S=vc&upload_id=u1\n{post}\nhashes[]=h%201"),
            golden("queryHash, extra query without a query part",
                [](GoldenContext& c) {
                    return ServerApi::QueryHash({ c.url(), "h" }, c.calls.completion(), "a=1");
                })
                .sends(
                    AllDeployments, "POST /v2/commit_chunked_upload/commit/databox&a=1\n{post}\nhashes[]=h"),
            golden("chunkedUpload, no hash and no upload id",
                [](GoldenContext& c) {
                    NBServerApiChunkedUploadModel m;
                    m.serverUrl = c.url();
                    m.data = "chunk";
                    return ServerApi::ChunkedUpload(m, c.calls.completion());
                })
                .sends(AllDeployments, "POST /v2/chunked_upload?offset=0\n{upload}\nchunk"),
            golden("chunkedUpload, every field, extra query",
                [](GoldenContext& c) {
                    NBServerApiChunkedUploadModel m;
                    m.serverUrl = c.url();
                    m.uploadId = "u/1";
                    m.hash = "abc";
                    m.data = "chunk";
                    return ServerApi::ChunkedUpload(
                        m, c.calls.completion(), c.calls.uploadProgress(), "x=y z");
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /v2/chunked_upload?hash=abc&upload_id=u/1&offset=0&S=vc&x=y%20z\n"
                    "{upload}\nchunk"),
            golden("chunkedUpload, + in the hash, the upload id and the verification code; the extra query "
                   "as written",
                [](GoldenContext& c) {
                    NBServerApiChunkedUploadModel m;
                    m.serverUrl = c.url();
                    m.uploadId = "u+1";
                    m.hash = "h+/=";
                    m.data = "chunk";
                    return ServerApi::ChunkedUpload(m, c.calls.completion(), {}, "x=a+b");
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "POST /v2/chunked_upload?hash=h%2B/%3D&upload_id=u%2B1&offset=0&S=v%2Bc&x=a+b\n"
                    "{upload}\nchunk"),
            golden("commitHash, both flags false",
                [](GoldenContext& c) {
                    NBServerApiCommitHashModel m;
                    m.serverUrl = c.url();
                    m.path = "/big file.bin";
                    m.pathType = NBPathType::Ent;
                    m.hashes = { "h3", "h1", "h2" };
                    m.bytes = 3000000000LL;
                    return ServerApi::CommitHash(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/commit_chunked_upload/commit/databox/big%20file.bin\n{post}\n"
                    "path=%2Fbig%20file.bin&path_type=ent&bytes=3000000000&is_file_commit=false&overwrite="
                    "false"
                    "&hashes[]=h3&hashes[]=h1&hashes[]=h2"),
            golden("commitHash, every field",
                [](GoldenContext& c) {
                    NBServerApiCommitHashModel m;
                    m.serverUrl = c.url();
                    m.path = "/f";
                    m.pathType = NBPathType::Self;
                    m.from = "fr";
                    m.prefixNeid = "p";
                    m.rev = "2";
                    m.parentRev = "1";
                    m.bytes = 0;
                    m.isFileCommit = true;
                    m.overwrite = true;
                    m.opType = "o";
                    return ServerApi::CommitHash(m, c.calls.completion(), "upload_id=9");
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /v2/commit_chunked_upload/commit/databox/f?S=vc&upload_id=9\n{post}\n"
                    "path=%2Ff&path_type=self&from=fr&rev=2&parent_rev=1&prefix_neid=p&bytes=0"
                    "&is_file_commit=true&overwrite=true&op_type=o"),
            golden("Upload, nothing of the endpoint",
                [](GoldenContext& c) {
                    return ServerApi::Upload(
                        c.url("/raw?x=1"), writeFile(c.dir + "/r", "raw"), c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /raw?x=1\nHost: {host}\n{form}Content-Length: 3\n{qt}User-Agent: "
                    "Mozilla/5.0\n\nraw"),
            golden("download, the default headers",
                [](GoldenContext& c) {
                    return ServerApi::Download(c.url("/raw?x=1"), c.calls.data(), c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments, "GET /raw?x=1\n{get}\n"),
        });
    }

    void requestsOnTheWire() { Golden::run(); }

    void chunkedUploadEndToEnd()
    {
        ChunkServer server;
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(server.url());
        const QByteArray content = randomBytes(20 * (1 << 20) + 12345, 7);
        const QString path = writeFile(m_dir.filePath("chunked.bin"), content);
        const QByteArray sha = QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex();

        const ResponseData first = chunkedUpload(server, path, "/remote/chunked.bin");
        QCOMPARE(first.statusCode, 200);
        QCOMPARE(replyObject(first).value("sha256").toString().toLatin1(), sha);
        QCOMPARE(server.chunkUploads(), 6);
        QCOMPARE(server.file("/remote/chunked.bin"), content);

        // The server holds every chunk now: the same file again sends none.
        const ResponseData again = chunkedUpload(server, path, "/remote/copy.bin");
        QCOMPARE(again.statusCode, 200);
        QCOMPARE(server.chunkUploads(), 6);
        QCOMPARE(server.file("/remote/copy.bin"), content);
        QCOMPARE(replyObject(again).value("sha256").toString().toLatin1(), sha);
    }

    void commitOfAnUnknownHashCarriesTheServersErrorText()
    {
        ChunkServer server;
        ServerApi::init(ServerApi::PublicCloud);
        NBServerApiCommitHashModel m;
        m.serverUrl = server.url();
        m.path = "/x";
        m.pathType = NBPathType::Ent;
        m.hashes = { QString::fromLatin1(ChunkServer::hashOf("never sent")) };
        m.bytes = 10;
        Calls calls;
        ServerApi::CommitHash(m, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, 400);
        QCOMPARE(replyObject(calls.last()).value("code").toString(), QString("invalid.hash"));
    }

    void sixtyFourMebibytesUpAndDownByteExact()
    {
        ChunkServer server;
        ServerApi::init(ServerApi::Private);
        const QByteArray content = randomBytes(64 << 20, 11);
        NBServerApiUploadFileModel up;
        up.serverUrl = server.url();
        up.path = "/big.bin";
        up.pathType = NBPathType::Ent;
        up.localPath = writeFile(m_dir.filePath("big-up.bin"), content);
        Calls uploaded;
        ServerApi::UploadFile(up, uploaded.completion(), uploaded.uploadProgress());
        QVERIFY(uploaded.waitForCompletions(1, 60000));
        QCOMPARE(uploaded.last().statusCode, 200);
        QCOMPARE(server.file("/big.bin").size(), content.size());
        QVERIFY(server.file("/big.bin") == content);
        // The network layer ends an upload with a report of (0, 0).
        QList<UploadProgressData> sent = uploaded.uploads;
        if (!sent.isEmpty() && sent.last().bytesTotal == 0)
            sent.removeLast();
        QVERIFY(monotonic(sent, &UploadProgressData::bytesSent));
        QCOMPARE(sent.last().bytesSent, qint64(content.size()));

        NBServerApiDownloadFileModel down;
        down.serverUrl = server.url();
        down.path = "/big.bin";
        down.pathType = NBPathType::Ent;
        down.localPath = m_dir.filePath("big-down.bin");
        Calls downloaded;
        ServerApi::DownloadFile(down, downloaded.completion(), downloaded.downloadProgress());
        QVERIFY(downloaded.waitForCompletions(1, 60000));
        QCOMPARE(downloaded.last().statusCode, 200);
        QVERIFY(readFile(down.localPath) == content);
        QVERIFY(monotonic(downloaded.downloads, &DownloadProgressData::bytesReceived));
        QCOMPARE(downloaded.downloads.last().bytesReceived, qint64(content.size()));
    }

    void downloadRouterDeliversTheRangeItAsksFor()
    {
        ChunkServer server;
        const QByteArray content = randomBytes(1000, 3);
        server.putFile("/r.bin", content);
        ServerApi::init(ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(server.url());
        NBSeverApiDLRouterModel m;
        m.path = "/r.bin";
        m.pathType = NBPathType::Ent;
        m.range = "bytes=100-199";
        Calls calls;
        ServerApi::DownloadRouter(m, calls.data(), calls.completion(), calls.downloadProgress());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, 206);
        QCOMPARE(calls.joinedPieces(), content.mid(100, 100));
        QCOMPARE(calls.last().headers.value("Content-Range"), QByteArray("bytes 100-199/1000"));
    }

    void transferServerThatRefusesConnections()
    {
        ServerApi::init(ServerApi::PublicCloud);
        NBServerApiUploadDataModel m;
        m.serverUrl = QStringLiteral("http://127.0.0.1:%1").arg(closedPort());
        m.path = "/x";
        m.data = "data";
        Calls calls;
        const long long id = ServerApi::UploadData(m, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().networkError, 1);
        QCOMPARE(calls.last().statusCode, 0);
        QTest::qWait(50);
        QCOMPARE(calls.completions.size(), 1);
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
    }

    void downloadToAPathThatCannotBeWritten()
    {
        ChunkServer server;
        server.putFile("/f", "content");
        ServerApi::init(ServerApi::PrivateSix);
        NBServerApiDownloadFileModel m;
        m.serverUrl = server.url();
        m.path = "/f";
        m.localPath = m_dir.filePath("no/such/folder/f");
        Calls calls;
        const long long id = ServerApi::DownloadFile(m, calls.completion());
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().statusCode, int(QFileDevice::OpenError));
        QCOMPARE(calls.last().networkError, int(QFileDevice::OpenError));
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
        QTest::qWait(100);
        QCOMPARE(server.server().requestCount(), 0);
    }

    void chunkUploadCancelledMidway()
    {
        TestServerOptions options;
        options.readBodies = false;
        TestServer server({}, options);
        ServerApi::init(ServerApi::PublicCloud);
        NBServerApiChunkedUploadModel m;
        m.serverUrl = server.url(QString());
        m.hash = "h";
        m.data = randomBytes(16 << 20);
        Calls calls;
        const long long id = ServerApi::ChunkedUpload(m, calls.completion(), calls.uploadProgress());
        QVERIFY(server.waitForRequests(1));
        ServerApi::Cancel(id);
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().networkError, 5);
        QVERIFY(NBHttpClientManager::manager()->getHttpClient(id) == nullptr);
        QTest::qWait(200);
        QCOMPARE(calls.completions.size(), 1);
    }

    void uploadOfAFileThatIsGone()
    {
        ChunkServer server;
        ServerApi::init(ServerApi::PublicCloud);
        NBServerApiUploadFileModel m;
        m.serverUrl = server.url();
        m.path = "/gone";
        m.localPath = writeFile(m_dir.filePath("gone.bin"), "never read");
        QFile::remove(m.localPath);
        Calls calls;
        ServerApi::UploadFile(m, calls.completion());
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().statusCode, int(QFileDevice::OpenError));
        QCOMPARE(calls.last().errorString, QString("No such file or directory"));
        QTest::qWait(100);
        QCOMPARE(server.server().requestCount(), 0);
    }

    // The file is open from the call on: removing it afterwards does not cut the upload.
    void uploadOfAFileRemovedAfterTheCall()
    {
        ChunkServer server;
        ServerApi::init(ServerApi::PublicCloud);
        const QByteArray content = randomBytes(8 << 20, 5);
        NBServerApiUploadFileModel m;
        m.serverUrl = server.url();
        m.path = "/later";
        m.localPath = writeFile(m_dir.filePath("later.bin"), content);
        Calls calls;
        ServerApi::UploadFile(m, calls.completion());
        QVERIFY(QFile::remove(m.localPath));
        QVERIFY(calls.waitForCompletions(1, 30000));
        QCOMPARE(calls.last().statusCode, 200);
        QVERIFY(server.file("/later") == content);
    }
};

NB_TEST_MAIN(TestNBServerApiTransfers)
#include "tst_nbserverapi_transfers.moc"
