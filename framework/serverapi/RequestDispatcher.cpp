// The request trace is read by the file name of the handle that requests go through.
#define NB_LOG_SOURCE_FILE "NBHttpClient.cpp"

#include "RequestDispatcher.h"

#include "CNBLoggerWrapper.h"
#include "NBCallbackScope.h"
#include "NBHttpClientManager.h"
#include "NBInflater.h"
#include "NBNetworkCookieJar.h"
#include "NBQtCompat.h"
#include "NBReplyTimeout.h"

#include <NBUtil.h>
#include <QBuffer>
#include <QFile>
#include <QHttpMultiPart>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QTextStream>

namespace {
const QString FormContentType = QStringLiteral("application/x-www-form-urlencoded;application/json");

bool breaksLine(const QString& value)
{
    return value.contains(QLatin1Char('\r')) || value.contains(QLatin1Char('\n'));
}
} // namespace

template<typename Callback, typename... Args>
void RequestDispatcher::call(const Callback& callback, Args&&... args)
{
    if (!callback)
        return;
    NBCallbackScope scope;
    callback(std::forward<Args>(args)...);
}

RequestDispatcher::RequestDispatcher(const QString& url, QObject* parent)
    : QObject(parent)
    , m_url(url)
    , m_manager(new QNetworkAccessManager(this))
{
}

RequestDispatcher::~RequestDispatcher()
{
    releaseFile();
    if (m_multipart) {
        m_multipart->deleteLater();
        m_multipart = nullptr;
    }
    if (m_reply) {
        m_reply->disconnect();
        m_reply->deleteLater();
        m_reply = nullptr;
    }
    NB_LOG_INFO(QStringLiteral("~RequestDispatcher()"));
}

void RequestDispatcher::addParam(const QString& key, const QString& encodedValue)
{
    m_params.addQueryItem(key, encodedValue);
}

void RequestDispatcher::setHeader(const QString& key, const QString& value)
{
    for (auto& header : m_headers) {
        if (header.first == key) {
            header.second = value;
            return;
        }
    }
    m_headers.append({ key, value });
}

QString RequestDispatcher::header(const QString& key) const
{
    for (const auto& header : m_headers) {
        if (header.first == key)
            return header.second;
    }
    return QString();
}

bool RequestDispatcher::isRunning() const
{
    return m_reply && m_reply->isRunning();
}

void RequestDispatcher::start(NBCompletionCallback callback, bool followRedirects)
{
    Outgoing outgoing;
    outgoing.method = m_method;
    outgoing.followRedirects = followRedirects;
    transmit(outgoing, { {}, {}, {}, std::move(callback) });
}

void RequestDispatcher::download(
    NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion)
{
    transmit(Outgoing(), { std::move(data), {}, std::move(progress), std::move(completion) });
}

void RequestDispatcher::downloadUsePost(
    NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion)
{
    Outgoing outgoing;
    outgoing.method = POST;
    transmit(outgoing, { std::move(data), {}, std::move(progress), std::move(completion) });
}

void RequestDispatcher::download(
    const QString& filePath, NBDownloadProgressCallback progress, NBCompletionCallback completion)
{
    if (refused(GET, true, completion))
        return;
    m_file = new QFile(filePath);
    if (!m_file->open(QIODevice::WriteOnly)) {
        NB_LOG_INFO(QStringLiteral("打开文件出错: %1").arg(filePath));
        const ResponseData failure = fileErrorData(*m_file);
        call(completion, failure);
        releaseFile();
        return;
    }
    download([this](const QByteArray& piece) { writeToFile(piece); }, std::move(progress),
        [this, completion](const ResponseData& response) {
            ResponseData result = response;
            finishFile(result);
            completion(result);
        });
}

