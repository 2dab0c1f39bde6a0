// A request as the HTTP server hands it to the emulator, and the reply the emulator
// fills: plain records, so that routes never see the HTTP library.
#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <functional>

using HeaderList = QList<QPair<QByteArray, QByteArray>>;

// Where a streamed reply's bytes go.
class HttpSink
{
public:
    virtual ~HttpSink() = default;
    // False once the connection is broken.
    virtual bool write(const char* data, size_t length) = 0;
    // False once the client has gone or the server is stopping.
    virtual bool alive() = 0;
};

// Writes the bytes from `offset` on, at most `wanted` of them, to the sink; false when
// it cannot (or, for a reply of unknown length, at the end).
using ContentProvider = std::function<bool(qint64 offset, qint64 wanted, HttpSink& sink)>;

// Each piece of a request body as it arrives; false refuses the rest.
using BodyReceiver = std::function<bool(const char* data, size_t length)>;

struct HttpRequest
{
    QByteArray method;
    QByteArray target; // path and query as sent, still percent-encoded
    HeaderList headers; // in the order received
    bool hasBody = false;
    // Reads the body, handing each piece to `receive`: true when all of it was read and
    // accepted. Called at most once; a body that no route reads is dealt with by the server.
    std::function<bool(const BodyReceiver& receive)> readBody;
    qint64 bytesRead = 0;

    // The first value of a header (names compare without case), empty when absent.
    QByteArray header(const QByteArray& name) const;
    QList<QByteArray> headerValues(const QByteArray& name) const;
};

struct HttpResponse
{
    int status = 200;
    HeaderList headers;
    QByteArray body;
    // A body made while it is sent, instead of `body`: `length` bytes, or with a length of
    // -1 what the provider gives until it returns false (the connection then closes).
    ContentProvider provider;
    qint64 length = -1;
    // Close the connection once this reply is sent.
    bool close = false;

    void setHeader(const QByteArray& name, const QByteArray& value);
    QByteArray header(const QByteArray& name) const;
    void removeHeader(const QByteArray& name);
    // The bytes the body announces (the body's own size without a provider).
    qint64 bodyLength() const { return provider ? length : qint64(body.size()); }
};
