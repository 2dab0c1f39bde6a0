// The content store: chunks named by their SHA-256 (hex) under DIR/chunks/ab/cd/<hash>,
// shared by every file and user, so identical chunks are stored once. A chunk is
// written under a temporary name, flushed to disk and renamed: it is whole or absent.
#pragma once

#include "Sha256.h"

#include <QByteArray>
#include <QFile>
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
    // Every chunk file on disk, by hash.
    QList<QByteArray> chunksOnDisk() const;
    // Removes the temporaries of chunks being written: only while nothing writes any.
    void removeTemporaries();

    static bool isHash(const QByteArray& text);

    // A chunk that arrives piece by piece: written to a temporary file and hashed on the
    // way, so that no chunk is held in memory; kept under its hash once whole, and gone
    // if it is not kept.
    class Incoming
    {
    public:
        explicit Incoming(const ChunkStore& store);
        ~Incoming();
        Incoming(const Incoming&) = delete;
        Incoming& operator=(const Incoming&) = delete;

        bool add(const char* data, size_t size);
        qint64 size() const { return m_size; }
        // The SHA-256 (hex) of what was added: call it once everything is.
        QByteArray hash();
        // Flushes it to disk and names it `hash`, unless the store has that chunk already.
        bool keep(const QByteArray& hash, QString* error);
        QString errorString() const { return m_file.errorString(); }

    private:
        const ChunkStore& m_store;
        QFile m_file;
        Sha256 m_sha;
        qint64 m_size = 0;
        QByteArray m_hash;
    };

private:
    QString m_root;
};
