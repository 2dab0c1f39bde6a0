// login, logout, whoami, profile.
#include "Cli.h"

#include <NBBaseParse.h>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QProcessEnvironment>
#include <QSysInfo>

namespace {

QString environment(const char* name)
{
    return QProcessEnvironment::systemEnvironment().value(QLatin1String(name));
}

QString sessionOf(const Reply& reply)
{
    NBBaseParse reading;
    reading.ParseResp(reply.data);
    return reading.sessiondId();
}

// A value from its variable, else from a prompt on a terminal, else (where `fromPipe`)
// from a line of standard input; without any, a usage error naming them: nothing is
// ever sent empty.
QString ask(Cli& cli, const char* variable, const QString& what, bool secret = false, bool fromPipe = false)
{
    const QString given = environment(variable);
    if (!given.isEmpty())
        return given;
    QString typed;
    if (cli.console.stdinIsTerminal())
        typed = secret ? cli.console.readSecret(what + QStringLiteral(": "))
                       : cli.console.readLine(what + QStringLiteral(": "));
    else if (fromPipe)
        typed = cli.console.readLine(QString());
    if (typed.isEmpty())
        throw Failure(Exit::Usage,
            QStringLiteral("no %1: give %2%3, or run on a terminal to be asked; nothing was sent")
                .arg(what, QLatin1String(variable),
                    fromPipe ? QStringLiteral(" or a line of standard input") : QString()));
    return typed;
}

// The second factor of a sign-in that asked for one; the session it gives.
QString secondFactor(Cli& cli, const QCommandLineParser& parser, const QJsonObject& challenge)
{
    const QString tfaId = challenge.value("tfa_id").toString();
    QString method = parser.value("tfa");
    const QJsonArray offered = challenge.value("methods").toArray();
    if (method.isEmpty())
        method = offered.isEmpty() ? QStringLiteral("otp") : offered.first().toString();
    RequestRunner& remote = cli.runner;
    if (method == QLatin1String("otp")) {
        const QString otp = ask(cli, "NB_OTP", QStringLiteral("one-time password"), true, true);
        return sessionOf(
            remote.call(QStringLiteral("sign in with the one-time password"), [=](NBCompletionCallback done) {
                return ServerApi::DyncCodeLogin(tfaId, otp, std::move(done));
            }));
    }
    if (method == QLatin1String("sms")) {
        const QString mobile = parser.isSet("mobile")
            ? parser.value("mobile")
            : ask(cli, "NB_MOBILE", QStringLiteral("mobile number"));
        remote.call(QStringLiteral("send the SMS code"), [=](NBCompletionCallback done) {
            return ServerApi::SendSmsCode(mobile, tfaId, QStringLiteral("tfa"), QString(), QString(),
                QString(), QString(), std::move(done));
        });
        const QString code = ask(cli, "NB_SMS_CODE", QStringLiteral("code sent to ") + mobile, true, true);
        return sessionOf(
            remote.call(QStringLiteral("sign in with the SMS code"), [=](NBCompletionCallback done) {
                return ServerApi::SmsCodeLogin(tfaId, code, std::move(done));
            }));
    }
    if (method == QLatin1String("qr")) {
        const QString picture
            = remote
                  .call(QStringLiteral("get the sign-in QR code"),
                      [](NBCompletionCallback done) { return ServerApi::GetQRCode(200, std::move(done)); })
                  .json.value("qrcode")
                  .toString();
        const QString file = Config::directory() + QStringLiteral("/login-qr.png");
        QDir().mkpath(Config::directory());
        QFile png(file);
        if (!png.open(QIODevice::WriteOnly)
            || png.write(QByteArray::fromBase64(picture.section(QLatin1Char(','), 1).toLatin1())) < 0)
            throw Failure { Exit::Local, QStringLiteral("cannot write %1: %2").arg(file, png.errorString()) };
        png.close();
        cli.console.note(QStringLiteral(
            "Scan the QR code in %1 with the drive's phone app; waiting for approval (Ctrl-C stops).")
                             .arg(file));
        const NBServerApiLoginStateModel state { tfaId, QSysInfo::machineHostName(),
            cli.settings.deviceUuid };
        const QDeadlineTimer deadline(*Options::durationMs(parser.value("qr-timeout")));
        for (;;) {
            const QJsonObject answer = remote
                                           .call(QStringLiteral("ask whether the QR code was approved"),
                                               [=](NBCompletionCallback done) {
                                                   return ServerApi::GetLoginState(state, std::move(done));
                                               })
                                           .json;
            if (answer.value("state").toString() == QLatin1String("done")) {
                QFile::remove(file);
                return answer.value("X-NIMBRA-SESS-ID").toString();
            }
            if (deadline.hasExpired())
                throw Failure { Exit::Refused,
                    QStringLiteral("the QR code was not approved in time; run nbcli login again") };
            remote.sleep(1000);
        }
    }
    throw Failure { Exit::Usage,
        QStringLiteral("unknown second factor \"%1\" (otp, sms or qr)").arg(method) };
}

void login(Cli& cli, const QCommandLineParser& parser, const QStringList&)
{
    if (cli.settings.server.isEmpty())
        throw Failure(Exit::Usage, QStringLiteral("give the server: nbcli login --server URL"));
    // Every credential is at hand before anything is sent.
    const QString user
        = parser.isSet("user") ? parser.value("user") : ask(cli, "NB_USER", QStringLiteral("user"));
    QString password;
    if (parser.isSet("password-stdin"))
        password = cli.console.readLine(QString());
    else if (!cli.console.stdinIsTerminal() && environment("NB_PASSWORD").isEmpty())
        throw Failure(Exit::Usage,
            QStringLiteral(
                "no password for %1: give --password-stdin or NB_PASSWORD, or run on a terminal to be "
                "asked; nothing was sent")
                .arg(user));
    else
        password = ask(cli, "NB_PASSWORD", QStringLiteral("password for ") + user, true);
    if (user.isEmpty() || password.isEmpty())
        throw Failure(Exit::Usage, QStringLiteral("an empty user name or password is never sent"));

    cli.settings.session.clear();
    cli.connect(false);
    NBServerApiLoginModel model;
    model.kind = 2;
    model.userName = user;
    model.password = password;
    model.deviceName = QSysInfo::machineHostName();
    model.deviceUuid = cli.settings.deviceUuid;
    const QString what = QStringLiteral("sign in to %1 as %2").arg(cli.settings.server, user);
    const Reply reply = cli.runner.fetch(
        what, [model](NBCompletionCallback done) { return ServerApi::Login(model, std::move(done)); });
    QString session;
    if (reply.ok())
        session = sessionOf(reply);
    else if (reply.json.value("code").toString() == QLatin1String("tfa required"))
        session = secondFactor(cli, parser, reply.json);
    else
        throw RequestRunner::failureOf(what, reply);
    if (session.isEmpty())
        throw Failure(Exit::Refused, QStringLiteral("%1: the reply holds no session").arg(what));

    // The session, and the TLS choices that reached the server, kept for the next runs.
    cli.settings.user = user;
    cli.settings.session = session;
    cli.settings.caFile = cli.caFile;
    cli.settings.insecure = cli.insecure;
    cli.save();
    cli.output.done(
        QJsonObject { { "server", cli.settings.server }, { "type", cli.settings.type }, { "user", user } },
        QStringLiteral("signed in to %1 as %2 (%3)")
            .arg(cli.settings.server, user, Config::typeName(cli.settings.type)));
}

void logout(Cli& cli, const QCommandLineParser&, const QStringList&)
{
    const QString server = cli.settings.server;
    cli.settings.session.clear();
    cli.save();
    // The library offers no sign-out request: the server's session lasts until it expires.
    cli.output.done(QJsonObject { { "server", server }, { "ended_on_server", false } },
        QStringLiteral("signed out here: the session is forgotten on this machine; the server has no "
                       "sign-out, so its session "
                       "ends when it expires"));
}

void whoami(Cli& cli, const QCommandLineParser&, const QStringList&)
{
    const QJsonObject info
        = cli.runner
              .call(QStringLiteral("read the account"),
                  [](NBCompletionCallback done) { return ServerApi::UserInfo({}, std::move(done)); })
              .json;
    const QString user = info.value("user").toString(cli.settings.user);
    cli.output.result(QJsonObject { { "user", user }, { "uid", info.value("uid").toVariant().toString() },
                          { "server", cli.settings.server }, { "type", cli.settings.type } },
        QStringLiteral("%1 on %2 (%3)").arg(user, cli.settings.server, Config::typeName(cli.settings.type)));
}

QJsonObject profileJson(const QString& name, const Settings& settings, bool current)
{
    return QJsonObject { { "profile", name }, { "current", current }, { "server", settings.server },
        { "type", settings.type }, { "user", settings.user }, { "signed_in", !settings.session.isEmpty() },
        { "cacert", settings.caFile }, { "insecure", settings.insecure }, { "file", Config::file(name) } };
}

QString profileLine(const QString& name, const Settings& settings, bool current)
{
    const QString who = settings.server.isEmpty()
        ? QStringLiteral("no server")
        : QStringLiteral("%1 on %2 (%3)%4")
              .arg(settings.user.isEmpty() ? QStringLiteral("-") : settings.user, settings.server,
                  Config::typeName(settings.type),
                  settings.session.isEmpty() ? QStringLiteral(", signed out") : QString());
    return (current ? QStringLiteral("* ") : QStringLiteral("  ")) + name.leftJustified(12) + QLatin1Char(' ')
        + who;
}

// The session itself is never shown: "signed_in" says whether there is one.
void profile(Cli& cli, const QCommandLineParser&, const QStringList& args)
{
    const QString action = args.first();
    const QString name = args.value(1, action == QLatin1String("show") ? cli.profile : QString());
    if ((action == QLatin1String("list") && args.size() != 1)
        || (action == QLatin1String("remove") && args.size() != 2)
        || (action != QLatin1String("list") && action != QLatin1String("show")
            && action != QLatin1String("remove")))
        throw Failure(Exit::Usage,
            QStringLiteral(
                "usage: nbcli profile list | show [NAME] | remove NAME (nbcli profile --help explains)"));
    if (action == QLatin1String("list")) {
        for (const QString& each : Config::profiles()) {
            QString error;
            const Settings settings = Config::load(each, &error);
            QJsonObject item = profileJson(each, settings, each == cli.profile);
            QString line = profileLine(each, settings, each == cli.profile);
            // A file that cannot be read is listed, and said to be damaged.
            if (!error.isEmpty()) {
                item.insert("damaged", error);
                line = (each == cli.profile ? QStringLiteral("* ") : QStringLiteral("  "))
                    + each.leftJustified(12) + QStringLiteral(" damaged: ") + error;
            }
            cli.output.result(item, line);
        }
        return;
    }
    if (!Config::isProfileName(name))
        throw Failure(Exit::Usage,
            QStringLiteral("\"%1\" is no profile name (nbcli profile list shows them)").arg(name));
    if (!QFile::exists(Config::file(name)))
        throw Failure(Exit::Usage,
            QStringLiteral("no profile \"%1\" (nbcli profile list shows them)").arg(name),
            QStringLiteral("not found"));
    QString error;
    if (action == QLatin1String("remove")) {
        if (!Config::remove(name, &error))
            throw Failure(Exit::Local, error);
        cli.output.done(QJsonObject { { "profile", name } },
            QStringLiteral("removed profile %1 (a session on the server ends when it expires)").arg(name));
        return;
    }
    const Settings settings = Config::load(name, &error);
    if (!error.isEmpty())
        throw Failure(Exit::Local, error);
    QJsonObject item = profileJson(name, settings, name == cli.profile);
    QStringList lines { QStringLiteral("profile    %1%2")
                            .arg(name, name == cli.profile ? QStringLiteral(" (current)") : QString()),
        QStringLiteral("file       %1").arg(Config::file(name)),
        QStringLiteral("server     %1").arg(settings.server),
        QStringLiteral("type       %1 (%2)").arg(settings.type).arg(Config::typeName(settings.type)),
        QStringLiteral("user       %1").arg(settings.user),
        QStringLiteral("signed in  %1")
            .arg(settings.session.isEmpty() ? QStringLiteral("no") : QStringLiteral("yes")),
        QStringLiteral("tls        %1")
            .arg(settings.insecure ? QStringLiteral("not verified (--insecure)")
                    : settings.caFile.isEmpty()
                    ? QStringLiteral("the system's CAs")
                    : QStringLiteral("the system's CAs and ") + settings.caFile) };
    cli.output.result(item, lines.join(QLatin1Char('\n')));
}

} // namespace

