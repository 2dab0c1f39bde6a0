#include "NBPubServerApi.h"

#include "CNBLoggerWrapper.h"
#include "NBRequestParams.h"
#include "NBUnserved.h"

#include <QDateTime>
#include <QFileInfo>
#include <QUrl>
#include <QUuid>

namespace {

// The cache-breaker of the polled two-factor requests: now, in milliseconds.
QString now()
{
    return QStringLiteral("%1").arg(QDateTime::currentMSecsSinceEpoch());
}

QString tfaCookie(const QString& tfaId)
{
    return QStringLiteral(";X-NIMBRA-TFA-ID=%1").arg(tfaId);
}

QString sessionCookie(const QString& session)
{
    return QStringLiteral(";X-NIMBRA-SESS-ID=%1").arg(session);
}

} // namespace

NBPubServerApi::NBPubServerApi() = default;

NBPubServerApi::~NBPubServerApi()
{
    NB_LOG_INFO(QStringLiteral("~NBPubServerApi()"));
}

// --- Sign-in and account: parameters first, then the header and parameter steps. ----

long long NBPubServerApi::login(const NBServerApiLoginModel& model, NBCompletionCallback done)
{
    if (model.kind == 2) {
        return request(m_loginUrl)
            .method(POST)
            .param("loginType", model.loginType)
            .param("loginkey", model.userName)
            .param("password", model.password)
            .param("device_name", model.deviceName)
            .param("uuid", model.deviceUuid)
            .param("captcha", model.captcha)
            .paramsWhen(model.autoLogin, { { "pc_auto_login", "true" } })
            .defaultHeaders()
            .send(std::move(done));
    }
    if (model.kind == 3) {
        // The enterprise's own address. Composing encodes the callback's query, which Qt
        // writes "%3F"; that is undone, and so are "%3f" and "%3d" anywhere (case-sensitive:
        // an escape in capitals that the host's address brings stays as it is).
        const QString encodedPath = QString::fromLatin1(QUrl::toPercentEncoding(m_entLoginUrl, "/="));
        const QString address = combineReqUrl(model.captcha, QString(), m_entLoginUrl)
                                    .replace(encodedPath, m_entLoginUrl)
                                    .replace(QLatin1String("%3f"), QLatin1String("?"))
                                    .replace(QLatin1String("%3d"), QLatin1String("="));
        return requestTo(address)
            .method(POST)
            .param("username", model.userName)
            .param("password", model.password)
            .param("uuid", model.deviceUuid)
            .param("device_name", model.deviceName)
            .defaultHeaders()
            .send(std::move(done));
    }
    return 0;
}

long long NBPubServerApi::createFile(const NBServerApiCreateFileModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_createFileUrl, model.path))
        .method(POST)
        .param(NBKey::PathType, model.pathType)
        .paramsIfSet({ { NBKey::From, model.from }, { NBKey::PrefixNeid, model.prefixNeid } })
        .param("file_type", QFileInfo(model.path).suffix())
        .withDefaults()
        .send(std::move(done));
}

long long NBPubServerApi::extra(QList<QString> neids, NBCompletionCallback done)
{
    return request(m_extraMetaUrl)
        .param("neids", neids.join(QLatin1Char(',')))
        .verifyCode()
        .send(std::move(done));
}

long long NBPubServerApi::GetEnterpriseAddressByCode(const QString& code, NBCompletionCallback done)
{
    return request(m_entLoginAddressUrl).param("ent_code", code).defaultHeaders().send(std::move(done));
}

long long NBPubServerApi::GetZipDownloadUrl(const QString& url, const QString&, NBCompletionCallback done)
{
    return requestTo(url).defaultHeaders().send(std::move(done));
}

long long NBPubServerApi::GetZipFolderMetadata(
    const QString& url, const QString& password, qint64 limit, qint64 offset, NBCompletionCallback done)
{
    const bool addressHasPassword = url.contains(QLatin1String("password="), Qt::CaseInsensitive);
    return requestTo(url)
        .number("limit", limit)
        .number("offset", offset)
        .paramsWhen(!addressHasPassword, { { "password", password } })
        .defaultHeaders()
        .send(std::move(done));
}

long long NBPubServerApi::serverJump(const NBServerApiServerJumpModel& model, NBCompletionCallback done)
{
    return requestTo(combineReqUrl(baseUrlString(), QString(), m_serverJumpPageUrl))
        .param("url", model.url)
        .param(COOKIE_SESSION, model.session)
        .param("type", model.type)
        .defaultHeaders()
        .send(std::move(done));
}

long long NBPubServerApi::getFuns(NBCompletionCallback done)
{
    return request(m_funsUrl).withDefaults().send(std::move(done));
}

long long NBPubServerApi::getEstEncryptRule(NBCompletionCallback done)
{
    return request(m_encryptStrategyUrl).withDefaults().send(std::move(done));
}

long long NBPubServerApi::vboxDelta(const NBServerApiDeltaModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_vboxDeltaUrl, model.path))
        .method(POST)
        .with(feedParams, model)
        .paramIfSet(NBKey::Path, model.path)
        .withDefaults()
        .send(std::move(done));
}

