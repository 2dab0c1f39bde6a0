#include "HttpCall.h"

#include <QJsonDocument>
#include <QUrl>
#include <cctype>

HttpCall::HttpCall(HttpRequest& request, HttpResponse& response, QByteArray body)
    : m_request(request)
    , m_response(response)
    , m_body(std::move(body))
{
    const int question = request.target.indexOf('?');
    const QByteArray raw = question < 0 ? request.target : request.target.left(question);
    // Strictly: a malformed escape, or bytes that are no UTF-8, make the path unusable
    // rather than quietly another name.
    QByteArray bytes;
    for (int i = 0; i < raw.size(); ++i) {
        if (raw[i] != '%') {
            bytes += raw[i];
            continue;
        }
        bool ok = false;
        const int value = raw.mid(i + 1, 2).toInt(&ok, 16);
        if (!ok || i + 2 >= raw.size() || !isxdigit(uchar(raw[i + 1])) || !isxdigit(uchar(raw[i + 2]))) {
            m_pathIsText = false;
            break;
        }
        bytes += char(value);
        i += 2;
    }
    m_path = QString::fromUtf8(bytes);
    m_pathIsText = m_pathIsText && m_path.toUtf8() == bytes;
    if (question >= 0)
        m_query = parseItems(request.target.mid(question + 1), false);
}

// Parsed on first use: only forms hold items, and a body read whole may be megabytes
// that no route reads as a form.
const Items& HttpCall::formItems() const
{
    if (!m_form) {
        const bool isForm = m_request.header("Content-Type").startsWith("application/x-www-form-urlencoded");
        m_form = isForm ? parseItems(m_body, true) : Items();
    }
    return *m_form;
}

QString HttpCall::method() const
{
    return QString::fromLatin1(m_request.method);
}

Items HttpCall::parseItems(const QByteArray& encoded, bool plusIsSpace)
{
    Items items;
    for (QByteArray pair : encoded.split('&')) {
        if (pair.isEmpty())
            continue;
        if (plusIsSpace)
            pair.replace('+', ' ');
        const int eq = pair.indexOf('=');
        const QByteArray key = eq < 0 ? pair : pair.left(eq);
        const QByteArray value = eq < 0 ? QByteArray() : pair.mid(eq + 1);
        items.append({ QUrl::fromPercentEncoding(key), QUrl::fromPercentEncoding(value) });
    }
    return items;
}

QString HttpCall::itemValue(const Items& items, const QString& key)
{
    for (const auto& item : items) {
        if (item.first == key)
            return item.second;
    }
    return QString();
}

QString HttpCall::query(const QString& key) const
{
    return itemValue(m_query, key);
}

QString HttpCall::form(const QString& key) const
{
    return itemValue(formItems(), key);
}

QString HttpCall::value(const QString& key) const
{
    for (const auto& item : formItems()) {
        if (item.first == key)
            return item.second;
    }
    return query(key);
}

bool HttpCall::has(const QString& key) const
{
    for (const Items* items : { &formItems(), &m_query }) {
        for (const auto& item : *items) {
            if (item.first == key)
                return true;
        }
    }
    return false;
}

QStringList HttpCall::values(const QString& key) const
{
    QStringList result;
    for (const Items* items : { &formItems(), &m_query }) {
        for (const auto& item : *items) {
            if (item.first == key)
                result << item.second;
        }
    }
    return result;
}

QString HttpCall::header(const QString& name) const
{
    return QString::fromUtf8(m_request.header(name.toLatin1()));
}

int HttpCall::headerCount(const QString& name) const
{
    return m_request.headerValues(name.toLatin1()).size();
}

// The last cookie of the name wins, as it does in the library's own jar.
QString HttpCall::cookie(const QString& name) const
{
    QString found;
    for (const QByteArray& line : m_request.headerValues("Cookie")) {
        for (const QString& part : QString::fromUtf8(line).split(QLatin1Char(';'))) {
            const QString pair = part.trimmed();
            const int eq = pair.indexOf(QLatin1Char('='));
            if (eq > 0 && pair.left(eq) == name)
                found = pair.mid(eq + 1);
        }
    }
    return found;
}

bool HttpCall::takeBody(qint64 limit, bool* tooLarge)
{
    *tooLarge = false;
    if (!m_request.hasBody)
        return true;
    m_form.reset();
    return readBody([&](const char* data, size_t length) {
        if (m_body.size() + qint64(length) > limit)
            return !(*tooLarge = true);
        m_body.append(data, int(length));
        return true;
    });
}

bool HttpCall::readBody(const BodyReceiver& receive)
{
    return m_request.readBody(receive);
}

void HttpCall::json(const QJsonObject& object, int status)
{
    bytes(QJsonDocument(object).toJson(QJsonDocument::Compact), QStringLiteral("application/json"), status);
}

void HttpCall::json(const QJsonArray& array, int status)
{
    bytes(QJsonDocument(array).toJson(QJsonDocument::Compact), QStringLiteral("application/json"), status);
}

QByteArray HttpCall::errorBody(
    int status, const QString& code, const QString& message, const QJsonObject& extra)
{
    QJsonObject object { { "code", code }, { "message", message.isEmpty() ? code : message },
        { "msgcode", QStringLiteral("E%1").arg(status) }, { "state", status }, { "type", "error" } };
    for (auto it = extra.begin(); it != extra.end(); ++it)
        object.insert(it.key(), it.value());
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void HttpCall::error(int status, const QString& code, const QString& message, const QJsonObject& extra)
{
    bytes(errorBody(status, code, message, extra), QStringLiteral("application/json"), status);
}

void HttpCall::bytes(const QByteArray& data, const QString& type, int status)
{
    m_response.status = status;
    m_response.provider = nullptr;
    m_response.length = -1;
    m_response.body = data;
    m_response.setHeader("Content-Type", type.toLatin1());
}

void HttpCall::setHeader(const QByteArray& name, const QString& value)
{
    m_response.setHeader(name, value.toUtf8());
}

void HttpCall::stream(int status, qint64 length, const QString& type, ContentProvider provider)
{
    m_response.status = status;
    m_response.body.clear();
    m_response.length = length;
    m_response.provider = std::move(provider);
    m_response.setHeader("Content-Type", type.toLatin1());
}
