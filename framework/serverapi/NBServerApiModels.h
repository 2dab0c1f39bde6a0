// Request models that several operations take, and the path types entries carry.
// Plain records: an empty string means "not given" wherever an operation sends a
// field only when it is non-empty.
#pragma once

#include "NBServerApiConstants.h"

#include <QList>
#include <QString>

struct NBServerApiEntryModel
{
    QString path; // "path"
    QString pathType; // "path_type"
    QString from; // "from"
    QString neid; // "neid"
    QString nsid; // "nsid"
    QString prefixNeid; // "prefix_neid"
    QString ignorePrefixPath; // "ignore_prefix_path"
    QString root; // "root", in the JSON bodies of batch operations
};

struct NBServerApiDeltaModel
{
    QString path;
    QString pathType;
    QString from;
    QString neid;
    QString prefixNeid;
    QString cursor; // "cursor": where the previous reply of the change feed ended
};

struct NBServerApiBatchMoveModel
{
    QList<NBServerApiEntryModel> from; // sources, sent in this order
    NBServerApiEntryModel to; // target folder
    bool ignoreShare = false; // "ignore_share"
};

struct NBServerApiGetSyncDataModel
{
    QString path;
    QString pathType;
    QString from;
    QString prefixNeid;
    qint64 syncUid = 0;
    qint64 syncCid = 0;
    qint64 pullJid = 0;
    qint64 deltaDataId = 0;
    qint64 assignJid = 0;
};
