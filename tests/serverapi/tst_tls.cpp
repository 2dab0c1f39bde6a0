// Opt-in TLS verification through ServerApi, against the test server's TLS mode and its
// self-signed certificate for 127.0.0.1: off (today's default), on without and with the
// CA, a wrong host name, a pinned public key right and wrong, and the settings outliving
// init and uninit.
#include "Calls.h"
#include "INBSeverApi.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QCryptographicHash>
#include <QFile>
#include <QProcess>
#include <QSslKey>
#include <QTemporaryDir>

namespace {

// The pin as a host would compute it, by OpenSSL's own tools rather than the library's code.
QByteArray pinOf(const QString& certificatePath)
{
    QProcess shell;
    shell.start("sh",
        { "-c",
            QStringLiteral("openssl x509 -pubkey -noout -in '%1' | openssl pkey -pubin -outform der | "
                           "openssl dgst -sha256 -binary | base64")
                .arg(certificatePath) });
    shell.waitForFinished(30000);
    return shell.readAllStandardOutput().trimmed();
}

} // namespace

class TestTls : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_caFile;
    std::unique_ptr<TestServer> m_server;

    ResponseData get(const QString& url)
    {
        Calls calls;
        ServerApi::GET(url, calls.completion());
        if (!calls.waitForCompletions(1, 30000))
            return ResponseData();
        return calls.last();
    }

