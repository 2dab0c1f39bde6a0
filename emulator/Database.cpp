#include "Database.h"

#include <sqlite3.h>

namespace {

// Each entry moves the schema one version on; a database is brought up to the last.
const char* const migrations[] = {
    R"(
    CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT);
    CREATE TABLE users(id INTEGER PRIMARY KEY, name TEXT UNIQUE NOT NULL, salt BLOB NOT NULL, digest BLOB NOT NULL,
        tfa INTEGER NOT NULL DEFAULT 0, totp_secret TEXT NOT NULL);
    CREATE TABLE sessions(id TEXT PRIMARY KEY, user_id INTEGER NOT NULL, link TEXT, expires INTEGER NOT NULL);
    CREATE TABLE entries(neid INTEGER PRIMARY KEY AUTOINCREMENT, space TEXT NOT NULL, path TEXT NOT NULL,
        is_dir INTEGER NOT NULL, bytes INTEGER NOT NULL DEFAULT 0, rev INTEGER NOT NULL DEFAULT 0,
        modified INTEGER NOT NULL, hash TEXT NOT NULL DEFAULT '', UNIQUE(space, path));
    CREATE TABLE revisions(neid INTEGER NOT NULL, rev INTEGER NOT NULL, bytes INTEGER NOT NULL,
        chunks TEXT NOT NULL, hash TEXT NOT NULL, modified INTEGER NOT NULL, user_id INTEGER,
        PRIMARY KEY(neid, rev));
    CREATE TABLE chunks(hash TEXT PRIMARY KEY, bytes INTEGER NOT NULL);
    CREATE TABLE journal(seq INTEGER PRIMARY KEY AUTOINCREMENT, space TEXT NOT NULL, path TEXT NOT NULL,
        op TEXT NOT NULL, neid INTEGER, is_dir INTEGER, bytes INTEGER, rev INTEGER, from_path TEXT,
        time INTEGER NOT NULL);
    CREATE INDEX journal_space ON journal(space, seq);
    CREATE TABLE locks(neid INTEGER PRIMARY KEY, user_id INTEGER NOT NULL, expires INTEGER NOT NULL);
    CREATE TABLE tasks(id TEXT PRIMARY KEY, user_id INTEGER NOT NULL, kind TEXT NOT NULL, polls INTEGER NOT NULL,
        results TEXT NOT NULL);
    CREATE TABLE links(code TEXT PRIMARY KEY, password TEXT NOT NULL, space TEXT NOT NULL, path TEXT NOT NULL,
        user_id INTEGER NOT NULL, token TEXT NOT NULL);
    CREATE TABLE flows(id TEXT PRIMARY KEY, kind TEXT NOT NULL, user_id INTEGER, state TEXT NOT NULL,
        secret TEXT NOT NULL DEFAULT '', expires INTEGER NOT NULL);
    CREATE TABLE outbox(id INTEGER PRIMARY KEY AUTOINCREMENT, kind TEXT NOT NULL, target TEXT NOT NULL,
        text TEXT NOT NULL, time INTEGER NOT NULL);
    CREATE TABLE oplog(id INTEGER PRIMARY KEY AUTOINCREMENT, user_id INTEGER, record TEXT NOT NULL,
        time INTEGER NOT NULL);
    )",
    // The feeds give a changed file's content hash.
    R"(
    ALTER TABLE journal ADD COLUMN hash TEXT NOT NULL DEFAULT '';
    )",
};

} // namespace

Database::~Database()
{
    if (m_db)
        sqlite3_close(m_db);
}

bool Database::open(const QString& path, QString* error)
{
    if (sqlite3_open_v2(path.toUtf8().constData(), &m_db,
            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr)
        != SQLITE_OK) {
        *error = QStringLiteral("cannot open the database %1: %2").arg(path, lastError());
        return false;
    }
    sqlite3_busy_timeout(m_db, 5000);
    // WAL with full syncs: a committed change survives a crash of the process or the machine.
    if (!exec("PRAGMA journal_mode=WAL") || !exec("PRAGMA synchronous=FULL")
        || !exec("PRAGMA foreign_keys=ON")) {
        *error = lastError();
        return false;
    }
    return migrate(error);
}

