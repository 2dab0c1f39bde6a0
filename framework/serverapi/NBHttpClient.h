// A client handle and the engine behind it. The endpoint layer builds one request
// through an NBHttpClient; its RequestDispatcher sends it on a network access manager
// of its own, supervises the reply and turns its end into a ResponseData.
#pragma once

#include "NBHttpMethod.h"
#include "ResponseData.h"

#include <QList>
#include <QNetworkReply>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QUrlQuery>

class QFile;
class QFileDevice;
class QHttpMultiPart;
class QNetworkAccessManager;
class QNetworkRequest;

// Every callback runs on the thread that created the dispatcher, from its event loop.
// A request delivers one completion, or two after an inactivity time-out: the
// "TimeOut" record (error 4), then the aborted reply's record (error 5).
class RequestDispatcher : public QObject
{
    Q_OBJECT
public:
    static constexpr int InactivityInterval = 120000;
    // How far the network layer may read ahead of a download's consumer.
    static constexpr qint64 ReadAheadLimit = 1 << 20;
    // Body text kept from a download to a file, for the completion record.
    static constexpr int FileDownloadBodyLimit = 1 << 20;

    explicit RequestDispatcher(const QString& url, QObject* parent = nullptr);
    ~RequestDispatcher() override;

    void addParam(const QString& key, const QString& encodedValue);
    const QUrlQuery& params() const { return m_params; }
    // Replaces the value of an existing header in place; headers go out in the order first set.
    void setHeader(const QString& key, const QString& value);
    QString header(const QString& key) const;
    const QList<QPair<QString, QString>>& headers() const { return m_headers; }
    void setMethod(NBHttpMethod method) { m_method = method; }
    NBHttpMethod method() const { return m_method; }
    void setUrl(const QString& url) { m_url = url; }
    QString url() const { return m_url; }
    void setDebug(bool debug) { m_debug = debug; }
    bool debug() const { return m_debug; }

    QNetworkReply* reply() const { return m_reply; }
    // How much of the body is kept so far to become the record's body.
    int keptBodySize() const { return m_received.size(); }
    bool isRunning() const;

    void start(NBCompletionCallback callback, bool followRedirects);
    void download(
        const QString& filePath, NBDownloadProgressCallback progress, NBCompletionCallback completion);
    void download(NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion);
    void downloadUsePost(
        NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion);
    void upload(const QString& filePath, const QByteArray& data, NBUploadProgressCallback progress,
        NBCompletionCallback completion);
    void mulitUpload(const QString& filePath, const QByteArray& data, NBUploadProgressCallback progress,
        NBCompletionCallback completion);
    // Closes the reply; its completion (error 5) runs inside this call.
    void cancel();

signals:
    void signalCancel();

private:
    QNetworkAccessManager* getManager();
    QNetworkRequest createRequest(NBHttpMethod method, bool followRedirects);
    void mergeCookies(QNetworkRequest& request, QNetworkAccessManager* manager);
    QByteArray encodedParams() const;
    void streamDownload(NBHttpMethod method, NBDataCallback data, NBDownloadProgressCallback progress,
        NBCompletionCallback completion);
    void handleResopnse(NBDataCallback dataCallback, NBUploadProgressCallback uploadProgress,
        NBDownloadProgressCallback downloadProgress, NBCompletionCallback completion, QNetworkReply* reply,
        QNetworkAccessManager* manager);
    void handleFinish(
        const NBCompletionCallback& completion, QNetworkReply* reply, QNetworkAccessManager* manager);
    void handleTimeout(
        const NBCompletionCallback& completion, QNetworkReply* reply, QNetworkAccessManager* manager);
    void complete(const NBCompletionCallback& completion, QNetworkReply* reply,
        QNetworkAccessManager* manager, const QString& errorText, int errorCode);
    int replyError(QNetworkReply* reply) const;
    QString replyErrorText(QNetworkReply* reply) const;
    bool bodyCutShort(QNetworkReply* reply) const;
    QString readReply(QNetworkReply* reply, const char* codecName);
    static ResponseData respData(const QString& body, const QHash<QByteArray, QByteArray>& headers,
        const QString& errorText, int status, int errorCode);
    static ResponseData fileErrorData(const QFileDevice& file);
    void LogFinished(const QString& body, QNetworkReply* reply, QNetworkAccessManager* manager);
    void keepReceived(const QByteArray& piece);
    void writeToFile(const QByteArray& piece);
    void finishFile(ResponseData& response);
    void releaseFile();

    QString m_url;
    QUrlQuery m_params;
    QList<QPair<QString, QString>> m_headers;
    QNetworkAccessManager* m_manager;
    QPointer<QNetworkReply> m_reply;
    qint64 m_bodyBytesReceived = 0;
    // Feeds the completion record's body, which is read only up to its first zero byte.
    QByteArray m_received;
    bool m_receivedComplete = false;
    int m_receivedLimit = -1;
    QFile* m_file = nullptr;
    QHttpMultiPart* m_multipart = nullptr;
    bool m_debug = false;
    NBHttpMethod m_method = GET;
};

// The handle the endpoint layer builds a request through; registered in
// NBHttpClientManager, which owns it. Not a QObject: destroying it releases the
// dispatcher by deferred deletion, so it may happen inside the request's callbacks.
class NBHttpClient
{
public:
    explicit NBHttpClient(const QString& url);
    ~NBHttpClient();

    // The value is percent-encoded (unreserved characters kept); the key goes as it is.
    void param(const QString& key, const QString& value);
    void header(const QString& key, const QString& value);
    void httpMethod(NBHttpMethod method);
    NBHttpMethod method() const;
    void setUrl(QString url);
    QString url() const;
    void debug(bool debug);

    void request(NBCompletionCallback callback, bool followRedirects);
    void download(
        const QString& filePath, NBDownloadProgressCallback progress, NBCompletionCallback completion);
    void download(NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion);
    void downloadUsePost(
        NBDataCallback data, NBDownloadProgressCallback progress, NBCompletionCallback completion);
    void upload(const QString& filePath, NBUploadProgressCallback progress, NBCompletionCallback completion);
    void upload(const QByteArray& data, NBUploadProgressCallback progress, NBCompletionCallback completion);
    void mulitUpload(const QString& filePath, const QByteArray& data, NBUploadProgressCallback progress,
        NBCompletionCallback completion);
    // Closes a running request (its completion runs inside this call); otherwise does nothing.
    void cancel();

    RequestDispatcher* dispatcher() const { return m_dispatcher; }

private:
    Q_DISABLE_COPY(NBHttpClient)

    RequestDispatcher* m_dispatcher;
};
