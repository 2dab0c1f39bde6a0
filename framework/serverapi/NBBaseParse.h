// The reply reading with the session: the session id of a successful sign-in's body,
// and the verification cookie "S" of the reply's "Set-Cookie".
#pragma once

#include "CNBParseProcessor.h"

class NBSERVERAPI_EXPORT NBBaseParse : public CNBParseProcessor
{
public:
    NBBaseParse();
    ~NBBaseParse() override;
    NBBaseParse(const NBBaseParse&) = default;
    NBBaseParse& operator=(const NBBaseParse&) = default;

    // Keeps "X-NIMBRA-SESS-ID" of a JSON object body, when it is a string.
    void onComplete(const QString& body) override;

    QString sessiondId() const;
    // The value of the last "S=" cookie of "Set-Cookie" (its lines read as one list).
    QString s();

private:
    QString m_sessionId;
    QString m_cookieValue;
};
