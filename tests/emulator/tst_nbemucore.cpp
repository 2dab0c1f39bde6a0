// nbemucore in process, without a server: one-time passwords, fault rules, the router,
// the drive's edge cases on a real database, how a request is read, change cursors,
// the pause of shared links after a wrong password, and batch tasks.
#include "Accounts.h"
#include "ChunkStore.h"
#include "Database.h"
#include "Drive.h"
#include "DriveRoutes.h"
#include "Faults.h"
#include "HttpCall.h"
#include "HttpMessage.h"
#include "Links.h"
#include "Router.h"
#include "Tasks.h"
#include "TestMain.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <algorithm>

namespace {

const QString Ent = QStringLiteral("ent");

// A data folder of its own: the database and the chunk store in a temporary folder.
struct Store
{
    QTemporaryDir dir;
    Database db;
    ChunkStore chunks;
    Accounts accounts { db, 3600 };
    Drive drive { db, chunks };
    QString error;

    bool open()
    {
        if (!dir.isValid()) {
            error = dir.errorString();
            return false;
        }
        return db.open(dir.filePath(QStringLiteral("nbemu.db")), &error) && chunks.open(dir.path(), &error);
    }

    // The id of a user of this name, created when missing (0 on failure).
    qint64 user(const QString& name)
    {
        if (!accounts.ensureUser(name, QStringLiteral("secret"), false, &error))
            return 0;
        const std::optional<User> found = accounts.userByName(name);
        return found ? found->id : 0;
    }

    bool exists(const QString& path) { return drive.find(Ent, path).has_value(); }

    // Every path of the "ent" space but its root, sorted.
    QStringList allPaths()
    {
        QStringList paths;
        for (const Entry& e : drive.below(Ent, QStringLiteral("/")))
            paths << e.path;
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    bool setModified(const QString& path, qint64 time)
    {
        Database::Statement st(db, "UPDATE entries SET modified = ? WHERE space = 'ent' AND path = ?");
        return st.bind(1, time).bind(2, path).exec();
    }
};

// Chunks of these sizes with made-up hashes: the drive only records them.
QList<ChunkRef> someChunks(const QList<qint64>& sizes, const QByteArray& tag)
{
    QList<ChunkRef> chunks;
    for (int i = 0; i < sizes.size(); ++i) {
        const QByteArray seed = tag + ':' + QByteArray::number(i);
        chunks.append({ QCryptographicHash::hash(seed, QCryptographicHash::Sha256).toHex(), sizes[i] });
    }
    return chunks;
}

QStringList describe(const QList<ChunkRef>& chunks)
{
    QStringList list;
    for (const ChunkRef& chunk : chunks)
        list << QString::fromLatin1(chunk.hash) + QLatin1Char(':') + QString::number(chunk.bytes);
    return list;
}

QStringList pathsOf(const QList<Entry>& entries)
{
    QStringList paths;
    for (const Entry& e : entries)
        paths << e.path;
    return paths;
}

QStringList sorted(QStringList list)
{
    std::sort(list.begin(), list.end());
    return list;
}

QString optionalText(const std::optional<QString>& value)
{
    return value ? *value : QStringLiteral("<none>");
}

// A request made by hand, and the call a route would get for it.
struct Request
{
    HttpRequest request;
    HttpResponse response;

    Request(const QByteArray& method, const QByteArray& target, const HeaderList& headers = {})
    {
        request.method = method;
        request.target = target;
        request.headers = headers;
    }
};

HeaderList formType(const QByteArray& type = "application/x-www-form-urlencoded")
{
    return { { "Content-Type", type } };
}

QString base64Url(const QByteArray& text)
{
    return QString::fromLatin1(text.toBase64(QByteArray::Base64UrlEncoding));
}

const QString RfcSecret = QStringLiteral("GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ"); // "12345678901234567890"

// One fault pick per path: "1" where the fault came, "0" where it did not.
QString picks(Faults& faults, const QStringList& paths)
{
    QString drawn;
    for (const QString& path : paths)
        drawn += faults.pick(path) ? QLatin1Char('1') : QLatin1Char('0');
    return drawn;
}

} // namespace

class TestNBEmuCore : public QObject
{
    Q_OBJECT

private slots:
    // ---- one-time passwords ----

    void totpMatchesTheRfcVectors_data()
    {
        QTest::addColumn<qint64>("time");
        QTest::addColumn<QString>("code");
        QTest::newRow("59") << qint64(59) << QStringLiteral("287082");
        QTest::newRow("1111111109") << qint64(1111111109) << QStringLiteral("081804");
        QTest::newRow("1111111111") << qint64(1111111111) << QStringLiteral("050471");
        QTest::newRow("1234567890") << qint64(1234567890) << QStringLiteral("005924");
        QTest::newRow("2000000000") << qint64(2000000000) << QStringLiteral("279037");
        QTest::newRow("20000000000") << qint64(20000000000) << QStringLiteral("353130");
    }
    void totpMatchesTheRfcVectors()
    {
        QFETCH(qint64, time);
        QFETCH(QString, code);
        QCOMPARE(Accounts::totp(RfcSecret, time), code);
    }

    void checkTotpAcceptsOneStepOfSkew_data()
    {
        QTest::addColumn<QString>("code");
        QTest::addColumn<qint64>("offset");
        QTest::addColumn<int>("skew");
        QTest::addColumn<bool>("accepted");
        // The code of 1111111109, checked at other times.
        const QString code = QStringLiteral("081804");
        QTest::newRow("same step") << code << qint64(0) << 1 << true;
        QTest::newRow("one step later") << code << qint64(30) << 1 << true;
        QTest::newRow("one step earlier") << code << qint64(-30) << 1 << true;
        QTest::newRow("two steps later") << code << qint64(60) << 1 << false;
        QTest::newRow("two steps earlier") << code << qint64(-60) << 1 << false;
        QTest::newRow("one step later, no skew") << code << qint64(30) << 0 << false;
        QTest::newRow("two steps later, skew 2") << code << qint64(60) << 2 << true;
        QTest::newRow("wrong code") << QStringLiteral("081805") << qint64(0) << 1 << false;
        QTest::newRow("empty code") << QString() << qint64(0) << 1 << false;
    }
    void checkTotpAcceptsOneStepOfSkew()
    {
        QFETCH(QString, code);
        QFETCH(qint64, offset);
        QFETCH(int, skew);
        QFETCH(bool, accepted);
        QCOMPARE(Accounts::checkTotp(RfcSecret, code, 1111111109 + offset, skew), accepted);
    }

    // ---- fault rules ----

