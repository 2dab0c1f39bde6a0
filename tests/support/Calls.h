// Collects what a request hands to its callbacks, and on which thread.
#pragma once

#include "ResponseData.h"
#include "Wait.h"

#include <QList>
#include <QTest>
#include <QThread>

struct Calls
{
    QList<ResponseData> completions;
    QList<UploadProgressData> uploads;
    QList<DownloadProgressData> downloads;
    QList<QByteArray> pieces;
    QList<QThread*> threads;

    NBCompletionCallback completion(std::function<void(const ResponseData&)> also = {})
    {
        return [this, also](const ResponseData& r) {
            completions.append(r);
            threads.append(QThread::currentThread());
            if (also)
                also(r);
        };
    }
    NBUploadProgressCallback uploadProgress(std::function<void(const UploadProgressData&)> also = {})
    {
        return [this, also](const UploadProgressData& p) {
            uploads.append(p);
            threads.append(QThread::currentThread());
            if (also)
                also(p);
        };
    }
    NBDownloadProgressCallback downloadProgress(std::function<void(const DownloadProgressData&)> also = {})
    {
        return [this, also](const DownloadProgressData& p) {
            downloads.append(p);
            threads.append(QThread::currentThread());
            if (also)
                also(p);
        };
    }
    NBDataCallback data()
    {
        return [this](const QByteArray& piece) {
            pieces.append(piece);
            threads.append(QThread::currentThread());
        };
    }
    QByteArray joinedPieces() const
    {
        QByteArray all;
        for (const auto& p : pieces)
            all += p;
        return all;
    }
    bool waitForCompletions(int count, int timeoutMs = 10000)
    {
        return waitUntil([&] { return completions.size() >= count; }, timeoutMs);
    }
    const ResponseData& last() const { return completions.last(); }
};
