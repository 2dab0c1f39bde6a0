// The request models of the operations. Plain records: an empty string means "not
// given" wherever an operation sends a field only when it is non-empty, and the
// comment names the key a field is sent as. Models are read during the call only.
#pragma once

#include "NBServerApiConstants.h"

#include <QByteArray>
#include <QList>
#include <QString>

// --- Shared by several operations ---------------------------------------------------

// One entry of the remote namespace.
struct NBServerApiEntryModel
{
    QString path; // "path"
    QString pathType; // "path_type", one of NBPathType
    QString from; // "from"
    QString neid; // "neid"
    QString nsid; // "nsid"
    QString prefixNeid; // "prefix_neid"
    QString ignorePrefixPath; // "ignore_prefix_path"
    QString root; // "root", in the JSON bodies of batch operations
};

// A folder's change feed (Delta, VBoxDelta) or sync data (GetSyncData).
struct NBServerApiDeltaModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    QString cursor; // "cursor": where the previous reply of the feed ended
};

// BatchCopy and BatchMove.
struct NBServerApiBatchMoveModel
{
    QList<NBServerApiEntryModel> from; // sources, sent in this order
    NBServerApiEntryModel to; // target folder
    bool ignoreShare = false; // "ignore_share"
};

// GetSyncDataForDisk and GetAssignSyncData (private 6.0 deployments).
struct NBServerApiGetSyncDataModel
{
    QString path; // "path", always
    QString pathType; // "path_type"
    QString from; // "from"
    QString prefixNeid; // "prefix_neid"
    qint64 syncUid = 0; // "syncUid", and the four below: always, in decimal
    qint64 syncCid = 0; // "syncCid"
    qint64 pullJid = 0; // "pullJid"
    qint64 deltaDataId = 0; // "deltaDataId"
    qint64 assignJid = 0; // "assign_Jid"
};

// --- Account, metadata, folders, locks -------------------------------------------

struct NBServerApiUserInfoModel
{
    QString suffix; // appended to the operation's path when set
};

struct NBServerApiConfigGetModel
{
    QString configType; // "config_type"
    QString configId; // "config_id"
    QString name; // "name"
};

struct NBServerApiServerJumpModel
{
    QString url; // "url": the address to open
    QString session; // "X-NIMBRA-SESS-ID", as a parameter
    QString type; // "type": the kind of page
};

struct NBServerApiMetaEntryModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid; // when set, the entry is named by it and the address ends in "//root"
    QString prefixNeid;
    bool includeDeleted = false; // "include_deleted"
    bool withSeed = false; // "with_seed"
    bool list = false; // "list": the folder's entries too
    QString contentType; // "content_type"
    QString orderby; // "orderby", always
    QString sort; // "sort", always
    int limit = 0; // "limit", always
    int offset = 0; // "offset", always
};

struct NBServerApiCreateFolderModel
{
    QString path; // the tail of the address; "full_path" on private deployments
    QString pathType;
    QString from;
    QString neid;
    QString nsid; // private deployments
    QString prefixNeid;
    QString ignorePrefixPath; // private deployments
    QString dcId; // "dc_id"
    bool disableRename = false; // "disable_rename", private deployments
    bool isUpdate = false; // "is_update", private deployments
};

// Public cloud only; private deployments do not create files.
struct NBServerApiCreateFileModel
{
    QString path; // the tail of the address; its suffix is sent as "file_type"
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
};

struct NBServerApiRevisionsModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    int revLimit = 0; // "rev_limit"
};

struct NBServerApiLockFileModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    int time = 0; // "time": seconds
};

struct NBServerApiUnlockFileModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
};

// --- Move, copy, delete ---------------------------------------------------------

struct NBServerApiMoveModel
{
    NBServerApiEntryModel from; // "from_path", "from_path_type", ...
    NBServerApiEntryModel to; // "to_path", "to_path_type", ...
    bool ignoreShare = false; // "ignore_share"
};

struct NBServerApiBatchDeleteModel
{
    QList<NBServerApiEntryModel> pathes; // sent under "pathes", in this order
    bool ignoreShare = false; // "ignore_share"
};

// --- Transfers: routing, whole files, chunks --------------------------------------

// DownloadRouter: a file's content through the routing address, optionally a range.
struct NBSeverApiDLRouterModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    QString rev; // "rev"
    QString range; // sent verbatim as both "Range" and "x-nimbraws-range", e.g. "bytes=0-99"
    QString opType; // "op_type"
};

// The transfer models address the transfer server in `serverUrl` (its scheme, host and
// port are used), not the base address.
struct NBServerApiUploadFileModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    QString rev; // "rev"
    QString parentRev; // "parent_rev"
    QString serverUrl;
    QString localPath; // the file sent, streamed from disk
    bool overwrite = false; // "overwrite"
    QString opType; // "op_type"
};

struct NBServerApiUploadDataModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    QString rev; // not sent by data uploads
    QString parentRev; // "parent_rev"
    QString serverUrl;
    QByteArray data; // the body
    bool overwrite = false; // "overwrite"
    QString opType; // "op_type"
};

struct NBServerApiDownloadFileModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    QString rev; // "rev"
    QString serverUrl;
    QString localPath; // written as the body arrives; truncated first
    QString opType; // "op_type"
};

struct NBServerApiDownloadDataModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    QString rev; // "rev"
    QString serverUrl;
    QString opType; // "op_type"
};

// Chunked uploads: query which chunk hashes the server lacks, upload those chunks,
// commit the file as its ordered hash list. The chunking and the hash are the host's.
struct NBServerApiQueryHashModel
{
    QString serverUrl;
    QString hash; // one "hashes[]"
};