    void faultRuleParses_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("pattern");
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("value");
        QTest::addColumn<double>("probability");
        QTest::addColumn<int>("phase");
        QTest::newRow("latency") << QStringLiteral("^/v2/:latency=250@0.5") << QStringLiteral("^/v2/")
                                 << int(FaultRule::Latency) << 250 << 0.5 << int(FaultRule::Before);
        QTest::newRow("latency without value")
            << QStringLiteral("x:latency") << QStringLiteral("x") << int(FaultRule::Latency) << 0 << 1.0
            << int(FaultRule::Before);
        QTest::newRow("status") << QStringLiteral("x:status=503") << QStringLiteral("x")
                                << int(FaultRule::Status) << 503 << 1.0 << int(FaultRule::Instead);
        QTest::newRow("status defaults to 500")
            << QStringLiteral("x:status@0.25") << QStringLiteral("x") << int(FaultRule::Status) << 500 << 0.25
            << int(FaultRule::Instead);
        QTest::newRow("status 200") << QStringLiteral("x:status=200") << QStringLiteral("x")
                                    << int(FaultRule::Status) << 200 << 1.0 << int(FaultRule::Instead);
        QTest::newRow("status 599") << QStringLiteral("x:status=599") << QStringLiteral("x")
                                    << int(FaultRule::Status) << 599 << 1.0 << int(FaultRule::Instead);
        QTest::newRow("retry-after") << QStringLiteral("x:retry-after=3@1") << QStringLiteral("x")
                                     << int(FaultRule::RetryAfter) << 3 << 1.0 << int(FaultRule::Instead);
        QTest::newRow("reset") << QStringLiteral("x:reset=10@0") << QStringLiteral("x")
                               << int(FaultRule::Reset) << 10 << 0.0 << int(FaultRule::After);
        QTest::newRow("truncate") << QStringLiteral("x:truncate=0") << QStringLiteral("x")
                                  << int(FaultRule::Truncate) << 0 << 1.0 << int(FaultRule::After);
        QTest::newRow("stall") << QStringLiteral("x:stall=5") << QStringLiteral("x") << int(FaultRule::Stall)
                               << 5 << 1.0 << int(FaultRule::After);
        QTest::newRow("stall defaults to 600")
            << QStringLiteral("x:stall") << QStringLiteral("x") << int(FaultRule::Stall) << 600 << 1.0
            << int(FaultRule::After);
        // The kind follows the last colon: a pattern may hold colons of its own.
        QTest::newRow("colons in the pattern")
            << QStringLiteral("a:b:status=404") << QStringLiteral("a:b") << int(FaultRule::Status) << 404
            << 1.0 << int(FaultRule::Instead);
        QTest::newRow("at sign in the pattern, with probability")
            << QStringLiteral("u@h:status@1") << QStringLiteral("u@h") << int(FaultRule::Status) << 500 << 1.0
            << int(FaultRule::Instead);
        QTest::newRow("at sign in the pattern, without probability")
            << QStringLiteral("u@h:status") << QStringLiteral("u@h") << int(FaultRule::Status) << 500 << 1.0
            << int(FaultRule::Instead);
    }
    void faultRuleParses()
    {
        QFETCH(QString, text);
        QFETCH(QString, pattern);
        QFETCH(int, kind);
        QFETCH(int, value);
        QFETCH(double, probability);
        QFETCH(int, phase);
        QString error;
        const std::optional<FaultRule> rule = FaultRule::parse(text, &error);
        QVERIFY2(rule, qPrintable(error));
        QCOMPARE(rule->text, text);
        QCOMPARE(rule->pattern.pattern(), pattern);
        QVERIFY(rule->pattern.isValid());
        QCOMPARE(int(rule->kind), kind);
        QCOMPARE(rule->value, value);
        QCOMPARE(rule->probability, probability);
        QCOMPARE(int(rule->phase()), phase);
    }

