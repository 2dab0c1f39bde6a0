// The content store: chunks named by their SHA-256 (hex) under DIR/chunks/ab/cd/<hash>,
// shared by every file and user, so identical chunks are stored once. A chunk is
// written under a temporary name, flushed to disk and renamed: it is whole or absent.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

class ChunkStore
{
public:
    // Files are cut into chunks of this size (the last one shorter).
    static constexpr qint64 ChunkSize = 4 << 20;

    bool open(const QString& dir, QString* error);

    QString pathOf(const QByteArray& hash) const;
    bool has(const QByteArray& hash) const;
    // Stores the bytes under `hash` (their SHA-256, hex), unless they are there already.
    bool put(const QByteArray& hash, const QByteArray& bytes, QString* error);
    // Up to `length` bytes of the chunk from `offset`; empty when it is missing.
    QByteArray read(const QByteArray& hash, qint64 offset, qint64 length) const;
    bool remove(const QByteArray& hash);
    // Every chunk file on disk, by hash; temporaries left by a crash are removed first.
    QList<QByteArray> chunksOnDisk();

    static bool isHash(const QByteArray& text);

private:
    QString m_root;
};