struct NBServerApiChunkedUploadModel
{
    QString serverUrl;
    QString uploadId; // "upload_id"
    QString hash; // "hash"
    QByteArray data; // the chunk
};

struct NBServerApiCommitHashModel
{
    QString path; // "path", and the tail of the address
    QString pathType;
    QString from;
    QString prefixNeid;
    QString rev; // "rev"
    QString parentRev; // "parent_rev"
    QString serverUrl;
    QList<QString> hashes; // one "hashes[]" each, in order
    qint64 bytes = 0; // "bytes": the file's size
    bool isFileCommit = false; // "is_file_commit"
    bool overwrite = false; // "overwrite"
    QString opType; // "op_type"
};

// --- Sign-in and account (public cloud, private deployments) ------------------------

struct NBServerApiLoginModel
{
    // Public cloud: 2 signs in with an account, 3 through the enterprise's own address.
    int kind = 0;
    QString userName; // "loginkey" (kind 2), "username" (kind 3), "user_slug" (private)
    QString password; // "password"
    QString deviceName; // "device_name"
    QString deviceUuid; // "uuid"
    // Kind 2: "captcha". Kind 3: the enterprise's base address, which the request goes to.
    QString captcha;
    bool autoLogin = false; // "pc_auto_login" = "true" when set, left out otherwise
    QString loginType; // "loginType"
};

// The quick-login SMS (GetQuickLoginSmsCode).
struct NBServerApiSmsCodeModel
{
    QString mobile; // "mobile"
    QString type; // "type"
    QString opType; // "op_type"
    QString captcha; // "captcha": the text of the quick-login picture
};

// A QR-code login's state (GetLoginState), polled until the phone has approved.
struct NBServerApiLoginStateModel
{
    QString tfaId; // the two-factor id of the login reply, sent in the cookie
    QString deviceName; // "device_name"
    QString deviceUuid; // "uuid"
};

// --- Deliveries (shared links) ---------------------------------------------------
// A delivery is addressed by its link code on the server in `serverUrl`; `token` is
// the access token its authorisation returned and `session` the delivery's session,
// added to the cookie. Paths in the address lose their first folder (the link's own
// root); query forms send `path` as it is.

struct NBServerApiDeliveryAuthModel
{
    QString code; // the link code
    QString password; // "password"
    QString serverUrl;
};

struct NBServerApiDeliveryAuthUploadModel
{
    QString path; // "path"
    QString bytes; // "bytes", as text
    QString language; // "language"
    QString token; // "token"
    QString serverUrl;
    QString code;
    QString session;
};

struct NBServerApiDeliveryUploadFileModel
{
    QString code;
    QString path; // "path"
    QString token; // "token"
    QString overwrite; // "overwrite", sent as it is
    QString serverUrl;
    QString nbc; // "NBC"
    QString session;
    QString localPath;
};

struct NBServerApiDeliveryUploadDataModel
{
    QString code;
    QString path;
    QString token;
    QString overwrite;
    QString serverUrl;
    QString nbc;
    QString session;
    QByteArray data;
};

struct NBServerApiDeliveryDownloadFileModel
{
    QString code;
    QString path;
    QString token;
    QString overwrite;
    QString serverUrl;
    QString nbc;
    QString session;
    QString localPath;
};

struct NBServerApiDeliveryDownloadDataModel
{
    QString code;
    QString path;
    QString token;
    QString overwrite;
    QString serverUrl;
    QString nbc;
    QString session;
};

struct NBSeverApiDeliveryDLRouterModel
{
    QString code;
    QString path;
    QString token;
    QString overwrite; // not sent by the router
    QString serverUrl;
    QString nbc;
    QString session;
    QString range; // both range headers, when set
};

struct NBServerApiDeliveryCreateFolder
{
    QString serverUrl;
    QString code; // "code"
    QString relativePath; // "relativePath", and the tail of the address
    QString neid; // "neid"
    QString token; // "token"
    QString session;
};

struct NBServerApiDeliveryQueryHashModel
{
    QString serverUrl;
    QString hash; // one "hashes[]"
    QString relativePath; // "relative_path", and the tail of the address
    QString code; // "code"
    QString token; // "token"
    qint64 bytes = 0; // "bytes"
    QString nbc; // "NBC"
    QString session;
};

struct NBServerApiDeliveryChunkedUploadModel
{
    QString serverUrl;
    QString uploadId; // "upload_id"
    QString hash; // "hash"
    QByteArray data; // the chunk
};

// The commit of a chunked delivery upload: the account commit's fields (of which
// path, pathType, from, prefixNeid, rev and opType are not sent) and these.
struct NBServerApiDeliveryCommitHashModel : NBServerApiCommitHashModel
{
    QString code; // "code"
    QString relativePath; // "relative_path", and the tail of the address
    QString token; // "token"
    QString nbc; // "NBC"
    qint64 totalBytes = 0; // the first "bytes"; the commit's own `bytes` goes second
    QString session;
};

struct NBServerApiDeliveryMetadataModel
{
    QString path; // the folder listed, in the address
    bool withSeed = false; // "with_seed"
    QString orderby; // "orderby"
    QString sort; // "sort"
    int limit = 0; // "limit"
    int offset = 0; // "offset"
    QString code; // "code"
    QString session;
    QString serverUrl;
    QString password; // "password", with every listing
    QString token; // "token"
    QString deliveryToken; // "delivery_token"
    bool walkFolderContent = false; // "walk_folder_content"
};
