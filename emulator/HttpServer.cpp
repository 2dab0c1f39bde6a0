#include "HttpServer.h"

#include "SocketStream.h"

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <cerrno>
#include <cstring>
#include <limits>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace http = boost::beast::http;
using boost::system::error_code;

namespace {

// How long a connection may wait for its next request, and a request for its next bytes.
const int IdleMs = 5000;
const int RequestMs = 60000;
const int HandshakeMs = 10000;
// The request line, and the whole head.
const std::size_t TargetLimit = 32 * 1024;
const std::size_t HeadLimit = 64 * 1024;
// A body that nothing read is read and thrown away when it announces at most this much,
// so that the connection goes on; anything else ends the connection after the reply.
const std::uint64_t DrainLimit = 64 << 20;
const std::size_t PieceSize = 128 * 1024;
const std::size_t ReadSize = 64 * 1024;

QByteArray bytesOf(boost::beast::string_view text)
{
    return QByteArray(text.data(), int(text.size()));
}

// The status and message of a head the parser refuses.
// `targetRead`: whether the request line came whole before the refusal.
std::pair<int, QString> refusalOf(const error_code& ec, bool targetRead)
{
    if (ec == http::error::header_limit) {
        if (!targetRead)
            return { 414, QStringLiteral("the address is longer than %1 bytes").arg(TargetLimit) };
        return { 431, QStringLiteral("the request head is larger than %1 bytes").arg(HeadLimit) };
    }
    if (ec == http::error::bad_content_length || ec == http::error::multiple_content_length)
        return { 400, QStringLiteral("Content-Length is not one non-negative number") };
    if (ec == http::error::bad_transfer_encoding)
        return { 400, QStringLiteral("Transfer-Encoding conflicts with the body's length") };
    if (ec == boost::asio::error::timed_out)
        return { 408, QStringLiteral("the request head did not arrive in time") };
    return { 400, QStringLiteral("malformed request: %1").arg(QString::fromStdString(ec.message())) };
}

// A reply's body goes to the connection through this.
class StreamSink : public HttpSink
{
public:
    StreamSink(SocketStream& stream, const std::atomic<bool>& stopping)
        : m_stream(stream)
        , m_stopping(stopping)
    {
    }
    bool write(const char* data, size_t length) override
    {
        if (m_broken || !m_stream.writeAll(data, length))
            return !(m_broken = true);
        m_written += qint64(length);
        return true;
    }
    bool alive() override { return !m_broken && !m_stopping && !m_stream.peerGone(); }
    qint64 written() const { return m_written; }
    bool broken() const { return m_broken; }

private:
    SocketStream& m_stream;
    const std::atomic<bool>& m_stopping;
    qint64 m_written = 0;
    bool m_broken = false;
};

// Writes the head and, unless it answers a HEAD request, the body; false when the
// connection cannot go on (broken, or a body whose end only the close marks).
bool writeReply(SocketStream& stream, const HttpResponse& response, bool headOnly, bool close,
    const std::atomic<bool>& stopping)
{
    const bool unknownLength = response.provider && response.length < 0;
    http::response<http::empty_body> head;
    head.version(11);
    head.result(unsigned(response.status));
    if (http::int_to_status(unsigned(response.status)) == http::status::unknown)
        head.reason("Status");
    for (const auto& header : response.headers)
        head.insert(boost::beast::string_view(header.first.constData(), std::size_t(header.first.size())),
            boost::beast::string_view(header.second.constData(), std::size_t(header.second.size())));
    if (!unknownLength)
        head.content_length(std::uint64_t(response.bodyLength()));
    head.keep_alive(!close && !unknownLength);
    http::response_serializer<http::empty_body> serializer(head);
    error_code ec;
    http::write_header(stream, serializer, ec);
    if (ec)
        return false;
    if (headOnly)
        return !unknownLength;
    if (!response.provider)
        return stream.writeAll(response.body.constData(), std::size_t(response.body.size()));
    StreamSink sink(stream, stopping);
    if (unknownLength) {
        while (
            response.provider(sink.written(), std::numeric_limits<qint64>::max(), sink) && !sink.broken()) { }
        return false;
    }
    while (sink.written() < response.length) {
        const qint64 before = sink.written();
        if (!response.provider(before, response.length - before, sink) || sink.broken()
            || sink.written() == before)
            return false;
    }
    return true;
}

// After a reply that ends the connection while the client may still be sending: stop
// sending, and read what comes for a moment, so that the close does not reset the
// connection before the client has read the reply.
void lingerAndClose(SocketStream& stream)
{
    stream.shutdownSend();
    stream.setReadTimeout(1000);
    char scrap[16384];
    std::size_t total = 0;
    error_code ec;
    while (total < DrainLimit) {
        const std::size_t n = stream.readSome(scrap, sizeof scrap, ec);
        if (ec || n == 0)
            break;
        total += n;
    }
}

} // namespace

