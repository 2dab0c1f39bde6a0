#include "Drive.h"

#include "Sha256.h"

#include <QDateTime>
#include <QJsonDocument>

namespace {

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

const char* const EntryColumns = "neid, space, path, is_dir, bytes, rev, modified, hash";

Entry entryOf(const Database::Statement& st)
{
    Entry e;
    e.neid = st.integer(0);
    e.space = st.text(1);
    e.path = st.text(2);
    e.dir = st.integer(3) != 0;
    e.bytes = st.integer(4);
    e.rev = st.integer(5);
    e.modified = st.integer(6);
    e.hash = st.text(7);
    return e;
}

QString parentOf(const QString& path)
{
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    return slash <= 0 ? QStringLiteral("/") : path.left(slash);
}

QString nameOf(const QString& path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

// Whether `path` is `folder` or lies below it.
bool within(const QString& path, const QString& folder)
{
    return folder == QLatin1String("/") || path == folder || path.startsWith(folder + QLatin1Char('/'));
}

QString chunksJson(const QList<ChunkRef>& chunks)
{
    QJsonArray array;
    for (const ChunkRef& chunk : chunks)
        array.append(QJsonArray { QString::fromLatin1(chunk.hash), chunk.bytes });
    return QString::fromUtf8(QJsonDocument(array).toJson(QJsonDocument::Compact));
}

} // namespace

QJsonObject Entry::json() const
{
    return QJsonObject { { "neid", QString::number(neid) }, { "path", path },
        { "path_type", Drive::pathTypeOf(space) }, { "nsid", space }, { "is_dir", dir }, { "bytes", bytes },
        { "rev", QString::number(rev) }, { "modified", modified }, { "hash", hash },
        { "name", path == QLatin1String("/") ? QString() : nameOf(path) } };
}

Drive::Drive(Database& db, ChunkStore& store)
    : m_db(db)
    , m_store(store)
{
}

QString Drive::spaceOf(const QString& pathType, qint64 userId)
{
    if (pathType == QLatin1String("self"))
        return QStringLiteral("self:%1").arg(userId);
    return pathType.isEmpty() ? QStringLiteral("ent") : pathType;
}

QString Drive::pathTypeOf(const QString& space)
{
    return space.startsWith(QLatin1String("self:")) ? QStringLiteral("self") : space;
}

bool Drive::normalise(const QString& in, QString* out)
{
    if (in.size() > 4096 || in.contains(QChar(0)))
        return false;
    QStringList pieces;
    for (const QString& piece : in.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (piece == QLatin1String(".") || piece == QLatin1String(".."))
            return false;
        pieces << piece;
    }
    *out = QLatin1Char('/') + pieces.join(QLatin1Char('/'));
    return true;
}

QString Drive::contentHash(const QList<ChunkRef>& chunks)
{
    Sha256 hash;
    for (const ChunkRef& chunk : chunks)
        hash.add(QByteArray::fromHex(chunk.hash));
    return QString::fromLatin1(hash.result().toHex());
}

std::optional<Entry> Drive::find(const QString& space, const QString& path)
{
    std::optional<Entry> found;
    m_db.run(false, [&] {
        found = findLocked(space, path);
        return true;
    });
    return found;
}

std::optional<Entry> Drive::findLocked(const QString& space, const QString& path)
{
    Database::Statement st(m_db, QByteArray("SELECT ").append(EntryColumns).append(" FROM entries WHERE space = ? AND path = ?"));
    if (st.bind(1, space).bind(2, path).next())
        return entryOf(st);
    if (path == QLatin1String("/")) {
        // Every space has its root, made on first sight so that it has a neid.
        Entry root;
        root.space = space;
        root.path = path;
        root.dir = true;
        root.modified = now();
        root.neid = insert(root);
        return root;
    }
    return std::nullopt;
}

std::optional<Entry> Drive::findNeid(qint64 neid)
{
    std::optional<Entry> found;
    m_db.run(false, [&] {
        Database::Statement st(m_db, QByteArray("SELECT ").append(EntryColumns).append(" FROM entries WHERE neid = ?"));
        if (st.bind(1, neid).next())
            found = entryOf(st);
        return true;
    });
    return found;
}

qint64 Drive::insert(const Entry& e)
{
    Database::Statement st(m_db,
        "INSERT INTO entries(space, path, is_dir, bytes, rev, modified, hash) VALUES(?, ?, ?, ?, ?, ?, ?)");
    st.bind(1, e.space).bind(2, e.path).bind(3, int(e.dir)).bind(4, e.bytes).bind(5, e.rev).bind(6, e.modified).bind(7, e.hash);
    st.exec();
    return st.lastInsertId();
}

void Drive::journal(const QString& op, const Entry& e, const QString& fromPath)
{
    Database::Statement st(m_db,
        "INSERT INTO journal(space, path, op, neid, is_dir, bytes, rev, from_path, time) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)");
    st.bind(1, e.space).bind(2, e.path).bind(3, op).bind(4, e.neid).bind(5, int(e.dir)).bind(6, e.bytes).bind(7, e.rev);
    if (fromPath.isEmpty())
        st.bindNull(8);
    else
        st.bind(8, fromPath);
    st.bind(9, now()).exec();
}

bool Drive::ensureParents(const QString& space, const QString& path, qint64 userId, Outcome* failure)
{
    Q_UNUSED(userId)
    const QString parent = parentOf(path);
    if (parent == QLatin1String("/")) {
        findLocked(space, parent);
        return true;
    }
    const std::optional<Entry> existing = findLocked(space, parent);
    if (existing) {
        if (existing->dir)
            return true;
        *failure = Outcome::failure(409, QStringLiteral("parent folder conflict with file"),
            QStringLiteral("%1 is a file").arg(parent));
        return false;
    }
    if (!ensureParents(space, parent, userId, failure))
        return false;
    Entry folder;
    folder.space = space;
    folder.path = parent;
    folder.dir = true;
    folder.modified = now();
    folder.neid = insert(folder);
    journal(QStringLiteral("create"), folder);
    return true;
}

Outcome Drive::createFolder(const QString& space, const QString& path, qint64 userId, bool existingIsError)
{
    Outcome outcome;
    m_db.run(true, [&] {
        if (const std::optional<Entry> existing = findLocked(space, path)) {
            if (existing->dir && !existingIsError) {
                outcome.entry = *existing;
                return true;
            }
            outcome = Outcome::failure(409, existing->dir ? QStringLiteral("folder_already_existed")
                                                          : QStringLiteral("target name exists"));
            return false;
        }
        if (!ensureParents(space, path, userId, &outcome))
            return false;
        Entry folder;
        folder.space = space;
        folder.path = path;
        folder.dir = true;
        folder.modified = now();
        folder.neid = insert(folder);
        journal(QStringLiteral("create"), folder);
        outcome.entry = folder;
        return true;
    });
    return outcome;
}

Outcome Drive::createFile(const QString& space, const QString& path, qint64 userId)
{
    if (find(space, path))
        return Outcome::failure(409, QStringLiteral("target name exists"));
    return commit(space, path, {}, userId, false);
}

Outcome Drive::commit(const QString& space, const QString& path, const QList<ChunkRef>& chunks, qint64 userId,
    bool overwrite)
{
    Outcome outcome;
    qint64 bytes = 0;
    for (const ChunkRef& chunk : chunks)
        bytes += chunk.bytes;
    const QString hash = contentHash(chunks);
    m_db.run(true, [&] {
        std::optional<Entry> existing = findLocked(space, path);
        if (existing && existing->dir) {
            outcome = Outcome::failure(409, QStringLiteral("conflict with folder"));
            return false;
        }
        if (existing && lockedAgainst(existing->neid, userId)) {
            outcome = Outcome::failure(423, QStringLiteral("file is locked"), QStringLiteral("%1 is locked").arg(path));
            return false;
        }
        if (existing && !overwrite) {
            outcome = Outcome::failure(409, QStringLiteral("target name exists"));
            return false;
        }
        if (!existing && !ensureParents(space, path, userId, &outcome))
            return false;
        Entry file = existing.value_or(Entry());
        file.space = space;
        file.path = path;
        file.dir = false;
        file.bytes = bytes;
        file.rev = existing ? existing->rev + 1 : 1;
        file.modified = now();
        file.hash = hash;
        if (existing) {
            Database::Statement st(m_db, "UPDATE entries SET bytes = ?, rev = ?, modified = ?, hash = ? WHERE neid = ?");
            st.bind(1, file.bytes).bind(2, file.rev).bind(3, file.modified).bind(4, file.hash).bind(5, file.neid).exec();
        } else {
            file.neid = insert(file);
        }
        Database::Statement revision(m_db,
            "INSERT INTO revisions(neid, rev, bytes, chunks, hash, modified, user_id) VALUES(?, ?, ?, ?, ?, ?, ?)");
        revision.bind(1, file.neid).bind(2, file.rev).bind(3, file.bytes).bind(4, chunksJson(chunks)).bind(5, hash);
        revision.bind(6, file.modified).bind(7, userId).exec();
        journal(existing ? QStringLiteral("modify") : QStringLiteral("create"), file);
        outcome.entry = file;
        return true;
    });
    return outcome;
}

Outcome Drive::move(const QString& space, const QString& from, const QString& toSpace, const QString& to, qint64 userId)
{
    Outcome outcome;
    m_db.run(true, [&] {
        const std::optional<Entry> source = from == QLatin1String("/") ? std::nullopt : findLocked(space, from);
        if (!source) {
            outcome = Outcome::failure(404, QStringLiteral("source not found"));
            return false;
        }
        if (lockedAgainst(source->neid, userId)) {
            outcome = Outcome::failure(423, QStringLiteral("file is locked"));
            return false;
        }
        if (findLocked(toSpace, to)) {
            outcome = Outcome::failure(409, QStringLiteral("target name exists"));
            return false;
        }
        if (space == toSpace && within(to, from)) {
            outcome = Outcome::failure(409, QStringLiteral("parent folder conflict with folder"),
                QStringLiteral("a folder cannot move into itself"));
            return false;
        }
        if (!ensureParents(toSpace, to, userId, &outcome))
            return false;
        Database::Statement st(m_db,
            "UPDATE entries SET space = ?, path = ? || substr(path, ?) WHERE space = ? AND (path = ? OR substr(path, 1, ?) = ?)");
        st.bind(1, toSpace).bind(2, to).bind(3, from.size() + 1).bind(4, space).bind(5, from);
        st.bind(6, from.size() + 1).bind(7, from + QLatin1Char('/')).exec();
        Entry moved = *source;
        moved.space = toSpace;
        moved.path = to;
        moved.modified = now();
        journal(QStringLiteral("move"), moved, from);
        if (toSpace != space) {
            Entry gone = *source;
            journal(QStringLiteral("delete"), gone);
        }
        outcome.entry = moved;
        return true;
    });
    return outcome;
}

Outcome Drive::copy(const QString& space, const QString& from, const QString& toSpace, const QString& to, qint64 userId)
{
    Outcome outcome;
    const std::optional<Entry> source = find(space, from);
    if (!source || from == QLatin1String("/"))
        return Outcome::failure(404, QStringLiteral("source not found"));
    if (find(toSpace, to))
        return Outcome::failure(409, QStringLiteral("target name exists"));
    if (space == toSpace && within(to, from))
        return Outcome::failure(409, QStringLiteral("parent folder conflict with folder"));
    QList<Entry> entries { *source };
    if (source->dir)
        entries += below(space, from);
    m_db.run(true, [&] {
        if (!ensureParents(toSpace, to, userId, &outcome))
            return false;
        for (Entry e : entries) {
            const qint64 original = e.neid;
            e.space = toSpace;
            e.path = to + e.path.mid(from.size());
            e.modified = now();
            e.rev = e.dir ? 0 : 1;
            e.neid = insert(e);
            if (!e.dir) {
                Database::Statement rev(m_db,
                    "INSERT INTO revisions(neid, rev, bytes, chunks, hash, modified, user_id) "
                    "SELECT ?, 1, bytes, chunks, hash, ?, ? FROM revisions WHERE neid = ? ORDER BY rev DESC LIMIT 1");
                rev.bind(1, e.neid).bind(2, e.modified).bind(3, userId).bind(4, original).exec();
            }
            journal(QStringLiteral("create"), e);
            if (e.path == to)
                outcome.entry = e;
        }
        return true;
    });
    return outcome;
}

Outcome Drive::remove(const QString& space, const QString& path, qint64 userId)
{
    Outcome outcome;
    m_db.run(true, [&] {
        const std::optional<Entry> entry = path == QLatin1String("/") ? std::nullopt : findLocked(space, path);
        if (!entry) {
            outcome = Outcome::failure(404, QStringLiteral("file/folder not found"));
            return false;
        }
        if (lockedAgainst(entry->neid, userId)) {
            outcome = Outcome::failure(423, QStringLiteral("file is locked"));
            return false;
        }
        for (const char* sql : { "DELETE FROM revisions WHERE neid IN (SELECT neid FROM entries WHERE space = ?1 AND "
                                 "(path = ?2 OR substr(path, 1, ?3) = ?4))",
                 "DELETE FROM locks WHERE neid IN (SELECT neid FROM entries WHERE space = ?1 AND "
                 "(path = ?2 OR substr(path, 1, ?3) = ?4))",
                 "DELETE FROM entries WHERE space = ?1 AND (path = ?2 OR substr(path, 1, ?3) = ?4)" }) {
            Database::Statement st(m_db, sql);
            st.bind(1, space).bind(2, path).bind(3, path.size() + 1).bind(4, path + QLatin1Char('/')).exec();
        }
        journal(QStringLiteral("delete"), *entry);
        outcome.entry = *entry;
        return true;
    });
    return outcome;
}

QList<Entry> Drive::list(const QString& space, const QString& folder, const QString& orderby, const QString& sort,
    int limit, int offset, int* total)
{
    QList<Entry> entries;
    const QString column = orderby == QLatin1String("mtime") ? QStringLiteral("modified")
        : orderby == QLatin1String("size")                  ? QStringLiteral("bytes")
                                                             : QStringLiteral("path");
    const QString direction = sort.compare(QLatin1String("desc"), Qt::CaseInsensitive) == 0 ? QStringLiteral("DESC")
                                                                                          : QStringLiteral("ASC");
    const QString prefix = folder == QLatin1String("/") ? folder : folder + QLatin1Char('/');
    const QByteArray sql = QStringLiteral("SELECT %1 FROM entries WHERE space = ? AND substr(path, 1, ?) = ? AND path <> ? "
                                          "AND instr(substr(path, ?), '/') = 0 ORDER BY is_dir DESC, %2 %3, path ASC")
                               .arg(QLatin1String(EntryColumns), column, direction)
                               .toUtf8();
    m_db.run(false, [&] {
        Database::Statement st(m_db, sql.constData());
        st.bind(1, space).bind(2, prefix.size()).bind(3, prefix).bind(4, folder).bind(5, prefix.size() + 1);
        while (st.next())
            entries.append(entryOf(st));
        return true;
    });
    if (total)
        *total = entries.size();
    entries = entries.mid(qMax(0, offset), limit > 0 ? limit : -1);
    return entries;
}

QList<Entry> Drive::below(const QString& space, const QString& folder)
{
    QList<Entry> entries;
    const QString prefix = folder == QLatin1String("/") ? folder : folder + QLatin1Char('/');
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            QByteArray("SELECT ").append(EntryColumns).append(" FROM entries WHERE space = ? AND substr(path, 1, ?) = ? AND path <> ? ORDER BY path"));
        st.bind(1, space).bind(2, prefix.size()).bind(3, prefix).bind(4, folder);
        while (st.next())
            entries.append(entryOf(st));
        return true;
    });
    return entries;
}

