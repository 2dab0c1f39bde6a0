#include "ChunkHasher.h"

#include <QFile>
#include <QMetaObject>

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
    if (m_worker.joinable())
        m_worker.join();
}

void ChunkHasher::start()
{
    m_worker = std::thread([this] { run(); });
}

void ChunkHasher::run()
{
    QFile file(m_path);
    const auto report = [this](auto function) { QMetaObject::invokeMethod(this, function, Qt::QueuedConnection); };
    // Unbuffered: a file that grows is read again where the last read found its end.
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        report([this, error = file.errorString()] { m_onEnd(error); });
        return;
    }
    QByteArray buffer(int(ChunkSize), Qt::Uninitialized);
    for (int index = 0; !m_stop; ++index) {
        const qint64 offset = qint64(index) * ChunkSize;
        const qint64 wanted = m_growingTo < 0 ? ChunkSize : qMin(ChunkSize, m_growingTo - offset);
        qint64 length = 0;
        while (length < wanted && !m_stop) {
            const qint64 got = file.read(buffer.data() + length, wanted - length);
            if (got < 0) {
                report([this, error = file.errorString()] { m_onEnd(error); });
                return;
            }
            length += got;
            if (got == 0 && m_growingTo < 0)
                break;
            if (got == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        if (length == 0 || m_stop) // an empty file has no chunk
            break;
        const Chunk chunk { index, offset, length, QString::fromLatin1(sha256(buffer.constData(), size_t(length)).toHex()) };
        report([this, chunk] { m_onChunk(chunk); });
        if (length < ChunkSize)
            break;
    }
    if (!m_stop)
        report([this] { m_onEnd(QString()); });
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
