// Transfers: upload authorisation, whole-file uploads cut into the store's chunks as
// they stream in, downloads whole or by range (also through the routing address), the
// hash query, chunk uploads checked against their hash, and commits by hash list. The
// delivery routes reuse the reading, serving and committing.
#pragma once

#include "EmuContext.h"
#include "Router.h"

namespace httplib {
class ContentReader;
}

class TransferRoutes
{
public:
    explicit TransferRoutes(EmuContext& context);
    void install(Router& router);

    // Reads the streamed body into chunks of the store; false after an error reply.
    bool receive(HttpCall& call, const httplib::ContentReader& reader, QList<ChunkRef>* chunks);
    // Replies with the file's content, or with the part its "Range" (or "x-nimbraws-range")
    // header names: 206 with "Content-Range", 416 for a range beyond the end.
    void serve(HttpCall& call, const Entry& entry, qint64 rev = 0);
    // The chunk of the request body, checked against the "hash" of the query.
    void storeChunk(HttpCall& call, const httplib::ContentReader& reader);
    // {"needed": [...]}: the hashes the store lacks.
    void queryHashes(HttpCall& call);
    // A file of the listed chunks, which must all be known and add up to `bytes`.
    void commit(HttpCall& call, const QString& space, const QString& path, const QStringList& hashes, qint64 bytes,
        bool overwrite);
    QJsonObject uploadAuthorisation(const QString& path) const;

private:
    EmuContext& m_context;
};
