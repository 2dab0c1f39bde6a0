// Keeps secrets out of the library's log when a host asks for it (off by default: the
// trace then writes every parameter and header as it goes out). On, every log line has
// the values of the secret-carrying parameters, cookies, headers and JSON fields, and
// the session, verification code and proxy password wherever else they appear, written
// as "***(N)", N being the length of what was hidden; nothing else in the line changes.
#pragma once

#include <QString>

class NBLogRedactor
{
public:
    enum Secret { Session, VerifyCode, ProxyPassword, SecretCount };

    static void setEnabled(bool enabled);
    static bool enabled();
    // The current value of a secret known by its value rather than by a name on the wire.
    static void remember(Secret secret, const QString& value);

    // The line as the log writes it: hidden when redaction is on.
    static QString apply(const QString& line);
    // The line with every secret hidden, redaction on or not.
    static QString hide(const QString& line);
    static QString hidden(int length) { return QStringLiteral("***(%1)").arg(length); }
};
