// The transfer server's side of whole-file and chunked transfers, for flow tests: it
// keeps chunks by their hash (SHA-256, hex), answers hash queries with the hashes it
// lacks, assembles committed files from their hash lists and serves files whole or
// by range. Routes are matched by what the address ends with or contains, so the
// account forms and the delivery forms share one store:
//   POST .../commit_chunked_upload/commit/databox, .../delivery/commit_chunked/<code>[/...]
//        hash query (no "is_file_commit")  -> {"needed":[...]}
//        commit ("is_file_commit", "hashes[]") -> {"path","bytes","sha256"} or 400 "invalid.hash"
//   POST .../chunked_upload, .../delivery/chunked_upload/   chunk body, "hash" in the query
//   POST .../files/databox/<path>, .../delivery/data/<code>  whole body stored under the path
//   GET  .../files/databox/<path>, .../dl_router/databox/<path>, .../delivery/dl_router/...
//        (a delivery by its query's "path") the stored file, or the part the "Range"
//        header names (206)
// Anything else goes to the fallback handler, when one is set.
#pragma once

#include "TestServer.h"

#include <QHash>
#include <QUrlQuery>
#include <mutex>

class ChunkServer
{
public:
    ChunkServer();

    QString url() const { return m_server.url(QString()); }
    TestServer& server() { return m_server; }

    // A file as a later download finds it.
    void putFile(const QString& path, const QByteArray& content);
    QByteArray file(const QString& path) const;
    int chunkUploads() const;
    void setFallback(TestServer::Handler handler);
    int storedChunks() const;

    static QByteArray hashOf(const QByteArray& chunk);
    // The form or query items of a request, decoded, in order.
    static QList<QPair<QString, QString>> items(const QByteArray& encoded);

private:
    ServerReply answer(const RecordedRequest& request);
    ServerReply commit(const QString& path, const QList<QPair<QString, QString>>& form);
    ServerReply serve(const QString& path, const QByteArray& range) const;

    mutable std::mutex m_mutex;
    QHash<QString, QByteArray> m_chunks;
    QHash<QString, QByteArray> m_files;
    int m_chunkUploads = 0;
    TestServer::Handler m_fallback;
    TestServer m_server;
};
