#include "NBBaseParse.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

NBBaseParse::NBBaseParse() = default;

NBBaseParse::~NBBaseParse() = default;

void NBBaseParse::onComplete(const QString& body)
{
    const QJsonDocument document = QJsonDocument::fromJson(body.toUtf8());
    if (!document.isObject())
        return;
    const QJsonValue session = document.object().value(QStringLiteral("X-NIMBRA-SESS-ID"));
    if (session.isString())
        m_sessionId = session.toString();
}

QString NBBaseParse::sessiondId() const
{
    return m_sessionId;
}

QString NBBaseParse::s()
{
    const QByteArray raw = headers().value(QByteArrayLiteral("Set-Cookie"));
    QString text = QString::fromUtf8(raw.constData(), int(qstrnlen(raw.constData(), uint(raw.size()))));
    static const QRegularExpression lineBreaks(QStringLiteral("[\r\n]"));
    text.replace(lineBreaks, QStringLiteral(";"));
    QString candidate;
    for (const QString& part : text.split(QLatin1Char(';'), Qt::KeepEmptyParts)) {
        if (part.startsWith(QLatin1String("S=")))
            candidate = part;
    }
    m_cookieValue = candidate.isEmpty() ? QString() : candidate.mid(candidate.indexOf(QLatin1Char('=')) + 1);
    return m_cookieValue;
}
