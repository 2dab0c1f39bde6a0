#include "AccountRoutes.h"

#include "Png.h"
#include "Routes.h"
#include "Wire.h"

#include <QDateTime>
#include <QUrl>

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
    call.setHeader("Set-Cookie", QStringLiteral("%1=%2; Path=/").arg(Wire::SessionCookie, session));
    call.json(QJsonObject {
        { Wire::SessionCookie, session }, { "user", user.name }, { "uid", QString::number(user.id) } });
}

void AccountRoutes::login(
    HttpCall& call, const QString& name, const QString& password, const QString& loginType)
{
    if (loginType == QLatin1String("quick")) {
        // The SMS code of a quick-login session stands for the password.
        const std::optional<User> user = m_context.accounts.userByName(name);
        const std::optional<Flow> flow
            = user ? m_context.accounts.flow(QStringLiteral("quick-sms:") + name, "quick-sms") : std::nullopt;
        if (!flow || flow->secret != password)
            return call.error(401, QStringLiteral("invalid verification code"));
        m_context.accounts.endFlow(flow->id);
        return signedIn(call, *user);
    }
    const std::optional<User> user = m_context.accounts.checkPassword(name, password);
    if (!user)
        return call.error(401, QStringLiteral("invalid username or password"));
    if (user->tfa && m_context.options.type == Deployment::PublicCloud) {
        const QString tfaId
            = m_context.accounts.startFlow("tfa", user->id, "pending", QString(), FlowSeconds);
        return call.error(401, QStringLiteral("tfa required"), QStringLiteral("a second factor is required"),
            QJsonObject { { "tfa_id", tfaId }, { "methods", QJsonArray { "otp", "sms", "qrcode" } } });
    }
    signedIn(call, *user);
}

std::optional<Flow> AccountRoutes::tfaFlow(HttpCall& call)
{
    const std::optional<Flow> flow = m_context.accounts.flow(call.cookie(Wire::TfaCookie), "tfa");
    if (!flow)
        call.error(
            401, QStringLiteral("Invalid session"), QStringLiteral("unknown or expired two-factor id"));
    return flow;
}

