// watch, raw.
#include "Cli.h"
#include "RemotePath.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QUrlQuery>

namespace {

QString changeLine(const QJsonObject& change)
{
    const QString op = change.value("op").toString();
    const QString path = change.value("path").toString();
    if (change.contains("from_path"))
        return QStringLiteral("%1 %2 -> %3").arg(op, change.value("from_path").toString(), path);
    return QStringLiteral("%1 %2%3").arg(
        op, path, change.value("is_dir").toBool() ? QStringLiteral("/") : QString());
}

int watch(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    cli.connect(true);
    const QString path = RemotePath::normalise(args.value(0, QStringLiteral("/")));
    // The cursor is kept per server, account, space and folder, so each watch goes on
    // from where the last one of the same folder stopped.
    const QString key
        = QStringLiteral("%1 %2 %3:%4").arg(cli.settings.server, cli.settings.user, cli.space, path);
    QString cursor = parser.isSet("reset") ? QString() : cli.settings.cursors.value(key).toString();
    const int interval = qMax(1, parser.value("interval").toInt()) * 1000;
    auto model = cli.drive().at<NBServerApiDeltaModel>(path);
    for (;;) {
        model.cursor = cursor;
        const QJsonObject page
            = cli.remote
                  .call(QStringLiteral("read the changes of %1").arg(path),
                      [model](NBCompletionCallback done) { return ServerApi::Delta(model, std::move(done)); })
                  .json;
        if (page.value("reset").toBool())
            cli.console.note(QStringLiteral(
                "the server no longer knows where the last watch stopped: the whole state follows"));
        for (const QJsonValue& value : page.value("entries").toArray()) {
            if (cli.console.json)
                cli.console.outJson(value.toObject());
            else
                cli.console.out(changeLine(value.toObject()));
        }
        cursor = page.value("cursor").toString();
        cli.settings.cursors.insert(key, cursor);
        cli.save();
        if (page.value("has_more").toBool())
            continue;
        if (parser.isSet("once"))
            return 0;
        cli.remote.sleep(interval);
    }
}

int raw(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QString method = args.first().toUpper();
    if (method != QLatin1String("GET") && method != QLatin1String("POST"))
        throw Failure { Exit::Usage, QStringLiteral("raw GET|POST ADDRESS [key=value...]") };
    cli.connect(false);
    QString address = args.at(1);
    if (address.startsWith(QLatin1Char('/')))
        address = cli.settings.server + address;
    QMap<QString, QString> params;
    for (const QString& pair : args.mid(2)) {
        if (!pair.contains(QLatin1Char('=')))
            throw Failure { Exit::Usage, QStringLiteral("\"%1\" is not key=value").arg(pair) };
        params.insert(pair.section(QLatin1Char('='), 0, 0), pair.section(QLatin1Char('='), 1));
    }
    // The generic requests carry no cookie: the session goes as a parameter.
    if (!parser.isSet("no-session") && !cli.settings.session.isEmpty())
        params.insert(QStringLiteral("X-NIMBRA-SESS-ID"), cli.settings.session);
    Remote::Start start;
    if (method == QLatin1String("GET")) {
        QUrl url(address);
        QUrlQuery query(url);
        for (auto it = params.cbegin(); it != params.cend(); ++it)
            query.addQueryItem(it.key(), it.value());
        url.setQuery(query);
        address = url.toString(QUrl::FullyEncoded);
        start = [address](NBCompletionCallback done) {
            return ServerApi::GET(address, std::move(done));
        };
    } else {
        start = [address, params](NBCompletionCallback done) {
            return ServerApi::POST(address, params, std::move(done));
        };
    }
    const Reply reply = cli.remote.fetch(QStringLiteral("%1 %2").arg(method, args.at(1)), start);
    const ResponseData& data = reply.data;
    if (cli.console.json) {
        QJsonObject headers;
        for (auto it = data.headers.cbegin(); it != data.headers.cend(); ++it)
            headers.insert(QString::fromLatin1(it.key()), QString::fromLatin1(it.value()));
        cli.console.outJson(
            QJsonObject { { "status", data.statusCode }, { "network_error", data.networkError },
                { "error", data.errorString }, { "headers", headers }, { "body", data.body } });
    } else {
        cli.console.out(
            QStringLiteral("status: %1\nnetwork error: %2%3")
                .arg(data.statusCode)
                .arg(data.networkError)
                .arg(data.networkError == 0 ? QString() : QStringLiteral(" (%1)").arg(data.errorString)));
        QList<QByteArray> names = data.headers.keys();
        std::sort(names.begin(), names.end());
        for (const QByteArray& name : qAsConst(names))
            cli.console.out(QStringLiteral("%1: %2").arg(
                QString::fromLatin1(name), QString::fromLatin1(data.headers.value(name))));
        cli.console.out(QString());
        cli.console.out(data.body);
    }
    return reply.ok() ? 0 : int(Remote::failureOf(QString(), reply).exit);
}

} // namespace

QList<Command> otherCommands()
{
    return {
        { "watch", "[--once] [PATH]", "Print changes below a folder as they happen.",
            "Follows the change feed from where the last watch of the same folder stopped (the first time: "
            "the whole "
            "state, as creations). One line per change: create, modify, move (FROM -> TO) or delete; with "
            "--json one "
            "JSON object per line. Ctrl-C ends it.\n\n  nbcli watch --once /docs\n  nbcli watch --json / | "
            "jq -c .",
            { { "once", "Print what is pending and exit." },
                { "interval", "Poll every S seconds (default 2).", "S", "2" },
                { "reset", "Start from the whole state again." } },
            0, 1, watch },
        { "raw", "GET|POST ADDRESS [key=value...]", "Send a generic request and print the whole record.",
            "ADDRESS may be a path on the server (\"/v2/region/get\"). The pairs go in the query of a GET or "
            "the form of a "
            "POST, with the session (as \"X-NIMBRA-SESS-ID\") unless --no-session.\n\n"
            "  nbcli raw GET /v2/user/info/get\n  nbcli raw POST /v2/log/logging action=open --json",
            { { "no-session", "Send the request without the session." } }, 2, -1, raw },
    };
}
