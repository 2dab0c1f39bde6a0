// The engine of one request: it collects what the endpoint layer sets through the
// handle, sends the request on a network access manager of its own, supervises the
// reply and turns its end into a ResponseData.
#pragma once

#include "NBHttpMethod.h"
#include "ResponseData.h"

#include <QList>
#include <QNetworkReply>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QSslError>
#include <QUrlQuery>
#include <memory>

class NBInflater;
class QFile;
class QFileDevice;
class QHttpMultiPart;
class QNetworkAccessManager;
class QNetworkRequest;

using NBHeaderList = QList<QPair<QString, QString>>;

// Every callback runs on the thread that created the dispatcher, from its event loop.
// A request delivers one completion, or two after an inactivity time-out: the
// "TimeOut" record (error 4), then the aborted reply's record (error 5). No progress
// or data callback runs after the first completion.
class RequestDispatcher : public QObject
{
    Q_OBJECT
public:
    static constexpr int InactivityInterval = 120000;
    // How far the network layer may read ahead of a download's consumer.
    static constexpr qint64 ReadAheadLimit = 1 << 20;
    // Body kept for the completion record of a download whose pieces go to a callback
    // or a file: the callback has every byte.
    static constexpr int KeptBodyLimit = 1 << 20;
    // The largest body a record takes whole (it becomes text of twice its size, and Qt's
    // containers end below 2 GiB): a larger one without a data callback ends the request
    // with an error record.
    static constexpr qint64 WholeBodyLimit = (qint64(1) << 30) - (1 << 20);
    // The record of a body past the whole-body limit.
    static constexpr int BodyTooLargeError = QNetworkReply::UnknownContentError;
    // The record of a request refused before sending (a header value with a line break).
    static constexpr int RefusedRequestError = QNetworkReply::ProtocolInvalidOperationError;

    explicit RequestDispatcher(const QString& url, QObject* parent = nullptr);
    ~RequestDispatcher() override;

    void addParam(const QString& key, const QString& encodedValue);
    const QUrlQuery& params() const { return m_params; }
    // Replaces the value of an existing header in place; headers go out in the order first set.
    void setHeader(const QString& key, const QString& value);
    QString header(const QString& key) const;
    const NBHeaderList& headers() const { return m_headers; }
    void setMethod(NBHttpMethod method) { m_method = method; }
    NBHttpMethod method() const { return m_method; }
    void setUrl(const QString& url) { m_url = url; }
    // The address as set; once sent, as it went out (a GET's with its query).
    QString url() const { return m_sentUrl.isEmpty() ? m_url : m_sentUrl; }
    void setDebug(bool debug) { m_debug = debug; }
    bool debug() const { return m_debug; }
    // Reads the body and drops it: the record carries the status and headers only.
    void setDropBody(bool drop) { m_dropBody = drop; }

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
    // Closes a running reply; its completion (error 5) runs inside this call.
    void cancel();

signals:
    void signalCancel();

private:
    // What differs between the ways a request goes out; everything else is the same.
    struct Outgoing
    {
        enum Body { Parameters, File, Bytes, Multipart };

        NBHttpMethod method = GET;
        bool followRedirects = true;
        // Uploads send their "Cookie" header as it is; the others merge it, with "S", through the jar.
        bool mergeCookies = true;

        // Parameters: the encoded parameters for POST and PUT, nothing for GET and DELETE.
        Body body = Parameters;
        QString filePath;
        QByteArray bytes;
    };
    struct Callbacks
    {
        NBDataCallback data;
        NBUploadProgressCallback uploadProgress;
        NBDownloadProgressCallback downloadProgress;
        NBCompletionCallback completion;
    };

    void transmit(const Outgoing& outgoing, Callbacks callbacks);
    QNetworkAccessManager* getManager();
    QString requestAddress(NBHttpMethod method) const;
    NBHeaderList requestHeaders(NBHttpMethod method) const;
    QNetworkRequest createRequest(
        const QString& address, const NBHeaderList& headers, bool followRedirects) const;
    void traceRequest(const QString& address, const NBHeaderList& headers) const;
    void mergeCookies(QNetworkRequest& request, QNetworkAccessManager* manager);
    void setTransportHeaders(QNetworkRequest& request, QNetworkAccessManager* manager);
    QByteArray encodedParams() const;
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
    void checkTls(QNetworkReply* reply, const QList<QSslError>& errors);
    QString readReply(QNetworkReply* reply, const char* codecName);
    // What of the body has arrived, decoded when the library decodes it.
    QByteArray readBody(QNetworkReply* reply);
    static ResponseData respData(const QString& body, const QHash<QByteArray, QByteArray>& headers,
        const QString& errorText, int status, int errorCode);
    static ResponseData fileErrorData(const QFileDevice& file);
    void LogFinished(const QString& body, QNetworkReply* reply, QNetworkAccessManager* manager);
    bool refused(NBHttpMethod method, bool mergeCookies, const NBCompletionCallback& completion);
    QString headerRefusal(const NBHeaderList& headers, bool mergeCookies) const;
    void refuseLargeBody(QNetworkReply* reply);
    // Runs a host callback, when set, inside a callback scope.
    template<typename Callback, typename... Args> static void call(const Callback& callback, Args&&... args);
    void keepReceived(const QByteArray& piece);
    void writeToFile(const QByteArray& piece);
    void finishFile(ResponseData& response);
    void releaseFile();

    QString m_url;
    QString m_sentUrl;
    QUrlQuery m_params;
    NBHeaderList m_headers;
    QNetworkAccessManager* m_manager;
    QPointer<QNetworkReply> m_reply;
    qint64 m_bodyBytesReceived = 0;
    // The server's public key was not the pinned one: the request was aborted.
    bool m_pinMismatch = false;
    // Feeds the completion record's body, which is read only up to its first zero byte.
    QByteArray m_received;
    bool m_receivedComplete = false;
    int m_receivedLimit = -1;
    QFile* m_file = nullptr;
    QHttpMultiPart* m_multipart = nullptr;
    qint64 m_multipartSize = 0;
    // The request announced the codings itself: a coded reply is decoded here.
    bool m_decodeReplies = false;
    std::unique_ptr<NBInflater> m_inflater;
    // A coded reply could not be decoded: the request was aborted.
    bool m_corrupt = false;
    bool m_debug = false;
    bool m_dropBody = false;
    // The first completion has run: progress and data callbacks are over.
    bool m_completed = false;
    // The body outgrew the whole-body limit: the reply was aborted.
    bool m_tooLarge = false;
    NBHttpMethod m_method = GET;
};
