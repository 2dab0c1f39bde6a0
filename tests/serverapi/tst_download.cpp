// Downloads to a file and to a data callback, by GET and by POST.
#include "Calls.h"
#include "InactivityInterval.h"
#include "NBHttpClient.h"
#include "NBHttpClientManager.h"
#include "TestData.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryDir>

namespace {

void checkProgress(const QList<DownloadProgressData>& reports, qint64 total)
{
    QVERIFY(!reports.isEmpty());
    for (int i = 1; i < reports.size(); ++i)
        QVERIFY(reports[i].bytesReceived >= reports[i - 1].bytesReceived);
    QCOMPARE(reports.last().bytesReceived, total);
    QCOMPARE(reports.last().bytesTotal, total);
}

} // namespace

class TestDownload : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void init() { NBHttpClientManager::manager()->setVerifyCode(QString()); }

    void fileInAMissingFolderCompletesInsideTheCallAndSendsNothing()
    {
        TestServer server;
        TestLog log;
        const QString path = m_dir.filePath("missing/folder/file.bin");
        NBHttpClient client(server.url("/f"));
        Calls calls;
        client.download(path, calls.downloadProgress(), calls.completion());
        QCOMPARE(calls.completions.size(), 1);
        const ResponseData& r = calls.last();
        QCOMPARE(r.statusCode, int(QFileDevice::OpenError));
        QCOMPARE(r.networkError, int(QFileDevice::OpenError));
        QCOMPARE(r.errorString, QString("No such file or directory"));
        QCOMPARE(r.body, QString());
        QVERIFY(r.headers.isEmpty());
        QVERIFY(log.has("INFO", "download", QString::fromUtf8("打开文件出错: %1").arg(path)));
        QTest::qWait(200);
        QCOMPARE(server.requestCount(), 0);
        QCOMPARE(calls.completions.size(), 1);
    }

    void sixtyFourMebibytesArriveByteExactWithProgress()
    {
        const QByteArray payload = randomBytes(64 << 20);
        TestServer server([&payload](const RecordedRequest&) {
            return ServerReply::ok(payload, "application/octet-stream");
        });
        const QString path = m_dir.filePath("big.bin");
        NBHttpClient client(server.url("/big"));
        Calls calls;
        client.download(path, calls.downloadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1, 60000));
        QCOMPARE(calls.last().statusCode, 200);
        QCOMPARE(calls.last().networkError, 0);
        QCOMPARE(QCryptographicHash::hash(readFile(path), QCryptographicHash::Sha256),
            QCryptographicHash::hash(payload, QCryptographicHash::Sha256));
        checkProgress(calls.downloads, payload.size());
        QCOMPARE(calls.completions.size(), 1);
    }

    void sixtyFourMebibytesToADataCallback()
    {
        const QByteArray payload = randomBytes(64 << 20);
        TestServer server([&payload](const RecordedRequest&) {
            return ServerReply::ok(payload, "application/octet-stream");
        });
        NBHttpClient client(server.url("/big"));
        Calls calls;
        QCryptographicHash hash(QCryptographicHash::Sha256);
        qint64 received = 0;
        client.download(
            [&](const QByteArray& piece) {
                hash.addData(piece);
                received += piece.size();
            },
            calls.downloadProgress(), calls.completion());
        QCOMPARE(client.dispatcher()->reply()->readBufferSize(), RequestDispatcher::ReadAheadLimit);
        QVERIFY(calls.waitForCompletions(1, 60000));
        QCOMPARE(received, qint64(payload.size()));
        QCOMPARE(hash.result(), QCryptographicHash::hash(payload, QCryptographicHash::Sha256));
        checkProgress(calls.downloads, payload.size());
        const int zero = payload.indexOf('\0');
        QCOMPARE(calls.last().body, QString::fromUtf8(payload.left(zero)));
    }

    // The callback has every byte; the record keeps the first mebibyte, as for a file.
    void dataCallbackKeepsTheFirstMebibyteOfBody()
    {
        const QByteArray text = QByteArray(3 << 20, 'x') + "end";
        TestServer server([&text](const RecordedRequest&) { return ServerReply::ok(text, "text/plain"); });
        NBHttpClient client(server.url("/text"));
        Calls calls;
        client.download(calls.data(), {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1, 30000));
        QCOMPARE(calls.joinedPieces(), text);
        QCOMPARE(calls.last().body, QString(RequestDispatcher::KeptBodyLimit, 'x'));
    }

    void fileDownloadKeepsAtMostOneMebibyteOfBody()
    {
        const QByteArray text = QByteArray(3 << 20, 'y');
        TestServer server([&text](const RecordedRequest&) { return ServerReply::ok(text, "text/plain"); });
        const QString path = m_dir.filePath("text.txt");
        NBHttpClient client(server.url("/text"));
        Calls calls;
        client.download(path, {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1, 30000));
        QCOMPARE(readFile(path), text);
        QCOMPARE(calls.last().body, QString(RequestDispatcher::KeptBodyLimit, 'y'));
    }

    // Only the first zero byte, and for a file at most 1 MiB, of the body is kept for
    // the record, however much flows through.
    void keptBodyStopsGrowing_data()
    {
        QTest::addColumn<bool>("toFile");
        QTest::addColumn<int>("zeroAt");
        QTest::addColumn<int>("kept");
        QTest::newRow("data, zero byte at 10") << false << 10 << 10;
        QTest::newRow("file, zero byte at 10") << true << 10 << 10;
        QTest::newRow("file, text") << true << -1 << RequestDispatcher::KeptBodyLimit;
        QTest::newRow("data, text") << false << -1 << RequestDispatcher::KeptBodyLimit;
    }

    void keptBodyStopsGrowing()
    {
        QFETCH(bool, toFile);
        QFETCH(int, zeroAt);
        QFETCH(int, kept);
        QByteArray payload(8 << 20, 'z');
        if (zeroAt >= 0)
            payload[zeroAt] = '\0';
        TestServer server(
            [&payload](const RecordedRequest&) { return ServerReply::ok(payload, "text/plain"); });
        NBHttpClient client(server.url("/kept"));
        Calls calls;
        int mostKept = 0;
        auto watch = [&](const DownloadProgressData&) {
            mostKept = qMax(mostKept, client.dispatcher()->keptBodySize());
        };
        if (toFile)
            client.download(m_dir.filePath("kept.bin"), watch, calls.completion());
        else
            client.download(calls.data(), watch, calls.completion());
        QCOMPARE(client.dispatcher()->reply()->readBufferSize(), RequestDispatcher::ReadAheadLimit);
        QVERIFY(calls.waitForCompletions(1, 30000));
        QCOMPARE(calls.last().networkError, 0);
        QCOMPARE(mostKept, kept);
        QCOMPARE(calls.last().body.size(), kept);
    }

    void plainRequestsDoNotCapReadAhead()
    {
        TestServer server;
        NBHttpClient client(server.url("/p"));
        Calls calls;
        client.request(calls.completion(), true);
        QCOMPARE(client.dispatcher()->reply()->readBufferSize(), 0);
        NBHttpClient silent(server.url("/p"));
        silent.download(NBDataCallback(), {}, calls.completion());
        QCOMPARE(silent.dispatcher()->reply()->readBufferSize(), 0);
        QVERIFY(calls.waitForCompletions(2));
    }

    void notFoundLeavesTheServersBodyInTheFile()
    {
        TestServer server(
            [](const RecordedRequest&) { return ServerReply::withStatus(404, "{\"errcode\":404}"); });
        const QString path = m_dir.filePath("404.json");
        NBHttpClient client(server.url("/gone"));
        Calls calls;
        client.download(path, {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().statusCode, 404);
        QCOMPARE(calls.last().networkError, 203);
        QCOMPARE(readFile(path), QByteArray("{\"errcode\":404}"));
        QCOMPARE(calls.last().body, QString("{\"errcode\":404}"));
    }

    void existingFileIsTruncated()
    {
        const QString path = m_dir.filePath("old.txt");
        QFile old(path);
        old.open(QIODevice::WriteOnly);
        old.write(QByteArray(1000, 'o'));
        old.close();
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("new", "text/plain"); });
        NBHttpClient client(server.url("/n"));
        Calls calls;
        client.download(path, {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(readFile(path), QByteArray("new"));
    }

    void cancelMidwayLeavesATruncatedFileAndOneCompletion()
    {
        const QByteArray payload = randomBytes(256 << 10);
        TestServer server(
            [&payload](const RecordedRequest&) { return ServerReply::drip(payload, 10, 4096); });
        const QString path = m_dir.filePath("cancelled.bin");
        NBHttpClient client(server.url("/slow"));
        Calls calls;
        client.download(path, calls.downloadProgress([&](const DownloadProgressData& p) {
            if (p.bytesReceived >= 20000)
                client.cancel();
        }),
            calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().networkError, 5);
        QCOMPARE(calls.last().statusCode, 200);
        QTest::qWait(200);
        QCOMPARE(calls.completions.size(), 1);
        const QByteArray kept = readFile(path);
        QVERIFY(kept.size() >= 20000 && kept.size() < payload.size());
        QCOMPARE(kept, payload.left(kept.size()));
    }

    void serverClosingMidDownloadKeepsWhatArrived()
    {
        const QByteArray payload = randomBytes(1 << 20);
        TestServer server([&payload](const RecordedRequest&) {
            return ServerReply::cut(ServerReply::Mode::CloseMidBody, payload, 300000);
        });
        const QString path = m_dir.filePath("cut.bin");
        NBHttpClient client(server.url("/cut"));
        Calls calls;
        client.download(path, calls.downloadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QCOMPARE(calls.last().networkError, 2);
        QCOMPARE(calls.last().errorString, QString("Connection closed"));
        QCOMPARE(calls.last().statusCode, 200);
        QCOMPARE(readFile(path), payload.left(300000));
        QTest::qWait(200);
        QCOMPARE(calls.completions.size(), 1);
    }

    void stalledDownloadTimesOutAndKeepsItsBytes()
    {
        ScopedInactivityInterval interval(400);
        const QByteArray payload = randomBytes(100000);
        TestServer server(
            [&payload](const RecordedRequest&) { return ServerReply::drip(payload, 100, 1000); });
        // The first server drips; the second stalls after its first bytes.
        TestServer stalling([&payload](const RecordedRequest&) {
            return ServerReply::cut(ServerReply::Mode::StallMidBody, payload, 30000);
        });
        const QString path = m_dir.filePath("stalled.bin");
        NBHttpClient client(stalling.url("/stall"));
        Calls calls;
        client.download(path, calls.downloadProgress(), calls.completion());
        QVERIFY(calls.waitForCompletions(2));
        QCOMPARE(calls.completions[0].errorString, QString("TimeOut"));
        QCOMPARE(calls.completions[0].networkError, 4);
        QCOMPARE(calls.completions[1].networkError, 5);
        QCOMPARE(readFile(path), payload.left(30000));

        const QString dripPath = m_dir.filePath("dripped.bin");
        NBHttpClient dripping(server.url("/drip"));
        Calls dripCalls;
        dripping.download(dripPath, {}, dripCalls.completion());
        QVERIFY(dripCalls.waitForCompletions(1, 30000));
        QCOMPARE(dripCalls.last().networkError, 0);
        QCOMPARE(readFile(dripPath), payload);
        QTest::qWait(500);
        QCOMPARE(dripCalls.completions.size(), 1);
    }

    void failingWritesSurfaceAtTheEnd()
    {
        TestServer server(
            [](const RecordedRequest&) { return ServerReply::ok(QByteArray(200000, 'w'), "text/plain"); });
        TestLog log;
        NBHttpClient client(server.url("/full"));
        client.debug(true);
        Calls calls;
        client.download(QStringLiteral("/dev/full"), {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        const ResponseData& r = calls.last();
        QCOMPARE(r.statusCode, int(QFileDevice::ResourceError));
        QCOMPARE(r.networkError, int(QFileDevice::ResourceError));
        QCOMPARE(r.errorString, QString("No space left on device"));
        QCOMPARE(r.body, r.errorString);
        // Written from the download's inner callbacks, whose lines carry "operator()".
        QVERIFY2(log.has("FATAL", "operator()",
                     QString::fromUtf8("写入文件出错: /dev/full  error:4 msg:No space left on device")),
            qPrintable(log.dump()));
        QVERIFY(log.has("FATAL", "operator()",
            QString::fromUtf8("下载文件出错: /dev/full  error:4 msg:No space left on device")));
        QVERIFY(log.has("INFO", "operator()", QString::fromUtf8("下载完成，保存到: /dev/full")));
    }

    void debugFlagAloneDecidesTheSavedToLine()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("x", "text/plain"); });
        TestLog log;
        const QString path = m_dir.filePath("quiet.txt");
        NBHttpClient quiet(server.url("/q"));
        Calls calls;
        quiet.download(path, {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QVERIFY(!log.messages().contains(QString::fromUtf8("下载完成，保存到: %1").arg(path)));

        NBHttpClient loud(server.url("/q"));
        loud.debug(true);
        loud.download(path, {}, calls.completion());
        QVERIFY(calls.waitForCompletions(2));
        QCOMPARE(log.count("INFO", "operator()", QString::fromUtf8("下载完成，保存到: %1").arg(path)), 1);
    }

    void downloadUsePostSendsTheParametersInTheBody()
    {
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("posted", "text/plain"); });
        NBHttpClient client(server.url("/dl"));
        client.param("path", "/a b");
        client.param("neid", "7");
        Calls calls;
        client.downloadUsePost(calls.data(), calls.downloadProgress(), calls.completion());
        QCOMPARE(client.dispatcher()->reply()->readBufferSize(), RequestDispatcher::ReadAheadLimit);
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.target, QByteArray("/dl"));
        QCOMPARE(r.body, QByteArray("path=%2Fa%20b&neid=7"));
        QCOMPARE(r.header("Content-Type"), QByteArray("application/x-www-form-urlencoded;application/json"));
        QCOMPARE(calls.joinedPieces(), QByteArray("posted"));
        QCOMPARE(calls.last().body, QString("posted"));
    }

    void downloadUsePostMergesTheCookieWithTheVerificationCode()
    {
        NBHttpClientManager::manager()->setVerifyCode(QStringLiteral("vc"));
        TestServer server([](const RecordedRequest&) { return ServerReply::ok("posted", "text/plain"); });
        NBHttpClient client(server.url("/dl"));
        client.param("a", "1");
        client.header("Cookie", "language=zh;X-NIMBRA-SESS-ID=s1;");
        Calls calls;
        client.downloadUsePost(calls.data(), {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        const RecordedRequest r = server.lastRequest();
        QCOMPARE(r.method, QByteArray("POST"));
        QCOMPARE(r.header("Cookie"), QByteArray("S=vc; language=zh; X-NIMBRA-SESS-ID=s1"));
        QCOMPARE(r.body, QByteArray("a=1"));
    }

    void downloadsMergeCookiesFollowRedirectsAndCarryHeaders()
    {
        NBHttpClientManager::manager()->setVerifyCode(QStringLiteral("vc"));
        TestServer server([](const RecordedRequest& r) {
            if (r.path() == "/from")
                return ServerReply::redirect("/to");
            return ServerReply::ok("ranged", "text/plain").header("Content-Range", "bytes 0-5/100");
        });
        NBHttpClient client(server.url("/from"));
        client.param("a", "1");
        client.header("Cookie", "X-NIMBRA-SESS-ID=s1;");
        client.header("Range", "bytes=0-5");
        const QString path = m_dir.filePath("ranged.txt");
        Calls calls;
        client.download(path, {}, calls.completion());
        QVERIFY(calls.waitForCompletions(1));
        QVERIFY(server.requestCount() >= 2); // redirects are now and then requested twice
        const RecordedRequest first = server.requests().first();
        QCOMPARE(first.target, QByteArray("/from?a=1"));
        QCOMPARE(first.header("Cookie"), QByteArray("S=vc; X-NIMBRA-SESS-ID=s1"));
        QCOMPARE(first.header("Range"), QByteArray("bytes=0-5"));
        QCOMPARE(server.lastRequest().target, QByteArray("/to"));
        QCOMPARE(calls.last().headers.value("Content-Range"), QByteArray("bytes 0-5/100"));
        QCOMPARE(readFile(path), QByteArray("ranged"));
    }
};

NB_TEST_MAIN(TestDownload)
#include "tst_download.moc"
