// Shared links: a folder of a user published under a code, with an optional password
// and the token its routes check. Wrong passwords are slowed per link (every local
// client is 127.0.0.1, so per address would slow nobody): after one, the link takes no
// password, right or wrong, for GuessPause, and then takes them again: never a lasting
// lock-out.
#pragma once

#include "Database.h"
#include "Drive.h"

#include <QHash>
#include <QJsonArray>
#include <mutex>
#include <optional>

struct Link
{
    QString code;
    QString password;
    QString space;
    QString folder;
    qint64 owner = 0;
    QString token;

    // The shared folder's own name, the first piece of the paths an outside user sees.
    QString root() const;
};

class Links
{
public:
    Links(Database& db, Drive& drive);

    static constexpr int GuessPauseMs = 1000;

    // Creates (or replaces) a link to the folder, which is created when missing.
    bool create(const QString& code, const QString& password, qint64 owner, const QString& space,
        const QString& folder, QString* error);
    std::optional<Link> find(const QString& code);
    // {"code","path_type","path","owner","password"} of each, by code.
    QJsonArray list();
    void clear();

    // Milliseconds before the link takes a password again (0: now).
    qint64 pausedFor(const QString& code);
    // After a wrong password: pauses the link, true when this guess did (the others that
    // came at the same moment are to be told to wait, as during the pause).
    bool wrongGuess(const QString& code);

private:
    Database& m_db;
    Drive& m_drive;
    std::mutex m_mutex;
    QHash<QString, qint64> m_pausedUntil; // by code, on a steady clock
};