QJsonArray Drive::revisions(qint64 neid, int limit)
{
    QJsonArray revisions;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT rev, bytes, hash, modified FROM revisions WHERE neid = ? ORDER BY rev DESC");
        st.bind(1, neid);
        while (st.next() && (limit <= 0 || revisions.size() < limit))
            revisions.append(QJsonObject { { "rev", QString::number(st.integer(0)) }, { "bytes", st.integer(1) },
                { "hash", st.text(2) }, { "modified", st.integer(3) } });
        return true;
    });
    return revisions;
}

QList<ChunkRef> Drive::chunksOf(qint64 neid, qint64 rev)
{
    QList<ChunkRef> chunks;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            rev > 0 ? "SELECT chunks FROM revisions WHERE neid = ? AND rev = ?"
                    : "SELECT chunks FROM revisions WHERE neid = ? ORDER BY rev DESC LIMIT 1");
        st.bind(1, neid);
        if (rev > 0)
            st.bind(2, rev);
        if (st.next()) {
            for (const QJsonValue& value : QJsonDocument::fromJson(st.text(0).toUtf8()).array()) {
                const QJsonArray pair = value.toArray();
                chunks.append(ChunkRef { pair.at(0).toString().toLatin1(), qint64(pair.at(1).toDouble()) });
            }
        }
        return true;
    });
    return chunks;
}

