#include "Tasks.h"

#include "Accounts.h"

#include <QJsonDocument>

Tasks::Tasks(Database& db)
    : m_db(db)
{
}

QString Tasks::create(qint64 userId, const QString& kind, int polls, const QJsonArray& results)
{
    const QString id = Accounts::randomHex(8);
    m_db.run(true, [&] {
        Database::Statement st(
            m_db, "INSERT INTO tasks(id, user_id, kind, polls, results) VALUES(?, ?, ?, ?, ?)");
        return st.bind(1, id)
            .bind(2, userId)
            .bind(3, kind)
            .bind(4, polls)
            .bind(5, QString::fromUtf8(QJsonDocument(results).toJson(QJsonDocument::Compact)))
            .exec();
    });
    return id;
}

std::optional<QJsonObject> Tasks::poll(const QString& id, qint64 userId)
{
    std::optional<QJsonObject> answer;
    m_db.run(true, [&] {
        Database::Statement st(m_db, "SELECT kind, polls, results FROM tasks WHERE id = ? AND user_id = ?");
        if (!st.bind(1, id).bind(2, userId).next())
            return false;
        QJsonObject state { { "task_id", id }, { "kind", st.text(0) } };
        if (st.integer(1) > 0) {
            state.insert("state", "running");
            answer = state;
            Database::Statement next(m_db, "UPDATE tasks SET polls = polls - 1 WHERE id = ?");
            return next.bind(1, id).exec();
        }
        const QJsonArray results = QJsonDocument::fromJson(st.text(2).toUtf8()).array();
        bool allDone = true;
        for (const QJsonValue& result : results)
            allDone &= result.toObject().value("ok").toBool();
        state.insert("state", allDone ? "done" : "failed");
        state.insert("results", results);
        answer = state;
        return true;
    });
    return answer;
}

void Tasks::clear()
{
    m_db.run(true, [&] { return m_db.exec("DELETE FROM tasks"); });
}
