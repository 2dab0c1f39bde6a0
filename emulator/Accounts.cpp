#include "Accounts.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QJsonObject>
#include <QPasswordDigestor>
#include <QRandomGenerator>
#include <cstring>
#include <openssl/hmac.h>

namespace {

const int Pbkdf2Rounds = 20000;
const char Base32[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

QByteArray digestOf(const QString& password, const QByteArray& salt)
{
    return QPasswordDigestor::deriveKeyPbkdf2(
        QCryptographicHash::Sha256, password.toUtf8(), salt, Pbkdf2Rounds, 32);
}

QString toBase32(const QByteArray& bytes)
{
    QString text;
    quint32 buffer = 0;
    int bits = 0;
    for (unsigned char byte : bytes) {
        buffer = ((buffer << 8) | byte) & 0xffff;
        bits += 8;
        while (bits >= 5) {
            text += QLatin1Char(Base32[(buffer >> (bits - 5)) & 31]);
            bits -= 5;
        }
    }
    if (bits > 0)
        text += QLatin1Char(Base32[(buffer << (5 - bits)) & 31]);
    return text;
}

QByteArray fromBase32(const QString& text)
{
    QByteArray bytes;
    quint32 buffer = 0;
    int bits = 0;
    for (QChar c : text.toUpper()) {
        const char* at = std::strchr(Base32, c.toLatin1());
        if (!at || c.isNull())
            continue;
        buffer = ((buffer << 5) | quint32(at - Base32)) & 0xffff;
        bits += 5;
        if (bits >= 8) {
            bytes.append(char((buffer >> (bits - 8)) & 0xff));
            bits -= 8;
        }
    }
    return bytes;
}

User userOf(const Database::Statement& st)
{
    return User { st.integer(0), st.text(1), st.integer(2) != 0, st.text(3) };
}

} // namespace

Accounts::Accounts(Database& db, qint64 sessionSeconds)
    : m_db(db)
    , m_sessionSeconds(sessionSeconds)
{
}

bool Accounts::ensureUser(const QString& name, const QString& password, bool tfa, QString* error)
{
    QByteArray salt(16, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(salt.data()), 4);
    const QByteArray digest = digestOf(password, salt);
    const QString secret = toBase32(QByteArray::fromHex(randomHex(20).toLatin1()));
    const bool ok = m_db.run(true, [&] {
        Database::Statement st(m_db,
            "INSERT INTO users(name, salt, digest, tfa, totp_secret) VALUES(?, ?, ?, ?, ?) "
            "ON CONFLICT(name) DO UPDATE SET salt = excluded.salt, digest = excluded.digest, tfa = "
            "excluded.tfa");
        return st.bind(1, name).bind(2, salt).bind(3, digest).bind(4, int(tfa)).bind(5, secret).exec();
    });
    if (!ok)
        *error = QStringLiteral("cannot add the user %1: %2").arg(name, m_db.lastError());
    return ok;
}

std::optional<User> Accounts::checkPassword(const QString& name, const QString& password)
{
    std::optional<User> found;
    QByteArray salt;
    QByteArray digest;
    m_db.run(false, [&] {
        Database::Statement st(
            m_db, "SELECT id, name, tfa, totp_secret, salt, digest FROM users WHERE name = ?");
        st.bind(1, name);
        if (st.next()) {
            found = userOf(st);
            salt = st.blob(4);
            digest = st.blob(5);
        }
        return true;
    });
    if (!found || digestOf(password, salt) != digest)
        return std::nullopt;
    return found;
}

std::optional<User> Accounts::user(qint64 id)
{
    std::optional<User> found;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT id, name, tfa, totp_secret FROM users WHERE id = ?");
        if (st.bind(1, id).next())
            found = userOf(st);
        return true;
    });
    return found;
}

std::optional<User> Accounts::userByName(const QString& name)
{
    std::optional<User> found;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT id, name, tfa, totp_secret FROM users WHERE name = ?");
        if (st.bind(1, name).next())
            found = userOf(st);
        return true;
    });
    return found;
}

QList<User> Accounts::users()
{
    QList<User> all;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT id, name, tfa, totp_secret FROM users ORDER BY id");
        while (st.next())
            all.append(userOf(st));
        return true;
    });
    return all;
}

QString Accounts::openSession(qint64 userId, const QString& link)
{
    const QString id = randomHex(16);
    m_db.run(true, [&] {
        Database::Statement st(m_db, "INSERT INTO sessions(id, user_id, link, expires) VALUES(?, ?, ?, ?)");
        st.bind(1, id).bind(2, userId).bind(4, now() + m_sessionSeconds);
        if (link.isEmpty())
            st.bindNull(3);
        else
            st.bind(3, link);
        return st.exec();
    });
    return id;
}

std::optional<Session> Accounts::session(const QString& id)
{
    std::optional<Session> found;
    if (id.isEmpty())
        return found;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT id, user_id, link FROM sessions WHERE id = ? AND expires > ?");
        if (st.bind(1, id).bind(2, now()).next())
            found = Session { st.text(0), st.integer(1), st.text(2) };
        return true;
    });
    return found;
}