Outcome Drive::lock(const QString& space, const QString& path, qint64 userId, int seconds)
{
    return changeLock(space, path, userId, [&](qint64 neid) {
        Database::Statement st(m_db, "INSERT OR REPLACE INTO locks(neid, user_id, expires) VALUES(?, ?, ?)");
        st.bind(1, neid).bind(2, userId).bind(3, now() + qMax(1, seconds)).exec();
    });
}

Outcome Drive::unlock(const QString& space, const QString& path, qint64 userId)
{
    return changeLock(space, path, userId, [&](qint64 neid) {
        Database::Statement st(m_db, "DELETE FROM locks WHERE neid = ?");
        st.bind(1, neid).exec();
    });
}

// Only the lock's holder, or anyone while no other session holds one, changes a lock.
Outcome Drive::changeLock(const QString& space, const QString& path, qint64 userId, const std::function<void(qint64)>& change)
{
    Outcome outcome;
    m_db.run(true, [&] {
        const std::optional<Entry> entry = findLocked(space, path);
        if (!entry) {
            outcome = Outcome::failure(404, QStringLiteral("file/folder not found"));
            return false;
        }
        if (lockedAgainst(entry->neid, userId)) {
            outcome = Outcome::failure(423, QStringLiteral("file is locked"));
            return false;
        }
        change(entry->neid);
        outcome.entry = *entry;
        return true;
    });
    return outcome;
}