void RequestDispatcher::upload(const QString& filePath, const QByteArray& data,
    NBUploadProgressCallback progress, NBCompletionCallback completion)
{
    Outgoing outgoing;
    outgoing.method = POST;
    outgoing.mergeCookies = false;
    if (!filePath.isEmpty()) {
        outgoing.body = Outgoing::File;
        outgoing.filePath = filePath;
    } else {
        outgoing.body = Outgoing::Bytes;
        outgoing.bytes = data;
    }
    transmit(outgoing, { {}, std::move(progress), {}, std::move(completion) });
}

void RequestDispatcher::mulitUpload(const QString& filePath, const QByteArray& data,
    NBUploadProgressCallback progress, NBCompletionCallback completion)
{
    m_multipart = new QHttpMultiPart(QHttpMultiPart::FormDataType);
    // The size of the body Qt makes of the parts: each between its boundary line ("--",
    // the boundary, a line break) and a line break, its header lines and a blank line
    // before its body; then the closing boundary line ("--", the boundary, "--", a line break).
    const qint64 boundary = m_multipart->boundary().size();
    m_multipartSize = boundary + 6;
    const auto append = [this, boundary](QHttpPart& part, const QList<QPair<QByteArray, QByteArray>>& headers,
                            qint64 bodySize) {
        qint64 headerSize = 2;
        for (const auto& header : headers) {
            part.setRawHeader(header.first, header.second);
            headerSize += header.first.size() + 2 + header.second.size() + 2;
        }
        m_multipartSize += boundary + 4 + headerSize + bodySize + 2;
        m_multipart->append(part);
    };
    for (const auto& item : m_params.queryItems(QUrl::FullyDecoded)) {
        QHttpPart part;
        const QByteArray body = item.second.toUtf8();
        part.setBody(body);
        append(part,
            { { "Content-Disposition", QStringLiteral("form-data; name=\"%1\"").arg(item.first).toUtf8() } },
            body.size());
    }

    QHttpPart filePart;
    if (!filePath.isEmpty()) {
        auto* file = new QFile(filePath, m_multipart);
        if (!file->open(QIODevice::ReadOnly)) {
            NB_LOG_INFO(QStringLiteral("打开文件失败[%1]: %2").arg(filePath, file->errorString()));
            call(completion, fileErrorData(*file));
            return;
        }
        filePart.setBodyDevice(file);
        append(filePart,
            { { "Content-Disposition",
                  QStringLiteral("form-data; name=\"file\"; filename=\"%1\"").arg(filePath).toUtf8() },
                { "Content-Length", QByteArray::number(file->size()) } },
            file->size());
    } else {
        filePart.setBody(data);
        append(filePart,
            { { "Content-Disposition", "form-data; name=\"file\"; filename=\"no-name\"" },
                { "Content-Length", QByteArray::number(data.size()) } },
            data.size());
    }

    // The request keeps the fixed form Content-Type, so the boundary is not announced
    // in a header; the body still carries every part between its boundary lines.
    Outgoing outgoing;
    outgoing.method = POST;
    outgoing.mergeCookies = false;
    outgoing.body = Outgoing::Multipart;
    transmit(outgoing, { {}, std::move(progress), {}, std::move(completion) });
}

