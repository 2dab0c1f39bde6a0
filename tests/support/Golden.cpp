#include "Golden.h"

#include "NBHttpClientManager.h"
#include "TestLog.h"
#include "TestServer.h"

#include <QRegularExpression>
#include <QTest>
#include <QUrl>

GoldenRow golden(const QString& name, GoldenCall call)
{
    GoldenRow row;
    row.name = name;
    row.call = std::move(call);
    return row;
}

GoldenRow& GoldenRow::sends(int deployments, const QByteArray& wire)
{
    wires.append({ deployments, wire });
    return *this;
}

GoldenRow& GoldenRow::unserved(int deployments, long long result)
{
    unservedResults.append({ deployments, result });
    return *this;
}

GoldenRow& GoldenRow::verifyCode(const QString& code)
{
    settings.verifyCode = code;
    return *this;
}

GoldenRow& GoldenRow::withSettings(const GoldenSettings& newSettings)
{
    settings = newSettings;
    return *this;
}

GoldenRow& GoldenRow::noCompletion()
{
    completes = false;
    return *this;
}

GoldenRow& GoldenRow::throughTheEndpoint()
{
    facade = false;
    return *this;
}

namespace {

// The "type" of the rows that run a call before any init.
constexpr int NoEndpoint = -1;

const char* deploymentName(int type)
{
    switch (type) {
    case ServerApi::Private:
        return "private";
    case ServerApi::PublicCloud:
        return "public";
    case ServerApi::PrivateSix:
        return "private6";
    }
    return "?";
}

// The "Cookie" line the merge of the default cookie produces: the verification code
// first, then the cookie's own pairs; none without a cookie.
QByteArray cookieLine(const GoldenSettings& s)
{
    QByteArrayList pairs;
    if (!s.language.isEmpty())
        pairs << "language=" + s.language.toUtf8();
    if (!s.session.isEmpty())
        pairs << "X-NIMBRA-SESS-ID=" + s.session.toUtf8();
    if (pairs.isEmpty())
        return QByteArray();
    if (!s.verifyCode.isEmpty())
        pairs.prepend("S=" + s.verifyCode.toUtf8());
    return "Cookie: " + pairs.join("; ") + "\n";
}

// The "Cookie" line as the endpoint writes it, where it is not merged (uploads).
QByteArray rawCookieLine(const GoldenSettings& s)
{
    QByteArray text;
    if (!s.language.isEmpty())
        text += "language=" + s.language.toUtf8() + ";";
    if (!s.session.isEmpty())
        text += "X-NIMBRA-SESS-ID=" + s.session.toUtf8() + ";";
    return text.isEmpty() ? text : "Cookie: " + text + "\n";
}

} // namespace

