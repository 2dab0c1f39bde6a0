#include "Failure.h"

Failure::Failure(Exit exit, QString message, QString code)
    : exit(exit)
    , message(std::move(message))
    , code(code.isEmpty() ? codeOf(exit) : std::move(code))
{
}

QString Failure::codeOf(Exit exit)
{
    switch (exit) {
    case Exit::Ok:
        return QStringLiteral("ok");
    case Exit::Usage:
        return QStringLiteral("usage");
    case Exit::Refused:
        return QStringLiteral("refused");
    case Exit::Network:
        return QStringLiteral("network");
    case Exit::Local:
        return QStringLiteral("local");
    case Exit::Partial:
        return QStringLiteral("partial");
    case Exit::Interrupted:
        return QStringLiteral("interrupted");
    }
    return QStringLiteral("failed");
}
