// The emulator's metadata: one SQLite database in WAL mode, its schema created and
// migrated here (the version is kept in the database). Every access goes through
// run(), which holds the one connection for the caller and wraps changes in a
// transaction: a request's changes are all there after a crash, or none.
#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>
#include <functional>
#include <mutex>

struct sqlite3;
struct sqlite3_stmt;

class Database
{
public:
    Database() = default;
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    bool open(const QString& path, QString* error);
    int schemaVersion();

    // One prepared statement, bound by position (from 1) and stepped row by row.
    class Statement
    {
    public:
        Statement(Database& db, const char* sql);
        Statement(Database& db, const QByteArray& sql)
            : Statement(db, sql.constData())
        {
        }
        ~Statement();
        Statement(const Statement&) = delete;
        Statement& operator=(const Statement&) = delete;

        Statement& bind(int index, const QString& value);
        Statement& bind(int index, qint64 value);
        Statement& bind(int index, int value) { return bind(index, qint64(value)); }
        Statement& bind(int index, const QByteArray& value);
        Statement& bindNull(int index);
        // Steps to the next row: true while there is one.
        bool next();
        // Runs a statement that returns no rows; false (and the error in the log) on failure.
        bool exec();
        QString text(int column) const;
        qint64 integer(int column) const;
        QByteArray blob(int column) const;
        bool isNull(int column) const;
        qint64 lastInsertId() const;
        int changes() const;

    private:
        Database& m_db;
        sqlite3_stmt* m_statement = nullptr;
    };

    // Runs `work` with the connection held; with `write`, inside BEGIN IMMEDIATE, committed
    // when it returns true and rolled back when it returns false or throws.
    bool run(bool write, const std::function<bool()>& work);
    bool exec(const char* sql);
    QString lastError() const;

private:
    bool migrate(QString* error);

    sqlite3* m_db = nullptr;
    std::recursive_mutex m_mutex;
};
