// What ends a command early: a status of the documented exit table and a message that
// says what failed and what to do about it. Thrown from command code, never from inside
// a callback (those only record outcomes; the code that waits for them throws).
#pragma once

#include <QString>

enum class Exit : int {
    Ok = 0,
    Usage = 1, // bad arguments, or an operation this deployment type does not offer
    Refused = 2, // the server answered with an error
    Network = 3, // no answer, a broken connection or the inactivity time-out
    Local = 4, // a local file could not be read or written
    Partial = 5, // some entries or files failed, each one named
    Interrupted = 130, // Ctrl-C
};

struct Failure
{
    Exit exit;
    QString message;
};
