#include "NBHttpClient.h"

#include "CNBLoggerWrapper.h"

#include <QUrl>

NBHttpClient::NBHttpClient(const QString& url)
    : m_dispatcher(new RequestDispatcher(url))
{
}

NBHttpClient::~NBHttpClient()
{
    m_dispatcher->deleteLater();
    NB_LOG_INFO(QStringLiteral("~NBHttpClient()"));
}

void NBHttpClient::param(const QString& key, const QString& value)
{
    // An empty value still goes out as "key=", never as a bare "key".
    const QByteArray encoded = QUrl::toPercentEncoding(value);
    m_dispatcher->addParam(key, encoded.isEmpty() ? QStringLiteral("") : QString::fromLatin1(encoded));
}

void NBHttpClient::header(const QString& key, const QString& value)
{
    m_dispatcher->setHeader(key, value);
}

void NBHttpClient::httpMethod(NBHttpMethod method)
{
    m_dispatcher->setMethod(method);
}

NBHttpMethod NBHttpClient::method() const
{
    return m_dispatcher->method();
}

void NBHttpClient::setUrl(QString url)
{
    m_dispatcher->setUrl(url);
}

QString NBHttpClient::url() const
{
    return m_dispatcher->url();
}

void NBHttpClient::debug(bool debug)
{
    m_dispatcher->setDebug(debug);
}

void NBHttpClient::dropBody()
{
    m_dispatcher->setDropBody(true);
}

// The forwarding calls below may complete the request before they return, and the
// completion may destroy this handle: none of them touches the handle afterwards.

void NBHttpClient::request(NBCompletionCallback callback, bool followRedirects)
{
    m_dispatcher->start(std::move(callback), followRedirects);
}

void NBHttpClient::download(
    const QString& filePath, NBDownloadProgressCallback progress, NBCompletionCallback completion)
{
    m_dispatcher->download(filePath, std::move(progress), std::move(completion));
}

void NBHttpClient::download(
    NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion)
{
    m_dispatcher->download(std::move(data), std::move(progress), std::move(completion));
}

void NBHttpClient::downloadUsePost(
    NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion)
{
    m_dispatcher->downloadUsePost(std::move(data), std::move(progress), std::move(completion));
}

void NBHttpClient::upload(
    const QString& filePath, NBUploadProgressCallback progress, NBCompletionCallback completion)
{
    m_dispatcher->upload(filePath, QByteArray(), std::move(progress), std::move(completion));
}

void NBHttpClient::upload(
    const QByteArray& data, NBUploadProgressCallback progress, NBCompletionCallback completion)
{
    m_dispatcher->upload(QString(), data, std::move(progress), std::move(completion));
}

void NBHttpClient::mulitUpload(const QString& filePath, const QByteArray& data,
    NBUploadProgressCallback progress, NBCompletionCallback completion)
{
    m_dispatcher->mulitUpload(filePath, data, std::move(progress), std::move(completion));
}

void NBHttpClient::cancel()
{
    m_dispatcher->cancel();
}
