// HTTP as bytes on one connection, for tests of a server's framing: what is sent goes
// out exactly as written, and the replies are split as a client splits them.
#pragma once

#include "Wait.h"

#include <QByteArray>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QTcpSocket>

struct RawReply
{
    int status = 0;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;

    QByteArray header(const QByteArray& name) const
    {
        for (const auto& h : headers) {
            if (h.first.compare(name, Qt::CaseInsensitive) == 0)
                return h.second;
        }
        return QByteArray();
    }
    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

// What came back on one connection.
struct RawExchange
{
    QByteArray bytes;
    bool closed = false; // the server closed the connection
    QList<RawReply> replies;
};

// Splits successive replies: a body by its Content-Length, or to the end without one;
// informational (1xx) replies are kept too.
inline QList<RawReply> splitReplies(QByteArray bytes)
{
    QList<RawReply> replies;
    while (!bytes.isEmpty()) {
        const int end = bytes.indexOf("\r\n\r\n");
        if (end < 0 || !bytes.startsWith("HTTP/1."))
            break;
        RawReply reply;
        const QList<QByteArray> lines = bytes.left(end).split('\n');
        reply.status = lines.first().split(' ').value(1).toInt();
        for (int i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines[i].trimmed();
            const int colon = line.indexOf(':');
            if (colon > 0)
                reply.headers.append({ line.left(colon).trimmed(), line.mid(colon + 1).trimmed() });
        }
        bytes = bytes.mid(end + 4);
        if (reply.status >= 200) {
            const QByteArray length = reply.header("Content-Length");
            const int size = length.isEmpty() ? bytes.size() : length.toInt();
            reply.body = bytes.left(size);
            bytes = bytes.mid(size);
        }
        replies << reply;
    }
    return replies;
}

// Sends `request` as it is, then reads until the server closes the connection or sends
// nothing for `quietMs`; at most `totalMs` in all. `more` is sent once the first reply
// has begun to arrive, when given.
inline RawExchange rawExchange(quint16 port, const QByteArray& request, int quietMs = 800,
    int totalMs = 15000, const QByteArray& more = QByteArray())
{
    RawExchange result;
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(5000))
        return result;
    socket.write(request);
    QElapsedTimer total;
    total.start();
    QElapsedTimer quiet;
    quiet.start();
    bool sentMore = more.isEmpty();
    while (total.elapsed() < totalMs && quiet.elapsed() < quietMs) {
        if (socket.waitForReadyRead(50) || socket.bytesAvailable() > 0) {
            result.bytes += socket.readAll();
            quiet.restart();
            if (!sentMore) {
                socket.write(more);
                sentMore = true;
            }
        }
        if (socket.state() != QAbstractSocket::ConnectedState) {
            result.bytes += socket.readAll();
            result.closed = true;
            break;
        }
    }
    result.replies = splitReplies(result.bytes);
    return result;
}

// A request's bytes: the request line, "Host", the headers given and the body (with its
// Content-Length unless a header says otherwise).
inline QByteArray rawRequest(const QByteArray& method, const QByteArray& target, quint16 port,
    const QList<QByteArray>& headers = {}, const QByteArray& body = QByteArray(), bool withLength = true)
{
    QByteArray text
        = method + ' ' + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(port) + "\r\n";
    for (const QByteArray& header : headers)
        text += header + "\r\n";
    if (withLength && (!body.isEmpty() || method == "POST"))
        text += "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    return text + "\r\n" + body;
}

// A form POST's bytes.
inline QByteArray rawForm(
    const QByteArray& target, quint16 port, const QByteArray& form, const QList<QByteArray>& headers = {})
{
    return rawRequest("POST", target, port,
        QList<QByteArray> { "Content-Type: application/x-www-form-urlencoded" } + headers, form);
}

// Signs in (public cloud) and gives the session's cookie header, empty when refused.
inline QByteArray rawSession(quint16 port, const QByteArray& user, const QByteArray& password)
{
    const RawExchange signIn = rawExchange(port,
        rawForm("/v2/user/login_new", port, "loginkey=" + user + "&password=" + password,
            { "Connection: close" }));
    const QString session = signIn.replies.value(0).json().value("X-NIMBRA-SESS-ID").toString();
    return session.isEmpty() ? QByteArray() : "Cookie: X-NIMBRA-SESS-ID=" + session.toLatin1();
}
