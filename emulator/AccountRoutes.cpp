#include "AccountRoutes.h"

#include "Png.h"

#include <QDateTime>
#include <httplib.h>

namespace {

const int FlowSeconds = 600;

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

} // namespace

AccountRoutes::AccountRoutes(EmuContext& context)
    : m_context(context)
{
}

void AccountRoutes::signedIn(HttpCall& call, const User& user)
{
    const QString session = m_context.accounts.openSession(user.id);
    call.response().set_header("Set-Cookie", QStringLiteral("X-NIMBRA-SESS-ID=%1; Path=/").arg(session).toStdString());
    call.json(QJsonObject { { "X-NIMBRA-SESS-ID", session }, { "user", user.name }, { "uid", QString::number(user.id) } });
}

void AccountRoutes::login(HttpCall& call, const QString& name, const QString& password, const QString& loginType)
{
    if (loginType == QLatin1String("quick")) {
        // The SMS code of a quick-login session stands for the password.
        const std::optional<User> user = m_context.accounts.userByName(name);
        const std::optional<Flow> flow = user ? m_context.accounts.flow(QStringLiteral("quick-sms:") + name, "quick-sms")
                                              : std::nullopt;
        if (!flow || flow->secret != password)
            return call.error(401, QStringLiteral("invalid verification code"));
        m_context.accounts.endFlow(flow->id);
        return signedIn(call, *user);
    }
    const std::optional<User> user = m_context.accounts.checkPassword(name, password);
    if (!user)
        return call.error(401, QStringLiteral("invalid username or password"));
    if (user->tfa && m_context.options.type == 1) {
        const QString tfaId = m_context.accounts.startFlow("tfa", user->id, "pending", QString(), FlowSeconds);
        return call.json(QJsonObject { { "code", "tfa required" }, { "message", "a second factor is required" },
                             { "tfa_id", tfaId }, { "methods", QJsonArray { "otp", "sms", "qrcode" } } },
            401);
    }
    signedIn(call, *user);
}

std::optional<Flow> AccountRoutes::tfaFlow(HttpCall& call)
{
    const std::optional<Flow> flow = m_context.accounts.flow(call.cookie("X-NIMBRA-TFA-ID"), "tfa");
    if (!flow)
        call.error(401, QStringLiteral("Invalid session"), QStringLiteral("unknown or expired two-factor id"));
    return flow;
}

