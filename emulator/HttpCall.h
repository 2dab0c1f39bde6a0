// One request as a route reads it, and its reply. Query and form items are decoded
// with "+" kept as a plus (the library never writes a space as "+"); the form is the
// body of a POST sent as a URL-encoded form.
#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <optional>

namespace httplib {
struct Request;
struct Response;
}

using Items = QList<QPair<QString, QString>>;

class HttpCall
{
public:
    HttpCall(const httplib::Request& request, httplib::Response& response, QByteArray body);

    const httplib::Request& request() const { return m_request; }
    httplib::Response& response() { return m_response; }
    QString method() const;
    // The address's path, decoded.
    QString path() const { return m_path; }
    QByteArray target() const;
    const QByteArray& body() const { return m_body; }
    // The route pattern's captures, decoded.
    QStringList captures;

    QString query(const QString& key) const;
    QString form(const QString& key) const;
    // The form's value, else the query's.
    QString value(const QString& key) const;
    bool has(const QString& key) const;
    // Every value of a repeated key ("hashes[]"), form and query.
    QStringList values(const QString& key) const;
    QString header(const char* name) const;
    QString cookie(const QString& name) const;

    void json(const QJsonObject& object, int status = 200);
    void json(const QJsonArray& array, int status = 200);
    // The error object the library's parser reads: "code", "message", "msgcode", "state", "type".
    void error(int status, const QString& code, const QString& message = QString());
    void bytes(const QByteArray& data, const QString& type, int status = 200);

    // Set by the access check: who calls.
    qint64 userId = 0;
    QString userName;
    QString sessionId;
    QString linkCode;

    static Items parseItems(const QByteArray& encoded);
    static QString itemValue(const Items& items, const QString& key);

private:
    const Items& formItems() const;

    const httplib::Request& m_request;
    httplib::Response& m_response;
    QByteArray m_body;
    QString m_path;
    Items m_query;
    mutable std::optional<Items> m_form;
};