bool Drive::lockedAgainst(qint64 neid, qint64 userId)
{
    bool locked = false;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT 1 FROM locks WHERE neid = ? AND user_id <> ? AND expires > ?");
        locked = st.bind(1, neid).bind(2, userId).bind(3, now()).next();
        return true;
    });
    return locked;
}

QList<Change> Drive::changes(const QString& space, const QString& folder, qint64 afterSeq, int limit)
{
    QList<Change> changes;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            "SELECT seq, op, from_path, neid, path, is_dir, bytes, rev, time FROM journal WHERE space = ? AND seq > ? "
            "ORDER BY seq");
        st.bind(1, space).bind(2, afterSeq);
        while (st.next() && changes.size() < limit) {
            Change change;
            change.seq = st.integer(0);
            change.op = st.text(1);
            change.fromPath = st.text(2);
            change.entry.neid = st.integer(3);
            change.entry.space = space;
            change.entry.path = st.text(4);
            change.entry.dir = st.integer(5) != 0;
            change.entry.bytes = st.integer(6);
            change.entry.rev = st.integer(7);
            change.entry.modified = st.integer(8);
            if (within(change.entry.path, folder) || (!change.fromPath.isEmpty() && within(change.fromPath, folder)))
                changes.append(change);
        }
        return true;
    });
    return changes;
}

