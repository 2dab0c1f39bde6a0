#include "SocketStream.h"

#include <cerrno>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

SocketStream::SocketStream(int fd, SSL_CTX* tls)
    : m_fd(fd)
{
    ::fcntl(m_fd, F_SETFL, ::fcntl(m_fd, F_GETFL) | O_NONBLOCK);
    if (tls) {
        m_ssl = SSL_new(tls);
        SSL_set_fd(m_ssl, m_fd);
        SSL_set_mode(m_ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    }
}

SocketStream::~SocketStream()
{
    if (m_ssl)
        SSL_free(m_ssl);
    ::close(m_fd);
}

bool SocketStream::wait(bool forWriting, int timeoutMs) const
{
    pollfd entry { m_fd, short(forWriting ? POLLOUT : POLLIN), 0 };
    for (;;) {
        const int ready = ::poll(&entry, 1, timeoutMs);
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

bool SocketStream::handshake(int timeoutMs)
{
    if (!m_ssl)
        return true;
    for (;;) {
        const int result = SSL_accept(m_ssl);
        if (result == 1)
            return true;
        const int error = SSL_get_error(m_ssl, result);
        if (!((error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE)
                && wait(error == SSL_ERROR_WANT_WRITE, timeoutMs))) {
            ERR_clear_error();
            return false;
        }
    }
}

std::size_t SocketStream::readSome(char* data, std::size_t size, boost::system::error_code& ec)
{
    for (;;) {
        bool wantWrite = false;
        if (m_ssl) {
            const int n = SSL_read(m_ssl, data, int(std::min<std::size_t>(size, 1 << 30)));
            if (n > 0) {
                ec = {};
                return std::size_t(n);
            }
            const int error = SSL_get_error(m_ssl, n);
            if (error == SSL_ERROR_ZERO_RETURN) {
                ec = boost::asio::error::eof;
                return 0;
            }
            if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
                ERR_clear_error();
                ec = boost::asio::error::connection_reset;
                return 0;
            }
            wantWrite = error == SSL_ERROR_WANT_WRITE;
        } else {
            const ssize_t n = ::recv(m_fd, data, size, 0);
            if (n > 0) {
                ec = {};
                return std::size_t(n);
            }
            if (n == 0) {
                ec = boost::asio::error::eof;
                return 0;
            }
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                ec = boost::system::error_code(errno, boost::system::system_category());
                return 0;
            }
        }
        if (!wait(wantWrite, m_readTimeoutMs)) {
            ec = boost::asio::error::timed_out;
            return 0;
        }
    }
}

bool SocketStream::writeAll(const char* data, std::size_t size)
{
    while (size > 0) {
        bool wantRead = false;
        if (m_ssl) {
            const int n = SSL_write(m_ssl, data, int(std::min<std::size_t>(size, 1 << 30)));
            if (n > 0) {
                data += n;
                size -= std::size_t(n);
                continue;
            }
            const int error = SSL_get_error(m_ssl, n);
            if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) {
                ERR_clear_error();
                return false;
            }
            wantRead = error == SSL_ERROR_WANT_READ;
        } else {
            const ssize_t n = ::send(m_fd, data, size, MSG_NOSIGNAL);
            if (n > 0) {
                data += n;
                size -= std::size_t(n);
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
                return false;
        }
        if (!wait(!wantRead, m_writeTimeoutMs))
            return false;
    }
    return true;
}

bool SocketStream::peerGone() const
{
    pollfd entry { m_fd, short(POLLIN | POLLRDHUP), 0 };
    if (::poll(&entry, 1, 0) <= 0)
        return false;
    return (entry.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

void SocketStream::shutdownSend()
{
    if (m_ssl)
        SSL_shutdown(m_ssl);
    ::shutdown(m_fd, SHUT_WR);
}