void AccountRoutes::install(Router& router)
{
    // The server's front page: what a client probing for the scheme of a bare host reads.
    router.add("GET", "/", EveryType, Access::Open, [this](HttpCall& call) {
        call.json(QJsonObject { { "server", "nbemu" }, { "type", int(m_context.options.type) } });
    });

    // --- Sign-in ----------------------------------------------------------------------
    router.add("POST", "/v2/user/login_new", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        login(call, call.value(Wire::LoginKey), call.value(Wire::Password), call.value(Wire::LoginType));
    });
    router.add("POST", "/oauth/callback", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        login(call, call.value(Wire::UserName), call.value(Wire::Password), QString());
    });
    router.add("POST", "/v2/user/login", PrivateTypes, Access::Open, [this](HttpCall& call) {
        login(call, call.value(Wire::UserSlug), call.value(Wire::Password), QString());
    });
    router.add("GET", "/v2/sso/get_ent_login_addr", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        if (call.value(Wire::EntCode).isEmpty())
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no enterprise code"));
        call.json(QJsonObject {
            { Wire::EntCode, call.value(Wire::EntCode) }, { "ent_login_addr", m_context.selfUrl } });
    });
    router.add("POST", "/v2/user/password/modify", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        const QString token
            = call.value(Wire::Token).isEmpty() ? call.cookie(Wire::SessionCookie) : call.value(Wire::Token);
        const std::optional<Session> session = m_context.accounts.session(token);
        const std::optional<User> user = session ? m_context.accounts.user(session->userId) : std::nullopt;
        if (!user)
            return call.error(401, QStringLiteral("Invalid session"));
        if (!m_context.accounts.checkPassword(user->name, call.value(Wire::OldPassword)))
            return call.error(403, QStringLiteral("forbidden"), QStringLiteral("the old password is wrong"));
        QString error;
        if (call.value(Wire::Password).isEmpty()
            || !m_context.accounts.ensureUser(user->name, call.value(Wire::Password), user->tfa, &error))
            return call.error(400, QStringLiteral("invalid password"), error);
        call.json(QJsonObject { { "changed", true } });
    });

    // --- Quick login: a picture, an SMS under the picture's session, then the sign-in. -
    router.add(
        "GET", "/v2/captcha/create/login_quick", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
            const QString quickId = call.cookie(Wire::SessionCookie);
            const QString text = Accounts::randomDigits(4);
            m_context.accounts.startFlow("quick", 0, "picture", text, FlowSeconds, quickId);
            m_context.accounts.post("captcha", quickId, text);
            call.bytes(Png::digits(text), QStringLiteral("image/png"));
        });
    router.add("POST", "/v2/captcha/sendsms", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        const QString code = Accounts::randomDigits(6);
        if (!call.cookie(Wire::TfaCookie).isEmpty()) {
            const std::optional<Flow> flow = tfaFlow(call);
            if (!flow)
                return;
            m_context.accounts.startFlow("tfa", flow->userId, "sms-sent", code, FlowSeconds, flow->id);
            m_context.accounts.post("sms", call.value(Wire::Mobile), code);
            return call.json(QJsonObject { { "sent", true } });
        }
        const std::optional<Flow> quick = m_context.accounts.flow(call.cookie(Wire::SessionCookie), "quick");
        if (!quick || quick->secret.compare(call.value(Wire::Captcha), Qt::CaseInsensitive) != 0)
            return call.error(
                400, QStringLiteral("invalid captcha"), QStringLiteral("the picture's text is wrong"));
        if (!m_context.accounts.userByName(call.value(Wire::Mobile)))
            return call.error(
                404, QStringLiteral("source not found"), QStringLiteral("no user with this mobile"));
        m_context.accounts.endFlow(quick->id);
        m_context.accounts.startFlow(
            "quick-sms", 0, "sent", code, FlowSeconds, "quick-sms:" + call.value(Wire::Mobile));
        m_context.accounts.post("sms", call.value(Wire::Mobile), code);
        call.json(QJsonObject { { "sent", true } });
    });

    // --- Two factors after a password sign-in. -----------------------------------------
    router.add("POST", "/v2/tfa/otp", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = tfaFlow(call);
        if (!flow)
            return;
        const std::optional<User> user = m_context.accounts.user(flow->userId);
        if (!user || !Accounts::checkTotp(user->totpSecret, call.value(Wire::Otp), now()))
            return call.error(
                401, QStringLiteral("invalid otp"), QStringLiteral("the one-time password is wrong"));
        m_context.accounts.endFlow(flow->id);
        signedIn(call, *user);
    });
    router.add("POST", "/v2/tfa/sms", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = tfaFlow(call);
        if (!flow)
            return;
        if (flow->state != QLatin1String("sms-sent") || flow->secret != call.value(Wire::VerifyCodeParam))
            return call.error(401, QStringLiteral("invalid verification code"));
        m_context.accounts.endFlow(flow->id);
        signedIn(call, *m_context.accounts.user(flow->userId));
    });
    router.add("GET", "/v2/tfa/qrcode/get", PublicCloudOnly, Access::Open, [](HttpCall& call) {
        const int dimension = qBound(10, call.value(Wire::Dimension).toInt(), 64);
        const QByteArray png = Png::pattern(call.value(Wire::CacheBreaker).toLatin1(), dimension);
        call.json(QJsonObject { { "qrcode", "data:image/png;base64," + QString::fromLatin1(png.toBase64()) },
            { "dimension", dimension } });
    });
    router.add("GET", "/v2/tfa/stat/get", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = tfaFlow(call);
        if (!flow)
            return;
        if (flow->state != QLatin1String("approved"))
            return call.json(QJsonObject { { "state", "waiting" } });
        m_context.accounts.endFlow(flow->id);
        const QString session = m_context.accounts.openSession(flow->userId);
        call.json(QJsonObject { { "state", "done" }, { Wire::SessionCookie, session } });
    });

    // --- E-mail verification. ------------------------------------------------------------
    router.add("POST", "/v2/captcha/sendemail", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        if (!call.value(Wire::Email).contains(QLatin1Char('@')))
            return call.error(400, QStringLiteral("invalid email"));
        const QString code = Accounts::randomDigits(6);
        const QString key = m_context.accounts.startFlow("email", 0, "sent", code, FlowSeconds);
        m_context.accounts.post("email", call.value(Wire::Email), code);
        call.json(QJsonObject { { "check_key", key } });
    });
    router.add("POST", "/v2/captcha/check", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        const std::optional<Flow> flow = m_context.accounts.flow(call.value(Wire::CheckKey), "email");
        if (!flow || flow->secret != call.value(Wire::VerifyCodeParam))
            return call.error(401, QStringLiteral("invalid verification code"));
        m_context.accounts.endFlow(flow->id);
        call.json(QJsonObject { { "verified", true } });
    });

    // --- Account and fixed documents. ----------------------------------------------------
    router.add("GET", "/v2/user/info/get(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        call.json(QJsonObject { { "uid", QString::number(call.userId) }, { "user", call.userName },
            { "quota", double(1LL << 40) }, { "deployment", int(m_context.options.type) } });
    });
    router.add("GET", "/v2/config/get", EveryType, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { Wire::ConfigId, call.value(Wire::ConfigId) },
            { Wire::ConfigType, call.value(Wire::ConfigType) }, { Wire::Name, call.value(Wire::Name) },
            { "value", QJsonObject() } });
    });
    router.add("GET", "/v2/region/get", EveryType, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject {
            { "regions", QJsonArray { QJsonObject { { "id", "local" }, { "name", "nbemu" } } } } });
    });
    router.add("GET", "/v2/app/info/get", EveryType, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject {
            { Wire::AcctId, call.value(Wire::AcctId) }, { "version", "0" }, { "url", QString() } });
    });
    router.add("GET", "/v2/account/funs/get", PublicCloudOnly, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { "funs", QJsonArray { "sync", "share", "delivery" } } });
    });
    router.add("GET", "/v2/encrypt/strategy/get", PublicCloudOnly, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { "encrypt", false }, { "rules", QJsonArray() } });
    });
    router.add("GET", "/v2/approve/(is_approval|is_exist_policy|is_create_syndisc)", EveryType,
        Access::Session, [](HttpCall& call) {
            call.json(QJsonObject { { "result", false }, { "need_approval", false } });
        });
    // A page that links the address it is given: only http and https (a relative address
    // resolved against this server), so that it can never carry a script or a local file.
    const auto jump = [this](HttpCall& call) {
        if (!m_context.accounts.session(call.value(Wire::SessionCookie)))
            return call.error(401, QStringLiteral("Invalid session"));
        // A relative address is one of this server's.
        const QUrl target = QUrl(m_context.selfUrl + QLatin1Char('/'))
                                .resolved(QUrl(call.value(Wire::Url), QUrl::StrictMode));
        const QString scheme = target.scheme().toLower();
        if (!target.isValid() || (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
            || target.host().isEmpty())
            return call.error(
                400, QStringLiteral("invalid url"), QStringLiteral("\"url\" is an http or https address"));
        call.bytes(QStringLiteral("<!doctype html><title>nbemu</title><a href=\"%1\">%1</a>")
                       .arg(target.toString(QUrl::FullyEncoded).toHtmlEscaped())
                       .toUtf8(),
            QStringLiteral("text/html"));
    };
    router.add("GET", "/v2/api/server/jump", PrivateTypes, Access::Open, jump);
    router.add(
        "GET", "/js/module/preview/previewVideo_audio_forPC_MAC.html", PublicCloudOnly, Access::Open, jump);
    router.add("GET", "/zip/.*", PublicCloudOnly, Access::Session, [](HttpCall& call) {
        call.json(QJsonObject { { "url", call.path() }, { "content", QJsonArray() },
            { "limit", call.value(Wire::Limit).toLongLong() },
            { "offset", call.value(Wire::Offset).toLongLong() } });
    });
}
