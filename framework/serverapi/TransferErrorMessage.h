/// \file
/// TransferErrorMessage, the server's error object of a failed reply.
#pragma once

#include <QString>

/// The server's error object of a failed reply, as CNBParseProcessor reads it. A field
/// keeps what an earlier reading of the same processor put there until a later one
/// brings its own.
/// \ingroup parsing
struct TransferErrorMessage
{
    QString message; ///< "message", or the JSON parse error's text, or the transport's error text
    QString msgcode; ///< "msgcode"
    int state = 0; ///< "state", or the JSON parse error's number
    QString code; ///< "code": the server's error text, which the processor maps to its number
    QString type; ///< "type"
};
