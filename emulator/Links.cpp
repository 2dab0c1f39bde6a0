#include "Links.h"

#include "Accounts.h"

#include <QElapsedTimer>

namespace {

qint64 steadyMs()
{
    static QElapsedTimer clock = [] {
        QElapsedTimer started;
        started.start();
        return started;
    }();
    return clock.elapsed();
}

} // namespace

QString Link::root() const
{
    return folder.mid(folder.lastIndexOf(QLatin1Char('/')) + 1);
}

Links::Links(Database& db, Drive& drive)
    : m_db(db)
    , m_drive(drive)
{
}

bool Links::create(const QString& code, const QString& password, qint64 owner, const QString& space,
    const QString& folder, QString* error)
{
    QString path;
    if (code.isEmpty() || code.contains(QLatin1Char('/')) || !Drive::normalise(folder, &path)) {
        *error = QStringLiteral("a link needs a code without \"/\" and a valid folder");
        return false;
    }
    const Outcome created = m_drive.createFolder(space, path, owner, false);
    if (!created.ok()) {
        *error = created.code;
        return false;
    }
    return m_db.run(true, [&] {
        Database::Statement st(m_db,
            "INSERT OR REPLACE INTO links(code, password, space, path, user_id, token) VALUES(?, ?, ?, ?, ?, "
            "?)");
        return st.bind(1, code)
            .bind(2, password)
            .bind(3, space)
            .bind(4, path)
            .bind(5, owner)
            .bind(6, Accounts::randomHex(16))
            .exec();
    });
}

std::optional<Link> Links::find(const QString& code)
{
    std::optional<Link> found;
    m_db.run(false, [&] {
        Database::Statement st(
            m_db, "SELECT code, password, space, path, user_id, token FROM links WHERE code = ?");
        if (st.bind(1, code).next())
            found = Link { st.text(0), st.text(1), st.text(2), st.text(3), st.integer(4), st.text(5) };
        return true;
    });
    return found;
}

QJsonArray Links::list()
{
    QJsonArray all;
    m_db.run(false, [&] {
        Database::Statement st(
            m_db, "SELECT code, space, path, user_id, password <> '' FROM links ORDER BY code");
        while (st.next())
            all.append(QJsonObject { { "code", st.text(0) }, { "path_type", Drive::pathTypeOf(st.text(1)) },
                { "path", st.text(2) }, { "owner", st.integer(3) }, { "password", st.integer(4) != 0 } });
        return true;
    });
    return all;
}

void Links::clear()
{
    m_db.run(true, [&] { return m_db.exec("DELETE FROM links"); });
    const std::lock_guard lock(m_mutex);
    m_pausedUntil.clear();
}

qint64 Links::pausedFor(const QString& code)
{
    const std::lock_guard lock(m_mutex);
    return qMax<qint64>(0, m_pausedUntil.value(code) - steadyMs());
}

bool Links::wrongGuess(const QString& code)
{
    const std::lock_guard lock(m_mutex);
    const qint64 now = steadyMs();
    if (m_pausedUntil.value(code) > now)
        return false;
    m_pausedUntil.insert(code, now + GuessPauseMs);
    return true;
}
