#include "OpLog.h"

#include <QDateTime>
#include <QJsonDocument>

OpLog::OpLog(Database& db)
    : m_db(db)
{
}

void OpLog::add(qint64 userId, const QJsonObject& record)
{
    m_db.run(true, [&] {
        Database::Statement st(m_db, "INSERT INTO oplog(user_id, record, time) VALUES(?, ?, ?)");
        return st.bind(1, userId)
            .bind(2, QString::fromUtf8(QJsonDocument(record).toJson(QJsonDocument::Compact)))
            .bind(3, QDateTime::currentSecsSinceEpoch())
            .exec();
    });
}

QJsonArray OpLog::records()
{
    QJsonArray records;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT id, user_id, record, time FROM oplog ORDER BY id");
        while (st.next())
            records.append(QJsonObject { { "id", st.integer(0) }, { "uid", st.integer(1) },
                { "record", QJsonDocument::fromJson(st.text(2).toUtf8()).object() },
                { "time", st.integer(3) } });
        return true;
    });
    return records;
}

void OpLog::clear()
{
    m_db.run(true, [&] { return m_db.exec("DELETE FROM oplog"); });
}