void AccountRoutes::install(Router& router)
{
    // The server's front page: what a client probing for the scheme of a bare host reads.
    router.add("GET", "/", EveryType, Access::Open, [this](HttpCall& call) {
        call.json(QJsonObject { { "server", "nbemu" }, { "type", m_context.options.type } });
    });

    // --- Sign-in ----------------------------------------------------------------------
    router.add("POST", "/v2/user/login_new", PublicType, Access::Open, [this](HttpCall& call) {
        login(call, call.value("loginkey"), call.value("password"), call.value("loginType"));
    });
    router.add("POST", "/oauth/callback", PublicType, Access::Open,
        [this](HttpCall& call) { login(call, call.value("username"), call.value("password"), QString()); });
    router.add("POST", "/v2/user/login", PrivateType | PrivateSixType, Access::Open,
        [this](HttpCall& call) { login(call, call.value("user_slug"), call.value("password"), QString()); });
    router.add("GET", "/v2/sso/get_ent_login_addr", PublicType, Access::Open, [this](HttpCall& call) {
        if (call.value("ent_code").isEmpty())
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no enterprise code"));
        call.json(QJsonObject { { "ent_code", call.value("ent_code") }, { "ent_login_addr", m_context.selfUrl } });
    });
    router.add("POST", "/v2/user/password/modify", PublicType, Access::Open, [this](HttpCall& call) {
        const QString token = call.value("token").isEmpty() ? call.cookie("X-NIMBRA-SESS-ID") : call.value("token");
        const std::optional<Session> session = m_context.accounts.session(token);
        const std::optional<User> user = session ? m_context.accounts.user(session->userId) : std::nullopt;
        if (!user)
            return call.error(401, QStringLiteral("Invalid session"));
        if (!m_context.accounts.checkPassword(user->name, call.value("old_password")))
            return call.error(403, QStringLiteral("forbidden"), QStringLiteral("the old password is wrong"));
        QString error;
        if (call.value("password").isEmpty() || !m_context.accounts.ensureUser(user->name, call.value("password"), user->tfa, &error))
            return call.error(400, QStringLiteral("invalid password"), error);
        call.json(QJsonObject { { "changed", true } });
    });

    // --- Quick login: a picture, an SMS under the picture's session, then the sign-in. -
    router.add("GET", "/v2/captcha/create/login_quick", PublicType, Access::Open, [this](HttpCall& call) {
        const QString quickId = call.cookie("X-NIMBRA-SESS-ID");
        const QString text = Accounts::randomDigits(4);
        m_context.accounts.startFlow("quick", 0, "picture", text, FlowSeconds, quickId);
        m_context.accounts.post("captcha", quickId, text);
        call.bytes(Png::digits(text), QStringLiteral("image/png"));
    });
    router.add("POST", "/v2/captcha/sendsms", PublicType, Access::Open, [this](HttpCall& call) {
        const QString code = Accounts::randomDigits(6);
        if (!call.cookie("X-NIMBRA-TFA-ID").isEmpty()) {
            const std::optional<Flow> flow = tfaFlow(call);
            if (!flow)
                return;
            m_context.accounts.startFlow("tfa", flow->userId, "sms-sent", code, FlowSeconds, flow->id);
            m_context.accounts.post("sms", call.value("mobile"), code);
            return call.json(QJsonObject { { "sent", true } });
        }
        const std::optional<Flow> quick = m_context.accounts.flow(call.cookie("X-NIMBRA-SESS-ID"), "quick");
        if (!quick || quick->secret.compare(call.value("captcha"), Qt::CaseInsensitive) != 0)
            return call.error(400, QStringLiteral("invalid captcha"), QStringLiteral("the picture's text is wrong"));
        if (!m_context.accounts.userByName(call.value("mobile")))
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no user with this mobile"));
        m_context.accounts.endFlow(quick->id);
        m_context.accounts.startFlow("quick-sms", 0, "sent", code, FlowSeconds, "quick-sms:" + call.value("mobile"));
        m_context.accounts.post("sms", call.value("mobile"), code);
        call.json(QJsonObject { { "sent", true } });
    });

    // --- Two factors after a password sign-in. -----------------------------------------
    router.add("POST", "/v2/tfa/otp", PublicType, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = tfaFlow(call);
        if (!flow)
            return;
        const std::optional<User> user = m_context.accounts.user(flow->userId);
        if (!user || !Accounts::checkTotp(user->totpSecret, call.value("otp"), now()))
            return call.error(401, QStringLiteral("invalid otp"), QStringLiteral("the one-time password is wrong"));
        m_context.accounts.endFlow(flow->id);
        signedIn(call, *user);
    });
    router.add("POST", "/v2/tfa/sms", PublicType, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = tfaFlow(call);
        if (!flow)
            return;
        if (flow->state != QLatin1String("sms-sent") || flow->secret != call.value("verify_code"))
            return call.error(401, QStringLiteral("invalid verification code"));
        m_context.accounts.endFlow(flow->id);
        signedIn(call, *m_context.accounts.user(flow->userId));
    });
    router.add("GET", "/v2/tfa/qrcode/get", PublicType, Access::Open, [this](HttpCall& call) {
        const int dimension = qBound(10, call.value("dimension").toInt(), 64);
        const QByteArray png = Png::pattern(call.value("_").toLatin1(), dimension);
        call.json(QJsonObject { { "qrcode", "data:image/png;base64," + QString::fromLatin1(png.toBase64()) },
            { "dimension", dimension } });
    });
    router.add("GET", "/v2/tfa/stat/get", PublicType, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = tfaFlow(call);
        if (!flow)
            return;
        if (flow->state != QLatin1String("approved"))
            return call.json(QJsonObject { { "state", "waiting" } });
        m_context.accounts.endFlow(flow->id);
        const QString session = m_context.accounts.openSession(flow->userId);
        call.json(QJsonObject { { "state", "done" }, { "X-NIMBRA-SESS-ID", session } });
    });

    // --- E-mail verification. ------------------------------------------------------------
    router.add("POST", "/v2/captcha/sendemail", PublicType, Access::Open, [this](HttpCall& call) {
        if (!call.value("email").contains(QLatin1Char('@')))
            return call.error(400, QStringLiteral("invalid email"));
        const QString code = Accounts::randomDigits(6);
        const QString key = m_context.accounts.startFlow("email", 0, "sent", code, FlowSeconds);
        m_context.accounts.post("email", call.value("email"), code);
        call.json(QJsonObject { { "check_key", key } });
    });
    router.add("POST", "/v2/captcha/check", PublicType, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = m_context.accounts.flow(call.value("check_key"), "email");
        if (!flow || flow->secret != call.value("verify_code"))
            return call.error(400, QStringLiteral("invalid verification code"));
        m_context.accounts.endFlow(flow->id);
        call.json(QJsonObject { { "verified", true } });
    });

    // --- Account and fixed documents. ----------------------------------------------------
    router.add("GET", "/v2/user/info/get(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        call.json(QJsonObject { { "uid", QString::number(call.userId) }, { "user", call.userName },
            { "quota", double(1LL << 40) }, { "deployment", m_context.options.type } });
    });
    router.add("GET", "/v2/config/get", EveryType, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { "config_id", call.value("config_id") }, { "config_type", call.value("config_type") },
            { "name", call.value("name") }, { "value", QJsonObject() } });
    });
    router.add("GET", "/v2/region/get", EveryType, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { "regions", QJsonArray { QJsonObject { { "id", "local" }, { "name", "nbemu" } } } } });
    });
    router.add("GET", "/v2/app/info/get", EveryType, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { "acct_id", call.value("acct_id") }, { "version", "0" }, { "url", QString() } });
    });
    router.add("GET", "/v2/account/funs/get", PublicType, Access::Session,
        [](HttpCall& call) { call.json(QJsonObject { { "funs", QJsonArray { "sync", "share", "delivery" } } }); });
    router.add("GET", "/v2/encrypt/strategy/get", PublicType, Access::Session,
        [](HttpCall& call) { call.json(QJsonObject { { "encrypt", false }, { "rules", QJsonArray() } }); });
    router.add("GET", "/v2/approve/(is_approval|is_exist_policy|is_create_syndisc)", EveryType, Access::Session,
        [](HttpCall& call) { call.json(QJsonObject { { "result", false }, { "need_approval", false } }); });
    const auto jump = [this](HttpCall& call) {
        if (!m_context.accounts.session(call.value("X-NIMBRA-SESS-ID")))
            return call.error(401, QStringLiteral("Invalid session"));
        call.bytes(QStringLiteral("<!doctype html><title>nbemu</title><a href=\"%1\">%1</a>")
                       .arg(call.value("url").toHtmlEscaped())
                       .toUtf8(),
            QStringLiteral("text/html"));
    };
    router.add("GET", "/v2/api/server/jump", PrivateType | PrivateSixType, Access::Open, jump);
    router.add("GET", "/js/module/preview/previewVideo_audio_forPC_MAC.html", PublicType, Access::Open, jump);
    router.add("GET", "/zip/.*", PublicType, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { "url", call.path() }, { "content", QJsonArray() }, { "limit", call.value("limit").toLongLong() },
            { "offset", call.value("offset").toLongLong() } });
    });
}
