// Reads the library's Transfer.log back: the entries written since a mark, each
// split into its level, source file, function, line number and message.
#pragma once

#include <QList>
#include <QString>

struct LogEntry
{
    QString level; // "FATAL", "ERROR", "INFO"
    QString file;
    QString function;
    int line = 0;
    QString message;
};

class TestLog
{
public:
    // Marks the current end of the log: entries() returns what is written after.
    TestLog();
    void mark();

    static QString path();
    QList<LogEntry> entries() const;
    QStringList messages() const;
    // Entries of one function with one level and exactly this message.
    int count(const QString& level, const QString& function, const QString& message) const;
    bool has(const QString& level, const QString& function, const QString& message) const
    {
        return count(level, function, message) > 0;
    }
    const LogEntry* find(const QString& message) const;
    QString dump() const;

private:
    qint64 m_offset = 0;
    mutable QList<LogEntry> m_cache;
};
