/// \file
/// NBBaseParse, the reply reading with the session.
#pragma once

#include "CNBParseProcessor.h"

/// The reply reading with the session: the session id of a successful sign-in's body,
/// and the verification cookie "S" of the reply's "Set-Cookie". Exported and installed
/// (`#include <NBBaseParse.h>`).
///
///     NBBaseParse reading;
///     reading.ParseResp(response);
///     if (!reading.hasError())
///         ServerApi::setSessionID(reading.sessiondId());
///
/// \ingroup parsing
class NBSERVERAPI_EXPORT NBBaseParse : public CNBParseProcessor
{
public:
    /// An empty reading: no session, no cookie value.
    NBBaseParse();
    /// Destroys the reading.
    ~NBBaseParse() override;
    /// Copies a reading, session and cookie value included.
    NBBaseParse(const NBBaseParse&) = default;
    /// Copies a reading, session and cookie value included.
    NBBaseParse& operator=(const NBBaseParse&) = default;

    /// Keeps "X-NIMBRA-SESS-ID" of a JSON object body, when it is a string.
    void onComplete(const QString& body) override;

    /// The session id of the last successful body that named one ("X-NIMBRA-SESS-ID");
    /// empty when none did. The host passes it to ServerApi::setSessionID.
    QString sessiondId() const;
    /// The value of the last "S=" cookie of "Set-Cookie" (its lines read as one list).
    /// Reads the headers of the last ParseResp; empty when no such cookie came.
    QString s();

private:
    QString m_sessionId;
    QString m_cookieValue;
};
