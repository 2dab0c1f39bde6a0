// The reply parser: success and error by status, the server's error object, the
// error-code table, and the session and verification cookie of NBBaseParse.
#include "NBBaseParse.h"
#include "TestMain.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <limits>

namespace {

ResponseData reply(int status, const QByteArray& body, int networkError = 0,
    const QString& errorString = QStringLiteral("transport text"))
{
    ResponseData r;
    r.statusCode = status;
    r.body = QString::fromUtf8(body);
    r.networkError = networkError;
    r.errorString = errorString;
    return r;
}

ResponseData withSetCookie(const QByteArray& value)
{
    ResponseData r = reply(200, "{}");
    r.headers.insert("Set-Cookie", value);
    return r;
}

// Reads its status and error code from elsewhere, to show that hasError asks them.
class Overridden : public CNBParseProcessor
{
public:
    int statusCode() const override { return 204; }
    int errorCode() const override { return 0; }
};

} // namespace

class TestCNBParseProcessor : public QObject
{
    Q_OBJECT
private slots:
    void errorCodeTable_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<int>("mapped");
        // Each text of the table, in its order.
        QTest::newRow("Invalid session") << "Invalid session" << 20003;
        QTest::newRow("token is not exist") << "token is not exist" << 20003;
        QTest::newRow("target name exists") << "target name exists" << 20004;
        QTest::newRow("folder_already_existed") << "folder_already_existed" << 20004;
        QTest::newRow("source not found") << "source not found" << 20005;
        QTest::newRow("nameentry_not_exist") << "nameentry_not_exist" << 20005;
        QTest::newRow("file/folder not found") << "file/folder not found" << 20005;
        QTest::newRow("forbidden") << "forbidden" << 20007;
        QTest::newRow("path_too_long") << "path_too_long" << 20008;
        QTest::newRow("space limit") << "space limit" << 20009;
        QTest::newRow("file is locked") << "file is locked" << 20010;
        QTest::newRow("private dc not allowed") << "private dc not allowed" << 20012;
        QTest::newRow("invalid.hash") << "invalid.hash" << 20013;
        QTest::newRow("content_hash_error") << "content_hash_error" << 20013;
        QTest::newRow("root parent folder conflict with file")
            << "root parent folder conflict with file" << 20022;
        QTest::newRow("root parent folder conflict with folder")
            << "root parent folder conflict with folder" << 20023;
        QTest::newRow("parent folder conflict with folder") << "parent folder conflict with folder" << 20021;
        QTest::newRow("parent folder conflict with file") << "parent folder conflict with file" << 20020;
        QTest::newRow("conflict with folder") << "conflict with folder" << 20019;
        QTest::newRow("conflict with file") << "conflict with file" << 20018;
        QTest::newRow("file type limit") << "file type limit" << 20024;
        QTest::newRow("download_file_VirusF") << "download_file_VirusF" << 20031;
        // Each "contains" text inside a longer one.
        QTest::newRow("in: token is not exist") << "the token is not exist anymore" << 20003;
        QTest::newRow("in: forbidden") << "access forbidden here" << 20007;
        QTest::newRow("in: space limit") << "user space limit reached" << 20009;
        QTest::newRow("in: file is locked") << "file is locked by user" << 20010;
        QTest::newRow("in: private dc not allowed") << "err: private dc not allowed!" << 20012;
        QTest::newRow("in: invalid.hash") << "chunk invalid.hash 3" << 20013;
        QTest::newRow("in: content_hash_error") << "x content_hash_error" << 20013;
        QTest::newRow("in: root parent folder conflict with file")
            << "the root parent folder conflict with file a" << 20022;
        QTest::newRow("in: root parent folder conflict with folder")
            << "a root parent folder conflict with folder b" << 20023;
        QTest::newRow("in: parent folder conflict with folder")
            << "a parent folder conflict with folder" << 20021;
        QTest::newRow("in: parent folder conflict with file")
            << "a parent folder conflict with file" << 20020;
        QTest::newRow("in: conflict with folder") << "name conflict with folder x" << 20019;
        QTest::newRow("in: conflict with file") << "name conflict with file x" << 20018;
        QTest::newRow("in: file type limit") << "exe: file type limit" << 20024;
        QTest::newRow("in: download_file_VirusF") << "download_file_VirusFound" << 20031;
        // The "equals" texts match only whole, and every text only in its own case.
        QTest::newRow("Invalid session, longer") << "Invalid session!" << 20001;
        QTest::newRow("invalid session, lower case") << "invalid session" << 20001;
        QTest::newRow("target name exists, longer") << "target name exists." << 20001;
        QTest::newRow("file/folder not found, longer") << "the file/folder not found" << 20001;
        QTest::newRow("path_too_long, longer") << "path_too_long_x" << 20001;
        QTest::newRow("Forbidden, capital") << "Forbidden" << 20001;
        QTest::newRow("anything else") << "something happened" << 20001;
        QTest::newRow("empty") << "" << 20001;
    }

    void errorCodeTable()
    {
        QFETCH(QString, code);
        QFETCH(int, mapped);
        CNBParseProcessor reading;
        reading.transferErrorCode(code);
        QCOMPARE(reading.errorCode(), mapped);
        // The same through a reply's error object.
        CNBParseProcessor fromReply;
        fromReply.ParseResp(reply(409, QJsonDocument(QJsonObject { { "code", code } }).toJson()));
        QCOMPARE(fromReply.errorCode(), mapped);
        QCOMPARE(fromReply.errorMsg().code, code);
    }

    void status399WithAnEmptyBodyIsASuccess()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(399, ""));
        QVERIFY(!reading.hasError());
        QCOMPARE(reading.errorCode(), 0);
        QCOMPARE(reading.errorMsg().message, QString("transport text"));
    }

    void fileLockedWithoutAMessage()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(400, "{\"code\":\"file is locked by user\"}", 302, "Bad Request text"));
        QCOMPARE(reading.errorMsg().code, QString("file is locked by user"));
        QCOMPARE(reading.errorCode(), 20010);
        QVERIFY(reading.hasError());
        QCOMPARE(reading.errorMsg().message, QString("Bad Request text"));
        QCOMPARE(reading.statusCode(), 400);
    }

    void bodyThatIsNotJson()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(500, "<html>oops</html>", 401));
        QJsonParseError expected;
        QJsonDocument::fromJson("<html>oops</html>", &expected);
        QCOMPARE(reading.errorMsg().state, int(expected.error));
        QCOMPARE(reading.errorMsg().message, expected.errorString());
        QCOMPARE(reading.errorCode(), 401);
    }

    void codeThatIsANumberKeepsTheTransportsCode()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(403, "{\"code\":20010,\"message\":\"m\"}", 201));
        QCOMPARE(reading.errorCode(), 201);
        QCOMPARE(reading.errorMsg().code, QString());
        QCOMPARE(reading.errorMsg().message, QString("m"));
    }

    void fieldsOfAnotherTypeAreSkipped()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(400,
            "{\"message\":7,\"msgcode\":\"M-1\",\"state\":\"9\",\"type\":[\"t\"],\"code\":\"forbidden\"}"));
        const TransferErrorMessage e = reading.errorMsg();
        QCOMPARE(e.message, QString("transport text"));
        QCOMPARE(e.msgcode, QString("M-1"));
        QCOMPARE(e.state, 0);
        QCOMPARE(e.type, QString());
        QCOMPARE(reading.errorCode(), 20007);
    }

    void everyFieldOfTheErrorObject()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(404,
            "{\"message\":\"gone\",\"msgcode\":\"E404\",\"state\":-3,\"code\":\"file/folder not "
            "found\",\"type\":\"t\"}"));
        const TransferErrorMessage e = reading.errorMsg();
        QCOMPARE(e.message, QString("gone"));
        QCOMPARE(e.msgcode, QString("E404"));
        QCOMPARE(e.state, -3);
        QCOMPARE(e.code, QString("file/folder not found"));
        QCOMPARE(e.type, QString("t"));
        QCOMPARE(reading.errorCode(), 20005);
    }

    void stateThatIsAFloat_data()
    {
        QTest::addColumn<QByteArray>("state");
        QTest::addColumn<int>("read");
        QTest::newRow("3.7") << QByteArray("3.7") << 3;
        QTest::newRow("-2.5") << QByteArray("-2.5") << -2;
        QTest::newRow("1e3") << QByteArray("1e3") << 1000;
        QTest::newRow("beyond int") << QByteArray("1e300") << 0;
        QTest::newRow("below int") << QByteArray("-3e9") << 0;
    }

    void stateThatIsAFloat()
    {
        QFETCH(QByteArray, state);
        QFETCH(int, read);
        CNBParseProcessor reading;
        reading.ParseResp(reply(500, "{\"state\":" + state + "}"));
        QCOMPARE(reading.errorMsg().state, read);
    }

    void jsonThatIsNotAnObject()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(500, "[{\"code\":\"forbidden\"}]", 401));
        QCOMPARE(reading.errorCode(), 401);
        QCOMPARE(reading.errorMsg().code, QString());
        QCOMPARE(reading.errorMsg().state, 0);
        QCOMPARE(reading.errorMsg().message, QString("transport text"));
    }

    void messageOfAnEarlierReadingIsKept()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(400, "{\"message\":\"first\"}"));
        reading.ParseResp(reply(400, "{\"code\":\"forbidden\"}", 0, "second transport text"));
        QCOMPARE(reading.errorMsg().message, QString("first"));
        QCOMPARE(reading.errorCode(), 20007);
        reading.ParseResp(reply(400, "{\"message\":\"third\"}"));
        QCOMPARE(reading.errorMsg().message, QString("third"));
        // The error code follows the latest reply; the code text of the earlier stays.
        QCOMPARE(reading.errorCode(), 0);
        QCOMPARE(reading.errorMsg().code, QString("forbidden"));
        // A body that is not JSON carries no message of its own: the parse error's text
        // takes the place of the kept one.
        reading.ParseResp(reply(502, "<html>bad gateway</html>"));
        QJsonParseError expected;
        QJsonDocument::fromJson("<html>bad gateway</html>", &expected);
        QCOMPARE(reading.errorMsg().message, expected.errorString());
        QCOMPARE(reading.errorMsg().code, QString("forbidden"));
    }

    void statusRuleIsOneUnsignedComparison_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("error");
        QTest::newRow("0") << 0 << true;
        QTest::newRow("199") << 199 << true;
        QTest::newRow("200") << 200 << false;
        QTest::newRow("302") << 302 << false;
        QTest::newRow("399") << 399 << false;
        QTest::newRow("400") << 400 << true;
        QTest::newRow("-1") << -1 << true;
        QTest::newRow("lowest int") << std::numeric_limits<int>::min() << true;
        QTest::newRow("highest int") << std::numeric_limits<int>::max() << true;
    }

    void statusRuleIsOneUnsignedComparison()
    {
        QFETCH(int, status);
        QFETCH(bool, error);
        NBBaseParse reading;
        reading.ParseResp(reply(status, "{\"X-NIMBRA-SESS-ID\":\"s\",\"code\":\"forbidden\"}"));
        // onComplete reads the session, onError the code: which one ran tells the branch.
        QCOMPARE(reading.sessiondId().isEmpty(), error);
        QCOMPARE(reading.errorCode() == 20007, error);
        QCOMPARE(reading.hasError(), error);
    }

    void hasErrorAsksTheVirtualGetters()
    {
        Overridden reading;
        reading.ParseResp(reply(500, "", 99));
        QVERIFY(!reading.hasError());
        QCOMPARE(reading.CNBParseProcessor::statusCode(), 500);
    }

    void hugeNestedBody()
    {
        const QByteArray nested = QByteArray(8 << 20, '[') + QByteArray(8 << 20, ']');
        NBBaseParse reading;
        reading.ParseResp(reply(500, nested));
        QVERIFY(reading.errorMsg().state != 0);
        reading.ParseResp(reply(200, nested));
        QCOMPARE(reading.sessiondId(), QString());
        QCOMPARE(reading.body().size(), nested.size());
    }

    void bodyWithBytesThatAreNotUtf8()
    {
        CNBParseProcessor reading;
        reading.ParseResp(reply(423, "{\"code\":\"\xff\xfe file is locked\",\"message\":\"\xc3\x28\"}"));
        QCOMPARE(reading.errorCode(), 20010);
        QVERIFY(reading.errorMsg().code.endsWith("file is locked"));
        QVERIFY(!reading.errorMsg().message.isEmpty());
    }

    void headersAndBodyAreKept()
    {
        ResponseData r = reply(201, "{\"ok\":1}");
        r.headers.insert("X-A", "1");
        CNBParseProcessor reading;
        reading.ParseResp(r);
        QCOMPARE(reading.headers().value("X-A"), QByteArray("1"));
        QCOMPARE(reading.body(), QString("{\"ok\":1}"));
        QCOMPARE(reading.statusCode(), 201);
    }

    void sessionOfASuccessfulBody_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("session");
        QTest::newRow("string") << QByteArray("{\"X-NIMBRA-SESS-ID\":\"abc\"}") << "abc";
        QTest::newRow("number") << QByteArray("{\"X-NIMBRA-SESS-ID\":42}") << "";
        QTest::newRow("not an object") << QByteArray("[\"X-NIMBRA-SESS-ID\"]") << "";
        QTest::newRow("not JSON") << QByteArray("X-NIMBRA-SESS-ID=abc") << "";
        QTest::newRow("absent") << QByteArray("{\"session\":\"abc\"}") << "";
    }

    void sessionOfASuccessfulBody()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, session);
        NBBaseParse reading;
        reading.ParseResp(reply(200, body));
        QCOMPARE(reading.sessiondId(), session);
    }

    void verificationCookie_data()
    {
        QTest::addColumn<QByteArray>("setCookie");
        QTest::addColumn<QString>("value");
        QTest::newRow("two lines, the last wins") << QByteArray("S=a; path=/\nS=b") << "b";
        QTest::newRow("carriage returns too") << QByteArray("S=a\r\nx=1;S=c\rS=d; HttpOnly") << "d";
        QTest::newRow("one") << QByteArray("S=only") << "only";
        QTest::newRow("none") << QByteArray("a=1; b=2") << "";
        QTest::newRow("blank before S is not trimmed") << QByteArray("a=1; S=x") << "";
        QTest::newRow("empty value") << QByteArray("S=") << "";
        QTest::newRow("equals in the value") << QByteArray("S=a=b") << "a=b";
        QTest::newRow("up to the first zero byte") << QByteArray("S=a\0S=b", 7) << "a";
        QTest::newRow("lower-case s") << QByteArray("s=x") << "";
    }

    void verificationCookie()
    {
        QFETCH(QByteArray, setCookie);
        QFETCH(QString, value);
        NBBaseParse reading;
        reading.ParseResp(withSetCookie(setCookie));
        QCOMPARE(reading.s(), value);
    }

    void noSetCookieGivesAnEmptyValue()
    {
        NBBaseParse reading;
        reading.ParseResp(reply(200, "{}"));
        QCOMPARE(reading.s(), QString());
    }
};

NB_TEST_MAIN(TestCNBParseProcessor)
#include "tst_cnbparseprocessor.moc"
