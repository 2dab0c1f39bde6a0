#include "TestServer.h"

#include "Wait.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QMetaObject>
#include <QProcess>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslSocket>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QTimer>
#include <future>
#include <poll.h>
#include <sys/socket.h>

namespace {

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 206:
        return "Partial Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 303:
        return "See Other";
    case 307:
        return "Temporary Redirect";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 500:
        return "Internal Server Error";
    case 502:
        return "Bad Gateway";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

// A self-signed certificate for 127.0.0.1, made once per test process.
struct TestCertificate
{
    QSslCertificate certificate;
    QSslKey key;

    static const TestCertificate& get()
    {
        static const TestCertificate made = make();
        return made;
    }

    static TestCertificate make()
    {
        TestCertificate result;
        QTemporaryDir dir;
        const QString keyPath = dir.filePath(QStringLiteral("key.pem"));
        const QString certPath = dir.filePath(QStringLiteral("cert.pem"));
        QProcess openssl;
        openssl.start(QStringLiteral("openssl"),
            { "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", keyPath, "-out", certPath, "-days",
                "2", "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1" });
        if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0)
            qFatal("openssl could not make the test certificate: %s",
                openssl.readAllStandardError().constData());
        QFile keyFile(keyPath);
        QFile certFile(certPath);
        keyFile.open(QIODevice::ReadOnly);
        certFile.open(QIODevice::ReadOnly);
        result.key = QSslKey(keyFile.readAll(), QSsl::Rsa);
        result.certificate = QSslCertificate(certFile.readAll());
        return result;
    }
};

} // namespace

QSslCertificate TestServer::tlsCertificate()
{
    return TestCertificate::get().certificate;
}

QByteArray RecordedRequest::header(const QByteArray& name) const
{
    for (const auto& h : headers) {
        if (qstricmp(h.first.constData(), name.constData()) == 0)
            return h.second;
    }
    return QByteArray();
}

bool RecordedRequest::hasHeader(const QByteArray& name) const
{
    for (const auto& h : headers) {
        if (qstricmp(h.first.constData(), name.constData()) == 0)
            return true;
    }
    return false;
}

QList<QByteArray> RecordedRequest::headerNames() const
{
    QList<QByteArray> names;
    for (const auto& h : headers)
        names.append(h.first);
    return names;
}

QByteArray RecordedRequest::wireText() const
{
    QByteArray text = method + ' ' + target + '\n';
    for (const auto& h : headers)
        text += h.first + ": " + h.second + '\n';
    return text + '\n' + body;
}

QByteArray RecordedRequest::path() const
{
    const int q = target.indexOf('?');
    return q < 0 ? target : target.left(q);
}

QByteArray RecordedRequest::query() const
{
    const int q = target.indexOf('?');
    return q < 0 ? QByteArray() : target.mid(q + 1);
}

ServerReply ServerReply::ok(const QByteArray& body, const QByteArray& contentType)
{
    ServerReply reply;
    reply.body = body;
    reply.headers.append({ "Content-Type", contentType });
    return reply;
}

