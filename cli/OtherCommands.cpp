// watch, raw, completion.
#include "Cli.h"
#include "Completion.h"
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
        return op + QLatin1Char(' ') + change.value("from_path").toString() + QStringLiteral(" -> ") + path;
    return op + QLatin1Char(' ') + path + (change.value("is_dir").toBool() ? QStringLiteral("/") : QString());
}

void watch(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QString path = RemotePath::normalise(args.value(0, QStringLiteral("/")));
    // The cursor is kept per server, account, space and folder, so each watch goes on
    // from where the last one of the same folder stopped.
    const QString key = cli.settings.server + QLatin1Char(' ') + cli.settings.user + QLatin1Char(' ')
        + cli.space + QLatin1Char(':') + path;
    QString cursor = parser.isSet("reset") ? QString() : cli.settings.cursors.value(key).toString();
    const int interval = *Options::durationMs(parser.value("interval"));
    cli.output.beginStream();
    if (!cli.drive().entry(path).dir)
        throw Failure(Exit::Usage, QStringLiteral("%1 is a file: watch follows folders").arg(path));
    auto model = cli.drive().at<NBServerApiDeltaModel>(path);
    for (;;) {
        model.cursor = cursor;
        const QJsonObject page
            = cli.runner
                  .call(QStringLiteral("read the changes of %1").arg(path),
                      [model](NBCompletionCallback done) { return ServerApi::Delta(model, std::move(done)); })
                  .json;
        if (page.value("reset").toBool())
            cli.output.note(QStringLiteral(
                "the server no longer knows where the last watch stopped: the whole state follows"));
        for (const QJsonValue& value : page.value("entries").toArray()) {
            const QJsonObject change = value.toObject();
            QJsonObject item = RemoteEntry::fromJson(change).report(change.value("path").toString());
            item.insert("op", change.value("op").toString());
            if (change.contains("from_path"))
                item.insert("from_path", change.value("from_path").toString());
            cli.output.stream(item, changeLine(change));
        }
        cursor = page.value("cursor").toString();
        cli.settings.cursors.insert(key, cursor);
        cli.save();
        if (page.value("has_more").toBool())
            continue;
        if (parser.isSet("once"))
            return;
        cli.runner.sleep(interval);
    }
}

// Scheme, host and port: where a session may go.
QString originOf(const QUrl& url)
{
    return url.scheme().toLower() + QStringLiteral("://") + url.host().toLower() + QLatin1Char(':')
        + QString::number(url.port(url.scheme().toLower() == QLatin1String("https") ? 443 : 80));
}