QList<Command> accountCommands()
{
    return {
        { "login", "[--user NAME] [--tfa otp|sms|qr]", "Sign in and keep the session.",
            "The password comes from standard input with --password-stdin, from NB_PASSWORD, or from a "
            "prompt without echo "
            "on a terminal; never from an argument, and never empty: without a source, nothing is sent. A "
            "bare host "
            "(\"drive.example:8443\") gets the scheme that answers, https first. --cacert and --insecure "
            "given here stay "
            "with the session. A second factor, when the server asks for one: a one-time password (NB_OTP or "
            "a prompt), an "
            "SMS code (--mobile, then NB_SMS_CODE or a prompt) or a QR code to scan, polled until "
            "approved.\n\n"
            "  nbcli login --server http://127.0.0.1:8080 --type cloud --user alice\n"
            "  printf '%s\\n' \"$PW\" | nbcli login --server drive.example --user alice --password-stdin",
            { OptionSpec::value(
                  { "user" }, "The account to sign in as (or NB_USER).", "NAME", OptionSpec::Text),
                OptionSpec::flag(
                    { "password-stdin" }, "Read the password from the first line of standard input."),
                OptionSpec::choice({ "tfa" }, "The second factor to use: otp (default), sms or qr.", "METHOD",
                    { "otp", "sms", "qr" }),
                OptionSpec::value({ "mobile" }, "The mobile number for --tfa sms (or NB_MOBILE).", "NUMBER",
                    OptionSpec::Text),
                OptionSpec::value({ "qr-timeout" },
                    "Give up waiting for the QR approval after S seconds (default 300).", "S",
                    OptionSpec::Duration, "300") },
            0, 0, Needs::Nothing, login },
        { "logout", "", "Forget the stored session.", "  nbcli logout", {}, 0, 0, Needs::Nothing, logout },
        { "whoami", "", "Show the signed-in account.", "  nbcli whoami --json", {}, 0, 0, Needs::Session,
            whoami },
        { "profile", "list | show [NAME] | remove NAME", "List, show or remove the stored sign-ins.",
            "A profile keeps one server, deployment type, user, session and TLS choices. The global option "
            "--profile NAME (or NB_PROFILE) picks the one a command uses and that login fills; without "
            "either, \"default\". show names the current profile without NAME; the session itself is never "
            "printed. remove forgets a profile on this machine.\n\n"
            "  nbcli --profile work login --server https://drive.example --user alice\n"
            "  NB_PROFILE=work nbcli ls /\n"
            "  nbcli profile list\n"
            "  nbcli profile remove work",
            {}, 1, 2, Needs::Nothing, profile, Operands::Profiles, { "list", "show", "remove" } },
    };
}
