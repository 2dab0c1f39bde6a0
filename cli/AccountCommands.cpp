// login, logout, whoami.
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

QString ask(Cli& cli, const char* variable, const QString& prompt)
{
    const QString given = environment(variable);
    return given.isEmpty() ? cli.console.readLine(prompt) : given;
}

// The second factor of a sign-in that asked for one; the session it gives.
QString secondFactor(Cli& cli, const QCommandLineParser& parser, const QJsonObject& challenge)
{
    const QString tfaId = challenge.value("tfa_id").toString();
    QString method = parser.value("tfa");
    const QJsonArray offered = challenge.value("methods").toArray();
    if (method.isEmpty())
        method = offered.isEmpty() ? QStringLiteral("otp") : offered.first().toString();
    Remote& remote = cli.remote;
    if (method == QLatin1String("otp")) {
        const QString otp = ask(cli, "NB_OTP", QStringLiteral("one-time password: "));
        return sessionOf(
            remote.call(QStringLiteral("sign in with the one-time password"), [=](NBCompletionCallback done) {
                return ServerApi::DyncCodeLogin(tfaId, otp, std::move(done));
            }));
    }
    if (method == QLatin1String("sms")) {
        const QString mobile = parser.isSet("mobile")
            ? parser.value("mobile")
            : ask(cli, "NB_MOBILE", QStringLiteral("mobile number: "));
        remote.call(QStringLiteral("send the SMS code"), [=](NBCompletionCallback done) {
            return ServerApi::SendSmsCode(mobile, tfaId, QStringLiteral("tfa"), QString(), QString(),
                QString(), QString(), std::move(done));
        });
        const QString code = ask(cli, "NB_SMS_CODE", QStringLiteral("code sent to %1: ").arg(mobile));
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
        const QDeadlineTimer deadline(parser.value("qr-timeout").toInt() * 1000);
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

int login(Cli& cli, const QCommandLineParser& parser, const QStringList&)
{
    if (cli.settings.server.isEmpty())
        throw Failure { Exit::Usage, QStringLiteral("give the server: nbcli login --server URL") };
    cli.settings.server = Cli::withScheme(cli.settings.server);
    QString user = parser.isSet("user") ? parser.value("user") : environment("NB_USER");
    if (user.isEmpty())
        user = cli.console.readLine(QStringLiteral("user: "));
    QString password = environment("NB_PASSWORD");
    if (parser.isSet("password-stdin"))
        password = cli.console.readLine(QString());
    else if (password.isEmpty())
        password = cli.console.readSecret(QStringLiteral("password for %1: ").arg(user));

    cli.settings.session.clear();
    cli.connect(false);
    NBServerApiLoginModel model;
    model.kind = 2;
    model.userName = user;
    model.password = password;
    model.deviceName = QSysInfo::machineHostName();
    model.deviceUuid = cli.settings.deviceUuid;
    const QString what = QStringLiteral("sign in to %1 as %2").arg(cli.settings.server, user);
    const Reply reply = cli.remote.fetch(
        what, [model](NBCompletionCallback done) { return ServerApi::Login(model, std::move(done)); });
    QString session;
    if (reply.ok())
        session = sessionOf(reply);
    else if (reply.json.value("code").toString() == QLatin1String("tfa required"))
        session = secondFactor(cli, parser, reply.json);
    else
        throw Remote::failureOf(what, reply);
    if (session.isEmpty())
        throw Failure { Exit::Refused, QStringLiteral("%1: the reply holds no session").arg(what) };

    cli.settings.user = user;
    cli.settings.session = session;
    cli.save();
    if (cli.console.json)
        cli.console.outJson(QJsonObject {
            { "server", cli.settings.server }, { "type", cli.settings.type }, { "user", user } });
    else
        cli.console.out(QStringLiteral("signed in to %1 as %2 (%3)")
                            .arg(cli.settings.server, user, Config::typeName(cli.settings.type)));
    return 0;
}

int logout(Cli& cli, const QCommandLineParser&, const QStringList&)
{
    const QString server = cli.settings.server;
    cli.settings.session.clear();
    cli.save();
    if (cli.console.json)
        cli.console.outJson(QJsonObject { { "server", server }, { "signed_in", false } });
    else
        cli.console.out(QStringLiteral("signed out of %1 (the session is forgotten here)").arg(server));
    return 0;
}

int whoami(Cli& cli, const QCommandLineParser&, const QStringList&)
{
    cli.connect(true);
    QJsonObject info
        = cli.remote
              .call(QStringLiteral("read the account"),
                  [](NBCompletionCallback done) { return ServerApi::UserInfo({}, std::move(done)); })
              .json;
    info.insert("server", cli.settings.server);
    info.insert("type", cli.settings.type);
    if (cli.console.json)
        cli.console.outJson(info);
    else
        cli.console.out(QStringLiteral("%1 on %2 (%3)")
                            .arg(info.value("user").toString(cli.settings.user), cli.settings.server,
                                Config::typeName(cli.settings.type)));
    return 0;
}

} // namespace

QList<Command> accountCommands()
{
    return {
        { "login", "[--user NAME] [--tfa otp|sms|qr]", "Sign in and keep the session.",
            "The password comes from a prompt without echo, from standard input with --password-stdin, or "
            "from "
            "NB_PASSWORD; never from an argument. A bare host (\"drive.example:8443\") gets the scheme that "
            "answers, "
            "https first. A second factor, when the server asks for one: a one-time password (NB_OTP or a "
            "prompt), an "
            "SMS code (--mobile, then NB_SMS_CODE or a prompt) or a QR code to scan, polled until "
            "approved.\n\n"
            "  nbcli login --server http://127.0.0.1:8080 --type cloud --user alice\n"
            "  printf '%s\\n' \"$PW\" | nbcli login --server drive.example --user alice --password-stdin",
            { { "user", "The account to sign in as (or NB_USER).", "NAME" },
                { "password-stdin", "Read the password from the first line of standard input." },
                { "tfa", "The second factor to use: otp (default), sms or qr.", "METHOD" },
                { "mobile", "The mobile number for --tfa sms (or NB_MOBILE).", "NUMBER" },
                { "qr-timeout", "Give up waiting for the QR approval after S seconds (default 300).", "S",
                    "300" } },
            0, 0, login },
        { "logout", "", "Forget the stored session.", "  nbcli logout", {}, 0, 0, logout },
        { "whoami", "", "Show the signed-in account.", "  nbcli whoami --json", {}, 0, 0, whoami },
    };
}
