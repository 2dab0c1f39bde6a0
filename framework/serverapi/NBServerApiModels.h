/// \file
/// The request models of the operations (\ref models).
#pragma once

#include "NBServerApiConstants.h"

#include <QByteArray>
#include <QList>
#include <QString>

/// \defgroup models Request models
/// The request models of the operations. Plain records: an empty string means "not
/// given" wherever an operation sends a field only when it is non-empty, and the
/// comment names the key a field is sent as. Models are read during the call only.
///
/// Keys are request parameters: in the address's query for a GET, in the form body for a
/// POST, and in the query for uploads, whose body is the content. Booleans go out as
/// "true" or "false", numbers in decimal.

/// \defgroup models_shared Shared by several operations
/// \ingroup models
/// @{

/// One entry of the remote namespace. Taken by ServerApi::AuthUpload, ServerApi::InitDelta
/// and ServerApi::GetAssignJid, and, under prefixed keys or as JSON, by the move, copy
/// and delete models; each operation says which fields it sends.
struct NBServerApiEntryModel
{
    QString path; ///< "path"
    QString pathType; ///< "path_type", one of NBPathType
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString nsid; ///< "nsid" (upload authorisation only)
    QString prefixNeid; ///< "prefix_neid"
    QString ignorePrefixPath; ///< "ignore_prefix_path" (upload authorisation only)
    QString root; ///< "root", in the JSON bodies of batch operations
};

/// A folder's change feed (ServerApi::Delta, ServerApi::VBoxDelta) or sync data (ServerApi::GetSyncData).
struct NBServerApiDeltaModel
{
    /// the folder: the tail of the address of Delta and VBoxDelta (which also sends it as
    /// "path" when set); "path" of GetSyncData
    QString path;
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    QString cursor; ///< "cursor": where the previous reply of the feed ended
};

/// ServerApi::BatchCopy and ServerApi::BatchMove.
struct NBServerApiBatchMoveModel
{
    QList<NBServerApiEntryModel> from; ///< sources, sent in this order
    NBServerApiEntryModel to; ///< target folder
    bool ignoreShare = false; ///< "ignore_share", the JSON string "true" or "false"
};

/// ServerApi::GetSyncDataForDisk and ServerApi::GetAssignSyncData (private 6.0 deployments).
struct NBServerApiGetSyncDataModel
{
    QString path; ///< "path", always
    QString pathType; ///< "path_type"
    QString from; ///< "from"
    QString prefixNeid; ///< "prefix_neid"
    qint64 syncUid = 0; ///< "syncUid", and the four below: always, in decimal
    qint64 syncCid = 0; ///< "syncCid"
    qint64 pullJid = 0; ///< "pullJid"
    qint64 deltaDataId = 0; ///< "deltaDataId"
    qint64 assignJid = 0; ///< "assign_Jid"
};

/// @}

/// \defgroup models_namespace Account, metadata, folders, locks
/// \ingroup models
/// @{

/// ServerApi::UserInfo.
struct NBServerApiUserInfoModel
{
    QString suffix; ///< appended to the operation's path when set
};

/// ServerApi::ConfigGet: every field is sent, set or not.
struct NBServerApiConfigGetModel
{
    QString configType; ///< "config_type"
    QString configId; ///< "config_id"
    QString name; ///< "name"
};

/// ServerApi::ServerJump: every field is sent, set or not.
struct NBServerApiServerJumpModel
{
    QString url; ///< "url": the address to open
    QString session; ///< "X-NIMBRA-SESS-ID", as a parameter
    QString type; ///< "type": the kind of page
};

/// ServerApi::MetaData: an entry's metadata, and with `list` a page of a folder's entries.
struct NBServerApiMetaEntryModel
{
    QString path; ///< "path", always; the tail of the address unless `neid` is set
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"; when set, the entry is named by it and the address ends in "//root"
    QString prefixNeid; ///< "prefix_neid"
    bool includeDeleted = false; ///< "include_deleted"
    bool withSeed = false; ///< "with_seed"
    bool list = false; ///< "list": the folder's entries too
    QString contentType; ///< "content_type"
    QString orderby; ///< "orderby", always
    QString sort; ///< "sort", always
    int limit = 0; ///< "limit", always
    int offset = 0; ///< "offset", always
};

