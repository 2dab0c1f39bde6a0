// Keeping secrets out of the log: the line rules one by one, then the whole Transfer.log
// after requests that carry each secret in the query, the form body and the headers,
// with redaction off (the secret is there, as the trace has always written it) and on
// (its bytes appear nowhere, percent-encoded forms included).
#include "Calls.h"
#include "INBSeverApi.h"
#include "NBLogRedactor.h"
#include "TestLog.h"
#include "TestMain.h"
#include "TestServer.h"

#include <QFile>
#include <QUrl>

class TestNBLogRedactor : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TestServer> m_server;

    static QByteArray logBytes()
    {
        QFile file(TestLog::path());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // Each secret is unique to its row and round, so that a match can only be this request's;
    // its first part reads the same however the request encodes it, the rest needs encoding.
    static QString prefix(const QString& row, bool redact)
    {
        return QStringLiteral("Zq%1%2").arg(
            QString(row).remove(' ').remove('-').remove('_'), redact ? "On" : "Off");
    }

    void finish(Calls& calls, int count = 1) { QVERIFY(calls.waitForCompletions(count, 20000)); }

private slots:
    void initTestCase()
    {
        m_server = std::make_unique<TestServer>([](const RecordedRequest&) {
            return ServerReply::ok("{\"ok\":1}")
                .header("Set-Cookie", "X-NIMBRA-SESS-ID=fromserver12; Path=/");
        });
    }

    void cleanup()
    {
        ServerApi::setLogRedaction(false);
        ServerApi::uninit();
    }

    void offByDefaultAndLinesUnchanged()
    {
        QVERIFY(!ServerApi::logRedaction());
        const QString line = QStringLiteral("参数:\npassword=abc\n");
        QCOMPARE(NBLogRedactor::apply(line), line);
    }

    // For a host that shows replies to people: the same hiding, the log's switch off.
    void redactSecretsHidesWhateverTheLogDoes()
    {
        QVERIFY(!ServerApi::logRedaction());
        QCOMPARE(ServerApi::RedactSecrets(
                     QStringLiteral("{\"X-NIMBRA-SESS-ID\":\"abcdef\",\"user\":\"a\"} token=t0k")),
            QStringLiteral("{\"X-NIMBRA-SESS-ID\":\"***(6)\",\"user\":\"a\"} token=***(3)"));
        QVERIFY(!ServerApi::logRedaction());
    }

    void lineRules_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("expected");
        QTest::newRow("query") << "请求地址：http://h/a?password=abc&x=1&old_password=p%20q"
                               << "请求地址：http://h/a?password=***(3)&x=1&old_password=***(5)";
        QTest::newRow("parameter list")
            << "参数:\notp=123456\nverify_code=9876\ntoken=t0k\nS=vc\nname=kept\n"
            << "参数:\notp=***(6)\nverify_code=***(4)\ntoken=***(3)\nS=***(2)\nname=kept\n";
        QTest::newRow("longer names stay") << "delivery_token=keep&XS=keep&password_hint=keep"
                                           << "delivery_token=keep&XS=keep&password_hint=keep";
        QTest::newRow("cookie header")
            << "Request Header:\nCookie : X-NIMBRA-SESS-ID=sess1;S=vc12;X-NIMBRA-TFA-ID=tfa1 \n"
            << "Request Header:\nCookie : X-NIMBRA-SESS-ID=***(5);S=***(4);X-NIMBRA-TFA-ID=***(4) \n";
        QTest::newRow("cookie jar lines") << "Cookie:\nX-NIMBRA-SESS-ID : sess1\nS : vc12\nk : v\n"
                                          << "Cookie:\nX-NIMBRA-SESS-ID : ***(5)\nS : ***(4)\nk : v\n";
        QTest::newRow("authorization") << "Request Header:\nAuthorization : Bearer abc.def \nAccept : */* \n"
                                       << "Request Header:\nAuthorization : ***(14) \nAccept : */* \n";
        QTest::newRow("set-cookie") << "Header:\nSet-Cookie:X-NIMBRA-SESS-ID=abcdef; Path=/\n"
                                    << "Header:\nSet-Cookie:X-NIMBRA-SESS-ID=***(6); Path=/\n";
        QTest::newRow("json")
            << "responsedata: {\"token\": \"t1\",\"X-NIMBRA-SESS-ID\":\"s2\",\"name\":\"n\"}"
            << "responsedata: {\"token\": \"***(2)\",\"X-NIMBRA-SESS-ID\":\"***(2)\",\"name\":\"n\"}";
        QTest::newRow("nothing secret") << "请求结束"
                                        << "请求结束";
    }

    void lineRules()
    {
        QFETCH(QString, line);
        QFETCH(QString, expected);
        ServerApi::setLogRedaction(true);
        QCOMPARE(NBLogRedactor::apply(line), expected);
    }

    void knownValuesWherever()
    {
        ServerApi::setLogRedaction(true);
        ServerApi::setProxyPassword("pr0xy secret");
        QCOMPARE(NBLogRedactor::apply("proxy pr0xy secret or pr0xy%20secret"),
            QString("proxy ***(12) or ***(14)"));
        ServerApi::setProxyPassword("");
    }

    // A request carrying one secret: the row's name says where.
    void secretsInTransferLog_data()
    {
        QTest::addColumn<bool>("redact");
        for (bool redact : { false, true }) {
            const char* state = redact ? "on" : "off";
            for (const char* where : { "query password", "query token", "query S", "form password",
                     "form old_password", "form otp", "form verify_code", "cookie session",
                     "cookie two-factor", "cookie S", "proxy password" })
                QTest::newRow(qPrintable(QStringLiteral("%1, redaction %2").arg(where, state))) << redact;
        }
    }

    void secretsInTransferLog()
    {
        QFETCH(bool, redact);
        const QString row = QString::fromLatin1(QTest::currentDataTag()).section(',', 0, 0);
        const QString value = prefix(row, redact) + QStringLiteral("/x+y=z");
        ServerApi::setLogRedaction(redact);
        ServerApi::init(row.endsWith(" S") ? ServerApi::Private : ServerApi::PublicCloud);
        ServerApi::setBaseUrlString(m_server->url("/").chopped(1));
        ServerApi::setLogLevel(true);
        const qint64 start = logBytes().size();
        Calls calls;
        const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(value));
        if (row == "query password") {
            ServerApi::GetZipFolderMetadata(m_server->url("/zip/a"), value, 10, 0, calls.completion());
        } else if (row == "query token") {
            NBServerApiDeliveryMetadataModel model;
            model.serverUrl = m_server->url("/").chopped(1);
            model.code = "C1";
            model.path = "/root/a";
            model.token = value;
            ServerApi::DeliveryMetadata(model, calls.completion());
        } else if (row == "query S" || row == "cookie S") {
            ServerApi::setPriServerVerifyCode(value);
            NBServerApiMetaEntryModel model;
            model.path = "/a";
            model.pathType = "ent";
            ServerApi::MetaData(model, calls.completion());
        } else if (row == "form password") {
            NBServerApiLoginModel model;
            model.kind = 2;
            model.userName = "u";
            model.password = value;
            ServerApi::Login(model, calls.completion());
        } else if (row == "form old_password") {
            ServerApi::ResetPassword("tok", value, "n", calls.completion());
        } else if (row == "form otp") {
            ServerApi::DyncCodeLogin("tfa", value, calls.completion());
        } else if (row == "form verify_code") {
            ServerApi::SmsCodeLogin("tfa", value, calls.completion());
        } else if (row == "cookie session") {
            ServerApi::setSessionID(value);
            ServerApi::UserInfo({}, calls.completion());
        } else if (row == "cookie two-factor") {
            ServerApi::GetLoginState({ value, "dev", "u" }, calls.completion());
        } else if (row == "proxy password") {
            // The password of a proxy that is not switched on: it reaches no request, and
            // the log never shows it whether or not redaction is on.
            ServerApi::proxy(false, 3, "127.0.0.1", 1, "user", value.toUtf8().constData(), false);
            ServerApi::GET(m_server->url("/a?x=1"), calls.completion());
        }
        finish(calls);
        const QByteArray written = logBytes().mid(int(start));
        QVERIFY(!written.isEmpty());
        // The whole file: each row's secret is its own, so no other row can hide or show it.
        const QByteArray log = logBytes();
        const bool seen = log.contains(prefix(row, redact).toUtf8()) || log.contains(value.toUtf8())
            || log.contains(encoded.toUtf8());
        if (row == "proxy password")
            QVERIFY(!seen);
        else
            QVERIFY2(seen == !redact, written.constData());
        if (redact)
            QVERIFY2(written.contains("***("), written.constData());
        ServerApi::proxy(true, 3, "", 0, "", "", false);
    }

    void theSessionFromTheServerIsHiddenToo()
    {
        ServerApi::setLogRedaction(true);
        ServerApi::init(ServerApi::PublicCloud);
        const qint64 start = logBytes().size();
        Calls calls;
        ServerApi::GET(m_server->url("/b"), calls.completion());
        finish(calls);
        const QByteArray written = logBytes().mid(int(start));
        QVERIFY(!written.contains("fromserver12"));
        QVERIFY(written.contains("X-NIMBRA-SESS-ID=***(12)"));
    }
};

NB_TEST_MAIN(TestNBLogRedactor)
#include "tst_nblogredactor.moc"