// The one way a request goes out: configure the manager, build and trace the request,
// merge the cookies, send the body by the verb and wire the reply.
void RequestDispatcher::transmit(const Outgoing& outgoing, Callbacks callbacks)
{
    if (refused(outgoing.method, outgoing.mergeCookies, callbacks.completion))
        return;
    if (m_dropBody && !callbacks.data)
        callbacks.data = [](const QByteArray&) {
        };
    // A consumer that drains every piece caps the read-ahead and the body kept for the
    // record; otherwise the body waits in the reply until the end.
    if (callbacks.data)
        m_receivedLimit = m_dropBody ? 0 : KeptBodyLimit;

    QNetworkAccessManager* manager = getManager();
    manager->setCookieJar(new NBNetworkCookieJar);
    const QString address = requestAddress(outgoing.method);
    const NBHeaderList headers = requestHeaders(outgoing.method);
    m_sentUrl = address;
    traceRequest(address, headers);
    QNetworkRequest request = createRequest(address, headers, outgoing.followRedirects);
    if (outgoing.mergeCookies)
        mergeCookies(request, manager);

    // Every body's length is set here, after the request's own headers, where the network
    // layer would put it.
    QNetworkReply* reply = nullptr;
    switch (outgoing.body) {
    case Outgoing::File:
        m_file = new QFile(outgoing.filePath);
        if (!m_file->open(QIODevice::ReadOnly)) {
            NB_LOG_AS(information, "upload",
                QStringLiteral("打开文件失败[%1]: %2").arg(outgoing.filePath, m_file->errorString()));
            call(callbacks.completion, fileErrorData(*m_file));
            return;
        }
        request.setHeader(QNetworkRequest::ContentLengthHeader, m_file->size());
        setTransportHeaders(request, manager);
        reply = manager->post(request, m_file);
        break;
    case Outgoing::Bytes:
        request.setHeader(QNetworkRequest::ContentLengthHeader, outgoing.bytes.size());
        setTransportHeaders(request, manager);
        reply = manager->post(request, outgoing.bytes);
        break;
    case Outgoing::Multipart:
        request.setRawHeader("MIME-Version", "1.0");
        request.setHeader(QNetworkRequest::ContentLengthHeader, m_multipartSize);
        setTransportHeaders(request, manager);
        reply = manager->post(request, m_multipart);
        break;
    case Outgoing::Parameters:
        if (outgoing.method == POST || outgoing.method == PUT)
            request.setHeader(QNetworkRequest::ContentLengthHeader, encodedParams().size());
        setTransportHeaders(request, manager);
        switch (outgoing.method) {
        case GET:
            reply = manager->get(request);
            break;
        case POST:
            reply = manager->post(request, encodedParams());
            break;
        case PUT:
            reply = manager->put(request, encodedParams());
            break;
        case DELETE:
            reply = manager->deleteResource(request);
            break;
        default:
            NB_LOG_AS(
                error, "start", QStringLiteral("不支持的请求方法: %1，请求未发送").arg(int(outgoing.method)));
            break;
        }
        break;
    }
    if (reply && callbacks.data)
        reply->setReadBufferSize(ReadAheadLimit);
    handleResopnse(std::move(callbacks.data), std::move(callbacks.uploadProgress),
        std::move(callbacks.downloadProgress), std::move(callbacks.completion), reply, manager);
}

// Qt 6 announces every coding it decodes (zstd and br as well), and moves the cookies and
// its connection headers after the body's length. There the request carries them as Qt 5
// sends them, and the replies are decoded here.
void RequestDispatcher::setTransportHeaders(QNetworkRequest& request, QNetworkAccessManager* manager)
{
    if (!NBQtCompat::announcesEveryCoding)
        return;
    // The "Cookie" header is whole already; Qt 6 would set it again, after these headers.
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    const QByteArray connection
        = manager->proxy().type() == QNetworkProxy::HttpCachingProxy ? "Proxy-Connection" : "Connection";
    if (!request.hasRawHeader(connection))
        request.setRawHeader(connection, "Keep-Alive");
    if (!request.hasRawHeader("Accept-Encoding")) {
        request.setRawHeader("Accept-Encoding", "gzip, deflate");
        m_decodeReplies = true;
    }
}

QNetworkAccessManager* RequestDispatcher::getManager()
{
    NBHttpClientManager* registry = NBHttpClientManager::manager();
    if (registry->proxyIsOpen()) {
        if (registry->proxyAutoDetect()) {
            m_manager->setProxy(NBUtil::getSystemProxy(m_url));
        } else {
            m_manager->setProxy(
                QNetworkProxy(QNetworkProxy::ProxyType(registry->proxyScheme()), registry->proxyHostname(),
                    registry->proxyPort(), registry->proxyUser(), registry->proxyPassword()));
        }
    } else {
        // Explicitly none, so that no system proxy applies either.
        m_manager->setProxy(QNetworkProxy(QNetworkProxy::NoProxy, QString(), 0, QString(), QString()));
    }
    return m_manager;
}

