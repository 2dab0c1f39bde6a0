#include "ChunkHasher.h"

#include <QFile>
#include <QMetaObject>
#include <QThread>
#include <chrono>
#include <openssl/evp.h>

namespace {

QByteArray sha256(const char* data, size_t length)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(data, length, digest, &size, EVP_sha256(), nullptr);
    return QByteArray(reinterpret_cast<const char*>(digest), int(size));
}

} // namespace

ChunkHasher::ChunkHasher(const QString& path, ChunkDone onChunk, End onEnd, QObject* parent)
    : QObject(parent)
    , m_path(path)
    , m_onChunk(std::move(onChunk))
    , m_onEnd(std::move(onEnd))
{
}

ChunkHasher::~ChunkHasher()
{
    m_stop = true;
    for (std::thread& worker : m_workers)
        worker.join();
}

void ChunkHasher::start()
{
    // A growing file is read in order, as it grows.
    const int workers = m_growingTo >= 0 ? 1 : qBound(1, QThread::idealThreadCount(), 4);
    m_running = workers;
    for (int first = 0; first < workers; ++first)
        m_workers.emplace_back([this, first, workers] { run(first, workers); });
}

void ChunkHasher::run(int first, int step)
{
    QFile file(m_path);
    const auto report = [this](auto function) {
        QMetaObject::invokeMethod(this, function, Qt::QueuedConnection);
    };
    // Unbuffered: a file that grows is read again where the last read found its end.
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        report([this, error = file.errorString()] { workerDone(error); });
        return;
    }
    const qint64 chunkSize = m_chunkSize;
    QByteArray buffer(int(chunkSize), Qt::Uninitialized);
    for (int index = first; !m_stop; index += step) {
        const qint64 offset = qint64(index) * chunkSize;
        const qint64 wanted = m_growingTo < 0 ? chunkSize : qMin(chunkSize, m_growingTo - offset);
        qint64 length = 0;
        if (wanted > 0 && !file.seek(offset)) {
            report([this, error = file.errorString()] { workerDone(error); });
            return;
        }
        while (length < wanted && !m_stop) {
            const qint64 got = file.read(buffer.data() + length, wanted - length);
            if (got < 0) {
                report([this, error = file.errorString()] { workerDone(error); });
                return;
            }
            length += got;
            if (got == 0 && m_growingTo < 0)
                break;
            if (got == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (length == 0 || m_stop) // past the end; an empty file has no chunk
            break;
        const Chunk chunk { index, offset, length,
            QString::fromLatin1(sha256(buffer.constData(), size_t(length)).toHex()) };
        report([this, chunk] { chunkDone(chunk); });
        if (length < chunkSize)
            break;
    }
    if (!m_stop)
        report([this] { workerDone(QString()); });
}

void ChunkHasher::chunkDone(const Chunk& chunk)
{
    m_waiting.insert(chunk.index, chunk);
    while (!m_waiting.isEmpty() && m_waiting.firstKey() == m_next) {
        m_onChunk(m_waiting.take(m_next));
        ++m_next;
    }
}

// A worker's chunks all arrive before its end: once every worker has ended, every chunk
// has been reported, or one of them failed.
void ChunkHasher::workerDone(const QString& error)
{
    if (m_error.isEmpty())
        m_error = error;
    if (--m_running == 0)
        m_onEnd(m_error.isEmpty() && !m_waiting.isEmpty() ? QStringLiteral("a chunk was not read") : m_error);
}

QString ChunkHasher::chunkHash(const QByteArray& data)
{
    return QString::fromLatin1(sha256(data.constData(), size_t(data.size())).toHex());
}

QString ChunkHasher::fileHash(const QStringList& chunkHashes)
{
    QByteArray digests;
    for (const QString& hash : chunkHashes)
        digests += QByteArray::fromHex(hash.toLatin1());
    return QString::fromLatin1(sha256(digests.constData(), size_t(digests.size())).toHex());
}

StreamHash::StreamHash(qint64 chunkSize)
    : m_chunkSize(chunkSize)
    , m_context(EVP_MD_CTX_new())
{
    EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(m_context), EVP_sha256(), nullptr);
}

StreamHash::~StreamHash()
{
    EVP_MD_CTX_free(static_cast<EVP_MD_CTX*>(m_context));
}

void StreamHash::add(const char* data, qint64 length)
{
    while (length > 0) {
        const qint64 part = qMin(length, m_chunkSize - m_inChunk);
        EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(m_context), data, size_t(part));
        m_inChunk += part;
        data += part;
        length -= part;
        if (m_inChunk == m_chunkSize)
            endChunk();
    }
}

void StreamHash::endChunk()
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(static_cast<EVP_MD_CTX*>(m_context), digest, &size);
    m_hashes << QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(digest), int(size)).toHex());
    EVP_DigestInit_ex(static_cast<EVP_MD_CTX*>(m_context), EVP_sha256(), nullptr);
    m_inChunk = 0;
}

QString StreamHash::result()
{
    if (m_inChunk > 0)
        endChunk();
    return ChunkHasher::fileHash(m_hashes);
}
