// The endpoint of the public cloud: its sign-in, file creation, extra metadata,
// enterprise and zip look-ups, jump page, account functions and delta feeds, and the
// verification and two-factor flows of its sign-in screens.
#pragma once

#include "NBServerApi.h"

class NBPubServerApi : public NBServerApi
{
public:
    NBPubServerApi();
    ~NBPubServerApi() override;

    // Kind 2 (account) or 3 (enterprise); any other kind sends nothing and returns 0.
    long long login(const NBServerApiLoginModel& model, NBCompletionCallback done) override;
    long long getFuns(NBCompletionCallback done) override;
    long long serverJump(const NBServerApiServerJumpModel& model, NBCompletionCallback done) override;
    long long createFile(const NBServerApiCreateFileModel& model, NBCompletionCallback done) override;
    long long getEstEncryptRule(NBCompletionCallback done) override;
    long long extra(QList<QString> neids, NBCompletionCallback done) override;
    long long vboxDelta(const NBServerApiDeltaModel& model, NBCompletionCallback done) override;
    long long initDelta(const NBServerApiEntryModel& model, NBCompletionCallback done) override;
    long long getSyncDataForDisk(
        const NBServerApiGetSyncDataModel& model, NBCompletionCallback done) override;
    long long GetEnterpriseAddressByCode(const QString& code, NBCompletionCallback done) override;
    long long GetZipDownloadUrl(
        const QString& url, const QString& unused, NBCompletionCallback done) override;
    // No "password" when the address already holds "password=", in any case.
    long long GetZipFolderMetadata(const QString& url, const QString& password, qint64 limit, qint64 offset,
        NBCompletionCallback done) override;
    // Starts a quick-login session (a new id each time); the picture's bytes reach
    // onData, and nothing reports the request's end.
    long long GetQuickLoginVerifyPic(NBDataCallback onData) override;
    long long GetQuickLoginSmsCode(const NBServerApiSmsCodeModel& model, NBCompletionCallback done) override;
    long long GetQRCode(int dimension, NBCompletionCallback done) override;
    long long GetLoginState(NBServerApiLoginStateModel model, NBCompletionCallback done) override;
    long long GetLoginEmailVerify(const QString& email, const QString& opType, const QString& captcha,
        NBCompletionCallback done) override;
    long long LoginCheckEmailVerify(const QString& checkKey, const QString& verifyCode, const QString& opType,
        const QString& captcha, NBCompletionCallback done) override;
    long long DyncCodeLogin(const QString& tfaId, const QString& otp, NBCompletionCallback done) override;
    // `flag` only decides whether "timestamp" and "sig" are sent.
    long long SendSmsCode(const QString& mobile, const QString& tfaId, const QString& opType,
        const QString& type, const QString& flag, const QString& timestamp, const QString& sig,
        NBCompletionCallback done) override;
    long long SmsCodeLogin(
        const QString& tfaId, const QString& verifyCode, NBCompletionCallback done) override;
    long long ResetPassword(const QString& token, const QString& oldPassword, const QString& password,
        NBCompletionCallback done) override;

    QString quickLoginSessionId() const { return read(m_quickLoginSessionId); }

    static inline const QString m_loginUrl = QStringLiteral("/user/login_new");
    static inline const QString m_createFileUrl = QStringLiteral("/fileops/create_file");
    static inline const QString m_serverJumpPageUrl
        = QStringLiteral("/js/module/preview/previewVideo_audio_forPC_MAC.html");
    static inline const QString m_extraMetaUrl = QStringLiteral("/extra_meta");
    static inline const QString m_entLoginAddressUrl = QStringLiteral("/sso/get_ent_login_addr");
    static inline const QString m_funsUrl = QStringLiteral("/account/funs/get");
    static inline const QString m_encryptStrategyUrl = QStringLiteral("/encrypt/strategy/get");
    static inline const QString m_vboxDeltaUrl = QStringLiteral("/vboxdelta/databox");
    static inline const QString m_initDeltaUrl = QStringLiteral("/initdelta/databox");
    static inline const QString m_entLoginUrl = QStringLiteral("/oauth/callback?source=win");
    static inline const QString m_quickLoginPicUrl = QStringLiteral("/captcha/create/login_quick");
    static inline const QString m_sendSmsUrl = QStringLiteral("/captcha/sendsms");
    static inline const QString m_sendEmailUrl = QStringLiteral("/captcha/sendemail");
    static inline const QString m_checkEmailUrl = QStringLiteral("/captcha/check");
    static inline const QString m_qrCodeUrl = QStringLiteral("/tfa/qrcode/get");
    static inline const QString m_loginStateUrl = QStringLiteral("/tfa/stat/get");
    static inline const QString m_otpUrl = QStringLiteral("/tfa/otp");
    static inline const QString m_smsLoginUrl = QStringLiteral("/tfa/sms");
    static inline const QString m_passwordModifyUrl = QStringLiteral("/user/password/modify");

private:
    // Written by GetQuickLoginVerifyPic and read by GetQuickLoginSmsCode, from any
    // thread, under the settings lock.
    QString m_quickLoginSessionId;
};
