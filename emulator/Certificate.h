// The certificate of --tls-self-signed: made at the first start for localhost,
// 127.0.0.1 and the listen address, kept in DATA/tls (the key readable by its owner
// only) and used again at every later start.
#pragma once

#include <QString>

class Certificate
{
public:
    // Makes DIR/cert.pem and DIR/key.pem unless both are there; their paths in `cert` and `key`.
    static bool ensureSelfSigned(
        const QString& dir, const QString& host, QString* cert, QString* key, QString* error);
};