private slots:
    void initTestCase()
    {
        TestServerOptions options;
        options.tls = true;
        m_server = std::make_unique<TestServer>(
            [](const RecordedRequest&) { return ServerReply::ok("{\"ok\":1}"); }, options);
        m_caFile = m_dir.filePath("ca.pem");
        QFile file(m_caFile);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(TestServer::tlsCertificate().toPem());
        file.close();
        ServerApi::init(ServerApi::PublicCloud);
    }

    void init()
    {
        ServerApi::setTlsVerifyPeer(false);
        ServerApi::clearTlsCaCertificates();
        QVERIFY(ServerApi::setTlsPinnedPublicKey(QString()));
    }

    void offByDefaultSucceedsAsToday()
    {
        QVERIFY(!ServerApi::tlsVerifyPeer());
        QCOMPARE(ServerApi::tlsPinnedPublicKey(), QString());
        TestLog log;
        const ResponseData r = get(m_server->url("/a"));
        QCOMPARE(r.networkError, 0);
        QCOMPARE(r.statusCode, 200);
        QVERIFY(!log.dump().contains("TLS"));
    }

    void verifiedWithoutTheCaFails()
    {
        ServerApi::setTlsVerifyPeer(true);
        TestLog log;
        const ResponseData r = get(m_server->url("/a"));
        QCOMPARE(r.networkError, 6); // SslHandshakeFailedError
        QCOMPARE(r.statusCode, 0);
        QVERIFY2(r.errorString.startsWith("SSL handshake failed"), qPrintable(r.errorString));
        const LogEntry* line
            = log.find(QStringLiteral("TLS 校验失败: The certificate is self-signed, and untrusted, url: ")
                + m_server->url("/a"));
        QVERIFY2(line, qPrintable(log.dump()));
        QCOMPARE(line->level, QString("ERROR"));
    }

    void verifiedWithTheCaSucceeds()
    {
        ServerApi::setTlsVerifyPeer(true);
        QVERIFY(!ServerApi::addTlsCaCertificates(m_dir.filePath("missing.pem")));
        QVERIFY(ServerApi::addTlsCaCertificates(m_caFile));
        const ResponseData r = get(m_server->url("/a"));
        QCOMPARE(r.networkError, 0);
        QCOMPARE(r.statusCode, 200);
        // The same as certificates in memory.
        ServerApi::clearTlsCaCertificates();
        QCOMPARE(get(m_server->url("/a")).networkError, 6);
        ServerApi::addTlsCaCertificates(QList<QSslCertificate> { TestServer::tlsCertificate() });
        QCOMPARE(get(m_server->url("/a")).statusCode, 200);
    }

    void wrongHostNameFails()
    {
        ServerApi::setTlsVerifyPeer(true);
        ServerApi::addTlsCaCertificates(m_caFile);
        TestLog log;
        const QString url = QStringLiteral("https://localhost:%1/a").arg(m_server->port());
        const ResponseData r = get(url);
        QCOMPARE(r.networkError, 6);
        QVERIFY2(
            log.dump().contains("The host name did not match any of the valid hosts for this certificate"),
            qPrintable(log.dump()));
    }

    void pinnedKeyDecides_data()
    {
        QTest::addColumn<bool>("verify");
        QTest::newRow("verification off") << false;
        QTest::newRow("verification on, CA unknown") << true;
    }

    void pinnedKeyDecides()
    {
        QFETCH(bool, verify);
        ServerApi::setTlsVerifyPeer(verify);
        const QByteArray pin = pinOf(m_caFile);
        QCOMPARE(pin.size(), 44);
        QVERIFY(ServerApi::setTlsPinnedPublicKey(QString::fromLatin1(pin)));
        QCOMPARE(ServerApi::tlsPinnedPublicKey(), QString::fromLatin1(QByteArray::fromBase64(pin).toHex()));
        QCOMPARE(get(m_server->url("/a")).statusCode, 200);

        // Another key: refused, verified or not.
        const QByteArray other = QCryptographicHash::hash("another key", QCryptographicHash::Sha256);
        QVERIFY(ServerApi::setTlsPinnedPublicKey(QString::fromLatin1(other.toHex())));
        TestLog log;
        const ResponseData r = get(m_server->url("/a"));
        QCOMPARE(r.networkError, 6);
        QCOMPARE(r.statusCode, 0);
        QCOMPARE(
            r.errorString, QString("SSL handshake failed: the server's public key is not the pinned one"));
        QVERIFY2(log.dump().contains(
                     QStringLiteral("TLS 校验失败: the server's public key (sha256 %1) is not the pinned one")
                         .arg(QString::fromLatin1(QByteArray::fromBase64(pin).toHex()))),
            qPrintable(log.dump()));
    }

    void pinFormats()
    {
        const QByteArray digest = QCryptographicHash::hash("k", QCryptographicHash::Sha256);
        QVERIFY(ServerApi::setTlsPinnedPublicKey(QString::fromLatin1(digest.toHex().toUpper())));
        QCOMPARE(ServerApi::tlsPinnedPublicKey(), QString::fromLatin1(digest.toHex()));
        QVERIFY(ServerApi::setTlsPinnedPublicKey("sha256//" + QString::fromLatin1(digest.toBase64())));
        QCOMPARE(ServerApi::tlsPinnedPublicKey(), QString::fromLatin1(digest.toHex()));
        for (const char* bad :
            { "abc", "sha256//abc", "zz", "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcde" })
            QVERIFY2(!ServerApi::setTlsPinnedPublicKey(bad), bad);
        QCOMPARE(ServerApi::tlsPinnedPublicKey(), QString::fromLatin1(digest.toHex()));
        QVERIFY(ServerApi::setTlsPinnedPublicKey(QString()));
        QCOMPARE(ServerApi::tlsPinnedPublicKey(), QString());
    }

    void settingsOutliveInitAndUninit()
    {
        ServerApi::setTlsVerifyPeer(true);
        ServerApi::addTlsCaCertificates(m_caFile);
        const QByteArray pin = pinOf(m_caFile);
        ServerApi::setTlsPinnedPublicKey(QString::fromLatin1(pin));
        ServerApi::uninit();
        ServerApi::init(ServerApi::Private);
        ServerApi::uninit();
        ServerApi::init(ServerApi::PublicCloud);
        QVERIFY(ServerApi::tlsVerifyPeer());
        QCOMPARE(ServerApi::tlsPinnedPublicKey(), QString::fromLatin1(QByteArray::fromBase64(pin).toHex()));
        QCOMPARE(get(m_server->url("/a")).statusCode, 200);
        ServerApi::setTlsPinnedPublicKey(QString());
        ServerApi::clearTlsCaCertificates();
        QCOMPARE(get(m_server->url("/a")).networkError, 6);
    }
};

NB_TEST_MAIN(TestTls)
#include "tst_tls.moc"
