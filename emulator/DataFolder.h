// The data folder: made when missing (or a temporary one), held by one emulator at a
// time through a lock on DATA/nbemu.lock that the system releases when the process
// ends, however it ends; its database and chunk store opened, and what a crash left
// behind (chunk temporaries, chunks stored but never listed) removed.
#pragma once

#include <QString>
#include <QTemporaryDir>
#include <QTextStream>
#include <memory>

class ChunkStore;
class Database;

class DataFolder
{
public:
    DataFolder() = default;
    ~DataFolder();
    DataFolder(const DataFolder&) = delete;
    DataFolder& operator=(const DataFolder&) = delete;

    // Opens `dir`, or with `ephemeral` a new temporary folder removed when this goes.
    bool open(const QString& dir, bool ephemeral, Database& db, ChunkStore& store, QString* error);
    QString path() const { return m_path; }

    // Exit statuses of check().
    enum CheckResult { Consistent = 0, Inconsistent = 1, NoData = 2, InUse = 3 };
    // Checks a data folder that no emulator serves: every chunk the database lists is on
    // disk with its hash, every revision's chunk is listed. Chunks that nothing lists
    // (a crash between storing and listing) are counted apart: the next start removes them.
    static CheckResult check(const QString& dir, QTextStream& out);

private:
    // Takes the folder's lock; false with a message when it cannot, with `busy` set when
    // another process holds it (the message then names its pid).
    bool lock(const QString& dir, QString* error, bool* busy);

    std::unique_ptr<QTemporaryDir> m_ephemeral;
    QString m_path;
    int m_lock = -1;
};
