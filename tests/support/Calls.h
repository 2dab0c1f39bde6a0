// Collects what a request hands to its callbacks, and on which thread.
#pragma once

#include "ResponseData.h"
#include "Wait.h"

#include <QList>
#include <QStringList>
#include <QTest>
#include <QThread>

struct Calls
{
    QList<ResponseData> completions;
    QList<UploadProgressData> uploads;
    QList<DownloadProgressData> downloads;
    QList<QByteArray> pieces;
    QList<QThread*> threads;
    // Every callback in the order it ran: "completion", "upload", "download", "data".
    QStringList events;

    NBCompletionCallback completion(std::function<void(const ResponseData&)> also = {})
    {
        return [this, also](const ResponseData& r) {
            completions.append(r);
            events.append("completion");
            threads.append(QThread::currentThread());
            if (also)
                also(r);
        };
    }
    NBUploadProgressCallback uploadProgress(std::function<void(const UploadProgressData&)> also = {})
    {
        return [this, also](const UploadProgressData& p) {
            uploads.append(p);
            events.append("upload");
            threads.append(QThread::currentThread());
            if (also)
                also(p);
        };
    }
    NBDownloadProgressCallback downloadProgress(std::function<void(const DownloadProgressData&)> also = {})
    {
        return [this, also](const DownloadProgressData& p) {
            downloads.append(p);
            events.append("download");
            threads.append(QThread::currentThread());
            if (also)
                also(p);
        };
    }
    NBDataCallback data()
    {
        return [this](const QByteArray& piece) {
            pieces.append(piece);
            events.append("data");
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
    // The callbacks that ran after the first completion, other than completions.
    QStringList afterFirstCompletion() const
    {
        const int first = events.indexOf("completion");
        QStringList after;
        for (int i = first + 1; first >= 0 && i < events.size(); ++i) {
            if (events.at(i) != "completion")
                after << events.at(i);
        }
        return after;
    }
    bool waitForCompletions(int count, int timeoutMs = 10000)
    {
        return waitUntil([&] { return completions.size() >= count; }, timeoutMs);
    }
    const ResponseData& last() const { return completions.last(); }
};