void raw(Cli& cli, const QCommandLineParser& parser, const QStringList& args)
{
    const QString method = args.first().toUpper();
    if (method != QLatin1String("GET") && method != QLatin1String("POST"))
        throw Failure(Exit::Usage, QStringLiteral("usage: nbcli raw GET|POST ADDRESS [key=value...]"));
    QString address = args.at(1);
    if (address.startsWith(QLatin1Char('/')))
        address = cli.settings.server + address;
    const QUrl url(address);
    if (!url.isValid() || url.host().isEmpty())
        throw Failure(Exit::Usage,
            QStringLiteral("\"%1\" is neither a path on the server nor an address").arg(args.at(1)));
    QList<QPair<QString, QString>> params;
    for (const QString& pair : args.mid(2)) {
        if (!pair.contains(QLatin1Char('=')))
            throw Failure(Exit::Usage, QStringLiteral("\"%1\" is not key=value").arg(pair));
        params.append({ pair.section(QLatin1Char('='), 0, 0), pair.section(QLatin1Char('='), 1) });
    }
    // The generic requests carry no cookie: the session goes as a parameter, and only to
    // the server it belongs to.
    const bool ownServer = originOf(url) == originOf(QUrl(cli.settings.server));
    if (!parser.isSet("no-session") && !cli.settings.session.isEmpty()) {
        if (ownServer)
            params.append({ QStringLiteral("X-NIMBRA-SESS-ID"), cli.settings.session });
        else
            cli.output.note(QStringLiteral("%1 is not the signed-in server: sent without the session")
                                .arg(originOf(url)));
    }
    RequestRunner::Start start;
    if (method == QLatin1String("GET")) {
        QUrl withQuery(url);
        QUrlQuery query(withQuery);
        for (const auto& pair : qAsConst(params))
            query.addQueryItem(QString::fromLatin1(QUrl::toPercentEncoding(pair.first)),
                QString::fromLatin1(QUrl::toPercentEncoding(pair.second)));
        withQuery.setQuery(query);
        const QString full = withQuery.toString(QUrl::FullyEncoded);
        start = [full](NBCompletionCallback done) {
            return ServerApi::GET(full, std::move(done));
        };
    } else {
        QMap<QString, QString> form;
        for (const auto& pair : qAsConst(params))
            form.insert(pair.first, pair.second);
        start = [address, form](NBCompletionCallback done) {
            return ServerApi::POST(address, form, std::move(done));
        };
    }
    const Reply reply = cli.runner.fetch(QStringLiteral("%1 %2").arg(method, args.at(1)), start);
    const ResponseData& data = reply.data;
    // What is printed never shows a secret, a session the server sent included.
    QJsonObject headers;
    QString headerText;
    QList<QByteArray> names = data.headers.keys();
    std::sort(names.begin(), names.end());
    for (const QByteArray& name : qAsConst(names)) {
        const QString value = Console::redacted(
            QString::fromLatin1(name) + QStringLiteral(": ") + QString::fromLatin1(data.headers.value(name)))
                                  .mid(name.size() + 2);
        headers.insert(QString::fromLatin1(name), value);
        headerText += QString::fromLatin1(name) + QStringLiteral(": ") + value + QLatin1Char('\n');
    }
    const QString body = Console::redacted(data.body);
    const QString errorString = Console::redacted(data.errorString);
    const QJsonObject record { { "status", data.statusCode }, { "network_error", data.networkError },
        { "error", errorString }, { "headers", headers }, { "body", body } };
    const QString text = QStringLiteral("status: ") + QString::number(data.statusCode)
        + QStringLiteral("\nnetwork error: ") + QString::number(data.networkError)
        + (data.networkError == 0 ? QString() : QStringLiteral(" (") + errorString + QLatin1Char(')'))
        + QLatin1Char('\n') + headerText + QLatin1Char('\n') + body;
    if (reply.ok())
        return cli.output.result(record, text);
    if (!cli.console.json)
        cli.console.out(text);
    cli.output.failed(
        record, RequestRunner::failureOf(QStringLiteral("%1 %2").arg(method, args.at(1)), reply));
}

void completion(Cli& cli, const QCommandLineParser&, const QStringList& args)
{
    const QString script = Completion::script(args.first());
    if (script.isEmpty())
        throw Failure(
            Exit::Usage, QStringLiteral("completion is for bash or zsh, not \"%1\"").arg(args.first()));
    cli.console.out(script.chopped(1));
}

} // namespace

QList<Command> otherCommands()
{
    return {
        { "watch", "[--once] [PATH]", "Print changes below a folder as they happen.",
            "Follows the change feed from where the last watch of the same folder stopped (the first time: "
            "the whole state, "
            "as creations). One line per change: create, modify, move (FROM -> TO) or delete; with --json "
            "one JSON object per "
            "line. Ctrl-C ends it.\n\n  nbcli watch --once /docs\n  nbcli watch --json / | jq -c .",
            { OptionSpec::flag({ "once" }, "Print what is pending and exit."),
                OptionSpec::value(
                    { "interval" }, "Poll every S seconds (default 2).", "S", OptionSpec::Duration, "2"),
                OptionSpec::flag({ "reset" }, "Start from the whole state again.") },
            0, 1, Needs::Session, watch, Operands::Remote },
        { "raw", "GET|POST ADDRESS [key=value...]", "Send a generic request and print the whole record.",
            "ADDRESS may be a path on the server (\"/v2/region/get\"). The pairs go in the query of a GET or "
            "the form of a "
            "POST, with the session (as \"X-NIMBRA-SESS-ID\") when ADDRESS is on the signed-in server (never "
            "to another), "
            "unless --no-session. Sessions, tokens, codes and passwords in the reply are shown as ***(N).\n\n"
            "  nbcli raw GET /v2/user/info/get\n  nbcli raw POST /v2/log/logging action=open --json",
            { OptionSpec::flag({ "no-session" }, "Send the request without the session.") }, 2, -1,
            Needs::Server, raw, Operands::None, { "GET", "POST" } },
        { "completion", "bash|zsh", "Print the shell completion script.",
            "Completes commands, options, their values, local paths, and remote paths from the signed-in "
            "profile (a listing of the folder typed, given up after 3 seconds). make install puts both "
            "scripts where bash-completion and zsh look; without it:\n\n"
            "  source <(nbcli completion bash)                  # in ~/.bashrc\n"
            "  nbcli completion zsh > ~/.zfunc/_nbcli           # with fpath+=(~/.zfunc) before compinit",
            {}, 1, 1, Needs::Nothing, completion, Operands::None, { "bash", "zsh" } },
    };
}