    void faultRuleRefuses_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("unknown kind") << QStringLiteral("x:explode=1");
        QTest::newRow("kind in capitals") << QStringLiteral("x:STATUS=500");
        QTest::newRow("status 199") << QStringLiteral("x:status=199");
        QTest::newRow("status 600") << QStringLiteral("x:status=600");
        QTest::newRow("status 0") << QStringLiteral("x:status=0");
        QTest::newRow("non-numeric value") << QStringLiteral("x:latency=abc");
        QTest::newRow("fractional value") << QStringLiteral("x:latency=1.5");
        QTest::newRow("negative latency") << QStringLiteral("x:latency=-5");
        QTest::newRow("negative reset") << QStringLiteral("x:reset=-1");
        QTest::newRow("negative stall") << QStringLiteral("x:stall=-1");
        QTest::newRow("probability above 1") << QStringLiteral("x:status@1.5");
        QTest::newRow("probability below 0") << QStringLiteral("x:status@-0.1");
        QTest::newRow("probability not a number") << QStringLiteral("x:status@often");
        QTest::newRow("probability empty") << QStringLiteral("x:status@");
        QTest::newRow("probability infinite") << QStringLiteral("x:status@inf");
        QTest::newRow("probability NaN") << QStringLiteral("x:status@nan");
        QTest::newRow("bad regular expression") << QStringLiteral("(:status");
        QTest::newRow("missing colon") << QStringLiteral("status=500");
        QTest::newRow("empty pattern") << QStringLiteral(":status");
        QTest::newRow("empty") << QString();
    }
    void faultRuleRefuses()
    {
        QFETCH(QString, text);
        QString error;
        const std::optional<FaultRule> rule = FaultRule::parse(text, &error);
        QVERIFY2(
            !rule, qPrintable(QStringLiteral("accepted, probability %1").arg(rule ? rule->probability : 0)));
        QVERIFY(!error.isEmpty());
    }

    void faultsAreDeterministicForASeed()
    {
        QString error;
        const std::optional<FaultRule> rule = FaultRule::parse(QStringLiteral("^/v2/:status@0.5"), &error);
        QVERIFY2(rule, qPrintable(error));
        QStringList paths;
        for (int i = 0; i < 64; ++i)
            paths << QStringLiteral("/v2/a");

        Faults first(42);
        Faults second(42);
        Faults other(43);
        for (Faults* faults : { &first, &second, &other })
            faults->add(*rule);
        const QString drawn = picks(first, paths);
        QCOMPARE(picks(second, paths), drawn);
        QVERIFY(drawn.contains(QLatin1Char('0')) && drawn.contains(QLatin1Char('1')));
        QVERIFY(picks(other, paths) != drawn);

        // Requests that match no rule draw nothing: the matching ones see the same sequence.
        Faults interleaved(42);
        interleaved.add(*rule);
        QString matching;
        for (int i = 0; i < paths.size(); ++i) {
            QVERIFY(!interleaved.pick(QStringLiteral("/other")));
            matching += interleaved.pick(paths[i]) ? QLatin1Char('1') : QLatin1Char('0');
        }
        QCOMPARE(matching, drawn);

        first.reseed(42);
        QCOMPARE(picks(first, paths), drawn);
        QCOMPARE(first.rules(), QJsonArray { QStringLiteral("^/v2/:status@0.5") });
        first.clear();
        QCOMPARE(picks(first, paths), QString(paths.size(), QLatin1Char('0')));
    }

    // ---- the router ----

    void routerMatches_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("route"); // empty: no match
        QTest::addColumn<QStringList>("captures");
        QTest::newRow("capture") << QStringLiteral("GET") << QStringLiteral("/api/files/a b.txt")
                                 << QStringLiteral("file") << QStringList { QStringLiteral("a b.txt") };
        QTest::newRow("first added wins")
            << QStringLiteral("GET") << QStringLiteral("/api/files/reserved") << QStringLiteral("file")
            << QStringList { QStringLiteral("reserved") };
        QTest::newRow("by method") << QStringLiteral("POST") << QStringLiteral("/api/files/x")
                                   << QStringLiteral("upload") << QStringList { QStringLiteral("x") };
        QTest::newRow("two captures")
            << QStringLiteral("GET") << QStringLiteral("/api/tasks/42") << QStringLiteral("pair")
            << QStringList { QStringLiteral("tasks"), QStringLiteral("42") };
        QTest::newRow("no captures") << QStringLiteral("GET") << QStringLiteral("/api/list")
                                     << QStringLiteral("list") << QStringList();
        QTest::newRow("captures are not decoded again")
            << QStringLiteral("GET") << QStringLiteral("/api/files/%41") << QStringLiteral("file")
            << QStringList { QStringLiteral("%41") };
        QTest::newRow("unknown method")
            << QStringLiteral("PUT") << QStringLiteral("/api/files/x") << QString() << QStringList();
        QTest::newRow("method in lower case")
            << QStringLiteral("get") << QStringLiteral("/api/list") << QString() << QStringList();
        QTest::newRow("anchored at the end")
            << QStringLiteral("GET") << QStringLiteral("/api/list/") << QString() << QStringList();
        QTest::newRow("anchored at the start")
            << QStringLiteral("GET") << QStringLiteral("/x/api/list") << QString() << QStringList();
        QTest::newRow("empty capture refused")
            << QStringLiteral("GET") << QStringLiteral("/api/files/") << QString() << QStringList();
    }
    void routerMatches()
    {
        QFETCH(QString, method);
        QFETCH(QString, path);
        QFETCH(QString, route);
        QFETCH(QStringList, captures);

        QString hit;
        const auto handler = [&hit](const QString& name) {
            return [&hit, name](HttpCall&) {
                hit = name;
            };
        };
        Router router;
        router.add("GET", "/api/files/(.+)", EveryType, Access::Session, handler("file"));
        router.add("GET", "/api/files/reserved", EveryType, Access::Session, handler("reserved"));
        router.addStream("POST", "/api/files/(.+)", EveryType, Access::Session, handler("upload"));
        router.add("GET", "/api/(\\w+)/(\\d+)", EveryType, Access::Session, handler("pair"));
        router.add("GET", "/api/list", EveryType, Access::Open, handler("list"));

        QStringList found { QStringLiteral("untouched") };
        const Route* matched = router.match(method, path, &found);
        if (route.isEmpty()) {
            QVERIFY(!matched);
            return;
        }
        QVERIFY(matched);
        Request request(method.toLatin1(), path.toUtf8());
        HttpCall call(request.request, request.response);
        matched->handler(call);
        QCOMPARE(hit, route);
        QCOMPARE(found, captures);
        QCOMPARE(matched->method, method);
        QCOMPARE(matched->streams, route == QLatin1String("upload"));
    }

    void routeServedBy_data()
    {
        QTest::addColumn<int>("types");
        QTest::addColumn<int>("deployment");
        QTest::addColumn<bool>("served");
        const int priv = int(Deployment::Private);
        const int cloud = int(Deployment::PublicCloud);
        const int six = int(Deployment::PrivateSix);
        QTest::newRow("every type, private") << EveryType << priv << true;
        QTest::newRow("every type, cloud") << EveryType << cloud << true;
        QTest::newRow("every type, private six") << EveryType << six << true;
        QTest::newRow("cloud only, cloud") << PublicCloudOnly << cloud << true;
        QTest::newRow("cloud only, private") << PublicCloudOnly << priv << false;
        QTest::newRow("cloud only, private six") << PublicCloudOnly << six << false;
        QTest::newRow("private types, private") << PrivateTypes << priv << true;
        QTest::newRow("private types, private six") << PrivateTypes << six << true;
        QTest::newRow("private types, cloud") << PrivateTypes << cloud << false;
        QTest::newRow("private six only, private six") << PrivateSixOnly << six << true;
        QTest::newRow("private six only, private") << PrivateSixOnly << priv << false;
        QTest::newRow("private six only, cloud") << PrivateSixOnly << cloud << false;
        QTest::newRow("none") << 0 << cloud << false;
    }
    void routeServedBy()
    {
        QFETCH(int, types);
        QFETCH(int, deployment);
        QFETCH(bool, served);
        Route route;
        route.types = types;
        QCOMPARE(route.servedBy(Deployment(deployment)), served);
        QCOMPARE(bool(types & ::served(Deployment(deployment))), served);
    }

    void deploymentSets()
    {
        QCOMPARE(served(Deployment::Private), 1);
        QCOMPARE(served(Deployment::PublicCloud), 2);
        QCOMPARE(served(Deployment::PrivateSix), 4);
        QCOMPARE(PublicCloudOnly, 2);
        QCOMPARE(PrivateTypes, 5);
        QCOMPARE(PrivateSixOnly, 4);
        QCOMPARE(EveryType, 7);
    }

    // ---- the drive: paths and spaces ----

    void normalise_data()
    {
        QTest::addColumn<QString>("in");
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QString>("out");
        QTest::newRow("plain") << QStringLiteral("/a/b") << true << QStringLiteral("/a/b");
        QTest::newRow("relative") << QStringLiteral("a/b") << true << QStringLiteral("/a/b");
        QTest::newRow("empty segments") << QStringLiteral("//a///b/") << true << QStringLiteral("/a/b");
        QTest::newRow("empty") << QString() << true << QStringLiteral("/");
        QTest::newRow("root") << QStringLiteral("/") << true << QStringLiteral("/");
        QTest::newRow("slashes only") << QStringLiteral("///") << true << QStringLiteral("/");
        QTest::newRow("three dots") << QStringLiteral("/a/.../b") << true << QStringLiteral("/a/.../b");
        QTest::newRow("dot in a name") << QStringLiteral("/.a/b.") << true << QStringLiteral("/.a/b.");
        QTest::newRow("spaces kept") << QStringLiteral("/ a /b ") << true << QStringLiteral("/ a /b ");
        QTest::newRow("outside the BMP") << QStringLiteral("//😀/x") << true << QStringLiteral("/😀/x");
        QTest::newRow("4096 characters")
            << QString(4096, QLatin1Char('a')) << true << QLatin1Char('/') + QString(4096, QLatin1Char('a'));
        QTest::newRow("dot") << QStringLiteral("/a/./b") << false << QString();
        QTest::newRow("dot dot") << QStringLiteral("/a/../b") << false << QString();
        QTest::newRow("trailing dot dot") << QStringLiteral("/a/..") << false << QString();
        QTest::newRow("lone dot") << QStringLiteral(".") << false << QString();
        QTest::newRow("NUL") << QStringLiteral("/a") + QChar(0) + QStringLiteral("b") << false << QString();
        QTest::newRow("4097 characters") << QString(4097, QLatin1Char('a')) << false << QString();
    }
    void normalise()
    {
        QFETCH(QString, in);
        QFETCH(bool, ok);
        QFETCH(QString, out);
        QString result = QStringLiteral("untouched");
        QCOMPARE(Drive::normalise(in, &result), ok);
        if (ok)
            QCOMPARE(result, out);
    }

    void spaceOf_data()
    {
        QTest::addColumn<QString>("pathType");
        QTest::addColumn<qint64>("user");
        QTest::addColumn<QString>("space"); // "<none>": none
        QTest::newRow("empty") << QString() << qint64(0) << QStringLiteral("ent");
        for (const char* type : { "ent", "share_in", "share_out", "book_mark", "trans", "recycle" })
            QTest::newRow(type) << QString::fromLatin1(type) << qint64(7) << QString::fromLatin1(type);
        QTest::newRow("self with a user") << QStringLiteral("self") << qint64(7) << QStringLiteral("self:7");
        QTest::newRow("self without a user")
            << QStringLiteral("self") << qint64(0) << QStringLiteral("<none>");
        QTest::newRow("self, negative user")
            << QStringLiteral("self") << qint64(-1) << QStringLiteral("<none>");
        QTest::newRow("an nsid is no path type")
            << QStringLiteral("self:7") << qint64(7) << QStringLiteral("<none>");
        QTest::newRow("case matters") << QStringLiteral("Ent") << qint64(7) << QStringLiteral("<none>");
        QTest::newRow("unknown") << QStringLiteral("team") << qint64(7) << QStringLiteral("<none>");
    }
    void spaceOf()
    {
        QFETCH(QString, pathType);
        QFETCH(qint64, user);
        QFETCH(QString, space);
        QCOMPARE(optionalText(Drive::spaceOf(pathType, user)), space);
    }

    void spaceOfNsid_data()
    {
        QTest::addColumn<QString>("nsid");
        QTest::addColumn<qint64>("user");
        QTest::addColumn<QString>("space"); // "<none>": none
        QTest::newRow("ent") << QStringLiteral("ent") << qint64(7) << QStringLiteral("ent");
        QTest::newRow("recycle, nobody")
            << QStringLiteral("recycle") << qint64(0) << QStringLiteral("recycle");
        QTest::newRow("own self") << QStringLiteral("self:7") << qint64(7) << QStringLiteral("self:7");
        QTest::newRow("another user's self")
            << QStringLiteral("self:8") << qint64(7) << QStringLiteral("<none>");
        QTest::newRow("self, nobody") << QStringLiteral("self:7") << qint64(0) << QStringLiteral("<none>");
        QTest::newRow("longer id") << QStringLiteral("self:70") << qint64(7) << QStringLiteral("<none>");
        QTest::newRow("leading zero") << QStringLiteral("self:07") << qint64(7) << QStringLiteral("<none>");
        QTest::newRow("no id") << QStringLiteral("self:") << qint64(7) << QStringLiteral("<none>");
        QTest::newRow("unknown") << QStringLiteral("team:1") << qint64(7) << QStringLiteral("<none>");
    }
    void spaceOfNsid()
    {
        QFETCH(QString, nsid);
        QFETCH(qint64, user);
        QFETCH(QString, space);
        QCOMPARE(optionalText(Drive::spaceOfNsid(nsid, user)), space);
    }

    void visibleTo_data()
    {
        QTest::addColumn<QString>("space");
        QTest::addColumn<qint64>("user");
        QTest::addColumn<bool>("visible");
        QTest::newRow("ent, nobody") << QStringLiteral("ent") << qint64(0) << true;
        QTest::newRow("ent, a user") << QStringLiteral("ent") << qint64(7) << true;
        QTest::newRow("share_in, a user") << QStringLiteral("share_in") << qint64(8) << true;
        QTest::newRow("own self") << QStringLiteral("self:7") << qint64(7) << true;
        QTest::newRow("another user's self") << QStringLiteral("self:7") << qint64(8) << false;
        QTest::newRow("self, nobody") << QStringLiteral("self:7") << qint64(0) << false;
        QTest::newRow("longer id") << QStringLiteral("self:70") << qint64(7) << false;
    }
    void visibleTo()
    {
        QFETCH(QString, space);
        QFETCH(qint64, user);
        QFETCH(bool, visible);
        Entry entry;
        entry.space = space;
        entry.path = QStringLiteral("/a");
        QCOMPARE(Drive::visibleTo(entry, user), visible);
    }

    // ---- the drive: changes ----

    void commitCreatesParentsAndRevisions()
    {
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        const qint64 alice = s.user(QStringLiteral("alice"));
        QVERIFY2(alice > 0, qPrintable(s.error));

        const QList<ChunkRef> first = someChunks({ 4, 6 }, "first");
        const Outcome created = s.drive.commit(Ent, QStringLiteral("/a/b/c.txt"), first, alice, false);
        QVERIFY2(created.ok(), qPrintable(created.code));
        QCOMPARE(created.entry.rev, qint64(1));
        QCOMPARE(created.entry.bytes, qint64(10));
        QCOMPARE(created.entry.hash, Drive::contentHash(first));
        QVERIFY(!created.entry.dir);
        for (const QString& parent : { QStringLiteral("/a"), QStringLiteral("/a/b") }) {
            const std::optional<Entry> folder = s.drive.find(Ent, parent);
            QVERIFY2(folder, qPrintable(parent));
            QVERIFY(folder->dir);
        }

        const QList<ChunkRef> second = someChunks({ 3 }, "second");
        const Outcome modified = s.drive.commit(Ent, QStringLiteral("/a/b/c.txt"), second, alice, true);
        QVERIFY2(modified.ok(), qPrintable(modified.code));
        QCOMPARE(modified.entry.neid, created.entry.neid);
        QCOMPARE(modified.entry.rev, qint64(2));
        QCOMPARE(modified.entry.bytes, qint64(3));

        const QJsonArray revisions = s.drive.revisions(created.entry.neid, 0);
        QCOMPARE(revisions.size(), 2);
        QCOMPARE(revisions[0].toObject().value("rev").toString(), QStringLiteral("2"));
        QCOMPARE(revisions[0].toObject().value("hash").toString(), Drive::contentHash(second));
        QCOMPARE(revisions[1].toObject().value("rev").toString(), QStringLiteral("1"));
        QCOMPARE(revisions[1].toObject().value("bytes").toInt(), 10);
        QCOMPARE(s.drive.revisions(created.entry.neid, 1).size(), 1);
    }

    void commitRefuses_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("overwrite");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("code");
        QTest::newRow("existing file without overwrite")
            << QStringLiteral("/d/f.txt") << false << 409 << QStringLiteral("target name exists");
        QTest::newRow("onto a folder")
            << QStringLiteral("/d") << true << 409 << QStringLiteral("conflict with folder");
        QTest::newRow("onto a folder without overwrite")
            << QStringLiteral("/d") << false << 409 << QStringLiteral("conflict with folder");
        QTest::newRow("below a file") << QStringLiteral("/d/f.txt/x") << true << 409
                                      << QStringLiteral("parent folder conflict with file");
    }
    void commitRefuses()
    {
        QFETCH(QString, path);
        QFETCH(bool, overwrite);
        QFETCH(int, status);
        QFETCH(QString, code);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/d/f.txt"), someChunks({ 5 }, "f"), 0, false).ok());
        const QStringList before = s.allPaths();
        const qint64 seq = s.drive.lastSeq();

        const Outcome refused = s.drive.commit(Ent, path, someChunks({ 7 }, "other"), 0, overwrite);
        QCOMPARE(refused.status, status);
        QCOMPARE(refused.code, code);
        QCOMPARE(s.allPaths(), before);
        QCOMPARE(s.drive.lastSeq(), seq);
        QCOMPARE(s.drive.find(Ent, QStringLiteral("/d/f.txt"))->rev, qint64(1));
    }

    void moveIntoItselfRefuses_data()
    {
        QTest::addColumn<QString>("to");
        QTest::addColumn<QString>("code");
        QTest::newRow("into itself") << QStringLiteral("/a/x")
                                     << QStringLiteral("parent folder conflict with folder");
        QTest::newRow("deeper into itself")
            << QStringLiteral("/a/b/x/y") << QStringLiteral("parent folder conflict with folder");
        QTest::newRow("onto itself") << QStringLiteral("/a") << QStringLiteral("target name exists");
    }
    void moveIntoItselfRefuses()
    {
        QFETCH(QString, to);
        QFETCH(QString, code);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/a/b/f.txt"), {}, 0, false).ok());
        const QStringList before = s.allPaths();

        const Outcome refused = s.drive.move(Ent, QStringLiteral("/a"), Ent, to, 0);
        QCOMPARE(refused.status, 409);
        QCOMPARE(refused.code, code);
        QCOMPARE(s.allPaths(), before);
    }

    void moveBesideItselfWorks()
    {
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/a/f.txt"), {}, 0, false).ok());
        // "/ab" starts like "/a" but is not below it.
        const Outcome moved = s.drive.move(Ent, QStringLiteral("/a"), Ent, QStringLiteral("/ab"), 0);
        QVERIFY2(moved.ok(), qPrintable(moved.code));
        QCOMPARE(s.allPaths(), (QStringList { QStringLiteral("/ab"), QStringLiteral("/ab/f.txt") }));
    }

    // A live lock of A stands in the way of B's change of the file and of every folder above
    // it; A's own lock does not stop A.
    void lockRefusesAnotherUser_data()
    {
        QTest::addColumn<QString>("op");
        QTest::addColumn<QString>("target");
        for (const char* op : { "remove", "move" }) {
            QTest::addRow("%s the file", op) << QString::fromLatin1(op) << QStringLiteral("/g/p/f.txt");
            QTest::addRow("%s the parent", op) << QString::fromLatin1(op) << QStringLiteral("/g/p");
            QTest::addRow("%s the grandparent", op) << QString::fromLatin1(op) << QStringLiteral("/g");
        }
    }
    void lockRefusesAnotherUser()
    {
        QFETCH(QString, op);
        QFETCH(QString, target);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        const qint64 alice = s.user(QStringLiteral("alice"));
        const qint64 bob = s.user(QStringLiteral("bob"));
        QVERIFY2(alice > 0 && bob > 0, qPrintable(s.error));
        const QString file = QStringLiteral("/g/p/f.txt");
        QVERIFY(s.drive.commit(Ent, file, someChunks({ 1 }, "f"), alice, false).ok());
        const Outcome locked = s.drive.lock(Ent, file, alice, 600);
        QVERIFY2(locked.ok(), qPrintable(locked.code));
        const std::optional<Entry> lockedFile = s.drive.find(Ent, file);
        QCOMPARE(lockedFile->lockOwner, QStringLiteral("alice"));
        QVERIFY(lockedFile->lockExpires > QDateTime::currentSecsSinceEpoch());
        const QStringList before = s.allPaths();

        const auto change = [&](qint64 user) {
            return op == QLatin1String("remove")
                ? s.drive.remove(Ent, target, user)
                : s.drive.move(Ent, target, Ent, QStringLiteral("/moved"), user);
        };
        const Outcome refused = change(bob);
        QCOMPARE(refused.status, 423);
        QCOMPARE(refused.code, QStringLiteral("file is locked"));
        QCOMPARE(refused.extra.value("lock_owner").toString(), QStringLiteral("alice"));
        QCOMPARE(qint64(refused.extra.value("lock_expires").toDouble()), lockedFile->lockExpires);
        QCOMPARE(refused.extra.value("locked_path").toString(), file);
        QCOMPARE(s.allPaths(), before);

        const Outcome done = change(alice);
        QVERIFY2(done.ok(), qPrintable(done.code));
        QVERIFY(!s.exists(file));
    }

    void copyCarriesNoLock()
    {
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        const qint64 alice = s.user(QStringLiteral("alice"));
        const qint64 bob = s.user(QStringLiteral("bob"));
        QVERIFY2(alice > 0 && bob > 0, qPrintable(s.error));
        const QList<ChunkRef> content = someChunks({ 2, 3 }, "c");
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/d/f.txt"), content, alice, false).ok());
        QVERIFY(s.drive.lock(Ent, QStringLiteral("/d/f.txt"), alice, 600).ok());

        const Outcome copied = s.drive.copy(Ent, QStringLiteral("/d"), Ent, QStringLiteral("/e"), bob);
        QVERIFY2(copied.ok(), qPrintable(copied.code));
        const std::optional<Entry> copy = s.drive.find(Ent, QStringLiteral("/e/f.txt"));
        QVERIFY(copy);
        QVERIFY(copy->lockOwner.isEmpty());
        QCOMPARE(copy->lockExpires, qint64(0));
        QCOMPARE(copy->rev, qint64(1));
        QCOMPARE(copy->hash, Drive::contentHash(content));
        QVERIFY(s.drive.chunksOf(copy->neid));
        QCOMPARE(describe(*s.drive.chunksOf(copy->neid)), describe(content));
        QVERIFY(!s.drive.lockAgainst(Ent, QStringLiteral("/e"), bob));

        QVERIFY(s.drive.remove(Ent, QStringLiteral("/e"), bob).ok());
        QCOMPARE(s.drive.find(Ent, QStringLiteral("/d/f.txt"))->lockOwner, QStringLiteral("alice"));
    }

    // ---- the drive: reading ----

    // "/l" holds the folders b (mtime 50) and y (500) and the files a.txt (30 bytes,
    // mtime 300), c.txt (10, 100) and x.txt (20, 200); folders always come first.
    void listOrders_data()
    {
        QTest::addColumn<QString>("orderby");
        QTest::addColumn<QString>("sort");
        QTest::addColumn<QStringList>("names");
        const auto names = [](const char* list) {
            return QString::fromLatin1(list).split(QLatin1Char(' '));
        };
        QTest::newRow("name asc") << "name"
                                  << "asc" << names("b y a.txt c.txt x.txt");
        QTest::newRow("name desc") << "name"
                                   << "desc" << names("y b x.txt c.txt a.txt");
        QTest::newRow("name DESC") << "name"
                                   << "DESC" << names("y b x.txt c.txt a.txt");
        QTest::newRow("mtime asc") << "mtime"
                                   << "asc" << names("b y c.txt x.txt a.txt");
        QTest::newRow("mtime desc") << "mtime"
                                    << "desc" << names("y b a.txt x.txt c.txt");
        QTest::newRow("size asc") << "size"
                                  << "asc" << names("b y c.txt x.txt a.txt");
        QTest::newRow("size desc, folders tie by name") << "size"
                                                        << "desc" << names("b y a.txt x.txt c.txt");
        QTest::newRow("unknown order is by name") << "colour"
                                                  << "asc" << names("b y a.txt c.txt x.txt");
        QTest::newRow("unknown sort is asc") << "name"
                                             << "sideways" << names("b y a.txt c.txt x.txt");
    }
    void listOrders()
    {
        QFETCH(QString, orderby);
        QFETCH(QString, sort);
        QFETCH(QStringList, names);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        fillListFolder(s);
        if (QTest::currentTestFailed())
            return;

        int total = -1;
        const QList<Entry> entries = s.drive.list(Ent, QStringLiteral("/l"), orderby, sort, 0, 0, &total);
        QStringList got;
        for (const Entry& e : entries)
            got << e.json().value("name").toString();
        QCOMPARE(got, names);
        QCOMPARE(total, 5);
    }

    void listPages_data()
    {
        QTest::addColumn<int>("limit");
        QTest::addColumn<int>("offset");
        QTest::addColumn<QStringList>("names");
        const auto names = [](const char* list) {
            return QString::fromLatin1(list).split(QLatin1Char(' '), Qt::SkipEmptyParts);
        };
        QTest::newRow("all") << 0 << 0 << names("b y a.txt c.txt x.txt");
        QTest::newRow("negative limit is all") << -1 << 0 << names("b y a.txt c.txt x.txt");
        QTest::newRow("first two") << 2 << 0 << names("b y");
        QTest::newRow("two from 1") << 2 << 1 << names("y a.txt");
        QTest::newRow("the rest from 3") << 0 << 3 << names("c.txt x.txt");
        QTest::newRow("limit past the end") << 10 << 4 << names("x.txt");
        QTest::newRow("offset at the end") << 1 << 5 << names("");
        QTest::newRow("offset past the end") << 0 << 9 << names("");
        QTest::newRow("negative offset is 0") << 1 << -3 << names("b");
    }
    void listPages()
    {
        QFETCH(int, limit);
        QFETCH(int, offset);
        QFETCH(QStringList, names);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        fillListFolder(s);
        if (QTest::currentTestFailed())
            return;

        int total = -1;
        const QList<Entry> entries
            = s.drive.list(Ent, QStringLiteral("/l"), "name", "asc", limit, offset, &total);
        QStringList got;
        for (const Entry& e : entries)
            got << e.json().value("name").toString();
        QCOMPARE(got, names);
        QCOMPARE(total, 5);
    }

    void listOfTheRoot()
    {
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        fillListFolder(s);
        if (QTest::currentTestFailed())
            return;
        int total = -1;
        QCOMPARE(pathsOf(s.drive.list(Ent, QStringLiteral("/"), "name", "asc", 0, 0, &total)),
            QStringList { QStringLiteral("/l") });
        QCOMPARE(total, 1);
        QCOMPARE(
            s.drive.list(QStringLiteral("self:1"), QStringLiteral("/l"), "name", "asc", 0, 0, &total).size(),
            0);
        QCOMPARE(total, 0);
    }

    void changesCarryTheContentHash()
    {
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        const QList<ChunkRef> first = someChunks({ 4, 6 }, "first");
        const QList<ChunkRef> second = someChunks({ 3 }, "second");
        const qint64 start = s.drive.lastSeq();
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/a/f.txt"), first, 0, false).ok());
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/a/f.txt"), second, 0, true).ok());
        QVERIFY(s.drive.createFile(Ent, QStringLiteral("/a/empty.txt"), 0).ok());
        QVERIFY(s.drive.remove(Ent, QStringLiteral("/a/f.txt"), 0).ok());

        QStringList got;
        for (const Change& c : s.drive.changes(Ent, QStringLiteral("/"), start, 100))
            got << QStringList { c.op, c.entry.path, c.entry.hash, QString::number(c.entry.rev) }.join(
                QLatin1Char(' '));
        const QString h1 = Drive::contentHash(first);
        const QString h2 = Drive::contentHash(second);
        const QString empty = Drive::contentHash({});
        QCOMPARE(got,
            (QStringList { QStringLiteral("create /a  0"), QStringLiteral("create /a/f.txt %1 1").arg(h1),
                QStringLiteral("modify /a/f.txt %1 2").arg(h2),
                QStringLiteral("create /a/empty.txt %1 1").arg(empty),
                QStringLiteral("delete /a/f.txt %1 2").arg(h2) }));
        QCOMPARE(empty, QStringLiteral("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));

        // Below another folder, after a position, and at most `limit`.
        QCOMPARE(s.drive.changes(Ent, QStringLiteral("/b"), start, 100).size(), 0);
        QCOMPARE(s.drive.changes(QStringLiteral("self:1"), QStringLiteral("/"), start, 100).size(), 0);
        const QList<Change> all = s.drive.changes(Ent, QStringLiteral("/a"), start, 100);
        QCOMPARE(all.size(), 5);
        const QList<Change> tail = s.drive.changes(Ent, QStringLiteral("/a"), all[2].seq, 1);
        QCOMPARE(tail.size(), 1);
        QCOMPARE(tail[0].seq, all[3].seq);
        QCOMPARE(s.drive.lastSeq(), all[4].seq);
    }

    void journalIdIsStableUntilClear()
    {
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        const QString id = s.drive.journalId();
        QCOMPARE(id.size(), 16);
        QCOMPARE(s.drive.journalId(), id);
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/f.txt"), {}, 0, false).ok());
        QCOMPARE(s.drive.journalId(), id);

        s.drive.clear();
        const QString cleared = s.drive.journalId();
        QCOMPARE(cleared.size(), 16);
        QVERIFY(cleared != id);
        QCOMPARE(s.drive.journalId(), cleared);
        QCOMPARE(s.drive.lastSeq(), qint64(0));
        QVERIFY(!s.exists(QStringLiteral("/f.txt")));
    }

    void chunksOf_data()
    {
        QTest::addColumn<QString>("path"); // empty: a neid that does not exist
        QTest::addColumn<qint64>("rev");
        QTest::addColumn<bool>("found");
        QTest::addColumn<QStringList>("chunks");
        const QStringList first = describe(someChunks({ 4, 6 }, "first"));
        const QStringList second = describe(someChunks({ 3 }, "second"));
        QTest::newRow("newest") << QStringLiteral("/f.txt") << qint64(0) << true << second;
        QTest::newRow("revision 1") << QStringLiteral("/f.txt") << qint64(1) << true << first;
        QTest::newRow("revision 2") << QStringLiteral("/f.txt") << qint64(2) << true << second;
        QTest::newRow("revision 3") << QStringLiteral("/f.txt") << qint64(3) << false << QStringList();
        QTest::newRow("negative revision is the newest")
            << QStringLiteral("/f.txt") << qint64(-1) << true << second;
        QTest::newRow("empty file") << QStringLiteral("/empty.txt") << qint64(0) << true << QStringList();
        QTest::newRow("a folder") << QStringLiteral("/d") << qint64(0) << false << QStringList();
        QTest::newRow("unknown neid") << QString() << qint64(0) << false << QStringList();
    }
    void chunksOf()
    {
        QFETCH(QString, path);
        QFETCH(qint64, rev);
        QFETCH(bool, found);
        QFETCH(QStringList, chunks);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/f.txt"), someChunks({ 4, 6 }, "first"), 0, false).ok());
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/f.txt"), someChunks({ 3 }, "second"), 0, true).ok());
        QVERIFY(s.drive.createFile(Ent, QStringLiteral("/empty.txt"), 0).ok());
        QVERIFY(s.drive.createFolder(Ent, QStringLiteral("/d"), 0).ok());

        const qint64 neid = path.isEmpty() ? 999999 : s.drive.find(Ent, path)->neid;
        const std::optional<QList<ChunkRef>> got = s.drive.chunksOf(neid, rev);
        QCOMPARE(got.has_value(), found);
        if (found)
            QCOMPARE(describe(*got), chunks);
    }

    // Names outside the BMP are two UTF-16 units in a QString but one character in
    // SQLite: subtree operations must count them alike. "/😀😀" and "/😀x.txt" begin like
    // "/😀" without being below it.
    void pathsOutsideTheBmp_data()
    {
        QTest::addColumn<QString>("op");
        QTest::addColumn<QStringList>("expected");
        const QString e = QStringLiteral("😀");
        const QStringList untouched { "/" + e + e, "/" + e + e + "/k.txt", "/" + e + "x.txt" };
        QTest::newRow("remove") << "remove" << sorted(untouched);
        QTest::newRow("move") << "move"
                              << sorted(untouched + QStringList { "/m", "/m/a.txt", "/m/b", "/m/b/c.txt" });
        QTest::newRow("copy") << "copy"
                              << sorted(untouched
                                     + QStringList { "/" + e, "/" + e + "/a.txt", "/" + e + "/b",
                                         "/" + e + "/b/c.txt", "/c", "/c/a.txt", "/c/b", "/c/b/c.txt" });
        QTest::newRow("below") << "below"
                               << sorted({ "/" + e + "/a.txt", "/" + e + "/b", "/" + e + "/b/c.txt" });
        QTest::newRow("list") << "list" << QStringList { "/" + e + "/b", "/" + e + "/a.txt" };
        QTest::newRow("locked") << "locked"
                                << sorted(untouched
                                       + QStringList { "/" + e, "/" + e + "/a.txt", "/" + e + "/b",
                                           "/" + e + "/b/c.txt" });
        QTest::newRow("changes") << "changes"
                                 << QStringList { "/" + e, "/" + e + "/a.txt", "/" + e + "/b",
                                        "/" + e + "/b/c.txt" };
    }
    void pathsOutsideTheBmp()
    {
        QFETCH(QString, op);
        QFETCH(QStringList, expected);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        const qint64 alice = s.user(QStringLiteral("alice"));
        const qint64 bob = s.user(QStringLiteral("bob"));
        QVERIFY2(alice > 0 && bob > 0, qPrintable(s.error));
        const QString e = QStringLiteral("😀");
        for (const QString& path :
            { "/" + e + "/a.txt", "/" + e + "/b/c.txt", "/" + e + e + "/k.txt", "/" + e + "x.txt" })
            QVERIFY2(s.drive.commit(Ent, path, {}, alice, false).ok(), qPrintable(path));

        const QString folder = "/" + e;
        QStringList got;
        if (op == QLatin1String("remove")) {
            QVERIFY(s.drive.remove(Ent, folder, alice).ok());
            got = s.allPaths();
        } else if (op == QLatin1String("move")) {
            QVERIFY(s.drive.move(Ent, folder, Ent, QStringLiteral("/m"), alice).ok());
            got = s.allPaths();
        } else if (op == QLatin1String("copy")) {
            QVERIFY(s.drive.copy(Ent, folder, Ent, QStringLiteral("/c"), alice).ok());
            got = s.allPaths();
        } else if (op == QLatin1String("below")) {
            got = sorted(pathsOf(s.drive.below(Ent, folder)));
        } else if (op == QLatin1String("list")) {
            int total = -1;
            got = pathsOf(s.drive.list(Ent, folder, "name", "asc", 0, 0, &total));
            QCOMPARE(total, 2);
        } else if (op == QLatin1String("locked")) {
            QVERIFY(s.drive.lock(Ent, folder + "/b/c.txt", alice, 600).ok());
            QCOMPARE(s.drive.remove(Ent, folder, bob).status, 423);
            QCOMPARE(s.drive.move(Ent, folder, Ent, QStringLiteral("/m"), bob).status, 423);
            got = s.allPaths();
        } else if (op == QLatin1String("changes")) {
            for (const Change& c : s.drive.changes(Ent, folder, 0, 100))
                got << c.entry.path;
        }
        QCOMPARE(got, expected);
    }

    // ---- requests as routes read them ----

    void httpPathIsDecodedOnce_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QString>("path");
        QTest::newRow("escaped percent") << QByteArray("/a%2541") << QStringLiteral("/a%41");
        QTest::newRow("escaped space") << QByteArray("/x%20y?q=1") << QStringLiteral("/x y");
        QTest::newRow("plus stays") << QByteArray("/a+b") << QStringLiteral("/a+b");
        QTest::newRow("escaped question mark") << QByteArray("/a%3Fb?c=d") << QStringLiteral("/a?b");
        QTest::newRow("escaped slash") << QByteArray("/a%2Fb") << QStringLiteral("/a/b");
        QTest::newRow("UTF-8") << QByteArray("/%F0%9F%98%80/%C3%A9") << QStringLiteral("/😀/é");
        QTest::newRow("empty query") << QByteArray("/p?") << QStringLiteral("/p");
    }
    void httpPathIsDecodedOnce()
    {
        QFETCH(QByteArray, target);
        QFETCH(QString, path);
        Request request("GET", target);
        HttpCall call(request.request, request.response);
        QCOMPARE(call.path(), path);
        QCOMPARE(call.target(), target);
        QCOMPARE(call.method(), QStringLiteral("GET"));
    }

    void httpItems_data()
    {
        QTest::addColumn<QByteArray>("target");
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("query");
        QTest::addColumn<QString>("form");
        QTest::addColumn<QString>("value");
        QTest::addColumn<bool>("has");
        const QByteArray form = "application/x-www-form-urlencoded";
        QTest::newRow("query keeps a plus")
            << QByteArray("/p?name=a+b") << QByteArray() << QByteArray() << "name"
            << "a+b"
            << ""
            << "a+b" << true;
        QTest::newRow("query escaped plus") << QByteArray("/p?x=%2B") << QByteArray() << QByteArray() << "x"
                                            << "+"
                                            << ""
                                            << "+" << true;
        QTest::newRow("query escaped space")
            << QByteArray("/p?x=a%20b") << QByteArray() << QByteArray() << "x"
            << "a b"
            << ""
            << "a b" << true;
        QTest::newRow("query escaped ampersand")
            << QByteArray("/p?x=a%26b&y=1") << QByteArray() << QByteArray() << "x"
            << "a&b"
            << ""
            << "a&b" << true;
        QTest::newRow("query escaped key")
            << QByteArray("/p?na%6De=v") << QByteArray() << QByteArray() << "name"
            << "v"
            << ""
            << "v" << true;
        QTest::newRow("query first of a repeated key")
            << QByteArray("/p?k=1&k=2") << QByteArray() << QByteArray() << "k"
            << "1"
            << ""
            << "1" << true;
        QTest::newRow("query key without value")
            << QByteArray("/p?flag") << QByteArray() << QByteArray() << "flag"
            << ""
            << ""
            << "" << true;
        QTest::newRow("absent") << QByteArray("/p?a=1") << form << QByteArray("b=2") << "c"
                                << ""
                                << ""
                                << "" << false;
        QTest::newRow("form reads a plus as a space")
            << QByteArray("/p") << form << QByteArray("name=a+b") << "name"
            << ""
            << "a b"
            << "a b" << true;
        QTest::newRow("form escaped plus") << QByteArray("/p") << form << QByteArray("x=%2B") << "x"
                                           << ""
                                           << "+"
                                           << "+" << true;
        QTest::newRow("form with a charset")
            << QByteArray("/p") << form + "; charset=UTF-8" << QByteArray("name=a+b") << "name"
            << ""
            << "a b"
            << "a b" << true;
        QTest::newRow("form before query")
            << QByteArray("/p?name=q") << form << QByteArray("name=f") << "name"
            << "q"
            << "f"
            << "f" << true;
        QTest::newRow("query when the form lacks it")
            << QByteArray("/p?name=q") << form << QByteArray("other=f") << "name"
            << "q"
            << ""
            << "q" << true;
        QTest::newRow("a body of another type is no form")
            << QByteArray("/p?name=q") << QByteArray("application/json") << QByteArray("name=f") << "name"
            << "q"
            << ""
            << "q" << true;
        QTest::newRow("a body without a type is no form")
            << QByteArray("/p") << QByteArray() << QByteArray("name=f") << "name"
            << ""
            << ""
            << "" << false;
    }
    void httpItems()
    {
        QFETCH(QByteArray, target);
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, body);
        QFETCH(QString, key);
        QFETCH(QString, query);
        QFETCH(QString, form);
        QFETCH(QString, value);
        QFETCH(bool, has);
        Request request("POST", target, contentType.isEmpty() ? HeaderList() : formType(contentType));
        HttpCall call(request.request, request.response, body);
        QCOMPARE(call.query(key), query);
        QCOMPARE(call.form(key), form);
        QCOMPARE(call.value(key), value);
        QCOMPARE(call.has(key), has);
    }

    void httpValuesKeepOrder()
    {
        Request request("POST", "/p?hashes[]=3&hashes%5B%5D=4&other=x&hashes[]=", formType());
        HttpCall call(request.request, request.response, "hashes%5B%5D=1&other=y&hashes[]=2+2");
        QCOMPARE(call.values(QStringLiteral("hashes[]")),
            (QStringList { QStringLiteral("1"), QStringLiteral("2 2"), QStringLiteral("3"),
                QStringLiteral("4"), QString() }));
        QCOMPARE(
            call.values(QStringLiteral("other")), (QStringList { QStringLiteral("y"), QStringLiteral("x") }));
        QCOMPARE(call.values(QStringLiteral("missing")), QStringList());
    }

    void httpCookie_data()
    {
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("value");
        QTest::newRow("one") << QStringList { "a=1" } << "a"
                             << "1";
        QTest::newRow("among others")
            << QStringList { "a=1; X-NIMBRA-SESS-ID=abc; b=2" } << "X-NIMBRA-SESS-ID"
            << "abc";
        QTest::newRow("last in a line wins") << QStringList { "s=1; s=2" } << "s"
                                             << "2";
        QTest::newRow("last header wins") << QStringList { "s=1; t=9", "s=3" } << "s"
                                          << "3";
        QTest::newRow("spaces around") << QStringList { "  a=1 ;   b=2  " } << "b"
                                       << "2";
        QTest::newRow("value holding =") << QStringList { "t=a=b" } << "t"
                                         << "a=b";
        QTest::newRow("empty value") << QStringList { "e=" } << "e"
                                     << "";
        QTest::newRow("a longer name is another") << QStringList { "ab=1" } << "a"
                                                  << "";
        QTest::newRow("names keep their case") << QStringList { "A=1" } << "a"
                                               << "";
        QTest::newRow("no cookie") << QStringList() << "a"
                                   << "";
    }
    void httpCookie()
    {
        QFETCH(QStringList, lines);
        QFETCH(QString, name);
        QFETCH(QString, value);
        HeaderList headers { { "Accept", "*/*" } };
        for (const QString& line : lines)
            headers.append({ "Cookie", line.toUtf8() });
        Request request("GET", "/", headers);
        HttpCall call(request.request, request.response);
        QCOMPARE(call.cookie(name), value);
    }

    void httpError_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("code");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QJsonObject>("extra");
        QTest::addColumn<QJsonObject>("expected");
        QTest::newRow("with a message")
            << 404 << "file/folder not found"
            << "no such thing" << QJsonObject()
            << QJsonObject { { "code", "file/folder not found" }, { "message", "no such thing" },
                   { "msgcode", "E404" }, { "state", 404 }, { "type", "error" } };
        QTest::newRow("the message defaults to the code")
            << 409 << "target name exists"
            << "" << QJsonObject()
            << QJsonObject { { "code", "target name exists" }, { "message", "target name exists" },
                   { "msgcode", "E409" }, { "state", 409 }, { "type", "error" } };
        QTest::newRow("with extra fields")
            << 423 << "file is locked"
            << "locked by alice" << QJsonObject { { "lock_owner", "alice" }, { "lock_expires", 1700000000 } }
            << QJsonObject { { "code", "file is locked" }, { "message", "locked by alice" },
                   { "msgcode", "E423" }, { "state", 423 }, { "type", "error" }, { "lock_owner", "alice" },
                   { "lock_expires", 1700000000 } };
    }
    void httpError()
    {
        QFETCH(int, status);
        QFETCH(QString, code);
        QFETCH(QString, message);
        QFETCH(QJsonObject, extra);
        QFETCH(QJsonObject, expected);
        Request request("GET", "/p");
        HttpCall call(request.request, request.response);
        call.error(status, code, message, extra);
        QCOMPARE(request.response.status, status);
        QCOMPARE(request.response.header("Content-Type"), QByteArray("application/json"));
        QJsonParseError parseError;
        const QJsonDocument body = QJsonDocument::fromJson(request.response.body, &parseError);
        QVERIFY2(body.isObject(), qPrintable(parseError.errorString()));
        QCOMPARE(body.object(), expected);
        QCOMPARE(request.response.body, HttpCall::errorBody(status, code, message, extra));
    }

    // ---- change cursors ----

    void cursor_data()
    {
        QTest::addColumn<QString>("cursor");
        QTest::addColumn<qint64>("seq"); // -1: none
        const QString journal = QStringLiteral("0123456789abcdef");
        QTest::newRow("round trip") << DriveRoutes::encodeCursor(journal, 5) << qint64(5);
        QTest::newRow("zero") << DriveRoutes::encodeCursor(journal, 0) << qint64(0);
        QTest::newRow("at the end") << DriveRoutes::encodeCursor(journal, 10) << qint64(10);
        QTest::newRow("past the end") << DriveRoutes::encodeCursor(journal, 11) << qint64(-1);
        QTest::newRow("another journal")
            << DriveRoutes::encodeCursor(QStringLiteral("fedcba9876543210"), 5) << qint64(-1);
        QTest::newRow("empty") << QString() << qint64(-1);
        QTest::newRow("garbage") << QStringLiteral("not a cursor!") << qint64(-1);
        QTest::newRow("negative") << base64Url("nbemu:0123456789abcdef:-1") << qint64(-1);
        QTest::newRow("not a number") << base64Url("nbemu:0123456789abcdef:five") << qint64(-1);
        QTest::newRow("another prefix") << base64Url("other:0123456789abcdef:5") << qint64(-1);
        QTest::newRow("a field more") << base64Url("nbemu:0123456789abcdef:5:6") << qint64(-1);
        QTest::newRow("unencoded") << QStringLiteral("nbemu:0123456789abcdef:5") << qint64(-1);
    }
    void cursor()
    {
        QFETCH(QString, cursor);
        QFETCH(qint64, seq);
        const std::optional<qint64> decoded
            = DriveRoutes::decodeCursor(cursor, QStringLiteral("0123456789abcdef"), 10);
        QCOMPARE(decoded.value_or(-1), seq);
    }

    // ---- shared links ----

    void wrongGuessPausesTheLink()
    {
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        const qint64 alice = s.user(QStringLiteral("alice"));
        QVERIFY2(alice > 0, qPrintable(s.error));
        Links links(s.db, s.drive);
        QString error;
        QVERIFY2(links.create(
                     QStringLiteral("one"), QStringLiteral("pw"), alice, Ent, QStringLiteral("/s1"), &error),
            qPrintable(error));
        QVERIFY2(links.create(
                     QStringLiteral("two"), QStringLiteral("pw"), alice, Ent, QStringLiteral("/s2"), &error),
            qPrintable(error));

        QCOMPARE(links.pausedFor(QStringLiteral("one")), qint64(0));
        QVERIFY(links.wrongGuess(QStringLiteral("one")));
        const qint64 paused = links.pausedFor(QStringLiteral("one"));
        QVERIFY2(paused > 0 && paused <= Links::GuessPauseMs, qPrintable(QString::number(paused)));
        // During the pause another guess does not pause it again.
        QVERIFY(!links.wrongGuess(QStringLiteral("one")));
        QVERIFY(links.pausedFor(QStringLiteral("one")) <= paused);
        QCOMPARE(links.pausedFor(QStringLiteral("two")), qint64(0));

        QTRY_COMPARE_WITH_TIMEOUT(links.pausedFor(QStringLiteral("one")), qint64(0), 3 * Links::GuessPauseMs);
        QVERIFY(links.wrongGuess(QStringLiteral("one")));
        QVERIFY(links.pausedFor(QStringLiteral("one")) > 0);
    }

    // ---- batch tasks ----

    void taskPolls_data()
    {
        QTest::addColumn<int>("polls");
        QTest::addColumn<QJsonArray>("results");
        QTest::addColumn<QStringList>("states");
        const QJsonObject ok { { "path", "/a" }, { "ok", true } };
        const QJsonObject failed { { "path", "/b" }, { "ok", false }, { "code", "file is locked" } };
        QTest::newRow("done after two running")
            << 2 << QJsonArray { ok, ok } << QStringList { "running", "running", "done", "done" };
        QTest::newRow("failed after one running")
            << 1 << QJsonArray { ok, failed } << QStringList { "running", "failed", "failed" };
        QTest::newRow("done at once") << 0 << QJsonArray { ok } << QStringList { "done" };
        QTest::newRow("no results is done") << 0 << QJsonArray() << QStringList { "done" };
    }
    void taskPolls()
    {
        QFETCH(int, polls);
        QFETCH(QJsonArray, results);
        QFETCH(QStringList, states);
        Store s;
        QVERIFY2(s.open(), qPrintable(s.error));
        Tasks tasks(s.db);
        const QString id = tasks.create(1, QStringLiteral("copy"), polls, results);
        QVERIFY(!id.isEmpty());

        for (int i = 0; i < states.size(); ++i) {
            // Another user's polls find nothing and use none up.
            QVERIFY(!tasks.poll(id, 2));
            const std::optional<QJsonObject> state = tasks.poll(id, 1);
            QVERIFY2(state, qPrintable(QStringLiteral("poll %1").arg(i)));
            QJsonObject expected { { "task_id", id }, { "kind", "copy" }, { "state", states[i] } };
            if (states[i] != QLatin1String("running"))
                expected.insert("results", results);
            QCOMPARE(*state, expected);
        }
        QVERIFY(!tasks.poll(QStringLiteral("nosuchtask"), 1));
        tasks.clear();
        QVERIFY(!tasks.poll(id, 1));
    }

