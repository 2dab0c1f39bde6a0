// The records a request hands to its callbacks: the completion record and the
// byte counts of upload and download progress.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <functional>

struct ResponseData
{
    QString body;
    // The network layer's error text, or "TimeOut" when the inactivity timer ended the request.
    QString errorString;
    // 0 when no HTTP status arrived; a file error code when a transfer's local file failed.
    int statusCode = 0;
    // QNetworkReply::NetworkError numbering; a file error code when a transfer's local file failed.
    int networkError = 0;
    QHash<QByteArray, QByteArray> headers;
};

struct UploadProgressData
{
    qint64 bytesSent = 0;
    qint64 bytesTotal = 0; // -1 when unknown
};

struct DownloadProgressData
{
    qint64 bytesReceived = 0;
    qint64 bytesTotal = 0; // -1 when unknown
};

using NBCompletionCallback = std::function<void(const ResponseData&)>;
using NBUploadProgressCallback = std::function<void(const UploadProgressData&)>;
using NBDownloadProgressCallback = std::function<void(const DownloadProgressData&)>;
using NBDataCallback = std::function<void(const QByteArray&)>;
