#include "NBLogRedactor.h"

#include "NBMutexLocker.h"

#include <QMutex>
#include <QRegularExpression>
#include <QUrl>
#include <atomic>

namespace {

std::atomic<bool> s_enabled { false };
QMutex s_mutex;
QString s_secrets[NBLogRedactor::SecretCount];

// The names whose values are secrets, as parameters, cookies and JSON fields.
#define NB_SECRET_NAMES                                                                                      \
    "password|old_password|otp|verify_code|token|S|X-NIMBRA-SESS-ID|X-NIMBRA-TFA-ID|session"

// "name=value" in queries, forms, parameter lists and cookies; not part of a longer name.
const QRegularExpression& pairs()
{
    static const QRegularExpression expression(
        QStringLiteral("(?<![\\w-])(?:" NB_SECRET_NAMES ")=([^&\\s;,\"'<>]*)"));
    return expression;
}

// "name : value" lines of the cookie and header lists.
const QRegularExpression& lines()
{
    static const QRegularExpression expression(
        QStringLiteral("^[ \\t]*(?:X-NIMBRA-SESS-ID|X-NIMBRA-TFA-ID|S|Authorization|Proxy-Authorization)[ "
                       "\\t]*:[ \\t]*(\\S.*?)[ \\t]*$"),
        QRegularExpression::MultilineOption);
    return expression;
}

// "name": "value" in JSON bodies.
const QRegularExpression& fields()
{
    static const QRegularExpression expression(
        QStringLiteral("\"(?:" NB_SECRET_NAMES ")\"\\s*:\\s*\"([^\"]*)\""));
    return expression;
}

// Replaces the first capture of every match with its hidden form.
QString hideCaptures(const QString& text, const QRegularExpression& expression)
{
    QString result;
    int done = 0;
    QRegularExpressionMatchIterator it = expression.globalMatch(text);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        if (match.capturedLength(1) == 0)
            continue;
        result.append(QStringView(text).mid(done, match.capturedStart(1) - done));
        result += NBLogRedactor::hidden(match.capturedLength(1));
        done = match.capturedEnd(1);
    }
    return done == 0 ? text : result.append(QStringView(text).mid(done));
}

} // namespace

void NBLogRedactor::setEnabled(bool enabled)
{
    s_enabled = enabled;
}

bool NBLogRedactor::enabled()
{
    return s_enabled;
}

void NBLogRedactor::remember(Secret secret, const QString& value)
{
    NBMutexLocker lock(&s_mutex);
    s_secrets[secret] = value;
}

QString NBLogRedactor::apply(const QString& line)
{
    return s_enabled ? hide(line) : line;
}

QString NBLogRedactor::hide(const QString& line)
{
    QString text = hideCaptures(hideCaptures(hideCaptures(line, pairs()), lines()), fields());
    QStringList known;
    {
        NBMutexLocker lock(&s_mutex);
        for (const QString& secret : s_secrets)
            known << secret;
    }
    // Too short a value would hide common text; the named forms above cover those.
    for (const QString& secret : qAsConst(known)) {
        if (secret.size() < 4)
            continue;
        const QString encoded = QString::fromLatin1(QUrl::toPercentEncoding(secret));
        for (const QString& form : { secret, encoded })
            text.replace(form, hidden(form.size()));
    }
    return text;
}