long long NBPubServerApi::initDelta(const NBServerApiEntryModel& model, NBCompletionCallback done)
{
    return request(combinPath(m_initDeltaUrl, model.path))
        .method(POST)
        .param(NBKey::PathType, model.pathType)
        .paramsIfSet({ { NBKey::Path, model.path }, { NBKey::Neid, model.neid } })
        .withDefaults()
        .send(std::move(done));
}

NB_UNSERVED(NBPubServerApi, getSyncDataForDisk, -1, const NBServerApiGetSyncDataModel&, NBCompletionCallback)

// --- Verification and two-factor flows: the default headers, then the cookie that
// carries the flow's identifier. ------------------------------------------------------

long long NBPubServerApi::GetQuickLoginVerifyPic(NBDataCallback onData)
{
    // Two braced UUIDs joined, without their hyphens and braces: 64 hexadecimal digits.
    QString id = QUuid::createUuid().toString() + QUuid::createUuid().toString();
    id.remove(QLatin1Char('-')).remove(QLatin1Char('{')).remove(QLatin1Char('}'));
    write(m_quickLoginSessionId, id);
    return request(m_quickLoginPicUrl)
        .defaultHeaders()
        .cookieFollowedBy(sessionCookie(id))
        .download(std::move(onData), {}, {});
}

long long NBPubServerApi::GetQuickLoginSmsCode(
    const NBServerApiSmsCodeModel& model, NBCompletionCallback done)
{
    return request(m_sendSmsUrl)
        .method(POST)
        .defaultHeaders()
        .cookieFollowedBy(sessionCookie(quickLoginSessionId()))
        .param("mobile", model.mobile)
        .param("type", model.type)
        .param(NBKey::OpType, model.opType)
        .param("captcha", model.captcha)
        .send(std::move(done));
}

long long NBPubServerApi::GetQRCode(int dimension, NBCompletionCallback done)
{
    return request(m_qrCodeUrl)
        .defaultHeaders()
        .number("dimension", dimension)
        .param("_", now())
        .send(std::move(done));
}

long long NBPubServerApi::GetLoginState(NBServerApiLoginStateModel model, NBCompletionCallback done)
{
    return request(m_loginStateUrl)
        .defaultHeaders()
        .cookieFollowedBy(tfaCookie(model.tfaId))
        .param("uuid", model.deviceUuid)
        .param("device_name", model.deviceName)
        .param("_", now())
        .send(std::move(done));
}

long long NBPubServerApi::GetLoginEmailVerify(
    const QString& email, const QString& opType, const QString& captcha, NBCompletionCallback done)
{
    return request(m_sendEmailUrl)
        .method(POST)
        .defaultHeaders()
        .param("email", email)
        .param(NBKey::OpType, opType)
        .param("captcha", captcha)
        .send(std::move(done));
}

long long NBPubServerApi::LoginCheckEmailVerify(const QString& checkKey, const QString& verifyCode,
    const QString& opType, const QString& captcha, NBCompletionCallback done)
{
    return request(m_checkEmailUrl)
        .method(POST)
        .defaultHeaders()
        .param("check_key", checkKey)
        .param("verify_code", verifyCode)
        .param(NBKey::OpType, opType)
        .param("captcha", captcha)
        .send(std::move(done));
}

long long NBPubServerApi::DyncCodeLogin(const QString& tfaId, const QString& otp, NBCompletionCallback done)
{
    return request(m_otpUrl)
        .method(POST)
        .defaultHeaders()
        .cookieFollowedBy(tfaCookie(tfaId))
        .param("otp", otp)
        .send(std::move(done));
}

long long NBPubServerApi::SendSmsCode(const QString& mobile, const QString& tfaId, const QString& opType,
    const QString& type, const QString& flag, const QString& timestamp, const QString& sig,
    NBCompletionCallback done)
{
    return request(m_sendSmsUrl)
        .method(POST)
        .defaultHeaders()
        .cookieFollowedBy(tfaCookie(tfaId))
        .param("mobile", mobile)
        .param(NBKey::OpType, opType)
        .paramIfSet("type", type)
        .paramsWhen(!flag.isEmpty(), { { "timestamp", timestamp }, { "sig", sig } })
        .send(std::move(done));
}

long long NBPubServerApi::SmsCodeLogin(
    const QString& tfaId, const QString& verifyCode, NBCompletionCallback done)
{
    return request(m_smsLoginUrl)
        .method(POST)
        .defaultHeaders()
        .cookieFollowedBy(tfaCookie(tfaId))
        .param("verify_code", verifyCode)
        .send(std::move(done));
}

long long NBPubServerApi::ResetPassword(
    const QString& token, const QString& oldPassword, const QString& password, NBCompletionCallback done)
{
    return request(m_passwordModifyUrl)
        .method(POST)
        .defaultHeaders()
        .param("token", token)
        .param("old_password", oldPassword)
        .param("password", password)
        .send(std::move(done));
}
