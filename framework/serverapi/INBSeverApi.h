/// \file
/// The library's interface for hosts: ServerApi and the records and models it uses.
#pragma once

#include "NBServerApiConstants.h"
#include "NBServerApiGlobal.h"
#include "NBServerApiModels.h"
#include "ResponseData.h"

#include <QList>
#include <QMap>
#include <QSslCertificate>
#include <QString>

/// \mainpage NBServerApi
///
/// A client library for the cloud drive's HTTP/JSON interface. A host includes one
/// header, INBSeverApi.h, and calls the static functions of ServerApi: pick the
/// deployment with ServerApi::init, set the base address, language, user agent and, once
/// signed in, the session, then call the operations.
///
///     ServerApi::init(ServerApi::PublicCloud);
///     ServerApi::setBaseUrlString("https://drive.example");
///     ServerApi::setSessionID(session);
///     long long id = ServerApi::MetaData(folder, [](const ResponseData& r) { ... });
///
/// \section mainpage_linking Linking, on Qt 5 or Qt 6
/// The library builds on Qt 5.15 or Qt 6, with the same requests and records on both. A
/// Qt 5 build installs the package NBServerApi (CMake: `find_package(NBServerApi)` and the
/// target `NBServerApi::NBServerApi`; pkg-config: `NBServerApi`), a Qt 6 build the package
/// NBServerApiQt6 (`NBServerApiQt6::NBServerApi`; pkg-config: `NBServerApiQt6`), so that
/// both install into one prefix. Hosts compile as C++17.
///
/// \section mainpage_requests Requests, identifiers and callbacks
/// Every operation is asynchronous: it returns the request's identifier at once (the
/// value Cancel accepts) and answers later through its callbacks, on the calling
/// thread's event loop, which must be running. A completion runs once per request;
/// after an inactivity time-out it runs twice ("TimeOut" with error 4, then error 5).
///
/// After a request's first completion none of its progress or data callbacks runs again.
///
/// The identifier is a non-negative number unique among the requests in flight; the
/// first completion releases it, and a later request may draw the same number. The
/// completion receives a ResponseData: status, network error, error text, body and
/// headers as they came. The library never reads the body (CNBParseProcessor and
/// NBBaseParse do, for a host that wants them to), and failures are records too, never
/// exceptions. An inactivity time-out is 120 s without progress.
///
/// An operation that the current deployment does not serve sends nothing, never calls back
/// and returns -1 or 0, as its documentation says; without an endpoint (before init, after
/// uninit or an init of an unknown type) every server operation does so and returns -1.
///
/// \section mainpage_cancel Cancelling
/// ServerApi::Cancel(id) closes a running request from any thread: on the request's own
/// thread its completion (error 5) runs inside the call, from another thread soon after,
/// on the request's thread. A request that has finished is left alone. Requests outlive
/// uninit and an init of another type: they still call back, and Cancel still reaches them.
///
/// \section mainpage_threads Threads
/// - operations may start on any thread that runs a Qt event loop; all of a request's
///   callbacks run on that thread, which must outlive the request;
/// - settings (setters and getters) may be called from any thread at any time;
/// - Cancel may be called from any thread: on the request's own thread it completes the
///   request inside the call, from another it is carried out on the request's thread;
/// - FillUrlProtocol and FillUrlProtocolByStep block their thread, never from a callback;
/// - init and uninit replace the endpoint without a lock: call them only while no other
///   thread calls the library (requests in flight may go on).
///
/// \section mainpage_contents Where to look
/// - ServerApi: set-up, settings, proxy, TLS and the log; the operations, grouped as in the
///   README's table: \ref ops_signin, \ref ops_verify, \ref ops_namespace, \ref ops_feed,
///   \ref ops_approval, \ref ops_transfers, \ref ops_delivery and \ref ops_generic;
/// - \ref models, what the operations take; \ref records, what they hand back;
/// - \ref parsing, a uniform reading of replies; \ref constants.

/// \defgroup operations Server operations
/// Every server operation of the three deployments, as a static function of ServerApi,
/// grouped as in the README's table of operations.

/// \defgroup ops_signin Sign-in and account
/// \ingroup operations
/// Signing in, the account and the server's configuration.

/// \defgroup ops_verify Verification and two factors (public cloud)
/// \ingroup operations
/// The public cloud's sign-in screens: quick login by picture and SMS, the two-factor step
/// after a password login (one-time password, SMS code, or a QR code whose state is
/// polled), e-mail verification and the change of password. The private deployments serve
/// none of them: there they send nothing, never call back and return 0. None sends the
/// verification code "S".
///
/// - Quick login: each picture starts a new quick-login session, which the SMS request
///   then carries.
/// - Two-factor login with the id of the login reply: a QR code whose state is polled,
///   a one-time password, or an SMS code (`flag` set sends "timestamp" and "sig").
/// - E-mail verification: send a code, then check it with the key of the first reply.

/// \defgroup ops_namespace Namespace
/// \ingroup operations
/// Metadata, folders and files, locks, revisions; moving, copying and deleting entries,
/// one at a time or many in a server task.

/// \defgroup ops_feed Change feed and sync data
/// \ingroup operations
/// The change feed of a folder and the sync data the synchronisation engine reads: pass
/// the previous reply's cursor to read on.

/// \defgroup ops_approval Approval and the operation log
/// \ingroup operations
/// The server's approval policy and its operation log.

/// \defgroup ops_transfers Transfers
/// \ingroup operations
/// Upload authorisation, whole-file uploads and downloads, download routing, chunked
/// uploads, transfers to or from a whole address, and the public cloud's zip access.
///
/// Chunked uploads are the host's protocol over three requests: split the file and hash
/// each chunk, QueryHash the hashes, ChunkedUpload the chunks the server lacks (any number
/// in flight at once), then CommitHash the ordered hash list.

