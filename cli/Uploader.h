// One local file (or standard input) to one remote path. A file of up to one chunk
// goes whole; a larger one in chunks (of the size the server names, 4 MiB otherwise):
// hashed on worker threads while the server is asked which chunks it lacks and those
// are sent, `jobs` at a time, then committed as the ordered hash list. A run after an
// interrupted one sends only what the server still lacks. Standard input is read as
// it comes, chunk by chunk, never whole. Either way the file's hash as the server
// computed it is checked against the local one.
#pragma once

#include "RemoteTree.h"

#include <QFile>
#include <QJsonObject>
#include <functional>

class Progress;
class RateLimit;

class Uploader
{
public:
    struct Result
    {
        QString local;
        QString remote;
        qint64 bytes = 0;
        int chunks = 0; // 0: sent whole
        int chunksSent = 0;
        qint64 bytesSent = 0;
        QString hash;
        qint64 ms = 0;
        // {"local","path","bytes","hash","chunks","chunks_sent","bytes_sent","ms"}
        QJsonObject json() const;
        // "16 chunks, 3 sent" or "0 B sent: all 16 chunks already on the server"
        QString how() const;
    };

    Uploader(RemoteTree& tree, Progress& progress, int jobs, const QString& server, RateLimit& limit);

    // Throws the Failure that stopped it.
    Result put(const QString& localPath, const QString& remotePath);
    // What a stream gives (standard input for "-", else a FIFO or a device read until
    // its end) to the remote path, read as it comes.
    Result putStream(const QString& localPath, const QString& remotePath);

private:
    // A chunk to send: its place in the file, its hash, and its bytes when they are held
    // (read from standard input) rather than read again from the file.
    struct Piece
    {
        int index = 0;
        qint64 offset = 0;
        qint64 length = 0;
        QString hash;
        QByteArray data;
    };
    // Where the pieces come from: `start` begins producing them through `add` and ends
    // with `end` (an error, or empty); `pause`/`resume` hold the producer back while many
    // pieces wait with their bytes.
    struct Producer
    {
        std::function<void(
            const std::function<void(Piece)>& add, const std::function<void(const QString&)>& end)>
            start;
        std::function<void(bool paused)> hold;
    };

    void putWhole(Result& result, const RemoteTree::Upload& upload, qint64 chunkSize);
    // Queries and sends the pieces as they come, then commits them.
    void putChunks(Result& result, const RemoteTree::Upload& upload, QFile* file, const Producer& producer);
    void checkHash(const Result& result, const QJsonObject& entry);
    // Progress shown, and the runner told the transfer is alive.
    void advance(qint64 bytes, qint64 moved = -1);

    RemoteTree& m_tree;
    Progress& m_progress;
    int m_jobs;
    QString m_server;
    RateLimit& m_limit;
};
