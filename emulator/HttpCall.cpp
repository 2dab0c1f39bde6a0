#include "HttpCall.h"

#include <QJsonDocument>
#include <QUrl>
#include <httplib.h>

HttpCall::HttpCall(const httplib::Request& request, httplib::Response& response, QByteArray body)
    : m_request(request)
    , m_response(response)
    , m_body(std::move(body))
{
    const QByteArray target = QByteArray::fromStdString(request.target);
    const int question = target.indexOf('?');
    m_path = QUrl::fromPercentEncoding(question < 0 ? target : target.left(question));
    if (question >= 0)
        m_query = parseItems(target.mid(question + 1));
}

// Parsed on first use: a chunk upload's body also comes as a form, and it is megabytes
// that no route reads as one.
const Items& HttpCall::formItems() const
{
    if (!m_form) {
        const bool isForm = QByteArray::fromStdString(m_request.get_header_value("Content-Type"))
                                .startsWith("application/x-www-form-urlencoded");
        m_form = isForm ? parseItems(m_body) : Items();
    }
    return *m_form;
}

QString HttpCall::method() const
{
    return QString::fromStdString(m_request.method);
}

QByteArray HttpCall::target() const
{
    return QByteArray::fromStdString(m_request.target);
}

Items HttpCall::parseItems(const QByteArray& encoded)
{
    Items items;
    for (const QByteArray& pair : encoded.split('&')) {
        if (pair.isEmpty())
            continue;
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

QString HttpCall::header(const char* name) const
{
    return QString::fromStdString(m_request.get_header_value(name));
}

// The last cookie of the name wins, as it does in the library's own jar.
QString HttpCall::cookie(const QString& name) const
{
    QString found;
    const size_t count = m_request.get_header_value_count("Cookie");
    for (size_t i = 0; i < count; ++i) {
        for (const QString& part : QString::fromStdString(m_request.get_header_value("Cookie", i)).split(QLatin1Char(';'))) {
            const QString pair = part.trimmed();
            const int eq = pair.indexOf(QLatin1Char('='));
            if (eq > 0 && pair.left(eq) == name)
                found = pair.mid(eq + 1);
        }
    }
    return found;
}

void HttpCall::json(const QJsonObject& object, int status)
{
    bytes(QJsonDocument(object).toJson(QJsonDocument::Compact), QStringLiteral("application/json"), status);
}

void HttpCall::json(const QJsonArray& array, int status)
{
    bytes(QJsonDocument(array).toJson(QJsonDocument::Compact), QStringLiteral("application/json"), status);
}

void HttpCall::error(int status, const QString& code, const QString& message)
{
    json(QJsonObject { { "code", code }, { "message", message.isEmpty() ? code : message },
             { "msgcode", QStringLiteral("E%1").arg(status) }, { "state", status }, { "type", "error" } },
        status);
}

void HttpCall::bytes(const QByteArray& data, const QString& type, int status)
{
    m_response.status = status;
    m_response.set_content(data.toStdString(), type.toStdString());
}