// A GET carries its parameters in the address; the other verbs in the body, or not at all.
QString RequestDispatcher::requestAddress(NBHttpMethod method) const
{
    if (method == GET && !m_params.isEmpty())
        return m_url + QLatin1Char('?') + m_params.query(QUrl::FullyEncoded);
    return m_url;
}

// The caller's headers with the fixed one of the verb, which replaces the caller's value.
NBHeaderList RequestDispatcher::requestHeaders(NBHttpMethod method) const
{
    const QString name = method == GET ? QStringLiteral("Accept") : QStringLiteral("Content-Type");
    const QString value = method == GET ? QStringLiteral("*/*") : FormContentType;
    NBHeaderList headers = m_headers;
    for (auto& header : headers) {
        if (header.first == name) {
            header.second = value;
            return headers;
        }
    }
    headers.append({ name, value });
    return headers;
}

QNetworkRequest RequestDispatcher::createRequest(
    const QString& address, const NBHeaderList& headers, bool followRedirects) const
{
    QNetworkRequest request(QUrl(address, QUrl::TolerantMode));
    for (const auto& header : headers)
        request.setRawHeader(header.first.toUtf8(), header.second.toUtf8());
    // Following never goes from https to http.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
        followRedirects ? QNetworkRequest::NoLessSafeRedirectPolicy : QNetworkRequest::ManualRedirectPolicy);
    request.setMaximumRedirectsAllowed(5);
    // HTTP/1.1 only, on Qt 6 as on Qt 5, even where a server offers HTTP/2.
    request.setAttribute(QNetworkRequest::Http2AllowedAttribute, false);
    request.setSslConfiguration(NBHttpClientManager::manager()->sslConfig());
    return request;
}

void RequestDispatcher::traceRequest(const QString& address, const NBHeaderList& headers) const
{
    NB_LOG_AS(information, "createRequest", QStringLiteral("请求地址：%1").arg(address));

    // Keys as the caller gave them, values as they go out (encoded).
    QString paramText = QStringLiteral("参数:\n");
    const auto keys = m_params.queryItems(QUrl::FullyDecoded);
    const auto values = m_params.queryItems(QUrl::FullyEncoded);
    for (int i = 0; i < values.size(); ++i)
        paramText += QStringLiteral("%1=%2\n").arg(keys.at(i).first, values.at(i).second);
    NB_LOG_AS(information, "createRequest", paramText);

    QString headerText = QStringLiteral("Request Header:\n");
    for (const auto& header : headers)
        headerText += QStringLiteral("%1 : %2 \n").arg(header.first, header.second);
    NB_LOG_AS(information, "createRequest", headerText);
}

void RequestDispatcher::mergeCookies(QNetworkRequest& request, QNetworkAccessManager* manager)
{
    QNetworkCookieJar* jar = manager->cookieJar();
    const QByteArray cookieHeader = request.rawHeader("Cookie");
    if (!jar || cookieHeader.isEmpty())
        return;

    QUrl origin = request.url();
    origin.setPath(QString());
    QList<QNetworkCookie> cookies;
    for (const QByteArray& part : cookieHeader.split(';')) {
        if (part.isEmpty())
            continue;
        for (QNetworkCookie cookie : QNetworkCookie::parseCookies(part)) {
            cookie.normalize(origin);
            jar->insertCookie(cookie);
            cookies.append(cookie);
        }
    }
    const QString verifyCode = NBHttpClientManager::manager()->verifyCode();
    if (!verifyCode.isEmpty())
        cookies.append(QNetworkCookie(QByteArrayLiteral("S"), verifyCode.toUtf8()));
    cookies += jar->cookiesForUrl(request.url());
    jar->setCookiesFromUrl(cookies, request.url());
    // The jar's cookies for the address are what goes out, as the network layer writes them.
    QByteArrayList pairs;
    for (const QNetworkCookie& cookie : jar->cookiesForUrl(request.url()))
        pairs << cookie.toRawForm(QNetworkCookie::NameAndValueOnly);
    request.setRawHeader("Cookie", pairs.join("; "));
}