/// \defgroup ops_delivery Shared links
/// \ingroup operations
/// Deliveries (shared links), as an outside user drives them: authorise with the link
/// code and password, then list, create folders, upload (whole or in chunks) and
/// download with the token of that reply. All but the authorisation and the chunk
/// upload carry the delivery's session. Every deployment serves them, on the delivery's
/// server (`serverUrl` of the model).

/// \defgroup ops_generic Generic requests and addresses
/// \ingroup operations
/// Requests to a whole address, and the completion of an address typed without a scheme.
/// The generic requests send the address as given, no default header, cookie or "S";
/// POST sends the map in key order.

class NBServerApi;

/// The library's interface: a class of static functions, never instantiated. The
/// settings are documented here, the operations by group under \ref operations.
///
/// Unless its documentation says otherwise, an operation:
/// - is served by all three deployments;
/// - goes to the base address (its scheme, host and port; setBaseUrlString), then "/v2",
///   then the route given; an operation whose model has a `serverUrl` (a transfer server,
///   a delivery's server) goes there instead;
/// - carries the default headers, "User-Agent" (when set) and "Cookie" with "language="
///   and the session (when set), and the verification code (setPriServerVerifyCode) as
///   the parameter "S" when one is set;
/// - sends its parameters in the address's query for a GET and as a form body for a POST
///   (where "S" goes in the address all the same);
/// - hands the reply to `done` as it came, the server's JSON in `body`, unread;
/// - returns the request's identifier, which Cancel accepts.
///
/// Without an endpoint (before init, after uninit or an init of an unknown type) the
/// endpoint settings are ignored and read as empty, operations send nothing, never call
/// back and return -1, and Cancel still reaches requests in flight; each such call leaves
/// an error line in the log.
class NBSERVERAPI_EXPORT ServerApi
{
public:
    /// The deployment a server is, chosen by init.
    enum NBServerApiType : qint32 {
        /// A private (on-premises) deployment.
        Private = 0,
        /// The public cloud.
        PublicCloud = 1,
        /// A private deployment of the 6.0 generation: the private one with the sync data
        /// of virtual boxes and assigned jobs.
        PrivateSix = 2,
    };

    /// @name Lifecycle
    ///@{

    /// Creates the endpoint of the deployment type, replacing one of another type (whose
    /// settings are lost; requests in flight go on). An unknown type leaves none. The
    /// same type again changes nothing. A new endpoint starts with empty settings (base
    /// address, session, language, user agent, verification code): set them again.
    static void init(NBServerApiType type);
    /// Destroys the endpoint, if any, and forgets the verification code; requests in
    /// flight go on and still call back. type() stays as it was.
    static void uninit();
    /// The type last passed to init, an unknown one included; Private before any init.
    static NBServerApiType type();
    /// The current endpoint, an internal object a host does not need; null without one.
    static NBServerApi* serverApi();
    ///@}

    /// @name Endpoint settings
    /// Held by the endpoint: init of another type and uninit lose them. Without an
    /// endpoint (before init, after uninit or an unknown type) the endpoint settings below
    /// are ignored and read as empty, operations send nothing, never call back and return
    /// -1, and Cancel still reaches requests in flight.
    ///@{

    /// The session, sent in the cookie as "X-NIMBRA-SESS-ID" (NBConstants::COOKIE_SESSION);
    /// the host takes it from the sign-in reply (NBBaseParse::sessiondId).
    static void setSessionID(const QString& session);
    /// The session set last; empty when none.
    static QString sessionID();
    /// The language, sent in the cookie as "language=".
    static void setLanguage(const QString& language);
    /// The language set last; empty when none.
    static QString language();
    /// The "User-Agent" header of the endpoint's requests; when empty, the network
    /// layer's own. NBConstants::SZ_USER_AGENT is the desktop client's.
    static void setUserAgent(const QString& userAgent);
    /// The user agent set last; empty when none.
    static QString userAgent();
    /// The server: its scheme, host and port are used, its path is not; without a scheme
    /// "http://" is assumed.
    static void setBaseUrlString(const QString& url);
    /// The base address set last, as given; empty when none.
    static QString baseUrlString();
    /// A private server's verification code: the parameter "S" of the endpoint's requests
    /// (in the address of a POST, in the query of an upload), and a cookie "S" beside the
    /// cookie of the requests that carry one, uploads aside; empty sends none.
    static void setPriServerVerifyCode(QString code);
    /// The verification code set last; empty when none.
    static QString priServerVerifyCode();
    ///@}

    /// @name Log
    ///@{

    /// true: debug detail in the log (level 16); false: less (level 2).
    static void setLogLevel(bool debug);
    ///@}

    /// @name Proxy
    /// Proxy settings outlive init and uninit. Null C strings give null strings. Each
    /// request reads them as it starts. By default the proxy is off: requests go direct,
    /// not even through the system's proxy. Switched on with automatic detection (the
    /// default), the system's proxy for the address applies (`http_proxy`, `https_proxy`
    /// and `no_proxy`); without it, the proxy set here.
    ///@{

