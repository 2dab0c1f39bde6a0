/// \file
/// The records a request hands to its callbacks: the completion record and the
/// byte counts of upload and download progress.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <functional>

/// \defgroup records Replies, progress and callbacks
/// What a request hands back: the completion record, the progress counts and the four
/// callback types. Every callback runs on the thread that started the request, from its
/// event loop; an empty callback is simply not called.
/// @{

/// The completion record: everything the library learnt of one request, handed on as it
/// came. The library never reads the body; CNBParseProcessor and NBBaseParse do that for
/// a host that wants them to.
///
/// Judge a reply by `networkError` and `statusCode` (CNBParseProcessor counts 200 to 399
/// as success), not by `errorString`, which holds Qt's "Unknown error" when nothing
/// failed. Failures are records too, never exceptions. Besides Qt's numbers for HTTP
/// error statuses and transport failures, `networkError` may be 2 ("Connection closed":
/// the server closed the connection before the announced Content-Length arrived), 4
/// ("TimeOut"), 5 (cancelled, or the second completion after a time-out), 6 (TLS
/// verification or a pinned key failed), 299 (a body larger than 1023 MiB with no data
/// callback to take it), 301 (no valid address could be made), 302 (a header or cookie
/// value held a line break; nothing was sent) or 399 ("Data corrupted": a body sent with
/// "Content-Encoding: gzip" or "deflate" was not of that coding). Such bodies arrive
/// decoded, and the record's headers then hold no "Content-Length" (the coded one).
struct ResponseData
{
    /// The reply's body as UTF-8 text, its lines joined without their line breaks; empty
    /// when no reply arrived. A download to a file or to a data callback keeps only the
    /// first 1 MiB here (up to its first zero byte): the file or the callback has it all.
    QString body;
    /// The network layer's error text, or "TimeOut" when the inactivity timer ended the request;
    /// "Connection closed" for a body cut short, the file's error text when a transfer's local
    /// file failed, and a text of the library's own for a pin mismatch, error 299 and error 302.
    QString errorString;
    /// The HTTP status: 0 when no HTTP status arrived; a file error code when a transfer's local file failed.
    int statusCode = 0;
    /// QNetworkReply::NetworkError numbering; a file error code when a transfer's local file failed.
    int networkError = 0;
    /// The reply's headers by name, as the network layer reports them (repeated
    /// "Set-Cookie" headers as one value, a line each); empty when no reply arrived.
    QHash<QByteArray, QByteArray> headers;
};

/// Upload progress: the bytes of the body sent so far, reported as they go out.
struct UploadProgressData
{
    qint64 bytesSent = 0; ///< Bytes of the body sent so far.
    qint64 bytesTotal = 0; ///< The body's size; -1 when unknown.
};

/// Download progress: the bytes of the body received so far, reported as they arrive.
struct DownloadProgressData
{
    qint64 bytesReceived = 0; ///< Bytes of the body received so far.
    qint64 bytesTotal = 0; ///< The announced size of the body; -1 when unknown.
};

/// The completion: runs once per request with its record, or twice after an inactivity
/// time-out ("TimeOut" with error 4, then error 5). After the first one no progress or
/// data callback of the request runs, and the request's identifier is released.
using NBCompletionCallback = std::function<void(const ResponseData&)>;
/// Upload progress, as the body goes out; never after the first completion.
using NBUploadProgressCallback = std::function<void(const UploadProgressData&)>;
/// Download progress, as the body arrives; never after the first completion.
using NBDownloadProgressCallback = std::function<void(const DownloadProgressData&)>;
/// The body of a download piece by piece, in order, whatever the status (an error body
/// comes this way too); never after the first completion.
using NBDataCallback = std::function<void(const QByteArray&)>;

/// @}
