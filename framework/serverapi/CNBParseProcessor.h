/// \file
/// CNBParseProcessor, the reply parser offered to hosts.
#pragma once

#include "NBServerApiGlobal.h"
#include "ResponseData.h"
#include "TransferErrorMessage.h"

/// \defgroup parsing Reading replies
/// The reply parser the library offers to hosts (exported and installed): CNBParseProcessor
/// reads status and error object, NBBaseParse adds the session of a sign-in reply. None of
/// the library's operations uses them.

/// One uniform reading of a finished reply for hosts: success or error by the HTTP
/// status, the server's JSON error object, and its error text mapped to a number of the
/// 20000 range. The library's own operations never call it; they hand replies on as
/// they are.
///
///     CNBParseProcessor reading;
///     reading.ParseResp(response);
///     if (reading.hasError()) show(reading.errorCode(), reading.errorMsg().message);
///
/// \ingroup parsing
class NBSERVERAPI_EXPORT CNBParseProcessor
{
public:
    /// The server's error texts mapped by transferErrorCode. A value "is" a text when the
    /// server's text equals it and "holds" it when the text contains it, case-sensitively.
    /// The texts are tried in the order of the values below, but the conflicts from the
    /// longest text to the shortest, and the first that matches decides: "root parent
    /// folder conflict with file" gives RootParentConflictWithFile, not ConflictWithFile.
    enum ErrorCode {
        UnknownError = 20001, ///< A "code" that none of the texts below matches.
        InvalidSession = 20003, ///< Is "Invalid session", or holds "token is not exist".
        TargetExists = 20004, ///< Is "target name exists" or "folder_already_existed".
        SourceNotFound = 20005, ///< Is "source not found", "nameentry_not_exist", "file/folder not found".
        Forbidden = 20007, ///< Holds "forbidden".
        PathTooLong = 20008, ///< Is "path_too_long".
        SpaceLimit = 20009, ///< Holds "space limit".
        FileLocked = 20010, ///< Holds "file is locked".
        PrivateDcNotAllowed = 20012, ///< Holds "private dc not allowed".
        HashError = 20013, ///< Holds "invalid.hash" or "content_hash_error": a commit rejected.
        ConflictWithFile = 20018, ///< Holds "conflict with file".
        ConflictWithFolder = 20019, ///< Holds "conflict with folder".
        ParentConflictWithFile = 20020, ///< Holds "parent folder conflict with file".
        ParentConflictWithFolder = 20021, ///< Holds "parent folder conflict with folder".
        RootParentConflictWithFile = 20022, ///< Holds "root parent folder conflict with file".
        RootParentConflictWithFolder = 20023, ///< Holds "root parent folder conflict with folder".
        FileTypeLimit = 20024, ///< Holds "file type limit".
        VirusFound = 20031, ///< Holds "download_file_VirusF".
    };

    /// An empty reading: status 0, error code 0, an empty error object.
    CNBParseProcessor();
    /// Destroys the reading.
    virtual ~CNBParseProcessor();
    /// Copies a reading.
    CNBParseProcessor(const CNBParseProcessor&) = default;
    /// Copies a reading.
    CNBParseProcessor& operator=(const CNBParseProcessor&) = default;

    /// Reads one reply: status 200 to 399 is a success (onComplete), anything else an
    /// error (onError). The status, the error code (the record's `networkError`), the body
    /// and the headers are taken from the record; when the error object's message is still
    /// empty afterwards it takes the record's `errorString`. A second reading replaces the
    /// first, but the error object's fields ("message", "msgcode", "state", "code", "type")
    /// of the first stay unless the second brings its own.
    virtual void ParseResp(const ResponseData& reply);
    /// The body of a successful reply; does nothing here (NBBaseParse reads the session).
    virtual void onComplete(const QString& body);
    /// Takes "message", "msgcode", "state", "code" and "type" from a JSON object body,
    /// each only when of its type; a body that is not JSON leaves the parse error.
    /// A "code" is mapped by transferErrorCode; an empty body changes nothing.
    virtual void onError(const QString& body);
    /// The server's error object as read so far.
    virtual TransferErrorMessage errorMsg() const;
    /// The body of the last reply read.
    virtual QString body() const;
    /// The HTTP status of the last reply read (0 when none arrived).
    virtual int statusCode() const;
    /// The transport's error code, replaced by the mapped number when the server sent a "code".
    virtual int errorCode() const;
    /// The headers of the last reply read.
    virtual QHash<QByteArray, QByteArray> headers() const;
    /// An error code, or a status outside 200 to 399.
    virtual bool hasError() const;

    /// Sets errorCode to the ErrorCode of a server error text: the texts are tried in
    /// the order of a fixed table (the longer conflict texts before the shorter ones they
    /// contain) and the first that matches decides; no match gives UnknownError.
    void transferErrorCode(const QString& code);

private:
    TransferErrorMessage m_errorMsg;
    QString m_body;
    int m_statusCode = 0;
    int m_errorCode = 0;
    QHash<QByteArray, QByteArray> m_headers;
    ResponseData m_response;
};