QByteArray RequestDispatcher::encodedParams() const
{
    return m_params.query(QUrl::FullyEncoded).toUtf8();
}

void RequestDispatcher::writeToFile(const QByteArray& piece)
{
    if (!m_file)
        return;
    const qint64 written = m_file->write(piece);
    if (written == -1 || written < piece.size()) {
        NB_LOG_AS(fatal, "operator()",
            QStringLiteral("写入文件出错: %1  error:%2 msg:%3")
                .arg(m_file->fileName())
                .arg(m_file->error())
                .arg(m_file->errorString()));
    }
}

void RequestDispatcher::finishFile(ResponseData& response)
{
    // After a time-out the file is already closed when the aborted reply completes.
    if (!m_file)
        return;
    const QString path = m_file->fileName();
    // Flushing first, so that a failure of the last buffered bytes surfaces too.
    m_file->flush();
    if (m_file->error() != QFileDevice::NoError) {
        response.body = response.errorString = m_file->errorString();
        response.statusCode = response.networkError = m_file->error();
        NB_LOG_AS(fatal, "operator()",
            QStringLiteral("下载文件出错: %1  error:%2 msg:%3")
                .arg(path)
                .arg(m_file->error())
                .arg(m_file->errorString()));
    }
    releaseFile();
    if (m_debug)
        NB_LOG_AS(information, "operator()", QStringLiteral("下载完成，保存到: %1").arg(path));
}

void RequestDispatcher::releaseFile()
{
    if (!m_file)
        return;
    m_file->flush();
    m_file->close();
    m_file->deleteLater();
    m_file = nullptr;
}

void RequestDispatcher::cancel()
{
    if (!isRunning())
        return;
    NB_LOG_FATAL(QStringLiteral("请求取消 %1").arg(url()));
    m_reply->close();
}

void RequestDispatcher::handleResopnse(NBDataCallback dataCallback, NBUploadProgressCallback uploadProgress,
    NBDownloadProgressCallback downloadProgress, NBCompletionCallback completion, QNetworkReply* reply,
    QNetworkAccessManager* manager)
{
    m_reply = reply;
    if (!reply)
        return;

    auto* timeout = new NBReplyTimeout(reply, InactivityInterval);
    connect(timeout, &NBReplyTimeout::timeout, this, [this, completion, reply, manager] {
        NB_LOG_FATAL(QStringLiteral("触发超时"));
        handleTimeout(completion, reply, manager);
    });
    connect(this, &RequestDispatcher::signalCancel, reply, &QNetworkReply::abort);
    connect(reply, &QNetworkReply::finished, this, [this, completion, reply, manager] {
        NB_LOG_FATAL(QStringLiteral("请求结束"));
        handleFinish(completion, reply, manager);
    });
    connect(reply, &QNetworkReply::redirected, this,
        [](const QUrl& url) { NB_LOG_FATAL(QStringLiteral("[重定向]请求url: %1").arg(url.toString())); });
    connect(reply, &QNetworkReply::metaDataChanged, this, [this, reply] {
        if (m_decodeReplies)
            m_inflater = NBInflater::forCoding(reply->rawHeader("Content-Encoding"));
    });
    connect(reply, &QNetworkReply::readyRead, this, [this, dataCallback, reply] {
        if (!dataCallback || m_completed)
            return;
        const QByteArray piece = readBody(reply);
        // A piece that could not be decoded ended the request.
        if (m_completed)
            return;
        keepReceived(piece);
        call(dataCallback, piece);
    });
    // Certificate errors come only when peers are verified; the handshake's end always.
    connect(reply, &QNetworkReply::sslErrors, this,
        [this, reply](const QList<QSslError>& errors) { checkTls(reply, errors); });
    connect(reply, &QNetworkReply::encrypted, this, [this, reply] { checkTls(reply, {}); });
    connect(reply, &QNetworkReply::errorOccurred, this, [reply](QNetworkReply::NetworkError code) {
        NB_LOG_FATAL(
            QStringLiteral("QNetworkReply错误码: %1 原因:%2").arg(int(code)).arg(reply->errorString()));
    });
    connect(reply, &QNetworkReply::downloadProgress, this,
        [this, downloadProgress, reply, whole = !dataCallback](qint64 received, qint64 total) {
            if (m_completed)
                return;
            m_bodyBytesReceived = received;
            if (whole && received > WholeBodyLimit) {
                refuseLargeBody(reply);
                return;
            }
            call(downloadProgress, DownloadProgressData { received, total });
        });
    connect(reply, &QNetworkReply::uploadProgress, this, [this, uploadProgress](qint64 sent, qint64 total) {
        if (!m_completed)
            call(uploadProgress, UploadProgressData { sent, total });
    });
}

