// The emulator's HTTP/1.1 server: a listening socket of its own (never shared with
// another process), a pool of worker threads, one connection per worker at a time, and
// Boost.Beast's parser for the framing, so that every request on a connection gets
// its own reply, in order, pipelined or not:
//   - a body that the handler leaves unread is read and discarded when it is announced
//     and small, otherwise the reply says "Connection: close" and the connection ends;
//   - a request without Content-Length or chunked encoding has no body;
//   - a malformed or conflicting Content-Length is refused (400), an unsupported
//     Transfer-Encoding too (501), a too long address (414) or header (431), and the
//     connection then closes.
// Optionally over TLS (OpenSSL) with a certificate and key in PEM files.
#pragma once

#include "HttpMessage.h"

#include <QString>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;
class SocketStream;

class HttpServer
{
public:
    using Handler = std::function<void(HttpRequest& request, HttpResponse& response)>;
    // A reply the server makes itself (a refused request): status and message.
    using Refusal = std::function<void(int status, const QString& message, HttpResponse& response)>;

    HttpServer(Handler handler, Refusal refusal);
    ~HttpServer();

    // Serves HTTPS with this certificate and key; false when they cannot be used.
    bool useTls(const QString& certificateFile, const QString& keyFile, QString* error);
    // Binds and listens (port 0: a free one); false with a message when the address is in
    // use or cannot be had.
    bool listen(const QString& host, int port, QString* error);
    int port() const { return m_port; }
    // Accepts and serves connections until stop().
    void run();
    // Stops accepting, ends idle connections and waits for those in flight; safe from any thread.
    void stop();

    static constexpr int MaxWorkers = 256;

private:
    void work();
    void serve(SocketStream& stream);

    Handler m_handler;
    Refusal m_refusal;
    SSL_CTX* m_tls = nullptr;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<bool> m_stopping { false };

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<int> m_pending;
    std::set<int> m_active;
    std::vector<std::thread> m_workers;
    int m_idle = 0;
};
