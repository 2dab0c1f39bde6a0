// Users, sessions and the state of sign-in flows: passwords kept as salted PBKDF2
// digests, sessions that expire, two-factor ids, quick-login sessions, e-mail check
// keys and QR logins, and the outbox where SMS and e-mail codes land instead of being
// sent.
#pragma once

#include "Database.h"

#include <QJsonArray>
#include <QString>
#include <optional>

struct User
{
    qint64 id = 0;
    QString name;
    bool tfa = false;
    QString totpSecret; // base32
};

struct Session
{
    QString id;
    qint64 userId = 0;
    QString link; // the link code of a shared-link session
};

struct Flow
{
    QString id;
    QString kind; // "tfa", "quick", "email", "qr"
    qint64 userId = 0;
    QString state;
    QString secret;
};

class Accounts
{
public:
    explicit Accounts(Database& db, qint64 sessionSeconds);
    void setSessionSeconds(qint64 seconds) { m_sessionSeconds = seconds; }

    // Creates the user, or sets the password and the two-factor flag of an existing one.
    bool ensureUser(const QString& name, const QString& password, bool tfa, QString* error);
    std::optional<User> checkPassword(const QString& name, const QString& password);
    std::optional<User> user(qint64 id);
    std::optional<User> userByName(const QString& name);
    QList<User> users();

    QString openSession(qint64 userId, const QString& link = QString());
    std::optional<Session> session(const QString& id);

    // A flow of `kind`, alive for `seconds`.
    QString startFlow(const QString& kind, qint64 userId, const QString& state, const QString& secret,
        int seconds, const QString& id = QString());
    std::optional<Flow> flow(const QString& id, const QString& kind);
    // The user's newest live flow of `kind`.
    std::optional<Flow> newestFlow(qint64 userId, const QString& kind);
    void setFlowState(const QString& id, const QString& state);
    void endFlow(const QString& id);

    void post(const QString& kind, const QString& target, const QString& text);
    QJsonArray outbox();
    // Ends every session and sign-in flow and empties the outbox; the users stay.
    void clearActivity();

    // RFC 6238: six digits of a 30-second step; `skew` steps either side are accepted.
    static QString totp(const QString& base32Secret, qint64 unixTime);
    static bool checkTotp(const QString& base32Secret, const QString& code, qint64 unixTime, int skew = 1);
    static QString randomHex(int bytes);
    static QString randomDigits(int count);

private:
    Database& m_db;
    qint64 m_sessionSeconds;
};
