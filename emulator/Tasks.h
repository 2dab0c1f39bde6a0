// Batch tasks: the results of a batch copy, move or delete, done at once and told to
// the task's user after a set number of polls that answer "running".
#pragma once

#include "Database.h"

#include <QJsonArray>
#include <QJsonObject>
#include <optional>

class Tasks
{
public:
    explicit Tasks(Database& db);

    // A new task of `kind` with its results; its id.
    QString create(qint64 userId, const QString& kind, int polls, const QJsonArray& results);
    // The task's state for its user: {"task_id","kind","state"} with "running" while polls
    // are left (each call uses one), then "done" or "failed" with the "results". None for
    // an unknown task or another user's.
    std::optional<QJsonObject> poll(const QString& id, qint64 userId);
    void clear();

private:
    Database& m_db;
};