HttpServer::HttpServer(Handler handler, Refusal refusal)
    : m_handler(std::move(handler))
    , m_refusal(std::move(refusal))
{
}

HttpServer::~HttpServer()
{
    if (m_listener >= 0)
        ::close(m_listener);
    if (m_tls)
        SSL_CTX_free(m_tls);
}

bool HttpServer::useTls(const QString& certificateFile, const QString& keyFile, QString* error)
{
    m_tls = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_min_proto_version(m_tls, TLS1_2_VERSION);
    const QByteArray certificate = certificateFile.toLocal8Bit();
    const QByteArray key = keyFile.toLocal8Bit();
    if (SSL_CTX_use_certificate_chain_file(m_tls, certificate.constData()) != 1
        || SSL_CTX_use_PrivateKey_file(m_tls, key.constData(), SSL_FILETYPE_PEM) != 1
        || SSL_CTX_check_private_key(m_tls) != 1) {
        ERR_clear_error();
        *error = QStringLiteral("cannot use the certificate %1 and key %2").arg(certificateFile, keyFile);
        return false;
    }
    return true;
}

bool HttpServer::listen(const QString& host, int port, QString* error)
{
    QString name = host;
    if (name.startsWith(QLatin1Char('[')) && name.endsWith(QLatin1Char(']')))
        name = name.mid(1, name.size() - 2);
    addrinfo hints {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int resolved
        = ::getaddrinfo(name.toLocal8Bit().constData(), QByteArray::number(port).constData(), &hints, &found);
    if (resolved != 0) {
        *error = QStringLiteral("cannot listen on %1:%2: %3")
                     .arg(host)
                     .arg(port)
                     .arg(QString::fromLocal8Bit(gai_strerror(resolved)));
        return false;
    }
    int failure = 0;
    for (addrinfo* at = found; at && m_listener < 0; at = at->ai_next) {
        const int fd = ::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
        if (fd < 0) {
            failure = errno;
            continue;
        }
        // Lets a restart bind while connections of the last run linger in TIME_WAIT; on
        // Linux it never lets two listeners share a port (SO_REUSEPORT would, and stays off).
        const int on = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        // A host that opens a few hundred connections at once must find each handshake
        // kept: the widest queue the system allows.
        if (::bind(fd, at->ai_addr, at->ai_addrlen) == 0 && ::listen(fd, SOMAXCONN) == 0) {
            m_listener = fd;
        } else {
            failure = errno;
            ::close(fd);
        }
    }
    ::freeaddrinfo(found);
    if (m_listener < 0) {
        *error = failure == EADDRINUSE ? QStringLiteral(
                     "cannot listen on %1:%2: the address is in use (another nbemu, or another program)")
                                             .arg(host)
                                             .arg(port)
                                       : QStringLiteral("cannot listen on %1:%2: %3")
                                             .arg(host)
                                             .arg(port)
                                             .arg(QString::fromLocal8Bit(std::strerror(failure)));
        return false;
    }
    sockaddr_storage address {};
    socklen_t length = sizeof address;
    ::getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = address.ss_family == AF_INET6 ? ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port)
                                           : ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    return true;
}

void HttpServer::run()
{
    for (;;) {
        const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (m_stopping)
                break;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_stopping) {
            ::close(fd);
            break;
        }
        m_pending.push_back(fd);
        if (int(m_pending.size()) > m_idle && m_workers.size() < std::size_t(MaxWorkers))
            m_workers.emplace_back([this] { work(); });
        m_wake.notify_one();
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const int fd : m_pending)
            ::close(fd);
        m_pending.clear();
        // Connections waiting for a request end now; replies being written finish.
        for (const int fd : m_active)
            ::shutdown(fd, SHUT_RD);
    }
    m_wake.notify_all();
    for (std::thread& worker : m_workers)
        worker.join();
    m_workers.clear();
}

void HttpServer::stop()
{
    m_stopping = true;
    if (m_listener >= 0)
        ::shutdown(m_listener, SHUT_RDWR);
}