    /// Sets every proxy setting at once: automatic detection, the scheme (QNetworkProxy's
    /// ProxyType numbering: 1 SOCKS 5, 3 HTTP), host, port (cut to 16 bits), user,
    /// password and the switch.
    static void proxy(bool autoDetect, int scheme, const char* host, int port, const char* user,
        const char* password, bool open);
    /// The proxy's type, in QNetworkProxy's ProxyType numbering (1 SOCKS 5, 3 HTTP, the default).
    static void setProxyScheme(int scheme);
    /// The proxy's host name.
    static void setProxyHostname(const char* host);
    /// The proxy's port, cut to 16 bits.
    static void setProxyPort(int port);
    /// The user the proxy authenticates.
    static void setProxyUser(const char* user);
    /// The proxy user's password; a redacting log hides it.
    static void setProxyPassword(const char* password);
    /// true (the default): the system's proxy for each address; false: the one set here.
    static void setProxyAutoDetect(bool autoDetect);
    /// Switches the proxy on or off (off by default).
    static void setProxySwitch(bool open);
    /// The proxy's host name; empty when none.
    static QString proxyHostname();
    /// The proxy's port; 0 when none.
    static int proxyPort();
    /// The proxy's user; empty when none.
    static QString proxyUser();
    /// The proxy user's password; empty when none.
    static QString proxyPassword();
    /// Whether the proxy is switched on.
    static bool proxySwitch();
    ///@}

    /// @name TLS
    /// TLS, like the proxy, outlives init and uninit. By default server certificates are not
    /// verified. With verification on, a certificate must chain to the system's CAs or to
    /// one added here and name the host; otherwise the request completes with the
    /// transport's SSL error (6) and the log names Qt's reason. A pinned key (the SHA-256
    /// of the server certificate's public key, SubjectPublicKeyInfo in DER: 64 hex digits,
    /// or base64 with or without "sha256//") is checked on every connection, verified or
    /// not: a server with another key fails with error 6, and one with this key is trusted
    /// even when its chain is unknown (a private CA).
    ///@{

    /// Verifies server certificates (true) or accepts any (false, the default).
    static void setTlsVerifyPeer(bool verify);
    /// Whether server certificates are verified.
    static bool tlsVerifyPeer();
    /// Adds the PEM certificates of a file; false, and nothing added, when it holds none.
    static bool addTlsCaCertificates(const QString& pemFile);
    /// Adds CA certificates to the system's, for verification.
    static void addTlsCaCertificates(const QList<QSslCertificate>& certificates);
    /// Forgets the added CA certificates; the system's remain.
    static void clearTlsCaCertificates();
    /// Pins a server key. false, and the pin unchanged, when the digest is not one; an
    /// empty text clears it.
    static bool setTlsPinnedPublicKey(const QString& digest);
    static QString tlsPinnedPublicKey(); ///< The pinned key's digest in hex; empty when none.
    ///@}

    /// @name Log redaction
    /// Off by default: the trace writes every parameter and header as it goes out. On:
    /// passwords, one-time passwords, verification codes, tokens, "S", the session and
    /// two-factor cookies, "Authorization" and the proxy password are written as "***(N)"
    /// in every line of the library's log.
    ///@{

    /// Switches the log's redaction on or off.
    static void setLogRedaction(bool redact);
    /// Whether the log's redaction is on.
    static bool logRedaction();
    /// `text` with every secret hidden as the log hides them, whether the log's redaction
    /// is on or not: for a host that shows server replies or addresses to people.
    static QString RedactSecrets(const QString& text);
    ///@}

    /// Completes an address typed without a scheme ("host:port" or "/host") with the one of
    /// "http://" and "https://" that answers a plain GET with 200. Prefer
    /// FillUrlProtocolByStep, which tries https first (following redirects) and plain http
    /// only when https fails; FillUrlProtocol probes both at once, so whichever answers
    /// first, plain http included, picks the scheme. An address that has a scheme is
    /// copied as it is. Both block the calling thread, which needs an event dispatcher, in
    /// a nested event loop: a probe reads no body and lasts at most one inactivity interval
    /// (120 s) however slowly a server answers, so FillUrlProtocol returns within one
    /// interval and FillUrlProtocolByStep within two. On failure `out` is left as it was.
    /// They need no endpoint. Called from inside a callback of the library (completion,
    /// progress or data) they refuse at once: false, `out` unchanged, no probe sent, and
    /// a line in the log saying why.
    ///
    /// FillUrlProtocol probes without following redirects.
    /// \ingroup ops_generic
    static bool FillUrlProtocol(const QString& in, QString& out);
    /// The address `in` completed with "https://", or with "http://" when https fails;
    /// true and `out` set when one answers 200. See FillUrlProtocol.
    /// \ingroup ops_generic
    static bool FillUrlProtocolByStep(const QString& in, QString& out);

    /// @name Cancelling
    ///@{

    /// Closes a running request; its completion (error 5) runs inside this call when called
    /// on the request's thread, and soon after on that thread when called from another.
    /// An identifier that is not running changes nothing and calls nothing back.
    static void Cancel(long long id);
    ///@}

    /// Signs in. The public cloud takes kind 2 (account) or 3 (enterprise); the reply's
    /// session is the host's to keep (setSessionID). No "S" is sent.
    ///
    /// - Private, PrivateSix: `POST /v2/user/login` with "user_slug" and "password".
    /// - PublicCloud, kind 2: `POST /v2/user/login_new` with "loginType", "loginkey",
    ///   "password", "device_name", "uuid", "captcha" and, when set, "pc_auto_login".
    /// - PublicCloud, kind 3: `POST /oauth/callback?source=win` on the enterprise's address
    ///   (the model's `captcha`), without "/v2", with "username", "password", "uuid" and
    ///   "device_name".
    /// - PublicCloud, another kind: sends nothing, never calls back, returns 0.
    ///
    /// Completion: the sign-in reply; NBBaseParse reads its session ("X-NIMBRA-SESS-ID").
    /// A two-factor account's reply names the two-factor id that GetLoginState,
    /// DyncCodeLogin, SendSmsCode and SmsCodeLogin take.
    /// \ingroup ops_signin
    static long long Login(const NBServerApiLoginModel& model, NBCompletionCallback done);