int Database::schemaVersion()
{
    int version = 0;
    run(false, [&] {
        Statement st(*this, "PRAGMA user_version");
        if (st.next())
            version = int(st.integer(0));
        return true;
    });
    return version;
}

bool Database::migrate(QString* error)
{
    const int target = int(sizeof(migrations) / sizeof(migrations[0]));
    for (int version = schemaVersion(); version < target; ++version) {
        const bool done = run(true, [&] {
            return exec(migrations[version])
                && exec(
                    QByteArray("PRAGMA user_version=").append(QByteArray::number(version + 1)).constData());
        });
        if (!done) {
            *error = QStringLiteral("cannot migrate the database to version %1: %2")
                         .arg(version + 1)
                         .arg(lastError());
            return false;
        }
    }
    return true;
}

bool Database::run(bool write, const std::function<bool()>& work)
{
    const std::lock_guard lock(m_mutex);
    if (!write)
        return work();
    if (!exec("BEGIN IMMEDIATE"))
        return false;
    bool ok = false;
    try {
        ok = work();
    } catch (...) {
        exec("ROLLBACK");
        throw;
    }
    if (ok && exec("COMMIT"))
        return true;
    exec("ROLLBACK");
    return false;
}

bool Database::exec(const char* sql)
{
    const std::lock_guard lock(m_mutex);
    return sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

QString Database::lastError() const
{
    return m_db ? QString::fromUtf8(sqlite3_errmsg(m_db)) : QStringLiteral("no database");
}

Database::Statement::Statement(Database& db, const char* sql)
    : m_db(db)
{
    db.m_mutex.lock();
    if (sqlite3_prepare_v2(db.m_db, sql, -1, &m_statement, nullptr) != SQLITE_OK)
        qWarning("nbemu: cannot prepare %s: %s", sql, sqlite3_errmsg(db.m_db));
}

Database::Statement::~Statement()
{
    sqlite3_finalize(m_statement);
    m_db.m_mutex.unlock();
}

Database::Statement& Database::Statement::bind(int index, const QString& value)
{
    const QByteArray utf8 = value.toUtf8();
    sqlite3_bind_text(m_statement, index, utf8.constData(), utf8.size(), SQLITE_TRANSIENT);
    return *this;
}

Database::Statement& Database::Statement::bind(int index, qint64 value)
{
    sqlite3_bind_int64(m_statement, index, value);
    return *this;
}

Database::Statement& Database::Statement::bind(int index, const QByteArray& value)
{
    sqlite3_bind_blob(m_statement, index, value.constData(), value.size(), SQLITE_TRANSIENT);
    return *this;
}

Database::Statement& Database::Statement::bindNull(int index)
{
    sqlite3_bind_null(m_statement, index);
    return *this;
}

bool Database::Statement::next()
{
    return m_statement && sqlite3_step(m_statement) == SQLITE_ROW;
}

bool Database::Statement::exec()
{
    if (!m_statement)
        return false;
    const int result = sqlite3_step(m_statement);
    if (result == SQLITE_DONE || result == SQLITE_ROW)
        return true;
    qWarning("nbemu: %s", sqlite3_errmsg(m_db.m_db));
    return false;
}

QString Database::Statement::text(int column) const
{
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(m_statement, column));
    return data ? QString::fromUtf8(data, sqlite3_column_bytes(m_statement, column)) : QString();
}

qint64 Database::Statement::integer(int column) const
{
    return sqlite3_column_int64(m_statement, column);
}

QByteArray Database::Statement::blob(int column) const
{
    const auto* data = static_cast<const char*>(sqlite3_column_blob(m_statement, column));
    return QByteArray(data, sqlite3_column_bytes(m_statement, column));
}

bool Database::Statement::isNull(int column) const
{
    return sqlite3_column_type(m_statement, column) == SQLITE_NULL;
}

qint64 Database::Statement::lastInsertId() const
{
    return sqlite3_last_insert_rowid(m_db.m_db);
}

int Database::Statement::changes() const
{
    return sqlite3_changes(m_db.m_db);
}