ServerReply ServerReply::withStatus(int status, const QByteArray& body)
{
    ServerReply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

ServerReply ServerReply::redirect(const QByteArray& location, int status)
{
    ServerReply reply;
    reply.status = status;
    reply.headers.append({ "Location", location });
    return reply;
}

ServerReply ServerReply::never()
{
    ServerReply reply;
    reply.mode = Mode::NeverAnswer;
    return reply;
}

ServerReply ServerReply::drip(const QByteArray& body, int intervalMs, int bytes)
{
    ServerReply reply = ok(body, "application/octet-stream");
    reply.mode = Mode::Drip;
    reply.dripInterval = intervalMs;
    reply.dripBytes = bytes;
    return reply;
}

ServerReply ServerReply::cut(Mode mode, const QByteArray& body, qint64 after)
{
    ServerReply reply = ok(body, "application/octet-stream");
    reply.mode = mode;
    reply.cutAfter = after;
    return reply;
}

ServerReply ServerReply::repeated(const QByteArray& block, qint64 size)
{
    ServerReply reply = ok(block, "application/octet-stream");
    reply.repeatedSize = size;
    return reply;
}

ServerReply& ServerReply::header(const QByteArray& name, const QByteArray& value)
{
    headers.append({ name, value });
    return *this;
}

// One connection: parses requests one after the other (keep-alive) and writes the
// replies, feeding large bodies as the socket drains.
class TestConnection : public QObject
{
public:
    TestConnection(QTcpSocket* socket, int index, TestServer* owner, bool readBodies, QObject* parent)
        : QObject(parent)
        , m_socket(socket)
        , m_index(index)
        , m_owner(owner)
        , m_readBodies(readBodies)
    {
        socket->setParent(this);
        m_encrypted = qobject_cast<QSslSocket*>(socket) != nullptr;
        connect(socket, &QTcpSocket::readyRead, this, [this] { onReadyRead(); });
        connect(socket, &QTcpSocket::bytesWritten, this, [this] { feed(); });
        connect(socket, &QTcpSocket::disconnected, this, [this] { deleteLater(); });
    }

private:
    void onReadyRead()
    {
        if (m_stopped)
            return;
        m_buffer += m_socket->readAll();
        // A TLS handshake opening a plain connection: hang up, as web servers do, so that
        // a client probing for https learns at once.
        if (m_opening && !m_encrypted && m_buffer.startsWith('\x16')) {
            m_stopped = true;
            m_socket->abort();
            return;
        }
        m_opening = false;
        parse();
    }

    void parse()
    {
        while (!m_stopped && !m_answering) {
            if (!m_inBody) {
                const int end = m_buffer.indexOf("\r\n\r\n");
                if (end < 0)
                    return;
                parseHead(m_buffer.left(end));
                m_buffer.remove(0, end + 4);
                m_inBody = true;
                if (!m_readBodies) {
                    // Record the head, then stop reading so that the sender's buffers fill up.
                    m_stopped = true;
                    m_socket->setReadBufferSize(1);
                    m_owner->record(m_request);
                    return;
                }
            }
            if (!readBody())
                return;
            m_inBody = false;
            m_owner->record(m_request);
            respond(m_owner->answer(m_request));
        }
    }

    void parseHead(const QByteArray& head)
    {
        m_request = RecordedRequest();
        m_request.connection = m_index;
        m_request.encrypted = m_encrypted;
        const QList<QByteArray> lines = head.split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        m_request.method = requestLine.value(0);
        m_request.target = requestLine.value(1);
        m_request.version = requestLine.value(2);
        for (int i = 1; i < lines.size(); ++i) {
            QByteArray line = lines.at(i);
            if (line.endsWith('\r'))
                line.chop(1);
            const int colon = line.indexOf(':');
            if (colon < 0)
                continue;
            m_request.headers.append({ line.left(colon), line.mid(colon + 1).trimmed() });
        }
        m_chunked = m_request.header("Transfer-Encoding").toLower() == "chunked";
        m_remaining = m_request.header("Content-Length").toLongLong();
    }

    // True when the whole body is in.
    bool readBody()
    {
        if (!m_chunked) {
            const qint64 take = qMin<qint64>(m_remaining, m_buffer.size());
            m_request.body += m_buffer.left(int(take));
            m_buffer.remove(0, int(take));
            m_remaining -= take;
            return m_remaining == 0;
        }
        for (;;) {
            const int lineEnd = m_buffer.indexOf("\r\n");
            if (lineEnd < 0)
                return false;
            const qint64 size = m_buffer.left(lineEnd).split(';').value(0).trimmed().toLongLong(nullptr, 16);
            if (m_buffer.size() < lineEnd + 2 + size + 2)
                return false;
            m_request.body += m_buffer.mid(lineEnd + 2, int(size));
            m_buffer.remove(0, lineEnd + 2 + int(size) + 2);
            if (size == 0)
                return true;
        }
    }

    void respond(const ServerReply& reply)
    {
        m_reply = reply;
        if (reply.mode == ServerReply::Mode::NeverAnswer) {
            m_stopped = true;
            return;
        }
        m_answering = true;
        QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + ' '
            + (reply.reason.isEmpty() ? reasonPhrase(reply.status) : reply.reason) + "\r\n";
        for (const auto& h : reply.headers)
            head += h.first + ": " + h.second + "\r\n";
        const qint64 size = reply.repeatedSize >= 0 ? reply.repeatedSize : reply.body.size();
        if (reply.sendContentLength)
            head += "Content-Length: " + QByteArray::number(size) + "\r\n";
        else
            head += "Connection: close\r\n";
        head += "\r\n";
        m_socket->write(head);
        m_sent = 0;
        m_limit = size;
        if (reply.mode == ServerReply::Mode::CloseMidBody || reply.mode == ServerReply::Mode::ResetMidBody
            || reply.mode == ServerReply::Mode::StallMidBody)
            m_limit = qMin<qint64>(reply.cutAfter, reply.body.size());
        if (reply.mode == ServerReply::Mode::Drip) {
            auto* timer = new QTimer(this);
            connect(timer, &QTimer::timeout, this, [this, timer] {
                const qint64 n = qMin<qint64>(m_reply.dripBytes, m_limit - m_sent);
                m_socket->write(m_reply.body.constData() + m_sent, n);
                m_sent += n;
                if (m_sent >= m_limit) {
                    timer->deleteLater();
                    finishReply();
                }
            });
            timer->start(m_reply.dripInterval);
            return;
        }
        feed();
    }

    void feed()
    {
        if (!m_answering || m_reply.mode == ServerReply::Mode::Drip)
            return;
        const bool repeated = m_reply.repeatedSize >= 0;
        const qint64 chunk = repeated ? qMax(1, m_reply.body.size()) : 1 << 20;
        while (m_sent < m_limit && m_socket->bytesToWrite() < qMax<qint64>(4 * chunk, 4 << 20)) {
            const qint64 n = qMin(chunk, m_limit - m_sent);
            m_socket->write(m_reply.body.constData() + (repeated ? 0 : m_sent), n);
            m_sent += n;
        }
        if (m_sent >= m_limit && m_socket->bytesToWrite() == 0)
            finishReply();
    }

    void finishReply()
    {
        if (!m_answering)
            return;
        m_answering = false;
        switch (m_reply.mode) {
        case ServerReply::Mode::CloseMidBody:
            m_stopped = true;
            m_socket->disconnectFromHost();
            return;
        case ServerReply::Mode::StallMidBody:
            m_stopped = true;
            return;
        case ServerReply::Mode::ResetMidBody:
            m_stopped = true;
            // Give the client time to read what was sent, then reset the connection.
            QTimer::singleShot(100, this, [this] {
                linger zero { 1, 0 };
                ::setsockopt(int(m_socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &zero, sizeof zero);
                m_socket->abort();
                deleteLater();
            });
            return;
        default:
            break;
        }
        if (!m_reply.sendContentLength || m_request.header("Connection").toLower() == "close") {
            m_stopped = true;
            m_socket->disconnectFromHost();
            return;
        }
        parse();
    }

    QTcpSocket* m_socket;
    int m_index;
    TestServer* m_owner;
    bool m_readBodies;
    QByteArray m_buffer;
    RecordedRequest m_request;
    bool m_inBody = false;
    bool m_chunked = false;
    qint64 m_remaining = 0;
    bool m_answering = false;
    bool m_encrypted = false;
    bool m_opening = true;
    bool m_stopped = false;
    ServerReply m_reply;
    qint64 m_sent = 0;
    qint64 m_limit = 0;
};

class TestServerWorker : public QTcpServer
{
public:
    TestServerWorker(TestServer* owner, bool tls, bool plainToo, bool readBodies, bool offerHttp2)
        : m_owner(owner)
        , m_tls(tls)
        , m_plainToo(plainToo)
        , m_readBodies(readBodies)
        , m_offerHttp2(offerHttp2)
    {
    }

protected:
    // Whether the client opens with a TLS handshake record, read without consuming it
    // (a client that says nothing for two seconds is taken to speak in the clear).
    static bool opensWithTls(qintptr descriptor)
    {
        pollfd waiting { int(descriptor), POLLIN, 0 };
        unsigned char first = 0;
        return ::poll(&waiting, 1, 2000) == 1 && ::recv(int(descriptor), &first, 1, MSG_PEEK) == 1
            && first == 0x16;
    }

    void incomingConnection(qintptr descriptor) override
    {
        QTcpSocket* socket;
        if (m_tls && (!m_plainToo || opensWithTls(descriptor))) {
            auto* ssl = new QSslSocket;
            ssl->setSocketDescriptor(descriptor);
            ssl->setPrivateKey(TestCertificate::get().key);
            ssl->setLocalCertificate(TestCertificate::get().certificate);
            ssl->setPeerVerifyMode(QSslSocket::VerifyNone);
            if (m_offerHttp2) {
                QSslConfiguration configuration = ssl->sslConfiguration();
                configuration.setAllowedNextProtocols(
                    { QSslConfiguration::ALPNProtocolHTTP2, QSslConfiguration::NextProtocolHttp1_1 });
                ssl->setSslConfiguration(configuration);
            }
            ssl->startServerEncryption();
            socket = ssl;
        } else {
            socket = new QTcpSocket;
            socket->setSocketDescriptor(descriptor);
        }
        int index;
        {
            std::lock_guard<std::mutex> lock(m_owner->m_mutex);
            index = m_owner->m_connections++;
        }
        new TestConnection(socket, index, m_owner, m_readBodies, this);
    }

private:
    TestServer* m_owner;
    bool m_tls;
    bool m_plainToo;
    bool m_readBodies;
    bool m_offerHttp2;
};

TestServer::TestServer(Handler handler, Options options)
    : m_options(options)
    , m_handler(std::move(handler))
{
    if (options.tls)
        TestCertificate::get();
    // The server lives and dies on its thread; the port comes back through a promise, an
    // ordering that thread sanitizers see (Qt's own queued calls they cannot).
    std::promise<quint16> listening;
    std::future<quint16> port = listening.get_future();
    m_thread = QThread::create([this, &listening] {
        TestServerWorker worker(
            this, m_options.tls, m_options.plainToo, m_options.readBodies, m_options.offerHttp2);
        if (!worker.listen(QHostAddress::LocalHost, 0))
            qFatal("test server cannot listen");
        QEventLoop loop;
        listening.set_value(worker.serverPort());
        loop.exec();
        worker.close();
        // Its connections are its children: deleted with it, on this thread.
    });
    m_thread->start();
    m_port = port.get();
}

TestServer::~TestServer()
{
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
}

QString TestServer::url(const QString& pathAndQuery) const
{
    return QStringLiteral("%1://127.0.0.1:%2%3").arg(scheme()).arg(m_port).arg(pathAndQuery);
}

void TestServer::setHandler(Handler handler)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handler = std::move(handler);
}

QList<RecordedRequest> TestServer::requests() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

RecordedRequest TestServer::lastRequest() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.isEmpty() ? RecordedRequest() : m_requests.last();
}

int TestServer::requestCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.size();
}

int TestServer::connectionCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connections;
}

bool TestServer::waitForRequests(int count, int timeoutMs) const
{
    return waitUntil([&] { return requestCount() >= count; }, timeoutMs);
}

void TestServer::record(const RecordedRequest& request)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.append(request);
}

ServerReply TestServer::answer(const RecordedRequest& request)
{
    Handler handler;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        handler = m_handler;
    }
    return handler ? handler(request) : ServerReply();
}