void RequestDispatcher::handleFinish(
    const NBCompletionCallback& completion, QNetworkReply* reply, QNetworkAccessManager* manager)
{
    if (bodyCutShort(reply)) {
        NB_LOG_ERROR(QStringLiteral("响应数据不完整: 收到 %1 字节, Content-Length %2")
                         .arg(m_bodyBytesReceived)
                         .arg(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong()));
    }
    complete(completion, reply, manager, replyErrorText(reply), replyError(reply));
}

// The network layer sometimes finishes a reply without error when the server closes
// the connection before the whole announced body arrived; such a reply is reported
// as closed by the remote host, so that a cut transfer never passes for a whole one.
bool RequestDispatcher::bodyCutShort(QNetworkReply* reply) const
{
    if (!reply->isFinished() || reply->error() != QNetworkReply::NoError
        || reply->operation() == QNetworkAccessManager::HeadOperation
        || reply->hasRawHeader("Content-Encoding"))
        return false;
    bool known = false;
    const qint64 announced = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
    return known && m_bodyBytesReceived < announced;
}

// The body would stay in the reply until the end and then become text: past what a
// record holds, the request ends here rather than the process later.
void RequestDispatcher::refuseLargeBody(QNetworkReply* reply)
{
    if (m_tooLarge)
        return;
    m_tooLarge = true;
    NB_LOG_ERROR(QStringLiteral("响应数据过大: more than %1 bytes without a data callback, url: %2")
                     .arg(WholeBodyLimit)
                     .arg(m_sentUrl));
    reply->abort();
}

// A line break in a header value would end the header and start another on the wire:
// such a request is not sent, and completes inside the call.
bool RequestDispatcher::refused(
    NBHttpMethod method, bool mergeCookies, const NBCompletionCallback& completion)
{
    const QString refusal = headerRefusal(requestHeaders(method), mergeCookies);
    if (refusal.isEmpty())
        return false;
    NB_LOG_AS(error, "start", refusal);
    call(completion, respData(QString(), {}, refusal, 0, RefusedRequestError));
    return true;
}

QString RequestDispatcher::headerRefusal(const NBHeaderList& headers, bool mergeCookies) const
{
    for (const auto& header : headers) {
        if (!breaksLine(header.second))
            continue;
        return QStringLiteral("The value of header \"%1\" holds a line break; the request was not sent")
            .arg(header.first);
    }
    const bool cookieMerged = mergeCookies && !header(QStringLiteral("Cookie")).isEmpty();
    if (cookieMerged && breaksLine(NBHttpClientManager::manager()->verifyCode()))
        return QStringLiteral(
            "The value of cookie \"S\" in header \"Cookie\" holds a line break; the request was not sent");
    return QString();
}

