// Decodes a reply body sent with "Content-Encoding: gzip" or "deflate" as it arrives, for
// the network layers that leave it coded (Qt 6, to which the library announces the codings
// itself). Both are read as Qt 5 reads them: a gzip or a zlib stream, detected by its header.
#pragma once

#include <QByteArray>
#include <memory>

class NBInflater
{
public:
    // An inflater for the value of a "Content-Encoding" header, or none when the value
    // names no coding Qt 5 decodes ("gzip" and "deflate", in any case).
    static std::unique_ptr<NBInflater> forCoding(const QByteArray& contentEncoding);

    NBInflater();
    ~NBInflater();
    NBInflater(const NBInflater&) = delete;
    NBInflater& operator=(const NBInflater&) = delete;

    // The decoded bytes of the next coded piece; after the end of the stream, nothing.
    QByteArray inflate(const QByteArray& piece);
    // The body is not a stream of the coding: nothing more is decoded.
    bool failed() const { return m_failed; }

private:
    struct Stream;
    std::unique_ptr<Stream> m_stream;
    bool m_failed = false;
    bool m_ended = false;
};
