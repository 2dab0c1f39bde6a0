#include "Drive.h"

#include "Accounts.h"
#include "Sha256.h"

#include <QDateTime>
#include <QJsonDocument>

namespace {

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

// Entries with the holder and expiry of a live lock on each; queries add their WHERE.
const char* const SelectEntries
    = "SELECT e.neid, e.space, e.path, e.is_dir, e.bytes, e.rev, e.modified, e.hash, u.name, l.expires "
      "FROM entries e LEFT JOIN locks l ON l.neid = e.neid AND l.expires > CAST(strftime('%s', 'now') AS "
      "INTEGER) "
      "LEFT JOIN users u ON u.id = l.user_id ";

QByteArray selectEntries(const char* where)
{
    return QByteArray(SelectEntries).append(where);
}

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
    if (!st.isNull(8)) {
        e.lockOwner = st.text(8);
        e.lockExpires = st.integer(9);
    }
    return e;
}

// The paths of a subtree: the entry itself (?2) or below it (the prefix ?4 of length ?3).
const char* const InSubtree = "e.space = ?1 AND (e.path = ?2 OR substr(e.path, 1, ?3) = ?4)";

// A length as SQLite counts text: in characters, where QString counts UTF-16 units.
int sqlLength(const QString& text)
{
    return int(text.toUcs4().size());
}

Database::Statement& bindSubtree(Database::Statement& st, const QString& space, const QString& path)
{
    return st.bind(1, space).bind(2, path).bind(3, sqlLength(path) + 1).bind(4, path + QLatin1Char('/'));
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
    QJsonObject object { { "neid", QString::number(neid) }, { "path", path },
        { "path_type", Drive::pathTypeOf(space) }, { "nsid", space }, { "is_dir", dir }, { "bytes", bytes },
        { "rev", QString::number(rev) }, { "modified", modified }, { "hash", hash },
        { "name", path == QLatin1String("/") ? QString() : nameOf(path) },
        { "locked", !lockOwner.isEmpty() } };
    if (!lockOwner.isEmpty()) {
        object.insert("lock_owner", lockOwner);
        object.insert("lock_expires", lockExpires);
    }
    return object;
}

Outcome Outcome::locked(const LockHolder& lock)
{
    Outcome outcome = failure(423, QStringLiteral("file is locked"),
        QStringLiteral("%1 is locked by %2 until %3")
            .arg(lock.path, lock.owner,
                QDateTime::fromSecsSinceEpoch(lock.expires, Qt::UTC).toString(Qt::ISODate)));
    outcome.extra = QJsonObject { { "locked_path", lock.path }, { "lock_owner", lock.owner },
        { "lock_expires", lock.expires } };
    return outcome;
}

Drive::Drive(Database& db, ChunkStore& store)
    : m_db(db)
    , m_store(store)
{
}

std::optional<QString> Drive::spaceOf(const QString& pathType, qint64 userId)
{
    static const QStringList shared { QStringLiteral("ent"), QStringLiteral("share_in"),
        QStringLiteral("share_out"), QStringLiteral("book_mark"), QStringLiteral("trans"),
        QStringLiteral("recycle") };
    if (pathType.isEmpty())
        return QStringLiteral("ent");
    if (shared.contains(pathType))
        return pathType;
    if (pathType == QLatin1String("self") && userId > 0)
        return QStringLiteral("self:%1").arg(userId);
    return std::nullopt;
}

std::optional<QString> Drive::spaceOfNsid(const QString& nsid, qint64 userId)
{
    if (nsid.startsWith(QLatin1String("self:")))
        return userId > 0 && nsid == QStringLiteral("self:%1").arg(userId) ? std::optional<QString>(nsid)
                                                                           : std::nullopt;
    return spaceOf(nsid, userId);
}

bool Drive::visibleTo(const Entry& entry, qint64 userId)
{
    return !entry.space.startsWith(QLatin1String("self:"))
        || (userId > 0 && entry.space == QStringLiteral("self:%1").arg(userId));
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
    Database::Statement st(m_db, selectEntries("WHERE e.space = ? AND e.path = ?"));
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
        Database::Statement st(m_db, selectEntries("WHERE e.neid = ?"));
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
    st.bind(1, e.space)
        .bind(2, e.path)
        .bind(3, int(e.dir))
        .bind(4, e.bytes)
        .bind(5, e.rev)
        .bind(6, e.modified)
        .bind(7, e.hash);
    st.exec();
    return st.lastInsertId();
}

