// One accepted connection, plain or TLS (OpenSSL), read and written with time limits:
// a wait for data or for room that lasts longer than the limit fails with a time-out.
// It has the read_some/write_some shape of a synchronous stream, so that the HTTP
// parser reads from it directly.
#pragma once

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>
#include <cstddef>

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

class SocketStream
{
public:
    // Takes the socket over (made non-blocking here); with `tls`, speaks TLS on it.
    SocketStream(int fd, SSL_CTX* tls);
    ~SocketStream();
    SocketStream(const SocketStream&) = delete;
    SocketStream& operator=(const SocketStream&) = delete;

    int fd() const { return m_fd; }
    // The TLS handshake (nothing for a plain socket).
    bool handshake(int timeoutMs);
    // How long a read may wait for data, and a write for room.
    void setReadTimeout(int ms) { m_readTimeoutMs = ms; }
    void setWriteTimeout(int ms) { m_writeTimeoutMs = ms; }

    // What arrives, up to `size` bytes; 0 with `ec` set at the end, on a time-out or an error.
    std::size_t readSome(char* data, std::size_t size, boost::system::error_code& ec);
    // Writes all of it; false once the connection is broken or the peer stops reading.
    bool writeAll(const char* data, std::size_t size);
    // Whether the peer has closed its side or the connection broke (without waiting).
    bool peerGone() const;
    // Ends the sending side (after a TLS close notify), so that the peer sees the end.
    void shutdownSend();

    template<class MutableBuffers>
    std::size_t read_some(const MutableBuffers& buffers, boost::system::error_code& ec)
    {
        for (auto it = boost::asio::buffer_sequence_begin(buffers);
             it != boost::asio::buffer_sequence_end(buffers); ++it) {
            const boost::asio::mutable_buffer buffer = *it;
            if (buffer.size() > 0)
                return readSome(static_cast<char*>(buffer.data()), buffer.size(), ec);
        }
        ec = {};
        return 0;
    }
    template<class MutableBuffers> std::size_t read_some(const MutableBuffers& buffers)
    {
        boost::system::error_code ec;
        const std::size_t n = read_some(buffers, ec);
        if (ec)
            throw boost::system::system_error(ec);
        return n;
    }
    template<class ConstBuffers>
    std::size_t write_some(const ConstBuffers& buffers, boost::system::error_code& ec)
    {
        std::size_t written = 0;
        for (auto it = boost::asio::buffer_sequence_begin(buffers);
             it != boost::asio::buffer_sequence_end(buffers); ++it) {
            const boost::asio::const_buffer buffer = *it;
            if (!writeAll(static_cast<const char*>(buffer.data()), buffer.size())) {
                ec = boost::asio::error::broken_pipe;
                return written;
            }
            written += buffer.size();
        }
        ec = {};
        return written;
    }
    template<class ConstBuffers> std::size_t write_some(const ConstBuffers& buffers)
    {
        boost::system::error_code ec;
        const std::size_t n = write_some(buffers, ec);
        if (ec)
            throw boost::system::system_error(ec);
        return n;
    }

private:
    // Waits until the socket is readable (or writable); false on a time-out.
    bool wait(bool forWriting, int timeoutMs) const;

    int m_fd;
    SSL* m_ssl = nullptr;
    int m_readTimeoutMs = 60000;
    int m_writeTimeoutMs = 60000;
};