/// ServerApi::CreateFolder; the private form sends more of it than the public cloud's.
struct NBServerApiCreateFolderModel
{
    QString path; ///< the tail of the address; "full_path" on private deployments
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< not sent
    QString nsid; ///< "nsid", private deployments
    QString prefixNeid; ///< "prefix_neid"
    QString ignorePrefixPath; ///< "ignore_prefix_path", private deployments
    QString dcId; ///< "dc_id"
    bool disableRename = false; ///< "disable_rename", private deployments
    bool isUpdate = false; ///< "is_update", private deployments
};

/// ServerApi::CreateFile. Public cloud only; private deployments do not create files.
struct NBServerApiCreateFileModel
{
    QString path; ///< the tail of the address; its suffix is sent as "file_type"
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< not sent
    QString prefixNeid; ///< "prefix_neid"
};

/// ServerApi::Revisions.
struct NBServerApiRevisionsModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    int revLimit = 0; ///< "rev_limit"
};

/// ServerApi::LockFile.
struct NBServerApiLockFileModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    int time = 0; ///< "time": seconds
};

/// ServerApi::UnlockFile.
struct NBServerApiUnlockFileModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
};

/// @}

/// \defgroup models_moves ServerApi::Move, copy, delete
/// \ingroup models
/// @{

/// ServerApi::Move: one entry, as form parameters; every key is sent, set or not.
struct NBServerApiMoveModel
{
    NBServerApiEntryModel from; ///< "from_path", "from_path_type", ...
    NBServerApiEntryModel to; ///< "to_path", "to_path_type", ...
    bool ignoreShare = false; ///< "ignore_share"
};

/// ServerApi::BatchDelete.
struct NBServerApiBatchDeleteModel
{
    QList<NBServerApiEntryModel> pathes; ///< sent under "pathes", in this order
    bool ignoreShare = false; ///< "ignore_share", the JSON string "true" or "false"
};

/// @}

/// \defgroup models_transfers Transfers: routing, whole files, chunks
/// \ingroup models
/// The transfer models address the transfer server in `serverUrl` (its scheme, host and
/// port are used), not the base address.
/// @{

/// ServerApi::DownloadRouter: a file's content through the routing address, optionally a range.
struct NBSeverApiDLRouterModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    QString rev; ///< "rev"
    QString range; ///< sent verbatim as both "Range" and "x-nimbraws-range", e.g. "bytes=0-99"
    QString opType; ///< "op_type"
};

/// ServerApi::UploadFile: a file from disk to the transfer server in `serverUrl`.
struct NBServerApiUploadFileModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    QString rev; ///< "rev"
    QString parentRev; ///< "parent_rev"
    QString serverUrl; ///< the transfer server
    QString localPath; ///< the file sent, streamed from disk
    bool overwrite = false; ///< "overwrite"
    QString opType; ///< "op_type"
};

/// ServerApi::UploadData: bytes from memory to the transfer server in `serverUrl`.
struct NBServerApiUploadDataModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    QString rev; ///< not sent by data uploads
    QString parentRev; ///< "parent_rev"
    QString serverUrl; ///< the transfer server
    QByteArray data; ///< the body
    bool overwrite = false; ///< "overwrite"
    QString opType; ///< "op_type"
};

/// ServerApi::DownloadFile: a file from the transfer server in `serverUrl` to disk.
struct NBServerApiDownloadFileModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    QString rev; ///< "rev"
    QString serverUrl; ///< the transfer server
    QString localPath; ///< written as the body arrives; truncated first
    QString opType; ///< "op_type"
};

/// ServerApi::DownloadData: a file from the transfer server in `serverUrl` to a data callback.
struct NBServerApiDownloadDataModel
{
    QString path; ///< "path", always, and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString neid; ///< "neid"
    QString prefixNeid; ///< "prefix_neid"
    QString rev; ///< "rev"
    QString serverUrl; ///< the transfer server
    QString opType; ///< "op_type"
};

/// The hash query of a chunked upload (ServerApi::QueryHash).
///
/// Chunked uploads: query which chunk hashes the server lacks, upload those chunks,
/// commit the file as its ordered hash list. The chunking and the hash are the host's.
struct NBServerApiQueryHashModel
{
    QString serverUrl; ///< the transfer server
    QString hash; ///< one "hashes[]"
};

