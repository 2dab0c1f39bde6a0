// The server's error object of a failed reply, as CNBParseProcessor reads it.
#pragma once

#include <QString>

struct TransferErrorMessage
{
    QString message; // "message", or the JSON parse error's text, or the transport's error text
    QString msgcode; // "msgcode"
    int state = 0; // "state", or the JSON parse error's number
    QString code; // "code": the server's error text, which the processor maps to its number
    QString type; // "type"
};
