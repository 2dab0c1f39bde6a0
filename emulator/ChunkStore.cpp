#include "ChunkStore.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QUuid>
#include <fcntl.h>
#include <unistd.h>

namespace {

bool syncDirectory(const QString& dir)
{
    const int fd = ::open(QFile::encodeName(dir).constData(), O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

} // namespace

bool ChunkStore::open(const QString& dir, QString* error)
{
    m_root = QDir(dir).absoluteFilePath(QStringLiteral("chunks"));
    if (!QDir().mkpath(m_root)) {
        *error = QStringLiteral("cannot create %1").arg(m_root);
        return false;
    }
    return true;
}

bool ChunkStore::isHash(const QByteArray& text)
{
    if (text.size() != 64)
        return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

QString ChunkStore::pathOf(const QByteArray& hash) const
{
    const QString name = QString::fromLatin1(hash);
    return QStringLiteral("%1/%2/%3/%4").arg(m_root, name.left(2), name.mid(2, 2), name);
}

bool ChunkStore::has(const QByteArray& hash) const
{
    return isHash(hash) && QFileInfo::exists(pathOf(hash));
}

bool ChunkStore::put(const QByteArray& hash, const QByteArray& bytes, QString* error)
{
    if (!isHash(hash)) {
        *error = QStringLiteral("not a chunk hash");
        return false;
    }
    if (has(hash))
        return true;
    Incoming chunk(*this);
    if (!chunk.add(bytes.constData(), size_t(bytes.size()))) {
        *error = QStringLiteral("cannot write a chunk: %1").arg(chunk.errorString());
        return false;
    }
    return chunk.keep(hash, error);
}

ChunkStore::Incoming::Incoming(const ChunkStore& store)
    : m_store(store)
    , m_file(QStringLiteral("%1/.tmp-%2").arg(store.m_root, QUuid::createUuid().toString(QUuid::Id128)))
{
}

ChunkStore::Incoming::~Incoming()
{
    if (m_file.isOpen() || m_file.exists())
        m_file.remove();
}

bool ChunkStore::Incoming::add(const char* data, size_t size)
{
    if (!m_file.isOpen() && !m_file.open(QIODevice::WriteOnly))
        return false;
    if (m_file.write(data, qint64(size)) != qint64(size))
        return false;
    m_sha.add(data, size);
    m_size += qint64(size);
    return true;
}

QByteArray ChunkStore::Incoming::hash()
{
    if (m_hash.isEmpty())
        m_hash = m_sha.result().toHex();
    return m_hash;
}

bool ChunkStore::Incoming::keep(const QByteArray& hash, QString* error)
{
    if (!m_file.isOpen() && !m_file.open(QIODevice::WriteOnly)) { // an empty chunk
        *error = QStringLiteral("cannot write a chunk: %1").arg(m_file.errorString());
        return false;
    }
    if (!m_file.flush() || ::fsync(m_file.handle()) != 0) {
        *error = QStringLiteral("cannot write a chunk: %1").arg(m_file.errorString());
        return false;
    }
    m_file.close();
    const QString path = m_store.pathOf(hash);
    if (QFileInfo::exists(path)) {
        m_file.remove();
        return true;
    }
    const QString dir = QFileInfo(path).absolutePath();
    QDir().mkpath(dir);
    if (::rename(QFile::encodeName(m_file.fileName()).constData(), QFile::encodeName(path).constData())
        != 0) {
        *error = QStringLiteral("cannot store a chunk");
        return false;
    }
    syncDirectory(dir);
    return true;
}

QByteArray ChunkStore::read(const QByteArray& hash, qint64 offset, qint64 length) const
{
    QFile file(pathOf(hash));
    if (!file.open(QIODevice::ReadOnly) || !file.seek(offset))
        return QByteArray();
    return file.read(length);
}

bool ChunkStore::remove(const QByteArray& hash)
{
    return isHash(hash) && QFile::remove(pathOf(hash));
}

QList<QByteArray> ChunkStore::chunksOnDisk() const
{
    QList<QByteArray> hashes;
    QDirIterator it(m_root, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QByteArray name = it.fileName().toLatin1();
        if (isHash(name))
            hashes.append(name);
    }
    return hashes;
}

void ChunkStore::removeTemporaries()
{
    QDirIterator it(m_root, { QStringLiteral(".tmp-*") }, QDir::Files | QDir::Hidden);
    while (it.hasNext())
        QFile::remove(it.next());
}