int RequestDispatcher::replyError(QNetworkReply* reply) const
{
    if (m_tooLarge)
        return BodyTooLargeError;
    if (m_pinMismatch)
        return int(QNetworkReply::SslHandshakeFailedError);
    if (m_corrupt)
        return int(QNetworkReply::ProtocolFailure);
    return bodyCutShort(reply) ? int(QNetworkReply::RemoteHostClosedError) : int(reply->error());
}

QString RequestDispatcher::replyErrorText(QNetworkReply* reply) const
{
    if (m_tooLarge)
        return QStringLiteral("The reply's body is larger than %1 bytes, more than a record holds; "
                              "read it through a data callback")
            .arg(WholeBodyLimit);
    if (m_pinMismatch)
        return QStringLiteral("SSL handshake failed: the server's public key is not the pinned one");
    if (m_corrupt)
        return QStringLiteral("Data corrupted");
    return bodyCutShort(reply) ? QStringLiteral("Connection closed") : reply->errorString();
}

// With a pinned key, the server's key decides: the pin trusts a server whose chain is
// unknown (a private CA), and refuses any other, verified or not. Without one, the
// errors stand (the handshake fails with them) and are named in the log.
void RequestDispatcher::checkTls(QNetworkReply* reply, const QList<QSslError>& errors)
{
    const QByteArray pinned = NBHttpClientManager::manager()->tlsPinnedKey();
    if (pinned.isEmpty()) {
        QStringList reasons;
        for (const QSslError& error : errors)
            reasons << error.errorString();
        if (!reasons.isEmpty())
            NB_LOG_ERROR(QStringLiteral("TLS 校验失败: %1, url: %2")
                             .arg(reasons.join(QStringLiteral("; ")), m_sentUrl));
        return;
    }
    const QByteArray key = NBHttpClientManager::publicKeyDigest(reply->sslConfiguration().peerCertificate());
    if (key == pinned) {
        if (!errors.isEmpty())
            reply->ignoreSslErrors();
        return;
    }
    if (m_pinMismatch)
        return;
    m_pinMismatch = true;
    NB_LOG_ERROR(
        QStringLiteral("TLS 校验失败: the server's public key (sha256 %1) is not the pinned one, url: %2")
            .arg(QString::fromLatin1(key.toHex()), m_sentUrl));
    reply->abort();
}

void RequestDispatcher::handleTimeout(
    const NBCompletionCallback& completion, QNetworkReply* reply, QNetworkAccessManager* manager)
{
    complete(completion, reply, manager, QStringLiteral("TimeOut"), QNetworkReply::TimeoutError);
}

void RequestDispatcher::complete(const NBCompletionCallback& completion, QNetworkReply* reply,
    QNetworkAccessManager* manager, const QString& errorText, int errorCode)
{
    m_completed = true;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    // A body past the limit is left unread: reading it is what the limit prevents.
    const QString body = m_tooLarge ? QString() : readReply(reply, "UTF-8");
    QHash<QByteArray, QByteArray> headers;
    for (const QByteArray& name : reply->rawHeaderList()) {
        // A decoded body has another length than the one announced; Qt 5 drops the header.
        if (m_inflater && name.compare("Content-Length", Qt::CaseInsensitive) == 0)
            continue;
        headers.insert(name, reply->rawHeader(name));
    }
    LogFinished(body, reply, manager);
    // A coded body found damaged only as it is read here fails as one found on the way.
    if (m_corrupt)
        call(completion, respData(QString(), headers, replyErrorText(reply), status, replyError(reply)));
    else
        call(completion, respData(body, headers, errorText, status, errorCode));
}

