// Shared-link (delivery) operations: the requests on the wire, the root-stripping of
// delivery paths, and a shared-link session driven as an outside user drives it.
#include "ChunkServer.h"
#include "Golden.h"
#include "NBServerApi.h"
#include "TestData.h"
#include "TestMain.h"

#include <NBConfigure.h>
#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

namespace {

// The endpoint's cookie names the session twice, the stored one first; merged through
// the request's cookie jar, which keeps one cookie of a name, the delivery's own wins.
const QByteArray SessionCookie = "Cookie: language=zh; X-NIMBRA-SESS-ID=ds\n";

QJsonObject replyObject(const ResponseData& r)
{
    return QJsonDocument::fromJson(r.body.toUtf8()).object();
}

QString formValue(const RecordedRequest& r, const QString& key)
{
    return QUrlQuery(QString::fromLatin1(r.body)).queryItemValue(key, QUrl::FullyDecoded);
}

QString queryValue(const RecordedRequest& r, const QString& key)
{
    return QUrlQuery(QString::fromLatin1(r.query())).queryItemValue(key, QUrl::FullyDecoded);
}

} // namespace

class TestNBServerApiDelivery : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void initTestCase() { NBConfigure::setQStringAttribute(NBConfigure::Language, "en-US"); }

    void cleanup() { ServerApi::uninit(); }

    void rootPathHandle_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("handled");
        QTest::newRow("shared folder") << "/Shared/a/b"
                                       << "/a/b";
        QTest::newRow("root only") << "/Root"
                                   << "/";
        QTest::newRow("no leading slash, doubled slash") << "Root/x//y"
                                                         << "/x/y";
        QTest::newRow("empty") << ""
                               << "/";
        QTest::newRow("slash") << "/"
                               << "/";
        QTest::newRow("one name") << "a"
                                  << "/";
        QTest::newRow("spaces") << "/My Share/a b/c d.txt"
                                << "/a b/c d.txt";
        QTest::newRow("non-ASCII") << "/共享/文件夹/文件.txt"
                                   << "/文件夹/文件.txt";
        QTest::newRow("trailing slash") << "/Root/a/"
                                        << "/a";
    }

    void rootPathHandle()
    {
        QFETCH(QString, path);
        QFETCH(QString, handled);
        ServerApi::init(ServerApi::PublicCloud);
        QCOMPARE(ServerApi::serverApi()->deliveryRootPathHandle(path), handled);
    }

    void requestsOnTheWire_data()
    {
        Golden::addRows({
            golden("deliveryAuth, no session",
                [](GoldenContext& c) {
                    return ServerApi::DeliveryAuth({ "CODE 1", "p&w", c.url() }, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments, "POST /v2/delivery/auth/CODE%201?S=vc\n{post}\npassword=p%26w"),
            golden("deliveryAuthUpload",
                [](GoldenContext& c) {
                    NBServerApiDeliveryAuthUploadModel m;
                    m.path = "/up/a b.txt";
                    m.bytes = "5000000000";
                    m.language = "zh";
                    m.token = "tok";
                    m.serverUrl = c.url();
                    m.code = "C";
                    m.session = "ds";
                    return ServerApi::DeliveryAuthUpload(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "GET "
                    "/v2/delivery/auth_upload/"
                    "C?bytes=5000000000&language=zh&token=tok&path=%2Fup%2Fa%20b.txt&S=vc\n"
                    "Host: {host}\n{ua}Accept: */*\nCookie: S=vc; language=zh; X-NIMBRA-SESS-ID=ds\n{qt}\n"),
            golden("deliveryAuthUpload, empty model",
                [](GoldenContext& c) {
                    NBServerApiDeliveryAuthUploadModel m;
                    m.serverUrl = c.url();
                    return ServerApi::DeliveryAuthUpload(m, c.calls.completion());
                })
                .sends(AllDeployments, "GET /v2/delivery/auth_upload\n{get}\n"),
            golden("deliveryUploadFile",
                [](GoldenContext& c) {
                    NBServerApiDeliveryUploadFileModel m;
                    m.code = "C";
                    m.path = "/Root/a b.txt";
                    m.token = "t";
                    m.overwrite = "1";
                    m.serverUrl = c.url();
                    m.nbc = "n";
                    m.session = "ds";
                    m.localPath = writeFile(c.dir + "/f", "body");
                    return ServerApi::DeliveryUploadFile(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST "
                    "/v2/delivery/data/C?path=/Root/a%20b.txt&token=t&NBC=n&overwrite=1&S=vc&language=en-US\n"
                    "Host: {host}\n{ua}Cookie: "
                    "language=zh;X-NIMBRA-SESS-ID=sess-1;X-NIMBRA-SESS-ID=ds;\n{form}"
                    "Content-Length: {length}\n{qt}\nbody"),
            // A server reading the query as a form takes a raw "+" for a space.
            golden("deliveryUploadFile, + in the name, the token and the verification code",
                [](GoldenContext& c) {
                    NBServerApiDeliveryUploadFileModel m;
                    m.code = "C";
                    m.path = "/Root/a+b.txt";
                    m.token = "t+1";
                    m.overwrite = "1";
                    m.serverUrl = c.url();
                    m.nbc = "n+";
                    m.localPath = writeFile(c.dir + "/p", "p");
                    return ServerApi::DeliveryUploadFile(m, c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "POST /v2/delivery/data/C?path=/Root/a%2Bb.txt&token=t%2B1&NBC=n%2B&overwrite=1&S=v%2Bc"
                    "&language=en-US\n{upload}\np"),
            golden("deliveryUploadData, + in the name, the token and the verification code",
                [](GoldenContext& c) {
                    NBServerApiDeliveryUploadDataModel m;
                    m.code = "C";
                    m.path = "/Root/a+b.txt";
                    m.token = "t+1";
                    m.serverUrl = c.url();
                    m.data = "d";
                    return ServerApi::DeliveryUploadData(m, c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "POST /v2/delivery/data/C?path=/Root/a%2Bb.txt&token=t%2B1&NBC=&overwrite=&S=v%2Bc"
                    "&language=en-US\n{upload}\nd"),
            golden("deliveryUploadData, empty fields sent empty",
                [](GoldenContext& c) {
                    NBServerApiDeliveryUploadDataModel m;
                    m.serverUrl = c.url();
                    m.data = "d";
                    return ServerApi::DeliveryUploadData(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/delivery/data?path=&token=&NBC=&overwrite=&language=en-US\n{upload}\nd"),
            golden("deliveryDownloadFile, the code twice with a verification code",
                [](GoldenContext& c) {
                    NBServerApiDeliveryDownloadFileModel m;
                    m.code = "C";
                    m.path = "/Root/d/f.txt";
                    m.token = "t";
                    m.overwrite = "0";
                    m.serverUrl = c.url();
                    m.nbc = "n";
                    m.session = "ds";
                    m.localPath = c.dir + "/out";
                    return ServerApi::DeliveryDownloadFile(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "GET /v2/delivery/dl_router/C/d/f.txt?path=/Root/d/f.txt&token=t&NBC=n&overwrite=0&S=vc"
                    "&language=en-US?S=vc\n"
                    "Host: {host}\n{ua}Accept: */*\nCookie: S=vc; language=zh; X-NIMBRA-SESS-ID=ds\n{qt}\n"),
            golden("deliveryDownloadFile, + in the name, the token and the verification code",
                [](GoldenContext& c) {
                    NBServerApiDeliveryDownloadFileModel m;
                    m.code = "C";
                    m.path = "/Root/a+b.txt";
                    m.token = "t+1";
                    m.serverUrl = c.url();
                    m.localPath = c.dir + "/out";
                    return ServerApi::DeliveryDownloadFile(m, c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "GET "
                    "/v2/delivery/dl_router/C/a+b.txt?path=/Root/"
                    "a%2Bb.txt&token=t%2B1&NBC=&overwrite=&S=v%2Bc"
                    "&language=en-US?S=v%2Bc\n{get}\n"),
            golden("deliveryDownloadData, + in the name, the token and the verification code",
                [](GoldenContext& c) {
                    NBServerApiDeliveryDownloadDataModel m;
                    m.code = "C";
                    m.path = "/Root/a+b.txt";
                    m.token = "t+1";
                    m.serverUrl = c.url();
                    return ServerApi::DeliveryDownloadData(m, c.calls.data(), c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "GET "
                    "/v2/delivery/dl_router/C/a+b.txt?path=/Root/"
                    "a%2Bb.txt&token=t%2B1&NBC=&overwrite=&S=v%2Bc"
                    "&language=en-US\n{get}\n"),
            golden("deliveryDownloadRouter, + in the name, the token and the verification code",
                [](GoldenContext& c) {
                    NBSeverApiDeliveryDLRouterModel m;
                    m.code = "C";
                    m.path = "/Root/a+b.txt";
                    m.token = "t+1";
                    m.nbc = "n+";
                    m.serverUrl = c.url();
                    return ServerApi::DeliveryDownloadRouter(m, c.calls.data(), c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "GET /v2/delivery/dl_router/C/a+b.txt?path=/Root/a%2Bb.txt&token=t%2B1&NBC=n%2B&S=v%2Bc"
                    "&language=en-US\n{get}\n"),
            golden("deliveryDownloadData",
                [](GoldenContext& c) {
                    NBServerApiDeliveryDownloadDataModel m;
                    m.code = "C";
                    m.path = "/Root/f";
                    m.token = "t";
                    m.overwrite = "0";
                    m.serverUrl = c.url();
                    m.nbc = "n";
                    m.session = "ds";
                    return ServerApi::DeliveryDownloadData(m, c.calls.data(), c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "GET "
                    "/v2/delivery/dl_router/C/f?path=/Root/f&token=t&NBC=n&overwrite=0&S=vc&language=en-US\n"
                    "Host: {host}\n{ua}Accept: */*\nCookie: S=vc; language=zh; X-NIMBRA-SESS-ID=ds\n{qt}\n"),
            golden("deliveryDownloadRouter, range",
                [](GoldenContext& c) {
                    NBSeverApiDeliveryDLRouterModel m;
                    m.code = "C";
                    m.path = "/Root";
                    m.token = "t";
                    m.overwrite = "not sent";
                    m.serverUrl = c.url();
                    m.nbc = "n";
                    m.session = "ds";
                    m.range = "bytes=0-99";
                    return ServerApi::DeliveryDownloadRouter(m, c.calls.data(), c.calls.completion());
                })
                .sends(AllDeployments,
                    "GET /v2/delivery/dl_router/C/?path=/Root&token=t&NBC=n&language=en-US\n"
                    "Host: {host}\nRange: bytes=0-99\nx-nimbraws-range: bytes=0-99\n{ua}Accept: */*\n"
                        + SessionCookie + "{qt}\n"),
            golden("deliveryMetadata",
                [](GoldenContext& c) {
                    NBServerApiDeliveryMetadataModel m;
                    m.path = "/Root/sub dir";
                    m.withSeed = true;
                    m.orderby = "mtime";
                    m.sort = "desc";
                    m.limit = 50;
                    m.offset = 100;
                    m.code = "C";
                    m.session = "ds";
                    m.serverUrl = c.url();
                    m.password = "p w";
                    m.token = "t";
                    m.deliveryToken = "dt";
                    return ServerApi::DeliveryMetadata(m, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "GET /v2/delivery/metadata/C/sub%20dir?token=t&delivery_token=dt&code=C&password=p%20w"
                    "&with_seed=true&walk_folder_content=false&orderby=mtime&sort=desc&limit=50&offset=100&S="
                    "vc\n"
                    "Host: {host}\n{ua}Accept: */*\nCookie: S=vc; language=zh; X-NIMBRA-SESS-ID=ds\n{qt}\n"),
            golden("deliveryCreateFolder",
                [](GoldenContext& c) {
                    return ServerApi::DeliveryCreateFolder(
                        { c.url(), "C", "/new dir", "n1", "t", "ds" }, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/delivery/upload_folder/C/new%20dir\nHost: {host}\n{ua}{form}" + SessionCookie
                        + "Content-Length: {length}\n{qt}\ntoken=t&code=C&relativePath=%2Fnew%20dir&neid=n1"),
            // The network layer resolves ".." before sending: here it takes "b c" away.
            golden("deliveryCreateFolder, code and path with /, .., spaces and non-ASCII",
                [](GoldenContext& c) {
                    return ServerApi::DeliveryCreateFolder(
                        { c.url(), "a/b c", "../上 级/x", "", "", "" }, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/delivery/upload_folder/a/%E4%B8%8A%20%E7%BA%A7/x\n{post}\n"
                    "token=&code=a%2Fb%20c&relativePath=..%2F%E4%B8%8A%20%E7%BA%A7%2Fx&neid="),
            golden("deliveryQueryHash",
                [](GoldenContext& c) {
                    return ServerApi::DeliveryQueryHash(
                        { c.url(), "h1", "/big.bin", "C", "t", 3000000000LL, "n", "ds" },
                        c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/delivery/commit_chunked/C/big.bin\nHost: {host}\n{ua}{form}" + SessionCookie
                        + "Content-Length: {length}\n{qt}\n"
                          "code=C&relative_path=%2Fbig.bin&bytes=3000000000&token=t&NBC=n&hashes[]=h1"),
            golden("deliveryChunkedUpload, trailing slash, no session",
                [](GoldenContext& c) {
                    return ServerApi::DeliveryChunkedUpload(
                        { c.url(), "u1", "h1", "chunk" }, c.calls.completion());
                })
                .verifyCode("vc")
                .sends(AllDeployments,
                    "POST /v2/delivery/chunked_upload/?hash=h1&upload_id=u1&offset=0&S=vc\n{upload}\nchunk"),
            golden("deliveryChunkedUpload, + in the hash, the upload id and the verification code",
                [](GoldenContext& c) {
                    return ServerApi::DeliveryChunkedUpload(
                        { c.url(), "u+1", "h+/=", "chunk" }, c.calls.completion());
                })
                .verifyCode("v+c")
                .sends(AllDeployments,
                    "POST "
                    "/v2/delivery/chunked_upload/?hash=h%2B/"
                    "%3D&upload_id=u%2B1&offset=0&S=v%2Bc\n{upload}\nchunk"),
            golden("deliveryChunkedUpload, empty model",
                [](GoldenContext& c) {
                    NBServerApiDeliveryChunkedUploadModel m;
                    m.serverUrl = c.url();
                    return ServerApi::DeliveryChunkedUpload(m, c.calls.completion());
                })
                .sends(AllDeployments, "POST /v2/delivery/chunked_upload/?offset=0\n{upload}\n"),
            golden("deliveryCommitHash, bytes twice",
                [](GoldenContext& c) {
                    NBServerApiDeliveryCommitHashModel m;
                    m.serverUrl = c.url();
                    m.code = "C";
                    m.relativePath = "/big.bin";
                    m.token = "t";
                    m.nbc = "n";
                    m.totalBytes = 4000000000LL;
                    m.bytes = 3000000000LL;
                    m.parentRev = "7";
                    m.isFileCommit = true;
                    m.hashes = { "h2", "h1" };
                    m.session = "ds";
                    m.path = "not sent";
                    return ServerApi::DeliveryCommitHash(m, c.calls.completion());
                })
                .sends(AllDeployments,
                    "POST /v2/delivery/commit_chunked/C/big.bin\nHost: {host}\n{ua}{form}" + SessionCookie
                        + "Content-Length: {length}\n{qt}\n"
                          "code=C&relative_path=%2Fbig.bin&bytes=4000000000&token=t&NBC=n&parent_rev=7&bytes="
                          "3000000000"
                          "&is_file_commit=true&overwrite=false&hashes[]=h2&hashes[]=h1"),
        });
    }

    void requestsOnTheWire() { Golden::run(); }

    void missingLocalFileForAnUpload()
    {
        ChunkServer server;
        ServerApi::init(ServerApi::PublicCloud);
        NBServerApiDeliveryUploadFileModel m;
        m.serverUrl = server.url();
        m.code = "C";
        m.path = "/Root/x";
        m.localPath = m_dir.filePath("absent");
        Calls calls;
        ServerApi::DeliveryUploadFile(m, calls.completion());
        QCOMPARE(calls.completions.size(), 1);
        QCOMPARE(calls.last().statusCode, int(QFileDevice::OpenError));
        QCOMPARE(calls.last().networkError, int(QFileDevice::OpenError));
        QTest::qWait(100);
        QCOMPARE(server.server().requestCount(), 0);
    }

    // An outside user with the link code and its password: authorise, list the root a
    // page at a time, create a folder, upload a small file whole and a large one in
    // chunks, and download both back, the large one also by range.
    void sharedLinkSession()
    {
        ChunkServer server;
        QStringList entries;
        server.setFallback([&entries](const RecordedRequest& r) {
            const QByteArray path = r.path();
            const bool hasSession = r.header("Cookie").contains("X-NIMBRA-SESS-ID=link-session");
            if (path == "/v2/delivery/auth/LINK42") {
                if (formValue(r, "password") != "open sesame" || hasSession)
                    return ServerReply::withStatus(403, "{\"code\":\"forbidden\"}");
                return ServerReply::ok("{\"token\":\"T1\",\"session\":\"link-session\"}");
            }
            if (!hasSession)
                return ServerReply::withStatus(401, "{\"code\":\"Invalid session\"}");
            if (path.startsWith("/v2/delivery/metadata/LINK42")) {
                const int offset = queryValue(r, "offset").toInt();
                const int limit = queryValue(r, "limit").toInt();
                QJsonArray page;
                for (int i = offset; i < qMin(offset + limit, int(entries.size())); ++i)
                    page.append(entries[i]);
                return ServerReply::ok(
                    QJsonDocument(QJsonObject { { "content", page } }).toJson(QJsonDocument::Compact));
            }
            if (path.startsWith("/v2/delivery/upload_folder/LINK42")) {
                entries << formValue(r, "relativePath");
                return ServerReply::ok("{\"created\":true}");
            }
            return ServerReply::withStatus(404);
        });
        for (int i = 0; i < 7; ++i)
            entries << QStringLiteral("/entry-%1").arg(i);
        ServerApi::init(ServerApi::PublicCloud);

        Calls auth;
        ServerApi::DeliveryAuth({ "LINK42", "open sesame", server.url() }, auth.completion());
        QVERIFY(auth.waitForCompletions(1));
        QCOMPARE(auth.last().statusCode, 200);
        const QString token = replyObject(auth.last()).value("token").toString();
        const QString session = replyObject(auth.last()).value("session").toString();

        // Every page of the root, three at a time.
        QStringList listed;
        for (int offset = 0; offset < 100; offset += 3) {
            NBServerApiDeliveryMetadataModel m;
            m.serverUrl = server.url();
            m.code = "LINK42";
            m.path = "/Root";
            m.password = "open sesame";
            m.token = token;
            m.session = session;
            m.limit = 3;
            m.offset = offset;
            Calls page;
            ServerApi::DeliveryMetadata(m, page.completion());
            QVERIFY(page.waitForCompletions(1));
            QCOMPARE(page.last().statusCode, 200);
            const QJsonArray content = replyObject(page.last()).value("content").toArray();
            for (const QJsonValue& v : content)
                listed << v.toString();
            if (content.size() < 3)
                break;
        }
        QCOMPARE(listed, entries);

        Calls folder;
        ServerApi::DeliveryCreateFolder(
            { server.url(), "LINK42", "/incoming", "", token, session }, folder.completion());
        QVERIFY(folder.waitForCompletions(1));
        QCOMPARE(folder.last().statusCode, 200);
        QVERIFY(entries.contains("/incoming"));

        // A small file whole.
        const QByteArray small = "a small file\n";
        NBServerApiDeliveryUploadFileModel whole;
        whole.serverUrl = server.url();
        whole.code = "LINK42";
        whole.path = "/Root/incoming/small.txt";
        whole.token = token;
        whole.session = session;
        whole.localPath = writeFile(m_dir.filePath("small.txt"), small);
        Calls uploaded;
        ServerApi::DeliveryUploadFile(whole, uploaded.completion());
        QVERIFY(uploaded.waitForCompletions(1));
        QCOMPARE(uploaded.last().statusCode, 200);
        QCOMPARE(server.file("/Root/incoming/small.txt"), small);

        // A large file in chunks: query each hash, send the lacking chunks at once, commit.
        const QByteArray big = randomBytes(20 * (1 << 20) + 4321, 23);
        const qint64 chunkSize = 4 << 20;
        QList<QString> hashes;
        for (qint64 at = 0; at < big.size(); at += chunkSize)
            hashes << QString::fromLatin1(ChunkServer::hashOf(big.mid(at, chunkSize)));
        Calls queries;
        for (const QString& hash : hashes)
            ServerApi::DeliveryQueryHash(
                { server.url(), hash, "/Root/incoming/big.bin", "LINK42", token, big.size(), "", session },
                queries.completion());
        QVERIFY(queries.waitForCompletions(hashes.size()));
        QSet<QString> needed;
        for (const ResponseData& r : queries.completions) {
            for (const QJsonValue& v : replyObject(r).value("needed").toArray())
                needed.insert(v.toString());
        }
        QCOMPARE(needed.size(), hashes.size());
        Calls chunks;
        for (int i = 0; i < hashes.size(); ++i)
            ServerApi::DeliveryChunkedUpload(
                { server.url(), "up-7", hashes[i], big.mid(i * chunkSize, chunkSize) }, chunks.completion());
        QVERIFY(chunks.waitForCompletions(hashes.size(), 30000));
        for (const ResponseData& r : chunks.completions)
            QCOMPARE(r.statusCode, 200);
        NBServerApiDeliveryCommitHashModel commit;
        commit.serverUrl = server.url();
        commit.code = "LINK42";
        commit.relativePath = "/Root/incoming/big.bin";
        commit.token = token;
        commit.session = session;
        commit.totalBytes = big.size();
        commit.bytes = big.size();
        commit.isFileCommit = true;
        commit.hashes = hashes;
        Calls committed;
        ServerApi::DeliveryCommitHash(commit, committed.completion());
        QVERIFY(committed.waitForCompletions(1));
        QCOMPARE(committed.last().statusCode, 200);
        QCOMPARE(replyObject(committed.last()).value("sha256").toString().toLatin1(),
            QCryptographicHash::hash(big, QCryptographicHash::Sha256).toHex());

        // Back: the large file whole into a file, then a range of it.
        NBServerApiDeliveryDownloadFileModel down;
        down.serverUrl = server.url();
        down.code = "LINK42";
        down.path = "/Root/incoming/big.bin";
        down.token = token;
        down.session = session;
        down.localPath = m_dir.filePath("big-back.bin");
        Calls downloaded;
        ServerApi::DeliveryDownloadFile(down, downloaded.completion(), downloaded.downloadProgress());
        QVERIFY(downloaded.waitForCompletions(1, 30000));
        QCOMPARE(downloaded.last().statusCode, 200);
        QVERIFY(readFile(down.localPath) == big);

        NBSeverApiDeliveryDLRouterModel range;
        range.serverUrl = server.url();
        range.code = "LINK42";
        range.path = "/Root/incoming/big.bin";
        range.token = token;
        range.session = session;
        range.range = "bytes=5000000-5000999";
        Calls ranged;
        ServerApi::DeliveryDownloadRouter(range, ranged.data(), ranged.completion());
        QVERIFY(ranged.waitForCompletions(1));
        QCOMPARE(ranged.last().statusCode, 206);
        QVERIFY(ranged.joinedPieces() == big.mid(5000000, 1000));

        // The authorisation and the chunk uploads carried no delivery session; the rest did.
        for (const RecordedRequest& r : server.server().requests()) {
            const bool carries = r.header("Cookie").contains("X-NIMBRA-SESS-ID=link-session");
            const bool exempt
                = r.path().startsWith("/v2/delivery/auth/") || r.path() == "/v2/delivery/chunked_upload/";
            QVERIFY2(carries != exempt, r.target.constData());
        }
    }
};

NB_TEST_MAIN(TestNBServerApiDelivery)
#include "tst_nbserverapi_delivery.moc"
