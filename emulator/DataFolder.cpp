#include "DataFolder.h"

#include "ChunkStore.h"
#include "Database.h"
#include "Sha256.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const LockName = "/nbemu.lock";
const char* const DatabaseName = "/nbemu.db";

} // namespace

DataFolder::~DataFolder()
{
    if (m_lock >= 0)
        ::close(m_lock);
}

bool DataFolder::lock(const QString& dir, QString* error, bool* busy)
{
    *busy = false;
    const QByteArray name = QFile::encodeName(dir + QLatin1String(LockName));
    m_lock = ::open(name.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_lock < 0) {
        *error = QStringLiteral("cannot lock the data folder %1: %2").arg(dir, qt_error_string(errno));
        return false;
    }
    if (::flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        char pid[32] = {};
        const ssize_t n = ::pread(m_lock, pid, sizeof pid - 1, 0);
        ::close(m_lock);
        m_lock = -1;
        *busy = true;
        *error = QStringLiteral("the data folder %1 is in use by another nbemu%2")
                     .arg(dir,
                         n > 0 ? QStringLiteral(" (pid %1)").arg(QString::fromLatin1(pid).trimmed())
                               : QString());
        return false;
    }
    const QByteArray pid = QByteArray::number(qint64(::getpid())) + '\n';
    if (::ftruncate(m_lock, 0) != 0
        || ::pwrite(m_lock, pid.constData(), size_t(pid.size()), 0) != pid.size()) {
        // The pid only makes the message of a second emulator clearer.
    }
    return true;
}

bool DataFolder::open(const QString& dir, bool ephemeral, Database& db, ChunkStore& store, QString* error)
{
    if (ephemeral) {
        m_ephemeral = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/nbemu-XXXXXX"));
        m_path = m_ephemeral->path();
    } else {
        m_path = QDir(dir).absolutePath();
    }
    if (m_path.isEmpty() || !QDir().mkpath(m_path)) {
        *error = QStringLiteral("cannot use the data folder %1 (give --data DIR or --ephemeral)").arg(m_path);
        return false;
    }
    bool busy = false;
    if (!lock(m_path, error, &busy))
        return false;
    // The database holds password digests and sessions: its owner's only, and so are the
    // -wal and -shm files that SQLite makes with the database's own mode.
    const QString database = m_path + QLatin1String(DatabaseName);
    for (const QString& file :
        { database, database + QStringLiteral("-wal"), database + QStringLiteral("-shm") }) {
        const QByteArray name = QFile::encodeName(file);
        if (file == database) {
            const int fd = ::open(name.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            if (fd >= 0)
                ::close(fd);
        }
        ::chmod(name.constData(), 0600);
    }
    if (!db.open(database, error) || !store.open(m_path, error))
        return false;
    // A crash may leave temporaries, and chunk files stored but not yet listed.
    store.removeTemporaries();
    QSet<QByteArray> listed;
    db.run(false, [&] {
        Database::Statement st(db, "SELECT hash FROM chunks");
        while (st.next())
            listed.insert(st.text(0).toLatin1());
        return true;
    });
    for (const QByteArray& hash : store.chunksOnDisk()) {
        if (!listed.contains(hash))
            store.remove(hash);
    }
    return true;
}

DataFolder::CheckResult DataFolder::check(const QString& dir, QTextStream& out)
{
    if (!QFile::exists(dir + QLatin1String(DatabaseName))) {
        out << "nbemu: no emulator data in " << dir << Qt::endl;
        return NoData;
    }
    DataFolder held;
    QString error;
    bool busy = false;
    if (!held.lock(QDir(dir).absolutePath(), &error, &busy)) {
        out << "nbemu: " << error << (busy ? "; stop it before checking" : "") << Qt::endl;
        return busy ? InUse : NoData;
    }
    Database db;
    ChunkStore store;
    if (!db.open(dir + QLatin1String(DatabaseName), &error) || !store.open(dir, &error)) {
        out << "nbemu: " << error << Qt::endl;
        return NoData;
    }
    QHash<QByteArray, qint64> listed;
    db.run(false, [&] {
        Database::Statement st(db, "SELECT hash, bytes FROM chunks");
        while (st.next())
            listed.insert(st.text(0).toLatin1(), st.integer(1));
        return true;
    });
    int problems = 0;
    for (auto it = listed.cbegin(); it != listed.cend(); ++it) {
        QFile file(store.pathOf(it.key()));
        if (!file.open(QIODevice::ReadOnly)) {
            out << "missing chunk " << it.key() << Qt::endl;
            ++problems;
            continue;
        }
        Sha256 hash;
        while (!file.atEnd())
            hash.add(file.read(1 << 20));
        if (hash.result().toHex() != it.key() || file.size() != it.value()) {
            out << "damaged chunk " << it.key() << Qt::endl;
            ++problems;
        }
    }
    int files = 0;
    db.run(false, [&] {
        Database::Statement st(db, "SELECT neid, rev, chunks FROM revisions");
        while (st.next()) {
            ++files;
            for (const QJsonValue& pair : QJsonDocument::fromJson(st.text(2).toUtf8()).array()) {
                if (!listed.contains(pair.toArray().at(0).toString().toLatin1())) {
                    out << "revision " << st.integer(1) << " of entry " << st.integer(0)
                        << " names an unknown chunk" << Qt::endl;
                    ++problems;
                }
            }
        }
        return true;
    });
    int unlisted = 0;
    for (const QByteArray& hash : store.chunksOnDisk()) {
        if (!listed.contains(hash))
            ++unlisted;
    }
    if (unlisted > 0)
        out << unlisted << " unlisted chunk(s), removed at the next start" << Qt::endl;
    out << "nbemu: " << listed.size() << " chunks, " << files << " revisions, "
        << (problems == 0 ? QStringLiteral("consistent") : QStringLiteral("%1 problem(s)").arg(problems))
        << Qt::endl;
    return problems == 0 ? Consistent : Inconsistent;
}