/// One chunk of a chunked upload (ServerApi::ChunkedUpload).
struct NBServerApiChunkedUploadModel
{
    QString serverUrl; ///< the transfer server
    QString uploadId; ///< "upload_id"
    QString hash; ///< "hash"
    QByteArray data; ///< the chunk
};

/// The commit of a chunked upload (ServerApi::CommitHash): the file as its ordered hash list.
struct NBServerApiCommitHashModel
{
    QString path; ///< "path", and the tail of the address
    QString pathType; ///< "path_type", always
    QString from; ///< "from"
    QString prefixNeid; ///< "prefix_neid"
    QString rev; ///< "rev"
    QString parentRev; ///< "parent_rev"
    QString serverUrl; ///< the transfer server
    QList<QString> hashes; ///< one "hashes[]" each, in order
    qint64 bytes = 0; ///< "bytes": the file's size
    bool isFileCommit = false; ///< "is_file_commit"
    bool overwrite = false; ///< "overwrite"
    QString opType; ///< "op_type"
};

/// @}

/// \defgroup models_signin Sign-in and account (public cloud, private deployments)
/// \ingroup models
/// @{

/// ServerApi::Login. Private deployments send `userName` and `password` only.
struct NBServerApiLoginModel
{
    /// Public cloud: 2 signs in with an account, 3 through the enterprise's own address.
    int kind = 0;
    QString userName; ///< "loginkey" (kind 2), "username" (kind 3), "user_slug" (private)
    QString password; ///< "password"
    QString deviceName; ///< "device_name" (public cloud)
    QString deviceUuid; ///< "uuid" (public cloud)
    /// Kind 2: "captcha". Kind 3: the enterprise's base address, which the request goes to.
    QString captcha;
    bool autoLogin = false; ///< "pc_auto_login" = "true" when set, left out otherwise (kind 2)
    QString loginType; ///< "loginType" (kind 2)
};

/// The quick-login SMS (ServerApi::GetQuickLoginSmsCode).
struct NBServerApiSmsCodeModel
{
    QString mobile; ///< "mobile"
    QString type; ///< "type"
    QString opType; ///< "op_type"
    QString captcha; ///< "captcha": the text of the quick-login picture
};

/// A QR-code login's state (ServerApi::GetLoginState), polled until the phone has approved.
struct NBServerApiLoginStateModel
{
    QString tfaId; ///< the two-factor id of the login reply, sent in the cookie
    QString deviceName; ///< "device_name"
    QString deviceUuid; ///< "uuid"
};

/// @}

/// \defgroup models_delivery Deliveries (shared links)
/// \ingroup models
/// A delivery is addressed by its link code on the server in `serverUrl`; `token` is
/// the access token its authorisation returned and `session` the delivery's session,
/// added to the cookie. Paths in the address lose their first folder (the link's own
/// root); query forms send `path` as it is.
/// @{

/// ServerApi::DeliveryAuth: the link code and its password, for the access token.
struct NBServerApiDeliveryAuthModel
{
    QString code; ///< the link code
    QString password; ///< "password"
    QString serverUrl; ///< the delivery's server
};

/// ServerApi::DeliveryAuthUpload: permission to upload into the link; each key only when set.
struct NBServerApiDeliveryAuthUploadModel
{
    QString path; ///< "path"
    QString bytes; ///< "bytes", as text
    QString language; ///< "language"
    QString token; ///< "token"
    QString serverUrl; ///< the delivery's server
    QString code; ///< the link code, in the address
    QString session; ///< the delivery's session
};

/// ServerApi::DeliveryUploadFile: a file from disk into the link.
struct NBServerApiDeliveryUploadFileModel
{
    QString code; ///< the link code, in the address
    QString path; ///< "path"
    QString token; ///< "token"
    QString overwrite; ///< "overwrite", sent as it is
    QString serverUrl; ///< the delivery's server
    QString nbc; ///< "NBC"
    QString session; ///< the delivery's session
    QString localPath; ///< the file sent, streamed from disk
};

