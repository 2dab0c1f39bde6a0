// One request as a route reads it, and its reply. The address's path is decoded once;
// query items are decoded with "+" kept as a plus (the library writes a space as "%20"),
// form items (the body of a POST sent as application/x-www-form-urlencoded) with "+"
// as a space, as that type says.
#pragma once

#include "HttpMessage.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <optional>

using Items = QList<QPair<QString, QString>>;

class HttpCall
{
public:
    // `body`: the request's body when it was read whole for the route.
    HttpCall(HttpRequest& request, HttpResponse& response, QByteArray body = QByteArray());

    HttpResponse& response() { return m_response; }
    QString method() const;
    // The address's path, decoded once.
    QString path() const { return m_path; }
    // Whether the path's escapes were all "%" and two hex digits, decoding to UTF-8 text.
    bool pathIsText() const { return m_pathIsText; }
    QByteArray target() const { return m_request.target; }
    const QByteArray& body() const { return m_body; }
    // The route pattern's captures (pieces of the decoded path).
    QStringList captures;

    QString query(const QString& key) const;
    QString form(const QString& key) const;
    // The form's value, else the query's.
    QString value(const QString& key) const;
    bool has(const QString& key) const;
    // Every value of a repeated key ("hashes[]"), form and query.
    QStringList values(const QString& key) const;
    QString header(const QString& name) const;
    int headerCount(const QString& name) const;
    QString cookie(const QString& name) const;

    // Reads the whole body into body(); false when the body broke off, or (with `tooLarge`
    // set, the rest left unread) when it holds more than `limit` bytes.
    bool takeBody(qint64 limit, bool* tooLarge);
    // The body as it arrives, for the routes that stream it: true when all of it came and
    // `receive` took every piece.
    bool readBody(const BodyReceiver& receive);

    void json(const QJsonObject& object, int status = 200);
    void json(const QJsonArray& array, int status = 200);
    // The error object the library's parser reads: "code", "message", "msgcode", "state",
    // "type", and any `extra` fields.
    void error(
        int status, const QString& code, const QString& message = QString(), const QJsonObject& extra = {});
    void bytes(const QByteArray& data, const QString& type, int status = 200);
    void setHeader(const QByteArray& name, const QString& value);
    // A reply of `length` bytes made while it is sent.
    void stream(int status, qint64 length, const QString& type, ContentProvider provider);

    // Set by the access check: who calls.
    qint64 userId = 0;
    QString userName;
    QString sessionId;

    static Items parseItems(const QByteArray& encoded, bool plusIsSpace);
    static QString itemValue(const Items& items, const QString& key);
    // The error object, as a body.
    static QByteArray errorBody(
        int status, const QString& code, const QString& message, const QJsonObject& extra = {});

private:
    const Items& formItems() const;

    HttpRequest& m_request;
    HttpResponse& m_response;
    QByteArray m_body;
    QString m_path;
    bool m_pathIsText = true;
    Items m_query;
    mutable std::optional<Items> m_form;
};