    /// The account's information: `GET /v2/user/info/get`, the model's suffix appended
    /// when set.
    ///
    /// Completion: the account's fields.
    /// \ingroup ops_signin
    static long long UserInfo(const NBServerApiUserInfoModel& model, NBCompletionCallback done);
    /// An entry's metadata, and with `list` a page of a folder's entries:
    /// `GET /v2/metadata/databox` followed by the model's path, or by "//root" when `neid`
    /// is set; the paging parameters always go out.
    ///
    /// Completion: the entry's metadata and, with `list`, the folder's entries.
    /// \ingroup ops_namespace
    static long long MetaData(const NBServerApiMetaEntryModel& model, NBCompletionCallback done);
    /// Opens a page of the web interface with the session: "url", "X-NIMBRA-SESS-ID" and
    /// "type" of the model.
    ///
    /// - Private, PrivateSix: `GET /v2/api/server/jump`.
    /// - PublicCloud: `GET /js/module/preview/previewVideo_audio_forPC_MAC.html` on the base
    ///   address, without "/v2" and without "S".
    ///
    /// Completion: the server's reply to the jump.
    /// \ingroup ops_signin
    static long long ServerJump(const NBServerApiServerJumpModel& model, NBCompletionCallback done);
    /// A configuration of the server: `GET /v2/config/get` with "config_id", "config_type"
    /// and "name".
    ///
    /// Completion: the configuration asked for.
    /// \ingroup ops_signin
    static long long ConfigGet(const NBServerApiConfigGetModel& model, NBCompletionCallback done);
    /// Creates a folder: `POST /v2/fileops/create_folder/databox` followed by the model's
    /// path. The public cloud sends "path_type", "from", "prefix_neid" and "dc_id"; the
    /// private deployments also "nsid", "full_path", "ignore_prefix_path", "disable_rename"
    /// and "is_update" (see NBServerApiCreateFolderModel).
    ///
    /// Completion: the server's reply to the creation.
    /// \ingroup ops_namespace
    static long long CreateFolder(const NBServerApiCreateFolderModel& model, NBCompletionCallback done);
    /// Creates an empty file: `POST /v2/fileops/create_file` followed by the model's path,
    /// with "path_type", "from", "prefix_neid" and "file_type" (the path's suffix).
    /// Public cloud only (private deployments return -1 and never call back).
    ///
    /// Completion: the server's reply to the creation.
    /// \ingroup ops_namespace
    static long long CreateFile(const NBServerApiCreateFileModel& model, NBCompletionCallback done);
    /// The server's regions: `GET /v2/region/get`.
    ///
    /// Completion: the region list.
    /// \ingroup ops_signin
    static long long RegionGet(NBCompletionCallback done);
    /// A file's revisions: `GET /v2/revisions/databox` followed by the model's path, with
    /// "rev_limit".
    ///
    /// Completion: the list of revisions.
    /// \ingroup ops_namespace
    static long long Revisions(const NBServerApiRevisionsModel& model, NBCompletionCallback done);
    /// Where the client's update resources are: `GET /v2/app/info/get` with "acct_id" =
    /// `acctId`.
    ///
    /// Completion: the address of the update resources.
    /// \ingroup ops_signin
    static long long GetUpdataSourcePath(const QString& acctId, NBCompletionCallback done);
    /// Extra metadata of entries named by their ids.
    ///
    /// - PublicCloud: `GET /v2/extra_meta` with "neids" = the ids joined by ",", and "S",
    ///   but without the default headers.
    /// - Private, PrivateSix: `POST /v2/extra_metadata` with "json" = a JSON array of one
    ///   object {"neid": id} per id (Qt's indented JSON, its bytes read as Latin-1).
    ///
    /// Completion: the entries' extra metadata.
    /// \ingroup ops_namespace
    static long long Extra(QList<QString> neids, NBCompletionCallback done);
    /// Locks a file: `GET /v2/lock/databox` followed by the model's path, with "time" in
    /// seconds.
    ///
    /// Completion: the lock's state, or the server's error.
    /// \ingroup ops_namespace
    static long long LockFile(const NBServerApiLockFileModel& model, NBCompletionCallback done);
    /// Unlocks a file: `GET /v2/unlock/databox` followed by the model's path.
    ///
    /// Completion: the lock's state, or the server's error.
    /// \ingroup ops_namespace
    static long long UnlockFile(const NBServerApiUnlockFileModel& model, NBCompletionCallback done);