/// ServerApi::DeliveryUploadData: bytes from memory into the link.
struct NBServerApiDeliveryUploadDataModel
{
    QString code; ///< the link code, in the address
    QString path; ///< "path"
    QString token; ///< "token"
    QString overwrite; ///< "overwrite", sent as it is
    QString serverUrl; ///< the delivery's server
    QString nbc; ///< "NBC"
    QString session; ///< the delivery's session
    QByteArray data; ///< the body
};

/// ServerApi::DeliveryDownloadFile: a file of the link to disk.
struct NBServerApiDeliveryDownloadFileModel
{
    QString code; ///< the link code, in the address
    QString path; ///< "path" as it is; the address without its first folder
    QString token; ///< "token"
    QString overwrite; ///< "overwrite", sent as it is
    QString serverUrl; ///< the delivery's server
    QString nbc; ///< "NBC"
    QString session; ///< the delivery's session
    QString localPath; ///< written as the body arrives; truncated first
};

/// ServerApi::DeliveryDownloadData: a file of the link to a data callback.
struct NBServerApiDeliveryDownloadDataModel
{
    QString code; ///< the link code, in the address
    QString path; ///< "path" as it is; the address without its first folder
    QString token; ///< "token"
    QString overwrite; ///< "overwrite", sent as it is
    QString serverUrl; ///< the delivery's server
    QString nbc; ///< "NBC"
    QString session; ///< the delivery's session
};

/// ServerApi::DeliveryDownloadRouter: a file of the link through its routing address, optionally a range.
struct NBSeverApiDeliveryDLRouterModel
{
    QString code; ///< the link code, in the address
    QString path; ///< "path" as it is; the address without its first folder
    QString token; ///< "token"
    QString overwrite; ///< not sent by the router
    QString serverUrl; ///< the delivery's server
    QString nbc; ///< "NBC"
    QString session; ///< the delivery's session
    QString range; ///< both range headers, when set
};

/// ServerApi::DeliveryCreateFolder: a folder in the link; every key is sent, set or not.
struct NBServerApiDeliveryCreateFolder
{
    QString serverUrl; ///< the delivery's server
    QString code; ///< "code"
    QString relativePath; ///< "relativePath", and the tail of the address
    QString neid; ///< "neid"
    QString token; ///< "token"
    QString session; ///< the delivery's session
};

/// ServerApi::DeliveryQueryHash: the hash query of a chunked upload into the link.
struct NBServerApiDeliveryQueryHashModel
{
    QString serverUrl; ///< the delivery's server
    QString hash; ///< one "hashes[]"
    QString relativePath; ///< "relative_path", and the tail of the address
    QString code; ///< "code"
    QString token; ///< "token"
    qint64 bytes = 0; ///< "bytes"
    QString nbc; ///< "NBC"
    QString session; ///< the delivery's session
};

/// ServerApi::DeliveryChunkedUpload: one chunk; no link code, token or session.
struct NBServerApiDeliveryChunkedUploadModel
{
    QString serverUrl; ///< the delivery's server
    QString uploadId; ///< "upload_id"
    QString hash; ///< "hash"
    QByteArray data; ///< the chunk
};

/// The commit of a chunked delivery upload: the account commit's fields (of which
/// path, pathType, from, prefixNeid, rev and opType are not sent) and these.
struct NBServerApiDeliveryCommitHashModel : NBServerApiCommitHashModel
{
    QString code; ///< "code"
    QString relativePath; ///< "relative_path", and the tail of the address
    QString token; ///< "token"
    QString nbc; ///< "NBC"
    qint64 totalBytes = 0; ///< the first "bytes"; the commit's own `bytes` goes second
    QString session; ///< the delivery's session
};

/// ServerApi::DeliveryMetadata: a page of a folder of the link; every key is sent, set or not.
struct NBServerApiDeliveryMetadataModel
{
    QString path; ///< the folder listed, in the address
    bool withSeed = false; ///< "with_seed"
    QString orderby; ///< "orderby"
    QString sort; ///< "sort"
    int limit = 0; ///< "limit"
    int offset = 0; ///< "offset"
    QString code; ///< "code"
    QString session; ///< the delivery's session
    QString serverUrl; ///< the delivery's server
    QString password; ///< "password", with every listing
    QString token; ///< "token"
    QString deliveryToken; ///< "delivery_token"
    bool walkFolderContent = false; ///< "walk_folder_content"
};

/// @}
