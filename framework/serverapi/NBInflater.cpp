#include "NBInflater.h"

#include <zlib.h>

struct NBInflater::Stream
{
    z_stream z {};
    bool ready = false;
};

std::unique_ptr<NBInflater> NBInflater::forCoding(const QByteArray& contentEncoding)
{
    const QByteArray coding = contentEncoding.trimmed().toLower();
    if (coding == "gzip" || coding == "deflate")
        return std::make_unique<NBInflater>();
    return nullptr;
}

NBInflater::NBInflater()
    : m_stream(std::make_unique<Stream>())
{
    // 32 on top of the window size: a gzip or a zlib header, whichever comes.
    m_stream->ready = inflateInit2(&m_stream->z, MAX_WBITS + 32) == Z_OK;
    m_failed = !m_stream->ready;
}

NBInflater::~NBInflater()
{
    if (m_stream->ready)
        inflateEnd(&m_stream->z);
}

QByteArray NBInflater::inflate(const QByteArray& piece)
{
    QByteArray out;
    if (m_failed || m_ended || piece.isEmpty())
        return out;
    z_stream& z = m_stream->z;
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.constData()));
    z.avail_in = uInt(piece.size());
    char buffer[64 * 1024];
    while (z.avail_in > 0 || z.avail_out == 0) {
        z.next_out = reinterpret_cast<Bytef*>(buffer);
        z.avail_out = sizeof buffer;
        const int result = ::inflate(&z, Z_NO_FLUSH);
        out.append(buffer, int(sizeof buffer - z.avail_out));
        if (result == Z_STREAM_END) {
            m_ended = true;
            break;
        }
        if (result != Z_OK && !(result == Z_BUF_ERROR && z.avail_in == 0)) {
            m_failed = true;
            break;
        }
        if (result == Z_BUF_ERROR)
            break;
    }
    z.next_in = nullptr;
    z.avail_in = 0;
    return out;
}
