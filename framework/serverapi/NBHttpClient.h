// A client handle: the endpoint layer builds one request through it, and its
// RequestDispatcher sends it.
#pragma once

#include "RequestDispatcher.h"

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
    // The body is read and dropped as it arrives: the record carries status and headers.
    void dropBody();

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
