// One local file to one remote path. A file of up to one chunk goes whole; a larger one
// in chunks: hashed on a worker thread while the server is asked which chunks it lacks
// and those are sent, `jobs` at a time, then committed as the ordered hash list. A run
// after an interrupted one sends only what the server still lacks. Either way the file's
// hash as the server computed it is checked against the local one.
#pragma once

#include "TransferEndpoint.h"

#include <QJsonObject>

class Progress;

class Uploader
{
public:
    struct Result
    {
        QString local;
        QString remote;
        qint64 bytes = 0;
        int chunks = 0; // 0: sent whole
        int chunksSent = 0;
        qint64 bytesSent = 0;
        QString hash;
        qint64 ms = 0;
        QJsonObject json() const;
    };

    Uploader(TransferEndpoint& endpoint, Progress& progress, int jobs, const QString& server);

    // Throws the Failure that stopped it.
    Result put(const QString& localPath, const QString& remotePath);

private:
    void putWhole(Result& result);
    void putChunked(Result& result);
    void checkHash(const Result& result, const QJsonObject& entry);

    TransferEndpoint& m_endpoint;
    Progress& m_progress;
    int m_jobs;
    QString m_server;
};