private:
    // The folder that listOrders and listPages read; see listOrders.
    void fillListFolder(Store& s)
    {
        QVERIFY(s.drive.createFolder(Ent, QStringLiteral("/l/b"), 0).ok());
        QVERIFY(s.drive.createFolder(Ent, QStringLiteral("/l/y"), 0).ok());
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/l/a.txt"), someChunks({ 30 }, "a"), 0, false).ok());
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/l/c.txt"), someChunks({ 10 }, "c"), 0, false).ok());
        QVERIFY(s.drive.commit(Ent, QStringLiteral("/l/x.txt"), someChunks({ 20 }, "x"), 0, false).ok());
        // Deeper entries are not the folder's own.
        QVERIFY(
            s.drive.commit(Ent, QStringLiteral("/l/b/inner.txt"), someChunks({ 99 }, "i"), 0, false).ok());
        const QList<QPair<QString, qint64>> times { { "/l/b", 50 }, { "/l/y", 500 }, { "/l/a.txt", 300 },
            { "/l/c.txt", 100 }, { "/l/x.txt", 200 } };
        for (const auto& time : times)
            QVERIFY2(s.setModified(time.first, time.second), qPrintable(time.first));
    }
};

NB_TEST_MAIN(TestNBEmuCore)
#include "tst_nbemucore.moc"
