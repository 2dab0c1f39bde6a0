#include "Routes.h"

namespace Routes {

bool normalised(HttpCall& call, const QString& text, QString* path)
{
    if (Drive::normalise(text, path))
        return true;
    call.error(400, QStringLiteral("invalid path"),
        QStringLiteral("\"..\", \".\" and NUL are not allowed in paths"));
    return false;
}

bool space(HttpCall& call, const QString& pathType, QString* space)
{
    const std::optional<QString> found = Drive::spaceOf(pathType, call.userId);
    if (found) {
        *space = *found;
        return true;
    }
    call.error(400, QStringLiteral("invalid path"),
        QStringLiteral("unknown path type \"%1\" (ent, self, share_in, share_out, book_mark, trans, recycle)")
            .arg(pathType));
    return false;
}

bool place(HttpCall& call, const QString& text, QString* spaceOut, QString* path, const QString& typeKey)
{
    return space(call, call.value(typeKey), spaceOut) && normalised(call, text, path);
}

void reply(HttpCall& call, const Outcome& outcome)
{
    if (outcome.ok())
        call.json(outcome.entry.json());
    else
        failure(call, outcome);
}

void failure(HttpCall& call, const Outcome& outcome)
{
    call.error(outcome.status, outcome.code, outcome.message, outcome.extra);
}

void notFound(HttpCall& call, const QString& message)
{
    call.error(404, QStringLiteral("file/folder not found"), message);
}

} // namespace Routes