// A change as the feeds replay it: the entry as it is after the change (its modification
// time included), as it was before a deletion.
void Drive::journal(const QString& op, const Entry& e, const QString& fromPath)
{
    Database::Statement st(m_db,
        "INSERT INTO journal(space, path, op, neid, is_dir, bytes, rev, from_path, time, hash) "
        "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    st.bind(1, e.space)
        .bind(2, e.path)
        .bind(3, op)
        .bind(4, e.neid)
        .bind(5, int(e.dir))
        .bind(6, e.bytes)
        .bind(7, e.rev);
    if (fromPath.isEmpty())
        st.bindNull(8);
    else
        st.bind(8, fromPath);
    st.bind(9, op == QLatin1String("delete") || e.modified == 0 ? now() : e.modified).bind(10, e.hash).exec();
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
            outcome = Outcome::failure(409,
                existing->dir ? QStringLiteral("folder_already_existed")
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

Outcome Drive::commit(
    const QString& space, const QString& path, const QList<ChunkRef>& chunks, qint64 userId, bool overwrite)
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
        if (const std::optional<LockHolder> lock
            = existing ? lockAgainst(space, path, userId) : std::nullopt) {
            outcome = Outcome::locked(*lock);
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
            Database::Statement st(
                m_db, "UPDATE entries SET bytes = ?, rev = ?, modified = ?, hash = ? WHERE neid = ?");
            st.bind(1, file.bytes)
                .bind(2, file.rev)
                .bind(3, file.modified)
                .bind(4, file.hash)
                .bind(5, file.neid)
                .exec();
        } else {
            file.neid = insert(file);
        }
        Database::Statement revision(m_db,
            "INSERT INTO revisions(neid, rev, bytes, chunks, hash, modified, user_id) VALUES(?, ?, ?, ?, ?, "
            "?, ?)");
        revision.bind(1, file.neid)
            .bind(2, file.rev)
            .bind(3, file.bytes)
            .bind(4, chunksJson(chunks))
            .bind(5, hash);
        revision.bind(6, file.modified).bind(7, userId).exec();
        journal(existing ? QStringLiteral("modify") : QStringLiteral("create"), file);
        outcome.entry = file;
        return true;
    });
    return outcome;
}

Outcome Drive::move(
    const QString& space, const QString& from, const QString& toSpace, const QString& to, qint64 userId)
{
    Outcome outcome;
    m_db.run(true, [&] {
        const std::optional<Entry> source
            = from == QLatin1String("/") ? std::nullopt : findLocked(space, from);
        if (!source) {
            outcome = Outcome::failure(404, QStringLiteral("source not found"));
            return false;
        }
        if (const std::optional<LockHolder> lock = lockAgainst(space, from, userId)) {
            outcome = Outcome::locked(*lock);
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
            "UPDATE entries AS e SET space = ?5, path = ?6 || substr(path, ?3) WHERE "
                + QByteArray(InSubtree));
        bindSubtree(st, space, from).bind(5, toSpace).bind(6, to).exec();
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

Outcome Drive::copy(
    const QString& space, const QString& from, const QString& toSpace, const QString& to, qint64 userId)
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
            e.lockOwner.clear();
            e.lockExpires = 0;
            e.neid = insert(e);
            if (!e.dir) {
                Database::Statement rev(m_db,
                    "INSERT INTO revisions(neid, rev, bytes, chunks, hash, modified, user_id) "
                    "SELECT ?, 1, bytes, chunks, hash, ?, ? FROM revisions WHERE neid = ? ORDER BY rev DESC "
                    "LIMIT 1");
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
        const std::optional<Entry> entry
            = path == QLatin1String("/") ? std::nullopt : findLocked(space, path);
        if (!entry) {
            outcome = Outcome::failure(404, QStringLiteral("file/folder not found"));
            return false;
        }
        if (const std::optional<LockHolder> lock = lockAgainst(space, path, userId)) {
            outcome = Outcome::locked(*lock);
            return false;
        }
        for (const char* sql :
            { "DELETE FROM revisions WHERE neid IN (SELECT e.neid FROM entries e WHERE %1)",
                "DELETE FROM locks WHERE neid IN (SELECT e.neid FROM entries e WHERE %1)",
                "DELETE FROM entries AS e WHERE %1" }) {
            Database::Statement st(m_db, QString::fromLatin1(sql).arg(QLatin1String(InSubtree)).toLatin1());
            bindSubtree(st, space, path).exec();
        }
        journal(QStringLiteral("delete"), *entry);
        outcome.entry = *entry;
        return true;
    });
    return outcome;
}

QList<Entry> Drive::list(const QString& space, const QString& folder, const QString& orderby,
    const QString& sort, int limit, int offset, int* total)
{
    QList<Entry> entries;
    const QString column = orderby == QLatin1String("mtime") ? QStringLiteral("e.modified")
        : orderby == QLatin1String("size")                   ? QStringLiteral("e.bytes")
                                                             : QStringLiteral("e.path");
    const QString direction = sort.compare(QLatin1String("desc"), Qt::CaseInsensitive) == 0
        ? QStringLiteral("DESC")
        : QStringLiteral("ASC");
    const QString prefix = folder == QLatin1String("/") ? folder : folder + QLatin1Char('/');
    const QByteArray sql = selectEntries("WHERE e.space = ? AND substr(e.path, 1, ?) = ? AND e.path <> ? "
                                         "AND instr(substr(e.path, ?), '/') = 0 ORDER BY e.is_dir DESC, ")
                               .append(QStringLiteral("%1 %2, e.path ASC").arg(column, direction).toLatin1());
    m_db.run(false, [&] {
        Database::Statement st(m_db, sql.constData());
        st.bind(1, space)
            .bind(2, sqlLength(prefix))
            .bind(3, prefix)
            .bind(4, folder)
            .bind(5, sqlLength(prefix) + 1);
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
            selectEntries("WHERE e.space = ? AND substr(e.path, 1, ?) = ? AND e.path <> ? ORDER BY e.path"));
        st.bind(1, space).bind(2, sqlLength(prefix)).bind(3, prefix).bind(4, folder);
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
        Database::Statement st(
            m_db, "SELECT rev, bytes, hash, modified FROM revisions WHERE neid = ? ORDER BY rev DESC");
        st.bind(1, neid);
        while (st.next() && (limit <= 0 || revisions.size() < limit))
            revisions.append(QJsonObject { { "rev", QString::number(st.integer(0)) },
                { "bytes", st.integer(1) }, { "hash", st.text(2) }, { "modified", st.integer(3) } });
        return true;
    });
    return revisions;
}

