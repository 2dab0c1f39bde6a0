// The drive's stored form of a file: SHA-256 over chunks (4 MiB unless the server names
// another size; the last one shorter), each as lower-case hex, and the file's hash as
// SHA-256 over the raw chunk digests in order (an empty file has no chunk). A hasher reads the file on worker
// threads, one per core (one for a file that is still growing), and reports each chunk in file order on the
// thread that owns it, so that uploads of earlier chunks run while later ones are hashed.
#pragma once

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>
#include <atomic>
#include <functional>
#include <thread>
#include <vector>

class ChunkHasher : public QObject
{
public:
    // The one rule of chunk sizes: the server's when its upload authorisation names one.
    static constexpr qint64 DefaultChunkSize = 4 << 20;
    static qint64 chunkSizeOf(qint64 serverChunkSize)
    {
        return serverChunkSize > 0 ? serverChunkSize : DefaultChunkSize;
    }

    struct Chunk
    {
        int index = 0;
        qint64 offset = 0;
        qint64 length = 0;
        QString hash;
    };
    using ChunkDone = std::function<void(const Chunk&)>;
    // An empty error when the whole file was hashed.
    using End = std::function<void(const QString& error)>;

    ChunkHasher(const QString& path, ChunkDone onChunk, End onEnd, QObject* parent = nullptr);
    // Hashes a file that is still being written until it holds `bytes`: a download is
    // hashed while it arrives instead of read again at its end.
    void follow(qint64 bytes) { m_growingTo = bytes; }
    void setChunkSize(qint64 bytes) { m_chunkSize = bytes; }
    // Stops the workers and waits for them; reports that have not run yet are dropped.
    ~ChunkHasher() override;

    void start();

    static QString chunkHash(const QByteArray& data);
    static QString fileHash(const QStringList& chunkHashes);
    static int chunkCount(qint64 bytes, qint64 chunkSize = DefaultChunkSize)
    {
        return int((bytes + chunkSize - 1) / chunkSize);
    }

private:
    // Worker `first` of `step`: chunks first, first + step, ... until the end of the file.
    void run(int first, int step);
    // On the owner's thread: a chunk, or a worker's end (`error` empty when it read to the end).
    void chunkDone(const Chunk& chunk);
    void workerDone(const QString& error);

    QString m_path;
    ChunkDone m_onChunk;
    End m_onEnd;
    qint64 m_growingTo = -1;
    qint64 m_chunkSize = DefaultChunkSize;
    std::atomic<bool> m_stop { false };
    std::vector<std::thread> m_workers;
    QMap<int, Chunk> m_waiting; // done, but after one that is not
    int m_next = 0;
    int m_running = 0;
    QString m_error;
};

// The same hashes of bytes that arrive in order, never kept whole: a download into a pipe
// or a device, checked as it passes.
class StreamHash
{
public:
    explicit StreamHash(qint64 chunkSize = ChunkHasher::DefaultChunkSize);
    ~StreamHash();
    StreamHash(const StreamHash&) = delete;
    StreamHash& operator=(const StreamHash&) = delete;

    void add(const char* data, qint64 length);
    // The file's hash; nothing may be added after.
    QString result();

private:
    void endChunk();

    qint64 m_chunkSize;
    qint64 m_inChunk = 0;
    void* m_context; // EVP_MD_CTX
    QStringList m_hashes;
};
