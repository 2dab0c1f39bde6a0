// An HTTP/1.1 server on 127.0.0.1 for tests. It runs on its own thread, records every
// request exactly as received and answers with what a handler returns: any status,
// headers and body, or a misbehaviour (never answer, drip, cut or reset mid-body).
#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSslCertificate>
#include <QString>
#include <functional>
#include <mutex>

class QThread;
class TestServerWorker;

using RawHeaders = QList<QPair<QByteArray, QByteArray>>;

struct RecordedRequest
{
    QByteArray method;
    QByteArray target; // as sent, query still encoded
    QByteArray version;
    RawHeaders headers; // in the order received, names as sent
    QByteArray body;
    int connection = 0; // index of the TCP connection it came on
    bool encrypted = false; // it came over TLS

    // First value of a header, name compared without regard to case; empty if absent.
    QByteArray header(const QByteArray& name) const;
    bool hasHeader(const QByteArray& name) const;
    QList<QByteArray> headerNames() const;
    // "METHOD target", one "Name: value" line per header as received, a blank line, the body.
    QByteArray wireText() const;
    QByteArray path() const;
    QByteArray query() const;
};

struct ServerReply
{
    enum class Mode {
        Answer,
        NeverAnswer, // keep the connection open and say nothing
        CloseMidBody, // send cutAfter body bytes, then close the connection
        ResetMidBody, // send cutAfter body bytes, then reset the connection
        StallMidBody, // send cutAfter body bytes, then say nothing more
        Drip, // send the head, then dripBytes of the body every dripInterval ms
    };

    int status = 200;
    QByteArray reason; // empty: the usual phrase of the status
    RawHeaders headers;
    QByteArray body;
    Mode mode = Mode::Answer;
    qint64 cutAfter = 0;
    int dripInterval = 0;
    int dripBytes = 1;
    bool sendContentLength = true;
    // When set, the body is `body` sent again and again up to this many bytes.
    qint64 repeatedSize = -1;

    static ServerReply ok(const QByteArray& body, const QByteArray& contentType = "application/json");
    static ServerReply withStatus(int status, const QByteArray& body = QByteArray());
    static ServerReply redirect(const QByteArray& location, int status = 302);
    static ServerReply never();
    // 200 with the body sent `bytes` at a time, one piece every `intervalMs`.
    static ServerReply drip(const QByteArray& body, int intervalMs, int bytes = 1);
    // 200 announcing the whole body, of which only `after` bytes are sent before `mode`
    // (CloseMidBody, ResetMidBody or StallMidBody) ends it.
    static ServerReply cut(Mode mode, const QByteArray& body, qint64 after);
    // 200 with a body of `size` bytes made of `block` over and over, fed as the socket
    // drains: any size in little memory.
    static ServerReply repeated(const QByteArray& block, qint64 size);
    ServerReply& header(const QByteArray& name, const QByteArray& value);
};

struct TestServerOptions
{
    bool tls = false;
    // With tls: a connection that does not open with a TLS handshake is served in the
    // clear, so that one port answers both schemes.
    bool plainToo = false;
    // False: record the request head and never read its body nor answer.
    bool readBodies = true;
    // With tls: the handshake offers HTTP/2 before HTTP/1.1 (ALPN), as servers that speak
    // both do; a client that takes it opens with HTTP/2's preface, recorded as method "PRI".
    bool offerHttp2 = false;
};

class TestServer
{
public:
    using Handler = std::function<ServerReply(const RecordedRequest&)>;
    using Options = TestServerOptions;

    explicit TestServer(Handler handler = {}, Options options = Options());
    ~TestServer();

    quint16 port() const { return m_port; }
    QString scheme() const { return m_options.tls ? QStringLiteral("https") : QStringLiteral("http"); }
    // The address of a path on this server, e.g. url("/a?b=1").
    QString url(const QString& pathAndQuery = QStringLiteral("/")) const;

    // The self-signed certificate of the TLS mode (for 127.0.0.1), made once per process.
    static QSslCertificate tlsCertificate();

    void setHandler(Handler handler);
    QList<RecordedRequest> requests() const;
    RecordedRequest lastRequest() const;
    int requestCount() const;
    int connectionCount() const;
    // Waits, running the caller's event loop, until `count` requests were recorded.
    bool waitForRequests(int count, int timeoutMs = 5000) const;

private:
    friend class TestServerWorker;
    friend class TestConnection;
    void record(const RecordedRequest& request);
    ServerReply answer(const RecordedRequest& request);

    Options m_options;
    mutable std::mutex m_mutex;
    Handler m_handler;
    QList<RecordedRequest> m_requests;
    int m_connections = 0;
    quint16 m_port = 0;
    QThread* m_thread = nullptr;
};
