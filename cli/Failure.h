// What ends a command early: a status of the documented exit table, a short code that
// scripts can compare, and a message that says what failed and what to do about it.
// Thrown from command code, never from inside a callback (those only record outcomes;
// the code that waits for them throws).
#pragma once

#include <QString>

enum class Exit : int {
    Ok = 0,
    Usage = 1, // bad arguments, or an operation this deployment type does not offer
    Refused = 2, // the server refused: a wrong password, a lock, not found, ...
    Network = 3, // may go away, try again later: no answer, a lost connection, a time-out,
                 // a damaged transfer, 5xx or 429 still failing after the retries
    Local = 4, // a local file could not be read or written
    Partial = 5, // some entries or files failed, each one named, others arrived
    Interrupted = 130, // Ctrl-C
};

struct Failure
{
    Exit exit;
    QString message;
    // "usage", "network", "timeout", "damaged", "local", "interrupted", "not offered",
    // or the server's own code of a refusal ("file is locked", "target name exists", ...).
    QString code;

    Failure(Exit exit, QString message, QString code = QString());
    static QString codeOf(Exit exit);
};
