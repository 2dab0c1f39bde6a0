// Transfers: upload authorisation, whole-file uploads cut into the store's chunks as
// they stream in, downloads whole or by range (also through the routing address), the
// hash query, chunk uploads checked against their hash, and commits by hash list. The
// delivery routes reuse the reading, serving and committing.
#pragma once

#include "EmuContext.h"
#include "Router.h"

class TransferRoutes
{
public:
    explicit TransferRoutes(EmuContext& context);
    void install(Router& router);

    // The upload authorisation of a file, unless another user's lock holds it.
    void authorise(HttpCall& call, const QString& space, const QString& path);
    // A whole-file upload: the body, read as it arrives into chunks of the store, becomes
    // the file's new revision.
    void upload(HttpCall& call, const QString& space, const QString& path, bool overwrite);
    // Replies with the content of a revision (0: the newest; 404 for one the file never
    // had), or with the part its "Range" (or "x-nimbraws-range") header names: 206 with
    // "Content-Range", 416 for a range that starts beyond the end. A range of another
    // unit, several ranges or a malformed one are ignored, as HTTP lets a server do.
    void serve(HttpCall& call, const Entry& entry, qint64 rev = 0);
    // The chunk of the request body, checked against the "hash" of the query.
    void storeChunk(HttpCall& call);
    // {"needed": [...]}: the hashes the store lacks.
    void queryHashes(HttpCall& call);
    // A file of the listed chunks, which must all be known and add up to `bytes`.
    void commit(HttpCall& call, const QString& space, const QString& path, const QStringList& hashes,
        qint64 bytes, bool overwrite);

private:
    // Reads the streamed body into chunks of the store; false after an error reply.
    bool receive(HttpCall& call, QList<ChunkRef>* chunks);

    EmuContext& m_context;
};