std::optional<QList<ChunkRef>> Drive::chunksOf(qint64 neid, qint64 rev)
{
    std::optional<QList<ChunkRef>> chunks;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            rev > 0 ? "SELECT chunks FROM revisions WHERE neid = ? AND rev = ?"
                    : "SELECT chunks FROM revisions WHERE neid = ? ORDER BY rev DESC LIMIT 1");
        st.bind(1, neid);
        if (rev > 0)
            st.bind(2, rev);
        if (st.next()) {
            chunks.emplace();
            for (const QJsonValue& value : QJsonDocument::fromJson(st.text(0).toUtf8()).array()) {
                const QJsonArray pair = value.toArray();
                chunks->append(ChunkRef { pair.at(0).toString().toLatin1(), qint64(pair.at(1).toDouble()) });
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
Outcome Drive::changeLock(
    const QString& space, const QString& path, qint64 userId, const std::function<void(qint64)>& change)
{
    Outcome outcome;
    m_db.run(true, [&] {
        const std::optional<Entry> entry = findLocked(space, path);
        if (!entry) {
            outcome = Outcome::failure(404, QStringLiteral("file/folder not found"));
            return false;
        }
        if (const std::optional<LockHolder> lock = lockOn(entry->neid, userId)) {
            outcome = Outcome::locked(*lock);
            return false;
        }
        change(entry->neid);
        outcome.entry = *entry;
        return true;
    });
    return outcome;
}

std::optional<LockHolder> Drive::lockAgainst(const QString& space, const QString& path, qint64 userId)
{
    std::optional<LockHolder> holder;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            "SELECT e.path, u.name, l.expires FROM locks l JOIN entries e ON e.neid = l.neid "
            "LEFT JOIN users u ON u.id = l.user_id WHERE l.user_id <> ?5 AND l.expires > ?6 AND "
                + QByteArray(InSubtree) + " ORDER BY e.path LIMIT 1");
        if (bindSubtree(st, space, path).bind(5, userId).bind(6, now()).next())
            holder = LockHolder { st.text(0), st.text(1), st.integer(2) };
        return true;
    });
    return holder;
}

std::optional<LockHolder> Drive::lockOn(qint64 neid, qint64 userId)
{
    std::optional<LockHolder> holder;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            "SELECT e.path, u.name, l.expires FROM locks l JOIN entries e ON e.neid = l.neid "
            "LEFT JOIN users u ON u.id = l.user_id WHERE l.neid = ? AND l.user_id <> ? AND l.expires > ?");
        if (st.bind(1, neid).bind(2, userId).bind(3, now()).next())
            holder = LockHolder { st.text(0), st.text(1), st.integer(2) };
        return true;
    });
    return holder;
}

QList<Change> Drive::changes(const QString& space, const QString& folder, qint64 afterSeq, int limit)
{
    QList<Change> changes;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            "SELECT seq, op, from_path, neid, path, is_dir, bytes, rev, time, hash FROM journal WHERE space "
            "= ? AND seq > ? "
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
            change.entry.hash = st.text(9);
            if (within(change.entry.path, folder)
                || (!change.fromPath.isEmpty() && within(change.fromPath, folder)))
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

QString Drive::journalId()
{
    QString id;
    m_db.run(true, [&] {
        Database::Statement st(m_db, "SELECT value FROM meta WHERE key = 'journal_id'");
        if (st.next()) {
            id = st.text(0);
            return true;
        }
        id = newJournalId();
        return !id.isEmpty();
    });
    return id;
}

QString Drive::newJournalId()
{
    const QString id = Accounts::randomHex(8);
    Database::Statement st(m_db, "INSERT OR REPLACE INTO meta(key, value) VALUES('journal_id', ?)");
    return st.bind(1, id).exec() ? id : QString();
}

void Drive::clear()
{
    m_db.run(true, [&] {
        for (const char* sql :
            { "DELETE FROM entries", "DELETE FROM revisions", "DELETE FROM journal", "DELETE FROM locks" })
            m_db.exec(sql);
        return !newJournalId().isEmpty();
    });
}
