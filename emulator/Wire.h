// The names that travel on the wire, as the library sends them: cookies, parameters
// and the keys of the JSON bodies the emulator reads. Routes name them only through here.
#pragma once

#include <QString>
#include <QStringList>

namespace Wire {

// Cookies (and, where a request carries no cookie, parameters of the same name).
inline const QString SessionCookie = QStringLiteral("X-NIMBRA-SESS-ID");
inline const QString TfaCookie = QStringLiteral("X-NIMBRA-TFA-ID");
inline const QString VerifyCode = QStringLiteral("S");

// Entries and paths.
inline const QString Path = QStringLiteral("path");
inline const QString PathType = QStringLiteral("path_type");
inline const QString Neid = QStringLiteral("neid");
inline const QString Neids = QStringLiteral("neids");
inline const QString Nsid = QStringLiteral("nsid");
inline const QString FromPath = QStringLiteral("from_path");
inline const QString FromPathType = QStringLiteral("from_path_type");
inline const QString ToPath = QStringLiteral("to_path");
inline const QString ToPathType = QStringLiteral("to_path_type");
inline const QString TargetPath = QStringLiteral("target_path");
inline const QString List = QStringLiteral("list");
inline const QString OrderBy = QStringLiteral("orderby");
inline const QString Sort = QStringLiteral("sort");
inline const QString Limit = QStringLiteral("limit");
inline const QString Offset = QStringLiteral("offset");
inline const QString Rev = QStringLiteral("rev");
inline const QString RevLimit = QStringLiteral("rev_limit");
inline const QString Time = QStringLiteral("time");
inline const QString Json = QStringLiteral("json");
inline const QString TaskId = QStringLiteral("task_id");

// The JSON of batch requests and extra metadata.
inline const QString Pathes = QStringLiteral("pathes");
inline const QString From = QStringLiteral("from");
inline const QString To = QStringLiteral("to");

// Change feeds and sync data.
inline const QString Cursor = QStringLiteral("cursor");
inline const QString DeltaDataId = QStringLiteral("deltaDataId");
inline const QString AssignJid = QStringLiteral("assign_Jid");
inline const QStringList SyncDiscEchoes { QStringLiteral("syncCid"), QStringLiteral("syncUid"),
    QStringLiteral("pullJid"), DeltaDataId, QStringLiteral("syncType") };
inline const QStringList VirtualBoxEchoes { QStringLiteral("syncUid"), QStringLiteral("syncCid"),
    QStringLiteral("pullJid"), AssignJid };
inline const QStringList LogRecordKeys { QStringLiteral("category"), QStringLiteral("action"),
    QStringLiteral("entityStr1"), QStringLiteral("entityStr2"), QStringLiteral("pathType"),
    QStringLiteral("op_type"), Neid, Nsid };

// Transfers.
inline const QString Overwrite = QStringLiteral("overwrite");
inline const QString Hash = QStringLiteral("hash");
inline const QString Hashes = QStringLiteral("hashes[]");
inline const QString UploadId = QStringLiteral("upload_id");
inline const QString IsFileCommit = QStringLiteral("is_file_commit");
inline const QString Bytes = QStringLiteral("bytes");
inline const QString Range = QStringLiteral("Range");
inline const QString RangeAlias = QStringLiteral("x-nimbraws-range");

// Shared links.
inline const QString Token = QStringLiteral("token");
inline const QString Password = QStringLiteral("password");
inline const QString RelativePath = QStringLiteral("relativePath");
inline const QString RelativePathAlias = QStringLiteral("relative_path");

// Sign-in, verification and the account.
inline const QString LoginKey = QStringLiteral("loginkey");
inline const QString LoginType = QStringLiteral("loginType");
inline const QString UserSlug = QStringLiteral("user_slug");
inline const QString UserName = QStringLiteral("username");
inline const QString OldPassword = QStringLiteral("old_password");
inline const QString EntCode = QStringLiteral("ent_code");
inline const QString Mobile = QStringLiteral("mobile");
inline const QString Captcha = QStringLiteral("captcha");
inline const QString Otp = QStringLiteral("otp");
inline const QString VerifyCodeParam = QStringLiteral("verify_code");
inline const QString Dimension = QStringLiteral("dimension");
inline const QString Email = QStringLiteral("email");
inline const QString CheckKey = QStringLiteral("check_key");
inline const QString Url = QStringLiteral("url");
inline const QString ConfigId = QStringLiteral("config_id");
inline const QString ConfigType = QStringLiteral("config_type");
inline const QString Name = QStringLiteral("name");
inline const QString AcctId = QStringLiteral("acct_id");
inline const QString CacheBreaker = QStringLiteral("_");

// The control interface's own parameters (not the library's).
namespace Control {
inline const QString To = QStringLiteral("to");
inline const QString TfaId = QStringLiteral("tfa_id");
inline const QString User = QStringLiteral("user");
inline const QString Code = QStringLiteral("code");
inline const QString Rule = QStringLiteral("rule");
inline const QString Clear = QStringLiteral("clear");
inline const QString Polls = QStringLiteral("polls");
inline const QString Fail = QStringLiteral("fail");
} // namespace Control

} // namespace Wire
