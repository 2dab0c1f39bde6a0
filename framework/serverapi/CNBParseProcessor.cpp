#include "CNBParseProcessor.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QPair>
#include <limits>

namespace {

enum class Match { Equals, Contains };

struct ErrorText
{
    Match match;
    const char* text;
    int code;
};

// Tested in this order, the first that holds decides: the longer conflict texts come
// before the shorter ones they contain.
const ErrorText errorTexts[] = {
    { Match::Equals, "Invalid session", CNBParseProcessor::InvalidSession },
    { Match::Contains, "token is not exist", CNBParseProcessor::InvalidSession },
    { Match::Equals, "target name exists", CNBParseProcessor::TargetExists },
    { Match::Equals, "folder_already_existed", CNBParseProcessor::TargetExists },
    { Match::Equals, "source not found", CNBParseProcessor::SourceNotFound },
    { Match::Equals, "nameentry_not_exist", CNBParseProcessor::SourceNotFound },
    { Match::Equals, "file/folder not found", CNBParseProcessor::SourceNotFound },
    { Match::Contains, "forbidden", CNBParseProcessor::Forbidden },
    { Match::Equals, "path_too_long", CNBParseProcessor::PathTooLong },
    { Match::Contains, "space limit", CNBParseProcessor::SpaceLimit },
    { Match::Contains, "file is locked", CNBParseProcessor::FileLocked },
    { Match::Contains, "private dc not allowed", CNBParseProcessor::PrivateDcNotAllowed },
    { Match::Contains, "invalid.hash", CNBParseProcessor::HashError },
    { Match::Contains, "content_hash_error", CNBParseProcessor::HashError },
    { Match::Contains, "root parent folder conflict with file",
        CNBParseProcessor::RootParentConflictWithFile },
    { Match::Contains, "root parent folder conflict with folder",
        CNBParseProcessor::RootParentConflictWithFolder },
    { Match::Contains, "parent folder conflict with folder", CNBParseProcessor::ParentConflictWithFolder },
    { Match::Contains, "parent folder conflict with file", CNBParseProcessor::ParentConflictWithFile },
    { Match::Contains, "conflict with folder", CNBParseProcessor::ConflictWithFolder },
    { Match::Contains, "conflict with file", CNBParseProcessor::ConflictWithFile },
    { Match::Contains, "file type limit", CNBParseProcessor::FileTypeLimit },
    { Match::Contains, "download_file_VirusF", CNBParseProcessor::VirusFound },
};

} // namespace

CNBParseProcessor::CNBParseProcessor() = default;

CNBParseProcessor::~CNBParseProcessor() = default;

void CNBParseProcessor::ParseResp(const ResponseData& reply)
{
    m_response = reply;
    m_statusCode = reply.statusCode;
    m_errorCode = reply.networkError;
    m_headers = reply.headers;
    m_body = reply.body;
    // One unsigned comparison: statuses below 200, negative ones included, are errors.
    if (static_cast<unsigned>(m_statusCode) - 200u > 199u)
        onError(m_body);
    else
        onComplete(m_body);
    if (m_errorMsg.message.isEmpty())
        m_errorMsg.message = reply.errorString;
}

void CNBParseProcessor::onComplete(const QString&) { }

void CNBParseProcessor::onError(const QString& body)
{
    if (body.isEmpty())
        return;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(body.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError) {
        m_errorMsg.state = error.error;
        m_errorMsg.message = error.errorString();
        return;
    }
    if (!document.isObject())
        return;
    const QJsonObject object = document.object();
    if (object.value("message").isString())
        m_errorMsg.message = object.value("message").toString();
    if (object.value("msgcode").isString())
        m_errorMsg.msgcode = object.value("msgcode").toString();
    // A number's integer part; one beyond the range of int leaves "state" as it was.
    const QJsonValue state = object.value("state");
    if (state.isDouble() && state.toDouble() > double(std::numeric_limits<int>::min()) - 1
        && state.toDouble() < double(std::numeric_limits<int>::max()) + 1)
        m_errorMsg.state = static_cast<int>(state.toDouble());
    if (object.value("code").isString()) {
        m_errorMsg.code = object.value("code").toString();
        transferErrorCode(m_errorMsg.code);
    }
    if (object.value("type").isString())
        m_errorMsg.type = object.value("type").toString();
}

void CNBParseProcessor::transferErrorCode(const QString& code)
{
    for (const ErrorText& entry : errorTexts) {
        const QLatin1String text(entry.text);
        const bool holds = entry.match == Match::Equals ? code == text : code.contains(text);
        if (holds) {
            m_errorCode = entry.code;
            return;
        }
    }
    m_errorCode = UnknownError;
}

TransferErrorMessage CNBParseProcessor::errorMsg() const
{
    return m_errorMsg;
}

QString CNBParseProcessor::body() const
{
    return m_body;
}

int CNBParseProcessor::statusCode() const
{
    return m_statusCode;
}

int CNBParseProcessor::errorCode() const
{
    return m_errorCode;
}

QHash<QByteArray, QByteArray> CNBParseProcessor::headers() const
{
    return m_headers;
}

bool CNBParseProcessor::hasError() const
{
    return errorCode() != 0 || statusCode() < 200 || statusCode() > 399;
}