namespace Golden {

bool matches(const QByteArray& expected, const QByteArray& received)
{
    if (!expected.contains("{digits}") && !expected.contains("{hex}"))
        return expected == received;
    const QString text = QString::fromUtf8(expected);
    static const QRegularExpression wildcard(QStringLiteral("\\{(digits|hex)\\}"));
    QString pattern = QStringLiteral("\\A");
    int from = 0;
    for (auto it = wildcard.globalMatch(text); it.hasNext();) {
        const auto match = it.next();
        pattern += QRegularExpression::escape(text.mid(from, match.capturedStart() - from));
        pattern += match.captured(1) == QLatin1String("digits") ? QStringLiteral("\\d+")
                                                                : QStringLiteral("[0-9a-f]+");
        from = match.capturedEnd();
    }
    pattern += QRegularExpression::escape(text.mid(from)) + QStringLiteral("\\z");
    return QRegularExpression(pattern).match(QString::fromUtf8(received)).hasMatch();
}

void addRows(const QList<GoldenRow>& rows)
{
    QTest::addColumn<GoldenRow>("row");
    QTest::addColumn<int>("type");
    for (const GoldenRow& row : rows) {
        for (int type : { ServerApi::Private, ServerApi::PublicCloud, ServerApi::PrivateSix }) {
            bool named = false;
            for (const auto& wire : row.wires)
                named |= (wire.first & (1 << type)) != 0;
            for (const auto& result : row.unservedResults)
                named |= (result.first & (1 << type)) != 0;
            if (named)
                QTest::addRow("%s %s", qPrintable(row.name), deploymentName(type)) << row << type;
        }
        if (row.facade)
            QTest::addRow("%s without an endpoint", qPrintable(row.name)) << row << NoEndpoint;
    }
}

// Without an endpoint every operation sends nothing, never calls back, returns -1 and
// says so in the log.
void runWithoutEndpoint(const GoldenRow& row)
{
    TestServer server;
    QTemporaryDir dir;
    ServerApi::uninit();
    TestLog log;
    GoldenContext context;
    context.server = server.url(QString());
    context.dir = dir.path();
    QCOMPARE(row.call(context), -1LL);
    QTest::qWait(20);
    QCOMPARE(server.requestCount(), 0);
    QVERIFY(context.calls.completions.isEmpty());
    QVERIFY(log.find(QString::fromUtf8("未初始化api，调用被忽略")) != nullptr);
}

QByteArray expand(QByteArray wire, const QByteArray& host, const GoldenSettings& s)
{
    const QByteArray ua = s.userAgent.isEmpty() ? QByteArray() : "User-Agent: " + s.userAgent.toUtf8() + "\n";
    const QByteArray qt = "Connection: Keep-Alive\nAccept-Encoding: gzip, deflate\nAccept-Language: en,*\n";
    // The network layer's own user agent, when the default headers bring none.
    const QByteArray qtAgent = s.userAgent.isEmpty() ? "User-Agent: Mozilla/5.0\n" : "";
    const QByteArray form = "Content-Type: application/x-www-form-urlencoded;application/json\n";
    wire.replace("{get}", "Host: {host}\n{ua}Accept: */*\n{cookie}{qt}{qtAgent}");
    wire.replace("{post}", "Host: {host}\n{ua}{form}{cookie}Content-Length: {length}\n{qt}{qtAgent}");
    wire.replace("{upload}", "Host: {host}\n{ua}{rawcookie}{form}Content-Length: {length}\n{qt}{qtAgent}");
    wire.replace("{qtAgent}", qtAgent);
    wire.replace("{rawcookie}", rawCookieLine(s));
    wire.replace("{ua}", ua);
    wire.replace("{cookie}", cookieLine(s));
    wire.replace("{form}", form);
    wire.replace("{qt}", qt);
    wire.replace("{host}", host);
    // The body follows the first blank line; only the head's "{length}" is replaced.
    const int head = wire.indexOf("\n\n");
    if (head < 0)
        return wire;
    const QByteArray length = QByteArray::number(wire.size() - head - 2);
    return wire.left(head).replace("{length}", length) + wire.mid(head);
}

QString lineDiff(const QByteArray& expected, const QByteArray& received)
{
    const QByteArrayList a = expected.split('\n');
    const QByteArrayList b = received.split('\n');
    const int n = a.size();
    const int m = b.size();
    // Longest common subsequence of lines, from the ends.
    QVector<QVector<int>> common(n + 1, QVector<int>(m + 1, 0));
    for (int i = n - 1; i >= 0; --i)
        for (int j = m - 1; j >= 0; --j)
            common[i][j] = a[i] == b[j] ? common[i + 1][j + 1] + 1 : qMax(common[i + 1][j], common[i][j + 1]);
    const auto show = [](const QByteArray& line) {
        return QString::fromUtf8(line).replace(QLatin1Char('\r'), QLatin1String("\\r"));
    };
    QString out;
    int i = 0;
    int j = 0;
    while (i < n || j < m) {
        if (i < n && j < m && a[i] == b[j]) {
            out += QStringLiteral("  ") + show(a[i++]) + QLatin1Char('\n');
            ++j;
        } else if (j < m && (i == n || common[i][j + 1] >= common[i + 1][j])) {
            out += QStringLiteral("+ ") + show(b[j++]) + QLatin1Char('\n');
        } else {
            out += QStringLiteral("- ") + show(a[i++]) + QLatin1Char('\n');
        }
    }
    return out;
}

void run()
{
    QFETCH(GoldenRow, row);
    QFETCH(int, type);
    if (type == NoEndpoint)
        return runWithoutEndpoint(row);
    const QByteArray replyBody = "{\"golden\":\"" + row.name.toUtf8() + "\"}";
    TestServer server([replyBody](const RecordedRequest&) { return ServerReply::ok(replyBody); });
    QTemporaryDir dir;

    ServerApi::init(ServerApi::NBServerApiType(type));
    struct Uninit
    {
        ~Uninit() { ServerApi::uninit(); }
    } uninit;
    ServerApi::setBaseUrlString(server.url(QString()));
    ServerApi::setUserAgent(row.settings.userAgent);
    ServerApi::setLanguage(row.settings.language);
    ServerApi::setSessionID(row.settings.session);
    ServerApi::setPriServerVerifyCode(row.settings.verifyCode);

    GoldenContext context;
    context.server = server.url(QString());
    context.dir = dir.path();
    const long long id = row.call(context);

    for (const auto& unserved : row.unservedResults) {
        if ((unserved.first & (1 << type)) == 0)
            continue;
        QCOMPARE(id, unserved.second);
        QTest::qWait(200);
        QCOMPARE(server.requestCount(), 0);
        QVERIFY(context.calls.completions.isEmpty());
        return;
    }

    QByteArray expected;
    for (const auto& wire : row.wires) {
        if (wire.first & (1 << type))
            expected = wire.second;
    }
    QVERIFY2(id >= 0, qPrintable(QStringLiteral("identifier %1").arg(id)));
    QVERIFY2(server.waitForRequests(1), "nothing reached the server");
    if (row.completes) {
        QVERIFY(context.calls.waitForCompletions(1));
        QCOMPARE(context.calls.completions.size(), 1);
        QCOMPARE(context.calls.last().statusCode, 200);
        QCOMPARE(context.calls.last().body, QString::fromUtf8(replyBody));
    }
    QVERIFY(waitUntil([&] { return NBHttpClientManager::manager()->getHttpClient(id) == nullptr; }, 5000));
    QCOMPARE(server.requestCount(), 1);

    const QByteArray host = QUrl(server.url(QString())).authority().toLatin1();
    const QByteArray want = expand(expected, host, row.settings);
    const QByteArray got = server.lastRequest().wireText();
    if (!matches(want, got))
        QFAIL(qPrintable(
            QStringLiteral("the request differs (- expected, + received):\n") + lineDiff(want, got)));
}

} // namespace Golden
