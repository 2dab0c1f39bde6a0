// The remote namespace and the files' content: folders and files with stable neids in
// spaces (one per path type, "self" one per user), each committed upload a revision
// made of chunks of the store, locks with expiry, and the journal of every change that
// the change feeds read. Every change is one transaction, journal included.
#pragma once

#include "ChunkStore.h"
#include "Database.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <functional>
#include <optional>

struct Entry
{
    qint64 neid = 0;
    QString space;
    QString path;
    bool dir = false;
    qint64 bytes = 0;
    qint64 rev = 0;
    qint64 modified = 0;
    QString hash; // SHA-256 over the chunks' digests in order, hex
    QString lockOwner; // the user holding a live lock on it, if any
    qint64 lockExpires = 0;

    // {"neid","path","path_type","nsid","is_dir","bytes","rev","modified","hash","name","locked"},
    // with "lock_owner" and "lock_expires" while locked.
    QJsonObject json() const;
};

// A live lock of another user that stands in the way of a change.
struct LockHolder
{
    QString path; // the locked entry
    QString owner;
    qint64 expires = 0;
};

struct ChunkRef
{
    QByteArray hash;
    qint64 bytes = 0;
};

// What a change gives: an HTTP status, the error text the library's parser maps, the entry.
struct Outcome
{
    int status = 200;
    QString code;
    QString message;
    Entry entry;
    QJsonObject extra; // more fields of a failure's reply

    bool ok() const { return status < 300; }
    static Outcome failure(int status, const QString& code, const QString& message = QString())
    {
        return Outcome { status, code, message, Entry(), QJsonObject() };
    }
    // 423 "file is locked", naming the lock's holder and expiry.
    static Outcome locked(const LockHolder& lock);
};

struct Change
{
    qint64 seq = 0;
    QString op; // "create", "modify", "delete", "move"
    QString fromPath; // of a move
    Entry entry;
};

class Drive
{
public:
    Drive(Database& db, ChunkStore& store);

    // The space of a path type the library sends: "self" is the user's own (none without
    // a user), an empty type is "ent"; none for any other text.
    static std::optional<QString> spaceOf(const QString& pathType, qint64 userId);
    // The space an "nsid" names ("ent", "self:ID", ...), for this user; none for another
    // user's own space or an unknown name.
    static std::optional<QString> spaceOfNsid(const QString& nsid, qint64 userId);
    static QString pathTypeOf(const QString& space);
    // Whether the user (0: nobody signed in) may see the entry: shared spaces are
    // everyone's, a "self" space its user's alone.
    static bool visibleTo(const Entry& entry, qint64 userId);
    // "/a/b": empty segments dropped; false for ".", "..", a NUL or more than 4096 characters.
    static bool normalise(const QString& in, QString* out);
    // SHA-256 over the raw digests of the chunks, in order: the content's name.
    static QString contentHash(const QList<ChunkRef>& chunks);

    std::optional<Entry> find(const QString& space, const QString& path);
    std::optional<Entry> findNeid(qint64 neid);

    // Creates the missing parents too; an existing folder is an error when asked.
    Outcome createFolder(
        const QString& space, const QString& path, qint64 userId, bool existingIsError = true);
    Outcome createFile(const QString& space, const QString& path, qint64 userId);
    // A new revision of the file made of `chunks`, all known to the store.
    Outcome commit(const QString& space, const QString& path, const QList<ChunkRef>& chunks, qint64 userId,
        bool overwrite);
    Outcome move(
        const QString& space, const QString& from, const QString& toSpace, const QString& to, qint64 userId);
    Outcome copy(
        const QString& space, const QString& from, const QString& toSpace, const QString& to, qint64 userId);
    Outcome remove(const QString& space, const QString& path, qint64 userId);

    // A folder's entries, ordered by "name", "mtime" or "size", "asc" or "desc"; a limit
    // of 0 or less gives all from the offset.
    QList<Entry> list(const QString& space, const QString& folder, const QString& orderby,
        const QString& sort, int limit, int offset, int* total);
    // Every entry below the folder, the folder excluded.
    QList<Entry> below(const QString& space, const QString& folder);
    QJsonArray revisions(qint64 neid, int limit);
    // The chunks of a revision (0: the newest); none when the file has no such revision.
    std::optional<QList<ChunkRef>> chunksOf(qint64 neid, qint64 rev = 0);

    Outcome lock(const QString& space, const QString& path, qint64 userId, int seconds);
    Outcome unlock(const QString& space, const QString& path, qint64 userId);
    // A live lock that another user holds on the entry at `path` or on anything below it:
    // what refuses a change of that entry.
    std::optional<LockHolder> lockAgainst(const QString& space, const QString& path, qint64 userId);

    // Changes of the space below `folder` after `afterSeq`, at most `limit`.
    QList<Change> changes(const QString& space, const QString& folder, qint64 afterSeq, int limit);
    qint64 lastSeq();
    // The journal's identity: made with it, new at every clear(), so that a cursor can say
    // which journal it reads.
    QString journalId();

    void registerChunk(const QByteArray& hash, qint64 bytes);
    std::optional<qint64> chunkBytes(const QByteArray& hash);
    QStringList missingChunks(const QStringList& hashes);

    // Empties the namespace, the journal, locks and revisions.
    void clear();

private:
    // find() inside a transaction already held.
    std::optional<Entry> findLocked(const QString& space, const QString& path);
    Outcome changeLock(
        const QString& space, const QString& path, qint64 userId, const std::function<void(qint64)>& change);
    // A live lock of another user on this entry alone.
    std::optional<LockHolder> lockOn(qint64 neid, qint64 userId);
    // Inside a transaction: a new journal identity, stored.
    QString newJournalId();
    qint64 insert(const Entry& entry);
    void journal(const QString& op, const Entry& entry, const QString& fromPath = QString());
    bool ensureParents(const QString& space, const QString& path, qint64 userId, Outcome* failure);

    Database& m_db;
    ChunkStore& m_store;
};
