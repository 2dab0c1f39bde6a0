// The operation records hosts send (/v2/log/logging), kept for the control interface.
#pragma once

#include "Database.h"

#include <QJsonArray>
#include <QJsonObject>

class OpLog
{
public:
    explicit OpLog(Database& db);

    void add(qint64 userId, const QJsonObject& record);
    // Oldest first: {"id","uid","record","time"}.
    QJsonArray records();
    void clear();

private:
    Database& m_db;
};