QString Accounts::startFlow(const QString& kind, qint64 userId, const QString& state, const QString& secret,
    int seconds, const QString& id)
{
    const QString flowId = id.isEmpty() ? randomHex(16) : id;
    m_db.run(true, [&] {
        Database::Statement st(m_db,
            "INSERT OR REPLACE INTO flows(id, kind, user_id, state, secret, expires) VALUES(?, ?, ?, ?, ?, "
            "?)");
        return st.bind(1, flowId)
            .bind(2, kind)
            .bind(3, userId)
            .bind(4, state)
            .bind(5, secret)
            .bind(6, now() + seconds)
            .exec();
    });
    return flowId;
}

std::optional<Flow> Accounts::flow(const QString& id, const QString& kind)
{
    std::optional<Flow> found;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            "SELECT id, kind, user_id, state, secret FROM flows WHERE id = ? AND kind = ? AND expires > ?");
        if (st.bind(1, id).bind(2, kind).bind(3, now()).next())
            found = Flow { st.text(0), st.text(1), st.integer(2), st.text(3), st.text(4) };
        return true;
    });
    return found;
}

std::optional<Flow> Accounts::newestFlow(qint64 userId, const QString& kind)
{
    std::optional<Flow> found;
    m_db.run(false, [&] {
        Database::Statement st(m_db,
            "SELECT id, kind, user_id, state, secret FROM flows WHERE user_id = ? AND kind = ? AND expires > "
            "? "
            "ORDER BY expires DESC, rowid DESC LIMIT 1");
        if (st.bind(1, userId).bind(2, kind).bind(3, now()).next())
            found = Flow { st.text(0), st.text(1), st.integer(2), st.text(3), st.text(4) };
        return true;
    });
    return found;
}

void Accounts::setFlowState(const QString& id, const QString& state)
{
    m_db.run(true, [&] {
        Database::Statement st(m_db, "UPDATE flows SET state = ? WHERE id = ?");
        return st.bind(1, state).bind(2, id).exec();
    });
}

void Accounts::endFlow(const QString& id)
{
    m_db.run(true, [&] {
        Database::Statement st(m_db, "DELETE FROM flows WHERE id = ?");
        return st.bind(1, id).exec();
    });
}

void Accounts::post(const QString& kind, const QString& target, const QString& text)
{
    m_db.run(true, [&] {
        Database::Statement st(m_db, "INSERT INTO outbox(kind, target, text, time) VALUES(?, ?, ?, ?)");
        return st.bind(1, kind).bind(2, target).bind(3, text).bind(4, now()).exec();
    });
}

QJsonArray Accounts::outbox()
{
    QJsonArray messages;
    m_db.run(false, [&] {
        Database::Statement st(m_db, "SELECT id, kind, target, text, time FROM outbox ORDER BY id");
        while (st.next())
            messages.append(QJsonObject { { "id", st.integer(0) }, { "kind", st.text(1) },
                { "to", st.text(2) }, { "text", st.text(3) }, { "time", st.integer(4) } });
        return true;
    });
    return messages;
}

void Accounts::clearActivity()
{
    m_db.run(true, [&] {
        for (const char* sql : { "DELETE FROM sessions", "DELETE FROM flows", "DELETE FROM outbox" })
            m_db.exec(sql);
        return true;
    });
}

QString Accounts::totp(const QString& base32Secret, qint64 unixTime)
{
    const QByteArray key = fromBase32(base32Secret);
    quint64 counter = quint64(unixTime / 30);
    unsigned char message[8];
    for (int i = 7; i >= 0; --i) {
        message[i] = counter & 0xff;
        counter >>= 8;
    }
    unsigned char mac[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha1(), key.constData(), key.size(), message, sizeof message, mac, &length);
    const int offset = mac[length - 1] & 0x0f;
    const quint32 binary = (quint32(mac[offset] & 0x7f) << 24) | (quint32(mac[offset + 1]) << 16)
        | (quint32(mac[offset + 2]) << 8) | quint32(mac[offset + 3]);
    return QStringLiteral("%1").arg(binary % 1000000, 6, 10, QLatin1Char('0'));
}

bool Accounts::checkTotp(const QString& base32Secret, const QString& code, qint64 unixTime, int skew)
{
    for (int step = -skew; step <= skew; ++step) {
        if (totp(base32Secret, unixTime + step * 30) == code)
            return true;
    }
    return false;
}

QString Accounts::randomHex(int bytes)
{
    QByteArray random(bytes, Qt::Uninitialized);
    for (int i = 0; i < bytes; ++i)
        random[i] = char(QRandomGenerator::system()->bounded(256));
    return QString::fromLatin1(random.toHex());
}

QString Accounts::randomDigits(int count)
{
    QString digits;
    for (int i = 0; i < count; ++i)
        digits += QChar('0' + QRandomGenerator::system()->bounded(10));
    return digits;
}