QString RequestDispatcher::readReply(QNetworkReply* reply, const char* codecName)
{
    // Lines are joined without their terminators: replies are JSON, which does not mind.
    QString text;
    if (reply->isReadable()) {
        QBuffer decoded;
        if (m_inflater) {
            decoded.setData(readBody(reply));
            decoded.open(QIODevice::ReadOnly);
        }
        QTextStream stream(m_inflater ? static_cast<QIODevice*>(&decoded) : reply);
        NBQtCompat::setTextCodec(stream, codecName);
        while (!stream.atEnd())
            text += stream.readLine();
    }
    if (text.isEmpty()) {
        text = QString::fromUtf8(m_received);
        m_received.clear();
    }
    return text;
}

QByteArray RequestDispatcher::readBody(QNetworkReply* reply)
{
    if (!m_inflater)
        return reply->readAll();
    const QByteArray decoded = m_inflater->inflate(reply->readAll());
    // Qt 5 ends a reply it cannot decode as a protocol failure, "Data corrupted".
    if (m_inflater->failed() && !m_corrupt) {
        m_corrupt = true;
        NB_LOG_ERROR(QStringLiteral("响应数据解压失败: %1, url: %2")
                         .arg(QString::fromUtf8(reply->rawHeader("Content-Encoding")), m_sentUrl));
        reply->abort();
    }
    return decoded;
}

void RequestDispatcher::keepReceived(const QByteArray& piece)
{
    if (m_receivedComplete)
        return;
    int length = piece.indexOf('\0');
    if (length >= 0)
        m_receivedComplete = true;
    else
        length = piece.size();
    if (m_receivedLimit >= 0 && m_received.size() + length >= m_receivedLimit) {
        length = m_receivedLimit - m_received.size();
        m_receivedComplete = true;
    }
    m_received.append(piece.constData(), length);
}

ResponseData RequestDispatcher::respData(const QString& body, const QHash<QByteArray, QByteArray>& headers,
    const QString& errorText, int status, int errorCode)
{
    ResponseData response;
    response.body = body;
    response.headers = headers;
    response.errorString = errorText;
    response.statusCode = status;
    response.networkError = errorCode;
    return response;
}

ResponseData RequestDispatcher::fileErrorData(const QFileDevice& file)
{
    return respData(QString(), {}, file.errorString(), file.error(), file.error());
}

void RequestDispatcher::LogFinished(const QString& body, QNetworkReply* reply, QNetworkAccessManager* manager)
{
    Q_UNUSED(body)
    NB_LOG_INFO(QStringLiteral("处理响应数据"));
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const int errorCode = replyError(reply);
    const QString errorText = replyErrorText(reply);
    if (status < 200 || status > 299) {
        const QString reason = reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
        NB_LOG_ERROR(QStringLiteral("request error. [status]") + QStringLiteral("%1, [reason]").arg(status)
            + QStringLiteral("%2, [msg]").arg(reason) + errorText + QStringLiteral(", [url]")
            + reply->request().url().toString() + QStringLiteral("[network code] %1").arg(errorCode));
    } else if (errorCode != QNetworkReply::NoError) {
        NB_LOG_ERROR(QStringLiteral("status code: %1 %2").arg(errorCode).arg(errorText));
    }

    QString cookieText = QStringLiteral("Cookie:\n");
    if (QNetworkCookieJar* jar = manager->cookieJar()) {
        for (const QNetworkCookie& cookie : jar->cookiesForUrl(reply->url()))
            cookieText += QStringLiteral("%1 : %2\n")
                              .arg(QString::fromUtf8(cookie.name()), QString::fromUtf8(cookie.value()));
    }
    NB_LOG_INFO(cookieText);

    QString headerText = QStringLiteral("Header:\n");
    for (const auto& header : reply->rawHeaderPairs())
        headerText += QStringLiteral("%1:%2\n").arg(
            QString::fromUtf8(header.first), QString::fromUtf8(header.second));
    NB_LOG_INFO(headerText);

    if (errorCode != QNetworkReply::NoError)
        NB_LOG_ERROR(QStringLiteral("[失败] 请求结束: %1").arg(errorText));
}