qint64 Drive::lastSeq()
{
    qint64 seq = 0;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT COALESCE(MAX(seq), 0) FROM journal");
        if (st.next())
            seq = st.integer(0);
        return true;
    });
    return seq;
}

void Drive::registerChunk(const QByteArray& hash, qint64 bytes)
{
    m_db.run(true, [&] {
        Database::Statement st(m_db, "INSERT OR IGNORE INTO chunks(hash, bytes) VALUES(?, ?)");
        return st.bind(1, QString::fromLatin1(hash)).bind(2, bytes).exec();
    });
}

std::optional<qint64> Drive::chunkBytes(const QByteArray& hash)
{
    std::optional<qint64> bytes;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT bytes FROM chunks WHERE hash = ?");
        if (st.bind(1, QString::fromLatin1(hash)).next())
            bytes = st.integer(0);
        return true;
    });
    return bytes;
}

QStringList Drive::missingChunks(const QStringList& hashes)
{
    QStringList missing;
    for (const QString& hash : hashes) {
        if (!chunkBytes(hash.toLatin1()) && !missing.contains(hash))
            missing << hash;
    }
    return missing;
}

void Drive::clear()
{
    m_db.run(true, [&] {
        for (const char* sql : { "DELETE FROM entries", "DELETE FROM revisions", "DELETE FROM journal", "DELETE FROM locks",
                 "DELETE FROM tasks", "DELETE FROM links", "DELETE FROM sessions", "DELETE FROM flows",
                 "DELETE FROM outbox", "DELETE FROM oplog" })
            m_db.exec(sql);
        return true;
    });
}
