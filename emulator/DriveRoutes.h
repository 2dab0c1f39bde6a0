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

    // A cursor names a position of one journal: of another journal (another data folder,
    // or this one before a reset) or past its end, it is unknown.
    static QString encodeCursor(const QString& journalId, qint64 seq);
    static std::optional<qint64> decodeCursor(
        const QString& cursor, const QString& journalId, qint64 lastSeq);

private:
    // One source of a batch request, or its target: the space and the path.
    struct Place
    {
        QString space;
        QString path;
        QString asSent;
    };
    // The changes below a folder after the cursor (all of it as created without one, or
    // with reset true for an unknown one).
    QJsonObject feed(const QString& space, const QString& folder, const QString& cursor);
    // The places of a batch request's JSON, checked whole before anything is done; false
    // after a 400 reply.
    bool batchPlaces(HttpCall& call, const QString& kind, QList<Place>* sources, Place* target);
    void batch(HttpCall& call, const QString& kind);
    // The entries of these neids that the caller may see; the others as not there.
    void extra(HttpCall& call, const QStringList& neids);

    EmuContext& m_context;
};