    /// Asks to upload a file of `bytes` bytes. The extra query of AuthUpload, QueryHash,
    /// ChunkedUpload and CommitHash, when set, is appended to the address after "&" as it
    /// is (no "?" added).
    ///
    /// - PublicCloud: `GET /v2/fileops/auth_upload/databox` followed by the path, with
    ///   "path", "path_type", "full_path" (the path again), "ignore_prefix_path", "from",
    ///   "prefix_neid", "nsid", "neid" (each when set) and "bytes".
    /// - Private, PrivateSix: `POST /v2/fileops/auth_upload/databox` with "target_path"
    ///   (the path, which is not in the address), "path_type", the same optional ones and
    ///   "bytes".
    ///
    /// Completion: the authorisation; which transfer server the upload goes to (the
    /// `serverUrl` of the upload models) is the host's reading of it.
    /// \ingroup ops_transfers
    static long long AuthUpload(const NBServerApiEntryModel& model, long long bytes,
        NBCompletionCallback done, QString extraQuery = QString());
    /// A file's content through the routing address: `GET /v2/dl_router/databox` followed
    /// by the model's path, on the base address; a range goes out as both "Range" and
    /// "x-nimbraws-range". Redirects to the node that holds the data are followed.
    ///
    /// onData receives the body piece by piece (the record then keeps only its first 1 MiB;
    /// without onData it keeps it all), onProgress the bytes received. Completion: the
    /// status and headers of the download.
    /// \ingroup ops_transfers
    static long long DownloadRouter(const NBSeverApiDLRouterModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    /// Uploads a file, streamed from disk: `POST /v2/files/databox` followed by the
    /// model's path, on `serverUrl`; every parameter, "S" and "language" (the host
    /// configuration's language) go in the query, the file is the body. A file that cannot
    /// be opened completes inside the call with its file error and sends nothing.
    ///
    /// onProgress receives the bytes sent. Completion: the server's reply to the upload.
    /// \ingroup ops_transfers
    static long long UploadFile(const NBServerApiUploadFileModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {});
    /// Uploads bytes from memory: as UploadFile, with the model's data as the body and no
    /// "rev".
    ///
    /// onProgress receives the bytes sent. Completion: the server's reply to the upload.
    /// \ingroup ops_transfers
    static long long UploadData(const NBServerApiUploadDataModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {});
    /// Downloads a file to disk: `GET /v2/files/databox` followed by the model's path, on
    /// `serverUrl`, with "language" (the host configuration's). The local file is
    /// truncated first and written as the body arrives, whatever the status; one that
    /// cannot be opened completes inside the call with its file error and sends nothing.
    ///
    /// onProgress receives the bytes received. Completion: the status and headers, the
    /// first 1 MiB of the body; a failed write, its file error in `statusCode`,
    /// `networkError`, `errorString` and `body`.
    /// \ingroup ops_transfers
    static long long DownloadFile(const NBServerApiDownloadFileModel& model, NBCompletionCallback done,
        NBDownloadProgressCallback onProgress = {});
    /// Downloads a file to memory: as DownloadFile, the body handed to onData piece by
    /// piece (and its first 1 MiB kept for the record's body; without onData the record
    /// keeps it all).
    ///
    /// onProgress receives the bytes received. Completion: the status and headers of the
    /// download.
    /// \ingroup ops_transfers
    static long long DownloadData(const NBServerApiDownloadDataModel& model, NBDataCallback onData,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    /// Asks which chunk the server lacks: `POST /v2/commit_chunked_upload/commit/databox`
    /// on `serverUrl`, with one "hashes[]", then the extra query.
    ///
    /// Completion: the server's answer on the hash: whether it already holds the chunk.
    /// \ingroup ops_transfers
    static long long QueryHash(
        const NBServerApiQueryHashModel& model, NBCompletionCallback done, QString extraQuery = QString());
    /// Uploads one chunk: `POST /v2/chunked_upload` on `serverUrl`, with "hash",
    /// "upload_id" (each when set), "offset" = "0" and "S" in the query, then the extra
    /// query; the chunk is the body.
    ///
    /// onProgress receives the bytes sent. Completion: the server's answer on the chunk.
    /// \ingroup ops_transfers
    static long long ChunkedUpload(const NBServerApiChunkedUploadModel& model, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {}, QString extraQuery = QString());
    /// Commits a chunked upload as its ordered hash list: `POST
    /// /v2/commit_chunked_upload/commit/databox` followed by the model's path, on
    /// `serverUrl`, with one "hashes[]" per hash in order, then the extra query.
    ///
    /// Completion: the server's reply to the commit; its error "invalid.hash" or
    /// "content_hash_error" when a hash is unknown or the content does not match.
    /// \ingroup ops_transfers
    static long long CommitHash(
        const NBServerApiCommitHashModel& model, NBCompletionCallback done, QString extraQuery = QString());
    /// A whole address: Download with the default headers, Upload with nothing of the endpoint.
    ///
    /// Download: `GET` of `url` as given, with the default headers and no parameter "S";
    /// onData receives the body piece by piece (the record then keeps only its first 1 MiB).
    /// \ingroup ops_transfers
    static long long Download(const QString& url, NBDataCallback onData, NBCompletionCallback done,
        NBDownloadProgressCallback onProgress = {});
    /// `POST` of the file at `localPath`, streamed from disk, to `url` as given: no header,
    /// cookie or parameter of the endpoint. A file that cannot be opened completes inside
    /// the call with its file error and sends nothing.
    /// \ingroup ops_transfers
    static long long Upload(const QString& url, const QString& localPath, NBCompletionCallback done,
        NBUploadProgressCallback onProgress = {});

    /// Authorises with the link code and password: `POST /v2/delivery/auth/{code}` with
    /// "password"; no session.
    ///
    /// Completion: the delivery's access token (`token` of the later calls).
    /// \ingroup ops_delivery
    static long long DeliveryAuth(const NBServerApiDeliveryAuthModel& model, NBCompletionCallback done);
    /// Asks to upload into the link: `GET /v2/delivery/auth_upload/{code}` with "bytes",
    /// "language", "token" and "path", each when set.
    ///
    /// Completion: the authorisation.
    /// \ingroup ops_delivery
    static long long DeliveryAuthUpload(
        const NBServerApiDeliveryAuthUploadModel& model, NBCompletionCallback done);
    /// Uploads a file into the link, streamed from disk: `POST /v2/delivery/data/{code}`,
    /// with "path", "token", "NBC", "overwrite", "S" and "language" in the query.
    ///
    /// onProgress receives the bytes sent. Completion: the server's reply to the upload.
    /// \ingroup ops_delivery
    static long long DeliveryUploadFile(const NBServerApiDeliveryUploadFileModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress = {});
    /// Uploads bytes into the link: as DeliveryUploadFile, the model's data as the body.
    ///
    /// onProgress receives the bytes sent. Completion: the server's reply to the upload.
    /// \ingroup ops_delivery
    static long long DeliveryUploadData(const NBServerApiDeliveryUploadDataModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress = {});
    /// Downloads a file of the link to disk: `GET /v2/delivery/dl_router/{code}` followed
    /// by the path without its first folder, with "path", "token", "NBC", "overwrite", "S"
    /// and "language" in the query, then "?S=" and the code once more (a second "?"). The
    /// local file is truncated first.
    ///
    /// onProgress receives the bytes received. Completion: the status and headers, the
    /// first 1 MiB of the body.
    /// \ingroup ops_delivery
    static long long DeliveryDownloadFile(const NBServerApiDeliveryDownloadFileModel& model,
        NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    /// Downloads a file of the link to memory: as DeliveryDownloadFile, "S" once, the
    /// body handed to onData piece by piece.
    ///
    /// onProgress receives the bytes received. Completion: the status and headers.
    /// \ingroup ops_delivery
    static long long DeliveryDownloadData(const NBServerApiDeliveryDownloadDataModel& model,
        NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});
    /// Lists a folder of the link: `GET /v2/delivery/metadata/{code}` followed by the path
    /// without its first folder, with "token", "delivery_token", "code", "password",
    /// "with_seed", "walk_folder_content" and the paging parameters.
    ///
    /// Completion: the folder's entries.
    /// \ingroup ops_delivery
    static long long DeliveryMetadata(
        const NBServerApiDeliveryMetadataModel& model, NBCompletionCallback done);
    /// Creates a folder in the link: `POST /v2/delivery/upload_folder/{code}` followed by
    /// the relative path, with "token", "code", "relativePath" and "neid".
    ///
    /// Completion: the server's reply to the creation.
    /// \ingroup ops_delivery
    static long long DeliveryCreateFolder(NBServerApiDeliveryCreateFolder model, NBCompletionCallback done);
    /// Asks which chunk the server lacks: `POST /v2/delivery/commit_chunked/{code}`
    /// followed by the relative path, with "code", "relative_path", "bytes", "token",
    /// "NBC" and one "hashes[]".
    ///
    /// Completion: the server's answer on the hash: whether it already holds the chunk.
    /// \ingroup ops_delivery
    static long long DeliveryQueryHash(
        const NBServerApiDeliveryQueryHashModel& model, NBCompletionCallback done);
    /// Uploads one chunk: `POST /v2/delivery/chunked_upload/` (trailing slash), with "hash",
    /// "upload_id" (each when set), "offset" = "0" and "S" in the query; no session.
    ///
    /// onProgress receives the bytes sent. Completion: the server's answer on the chunk.
    /// \ingroup ops_delivery
    static long long DeliveryChunkedUpload(const NBServerApiDeliveryChunkedUploadModel& model,
        NBCompletionCallback done, NBUploadProgressCallback onProgress = {});
    /// Commits a chunked upload into the link: `POST /v2/delivery/commit_chunked/{code}`
    /// followed by the relative path, with "code", "relative_path", "bytes" (the total),
    /// "token", "NBC", "parent_rev" (when set), "bytes" again (the commit's own),
    /// "is_file_commit", "overwrite" and one "hashes[]" per hash.
    ///
    /// Completion: the server's reply to the commit.
    /// \ingroup ops_delivery
    static long long DeliveryCommitHash(
        const NBServerApiDeliveryCommitHashModel& model, NBCompletionCallback done);
    /// A file of the link through its routing address: `GET /v2/delivery/dl_router/{code}`
    /// followed by the path without its first folder, with "path", "token", "NBC", "S" and
    /// "language" in the query; a range goes out as both "Range" and "x-nimbraws-range".
    ///
    /// onData receives the body piece by piece (the record then keeps only its first
    /// 1 MiB), onProgress the bytes received. Completion: the status and headers.
    /// \ingroup ops_delivery
    static long long DeliveryDownloadRouter(const NBSeverApiDeliveryDLRouterModel& model,
        NBDataCallback onData, NBCompletionCallback done, NBDownloadProgressCallback onProgress = {});

    /// A folder's change feed: `POST /v2/delta/databox` followed by the model's path, with
    /// "path_type", "from", "neid", "cursor" and "prefix_neid" (each but the first when
    /// set). Pass the previous reply's cursor to read on.
    ///
    /// Completion: the changes and the cursor to read on from.
    /// \ingroup ops_feed
    static long long Delta(const NBServerApiDeltaModel& model, NBCompletionCallback done);
    /// A synchronised folder's data: `POST /v2/syncdata/syncDisc` with the model's
    /// "path", "path_type", "from", "neid", "cursor", "prefix_neid", then "syncCid",
    /// "syncUid", "pullJid", "deltaDataId" and "syncType". Empty identifiers go out as "0"
    /// (syncUid is left out).
    ///
    /// Completion: the sync data.
    /// \ingroup ops_feed
    static long long GetSyncData(const NBServerApiDeltaModel& model, const QString& syncCid,
        const QString& syncUid, const QString& pullJid, const QString& deltaDataId, int syncType,
        NBCompletionCallback done);
    /// Public cloud: the virtual-box feed, `POST /v2/vboxdelta/databox` followed by the
    /// model's path, with the parameters of Delta and "path" when set. The private
    /// deployments return -1 and never call back.
    ///
    /// Completion: the changes and the cursor to read on from.
    /// \ingroup ops_feed
    static long long VBoxDelta(const NBServerApiDeltaModel& model, NBCompletionCallback done);
    /// Public cloud: the first read of a folder's feed, `POST /v2/initdelta/databox`
    /// followed by the model's path, with "path_type", "path" and "neid" (each but the
    /// first when set). The private deployments return -1 and never call back.
    ///
    /// Completion: the folder's entries and the cursor to read on from.
    /// \ingroup ops_feed
    static long long InitDelta(const NBServerApiEntryModel& model, NBCompletionCallback done);
    /// Private 6.0 deployments: sync data of virtual boxes, `POST /v2/syncdata/virtualBox`
    /// with the model's five identifiers, "path", "path_type", "from" and "prefix_neid".
    /// Every reply is also written to the log with the address. The other deployments
    /// return -1 and never call back.
    ///
    /// Completion: the sync entries.
    /// \ingroup ops_feed
    static long long GetSyncDataForDisk(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);
    /// Private 6.0 deployments: the assigned job of a folder, `GET
    /// /v2/syncdata/returnAssignJid` with "path" and "path_type". The other deployments
    /// return -1 and never call back.
    ///
    /// Completion: the assigned job's identifier.
    /// \ingroup ops_feed
    static long long GetAssignJid(const NBServerApiEntryModel& model, NBCompletionCallback done);
    /// Private 6.0 deployments: sync data of an assigned job, as GetSyncDataForDisk but
    /// `POST /v2/syncdata/assignVirtualBox`; every reply is also written to the log. The
    /// other deployments return -1 and never call back.
    ///
    /// Completion: the sync entries.
    /// \ingroup ops_feed
    static long long GetAssignSyncData(const NBServerApiGetSyncDataModel& model, NBCompletionCallback done);

    /// Whether an action on entries needs approval: `GET /v2/approve/is_approval` with
    /// "neids" and "action_type".
    ///
    /// Completion: the policy's answer.
    /// \ingroup ops_approval
    static long long CheckApproveIsOne(const QString& neids, int actionType, NBCompletionCallback done);
    /// Whether a folder has an approval policy: `GET /v2/approve/is_exist_policy` with
    /// "nsid" and "path".
    ///
    /// Completion: the policy's answer.
    /// \ingroup ops_approval
    static long long CheckApproveFloder(const QString& nsid, const QString& path, NBCompletionCallback done);
    /// Whether a synchronised folder may be created: `GET /v2/approve/is_create_syndisc`
    /// with "nsid", "path" and "type".
    ///
    /// Completion: the policy's answer.
    /// \ingroup ops_approval
    static long long IsCreateSyndisc(
        const QString& nsid, const QString& path, const QString& type, NBCompletionCallback done);
    /// Writes a record to the server's operation log: `POST /v2/log/logging` with
    /// "category" = "0", "action", "entityStr1", "entityStr2", "pathType", "op_type",
    /// "neid" and "nsid". pathType is given by name and sent as a number: "ent" 1,
    /// "self" 2, "share_in" 3, "share_out" 4 (in any case), anything else 0.
    ///
    /// Completion: the server's reply.
    /// \ingroup ops_approval
    static long long RPCServerLogging(const QString& action, const QString& entityStr2,
        const QString& entityStr1, const QString& pathType, const QString& neid, const QString& nsid,
        const QString& opType, NBCompletionCallback done);

    /// Private deployments: whether an entry exists, `POST /v2/fileops/fileExists` (all
    /// five parameters always sent). The public cloud returns -1 and never calls back.
    ///
    /// Completion: the server's answer.
    /// \ingroup ops_namespace
    static long long FileExist(const QString& neid, const QString& path, const QString& nsid,
        const QString& from, const QString& prefixNeid, NBCompletionCallback done);

    /// Public cloud: the account's functions, `GET /v2/account/funs/get`. Elsewhere it
    /// sends nothing, never calls back and returns 0.
    ///
    /// Completion: the functions the account may use.
    /// \ingroup ops_signin
    static long long GetFuns(NBCompletionCallback done);
    /// Public cloud: the encryption rule, `GET /v2/encrypt/strategy/get`. Elsewhere it
    /// sends nothing, never calls back and returns 0.
    ///
    /// Completion: the encryption strategy.
    /// \ingroup ops_signin
    static long long GetEstEncryptRule(NBCompletionCallback done);
    /// Public cloud: an enterprise's sign-in address by its code, `GET
    /// /v2/sso/get_ent_login_addr` with "ent_code"; no "S". Elsewhere it sends nothing,
    /// never calls back and returns 0.
    ///
    /// Completion: the enterprise's sign-in address.
    /// \ingroup ops_signin
    static long long GetEnterpriseAddressByCode(const QString& code, NBCompletionCallback done);
    /// Public cloud: zip access, `GET` of `url` as given with the default headers and no
    /// "S"; the second argument is not used. Elsewhere it sends nothing, never calls back
    /// and returns 0.
    ///
    /// Completion: the server's answer at that address.
    /// \ingroup ops_transfers
    static long long GetZipDownloadUrl(const QString& url, const QString& unused, NBCompletionCallback done);
    /// Public cloud: a zip folder's listing, `GET` of `url` with "limit", "offset" and
    /// "password" (left out when `url` holds "password=" in any case), the default headers
    /// and no "S". Elsewhere it sends nothing, never calls back and returns 0.
    ///
    /// Completion: the folder's entries.
    /// \ingroup ops_transfers
    static long long GetZipFolderMetadata(const QString& url, const QString& password, long long limit,
        long long offset, NBCompletionCallback done);
    /// Quick login's picture: each picture starts a new quick-login session, which the SMS
    /// request then carries; the picture's bytes reach onData and nothing reports the end.
    ///
    /// `GET /v2/captcha/create/login_quick`, the new session in the cookie as
    /// "X-NIMBRA-SESS-ID".
    /// \ingroup ops_verify
    static long long GetQuickLoginVerifyPic(NBDataCallback onData);
    /// Quick login's SMS: `POST /v2/captcha/sendsms` with "mobile", "type", "op_type" and
    /// "captcha" (the picture's text), the quick-login session of the last picture in the
    /// cookie (empty before any).
    ///
    /// Completion: the server's reply to the request for an SMS.
    /// \ingroup ops_verify
    static long long GetQuickLoginSmsCode(const NBServerApiSmsCodeModel& model, NBCompletionCallback done);
    /// The QR code of a two-factor login: `GET /v2/tfa/qrcode/get` with "dimension" and
    /// "_" (the time in milliseconds, against caches).
    ///
    /// Completion: the QR code to show.
    /// \ingroup ops_verify
    static long long GetQRCode(int dimension, NBCompletionCallback done);
    /// A QR-code login's state: `GET /v2/tfa/stat/get` with "uuid", "device_name" and "_"
    /// (the time in milliseconds), the two-factor id in the cookie as "X-NIMBRA-TFA-ID".
    /// Poll it until the phone has approved.
    ///
    /// Completion: the login's state.
    /// \ingroup ops_verify
    static long long GetLoginState(NBServerApiLoginStateModel model, NBCompletionCallback done);
    /// Signs in with a one-time password: `POST /v2/tfa/otp` with "otp", the two-factor id
    /// in the cookie as "X-NIMBRA-TFA-ID".
    ///
    /// Completion: the server's reply to the sign-in.
    /// \ingroup ops_verify
    static long long DyncCodeLogin(const QString& tfaId, const QString& otp, NBCompletionCallback done);
    /// Sends the two-factor SMS: `POST /v2/captcha/sendsms` with "mobile", "op_type",
    /// "type" (when set) and, when `flag` is set, "timestamp" and "sig"; `flag` itself is
    /// not sent. The two-factor id goes in the cookie as "X-NIMBRA-TFA-ID".
    ///
    /// Completion: the server's reply to the request for an SMS.
    /// \ingroup ops_verify
    static long long SendSmsCode(const QString& mobile, const QString& tfaId, const QString& opType,
        const QString& type, const QString& flag, const QString& timestamp, const QString& sig,
        NBCompletionCallback done);
    /// Signs in with the SMS code: `POST /v2/tfa/sms` with "verify_code", the two-factor id
    /// in the cookie as "X-NIMBRA-TFA-ID".
    ///
    /// Completion: the server's reply to the sign-in.
    /// \ingroup ops_verify
    static long long SmsCodeLogin(const QString& tfaId, const QString& verifyCode, NBCompletionCallback done);
    /// Sends an e-mail verification code: `POST /v2/captcha/sendemail` with "email",
    /// "op_type" and "captcha".
    ///
    /// Completion: the key LoginCheckEmailVerify takes.
    /// \ingroup ops_verify
    static long long GetLoginEmailVerify(
        const QString& email, const QString& opType, const QString& captcha, NBCompletionCallback done);
    /// Checks the e-mailed code: `POST /v2/captcha/check` with "check_key", "verify_code",
    /// "op_type" and "captcha".
    ///
    /// Completion: the server's reply to the check.
    /// \ingroup ops_verify
    static long long LoginCheckEmailVerify(const QString& checkKey, const QString& verifyCode,
        const QString& opType, const QString& captcha, NBCompletionCallback done);
    /// Changes the password: `POST /v2/user/password/modify` with "token", "old_password"
    /// and "password".
    ///
    /// Completion: the server's reply to the change.
    /// \ingroup ops_verify
    static long long ResetPassword(
        const QString& token, const QString& oldPassword, const QString& password, NBCompletionCallback done);

    /// Moves one entry: `POST /v2/fileops/move` with "root" = "databox", the source as
    /// "from_path", "from_path_type", "from_from", "from_neid", "from_prefix_neid", the
    /// target as the same under "to_", and "ignore_share".
    ///
    /// Completion: the server's reply to the move.
    /// \ingroup ops_namespace
    static long long Move(const NBServerApiMoveModel& model, NBCompletionCallback done);
    /// Copies many entries in a server task, polled with BatchTaskAsyncQuery and the task
    /// id of the reply: `POST /v2/fileops/batch_copy` with "json" = {"from": [entries],
    /// "to": entry, "ignore_share": "true" or "false"}, each entry with "root", "path",
    /// "path_type", "neid", "from" and "prefix_neid".
    ///
    /// Completion: the server task.
    /// \ingroup ops_namespace
    static long long BatchCopy(const NBServerApiBatchMoveModel& model, NBCompletionCallback done);
    /// Moves many entries in a server task: as BatchCopy, to `POST /v2/fileops/batch_move`.
    ///
    /// Completion: the server task.
    /// \ingroup ops_namespace
    static long long BatchMove(const NBServerApiBatchMoveModel& model, NBCompletionCallback done);
    /// Deletes many entries in a server task: `POST /v2/fileops/batch_delete` with "json" =
    /// {"pathes": [entries], "ignore_share": "true" or "false"}.
    ///
    /// Completion: the server task.
    /// \ingroup ops_namespace
    static long long BatchDelete(const NBServerApiBatchDeleteModel& model, NBCompletionCallback done);
    /// A server task's state: `GET /v2/async/query` with "task_id".
    ///
    /// Completion: the task's state.
    /// \ingroup ops_namespace
    static long long BatchTaskAsyncQuery(const QString& taskId, NBCompletionCallback done);

    /// `GET` of `url` as given: no default header, cookie or "S"; redirects are followed.
    ///
    /// Completion: whatever the address answers.
    /// \ingroup ops_generic
    static long long GET(const QString& url, NBCompletionCallback done);
    /// `POST` of the map's entries to `url` as given, as a form body in key order; no
    /// default header, cookie or "S".
    ///
    /// Completion: whatever the address answers.
    /// \ingroup ops_generic
    static long long POST(const QString& url, QMap<QString, QString> params, NBCompletionCallback done);

    /// No instances: every member is static.
    ServerApi() = delete;
};
