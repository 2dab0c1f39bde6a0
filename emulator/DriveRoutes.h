// The namespace: metadata and listings, folders and files, revisions, locks, moves
// and the batch tasks, the change feeds and sync data read from the journal, extra
// metadata, existence checks and the operation log.
#pragma once

#include "EmuContext.h"
#include "Router.h"

class DriveRoutes
{
public:
    explicit DriveRoutes(EmuContext& context);
    void install(Router& router);

    // The normalised path, or false after a 400 reply.
    static bool normalised(HttpCall& call, const QString& text, QString* path);
    static QString encodeCursor(qint64 seq);
    static std::optional<qint64> decodeCursor(const QString& cursor);

private:
    QString spaceOf(const HttpCall& call, const QString& pathType) const;
    void reply(HttpCall& call, const Outcome& outcome);
    // The changes below a folder after the cursor (all of it as created without one).
    QJsonObject feed(HttpCall& call, const QString& space, const QString& folder, const QString& cursor);
    void batch(HttpCall& call, const QString& kind);

    EmuContext& m_context;
};
