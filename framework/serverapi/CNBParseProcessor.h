// One uniform reading of a finished reply for hosts: success or error by the HTTP
// status, the server's JSON error object, and its error text mapped to a number of the
// 20000 range. The library's own operations never call it; they hand replies on as
// they are.
//
//     CNBParseProcessor reading;
//     reading.ParseResp(response);
//     if (reading.hasError()) show(reading.errorCode(), reading.errorMsg().message);
#pragma once

#include "NBServerApiGlobal.h"
#include "ResponseData.h"
#include "TransferErrorMessage.h"

class NBSERVERAPI_EXPORT CNBParseProcessor
{
public:
    // The server's error texts mapped by transferErrorCode.
    enum ErrorCode {
        UnknownError = 20001,
        InvalidSession = 20003,
        TargetExists = 20004,
        SourceNotFound = 20005,
        Forbidden = 20007,
        PathTooLong = 20008,
        SpaceLimit = 20009,
        FileLocked = 20010,
        PrivateDcNotAllowed = 20012,
        HashError = 20013,
        ConflictWithFile = 20018,
        ConflictWithFolder = 20019,
        ParentConflictWithFile = 20020,
        ParentConflictWithFolder = 20021,
        RootParentConflictWithFile = 20022,
        RootParentConflictWithFolder = 20023,
        FileTypeLimit = 20024,
        VirusFound = 20031,
    };

    CNBParseProcessor();
    virtual ~CNBParseProcessor();
    CNBParseProcessor(const CNBParseProcessor&) = default;
    CNBParseProcessor& operator=(const CNBParseProcessor&) = default;

    // Reads one reply: status 200 to 399 is a success (onComplete), anything else an
    // error (onError). A second reading replaces the first, but a "message" of the
    // first stays unless the second brings its own.
    virtual void ParseResp(const ResponseData& reply);
    virtual void onComplete(const QString& body);
    // Takes "message", "msgcode", "state", "code" and "type" from a JSON object body,
    // each only when of its type; a body that is not JSON leaves the parse error.
    virtual void onError(const QString& body);
    virtual TransferErrorMessage errorMsg() const;
    virtual QString body() const;
    virtual int statusCode() const;
    // The transport's error code, replaced by the mapped number when the server sent a "code".
    virtual int errorCode() const;
    virtual QHash<QByteArray, QByteArray> headers() const;
    // An error code, or a status outside 200 to 399.
    virtual bool hasError() const;

    void transferErrorCode(const QString& code);

private:
    TransferErrorMessage m_errorMsg;
    QString m_body;
    int m_statusCode = 0;
    int m_errorCode = 0;
    QHash<QByteArray, QByteArray> m_headers;
    ResponseData m_response;
};
