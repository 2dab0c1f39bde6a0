// What the route groups share: reading a path and its path type from a request (for the
// caller: "self" is the caller's own space, and only the library's path types are
// spaces), and the replies of an entry or of a change that failed.
#pragma once

#include "Drive.h"
#include "HttpCall.h"
#include "Wire.h"

namespace Routes {

// The normalised path, or false after a 400 "invalid path" reply.
bool normalised(HttpCall& call, const QString& text, QString* path);
// The caller's space of a path type, or false after a 400 "invalid path" reply.
bool space(HttpCall& call, const QString& pathType, QString* space);
// Both: the space of the parameter `typeKey` and the path `text`.
bool place(HttpCall& call, const QString& text, QString* space, QString* path,
    const QString& typeKey = Wire::PathType);
// The entry of a change, or the change's error.
void reply(HttpCall& call, const Outcome& outcome);
void failure(HttpCall& call, const Outcome& outcome);
void notFound(HttpCall& call, const QString& message = QString());

} // namespace Routes