void HttpServer::work()
{
    for (;;) {
        int fd = -1;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            ++m_idle;
            m_wake.wait(lock, [this] { return m_stopping || !m_pending.empty(); });
            --m_idle;
            if (m_pending.empty())
                return;
            fd = m_pending.front();
            m_pending.pop_front();
            m_active.insert(fd);
        }
        SocketStream stream(fd, m_tls);
        if (stream.handshake(HandshakeMs))
            serve(stream);
        // Out of the set before the stream closes the descriptor, which may then be reused.
        std::lock_guard<std::mutex> lock(m_mutex);
        m_active.erase(fd);
    }
}

void HttpServer::serve(SocketStream& stream)
{
    // Beast reads at most what the buffer has room for, from 512 bytes. A head is read
    // into a buffer without spare room, so that its size limit holds; a body is read
    // with room for ReadSize, or it would arrive in a recv call per kilobyte or so.
    boost::beast::flat_buffer buffer;
    std::vector<char> piece(PieceSize);
    while (!m_stopping) {
        buffer.shrink_to_fit();
        http::request_parser<http::buffer_body> parser;
        parser.header_limit(std::uint32_t(HeadLimit));
        parser.body_limit(boost::none);
        // A connection waits for its next request a short while, a request for its bytes longer.
        stream.setReadTimeout(buffer.size() == 0 ? IdleMs : RequestMs);
        error_code ec;
        http::read_header(stream, buffer, parser, ec);
        stream.setReadTimeout(RequestMs);
        const auto refuse = [&](int status, const QString& message) {
            HttpResponse response;
            m_refusal(status, message, response);
            if (writeReply(stream, response, false, true, m_stopping))
                lingerAndClose(stream);
        };
        if (ec) {
            // A connection that ends or idles out between requests just closes.
            if (!parser.got_some() && buffer.size() == 0)
                return;
            const auto [status, message] = refusalOf(ec, !parser.get().target().empty());
            return refuse(status, message);
        }
        auto& head = parser.get();
        HttpRequest request;
        request.method = bytesOf(head.method_string());
        request.target = bytesOf(head.target());
        for (const auto& field : head)
            request.headers.append({ bytesOf(field.name_string()), bytesOf(field.value()) });
        request.hasBody = !parser.is_done();
        if (std::size_t(request.target.size()) > TargetLimit)
            return refuse(414, QStringLiteral("the address is longer than %1 bytes").arg(TargetLimit));
        // Only "chunked" says where a body ends; any other coding would leave the body's
        // bytes to be read as the next request.
        const QList<QByteArray> codings = request.headerValues("Transfer-Encoding");
        if (!codings.isEmpty() && !(codings.size() == 1 && codings.first().trimmed().toLower() == "chunked"))
            return refuse(501,
                QStringLiteral("Transfer-Encoding %1 is not supported")
                    .arg(QString::fromLatin1(codings.join(", "))));
        const QByteArray expect = request.header("Expect").trimmed().toLower();
        if (!expect.isEmpty() && expect != "100-continue")
            return refuse(417, QStringLiteral("Expect %1 is not supported").arg(QString::fromLatin1(expect)));

        bool continued = false;
        bool broken = false;
        request.readBody = [&](const BodyReceiver& receive) {
            if (!expect.isEmpty() && !continued && !parser.is_done()) {
                static const char Continue[] = "HTTP/1.1 100 Continue\r\n\r\n";
                continued = true;
                if (!stream.writeAll(Continue, sizeof Continue - 1))
                    return !(broken = true);
            }
            buffer.reserve(ReadSize);
            while (!parser.is_done()) {
                head.body().data = piece.data();
                head.body().size = piece.size();
                error_code readError;
                http::read(stream, buffer, parser, readError);
                if (readError == http::error::need_buffer)
                    readError = {};
                if (readError)
                    return !(broken = true);
                const std::size_t got = piece.size() - head.body().size;
                request.bytesRead += qint64(got);
                if (got > 0 && !receive(piece.data(), got))
                    return false;
            }
            return true;
        };
        HttpResponse response;
        m_handler(request, response);

        bool close = response.close || !head.keep_alive() || m_stopping || broken;
        bool drain = false;
        const bool bodyLeft = !parser.is_done() && !broken;
        if (bodyLeft) {
            const boost::optional<std::uint64_t> remaining = parser.content_length_remaining();
            if (!expect.isEmpty() && !continued)
                close = true; // the client waits for a go-ahead that never comes
            else if (remaining && *remaining <= DrainLimit)
                drain = true;
            else
                close = true;
        }
        if (!writeReply(stream, response, request.method == "HEAD", close, m_stopping))
            return;
        if (drain) {
            const bool drained = request.readBody([](const char*, size_t) { return true; });
            if (!drained)
                return;
        }
        if (close) {
            if (bodyLeft)
                lingerAndClose(stream);
            return;
        }
    }
}
