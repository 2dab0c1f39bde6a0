// The wire names that many operations share, and the parameter groups built from
// them; an operation applies a group in one builder step, `.with(entryParams, m)`.
#pragma once

#include "NBRequestBuilder.h"
#include "NBServerApiModels.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

namespace NBKey {
inline const QString Path = QStringLiteral("path");
inline const QString PathType = QStringLiteral("path_type");
inline const QString From = QStringLiteral("from");
inline const QString Neid = QStringLiteral("neid");
inline const QString Nsid = QStringLiteral("nsid");
inline const QString PrefixNeid = QStringLiteral("prefix_neid");
inline const QString IgnorePrefixPath = QStringLiteral("ignore_prefix_path");
inline const QString Root = QStringLiteral("root");
inline const QString Cursor = QStringLiteral("cursor");
inline const QString Rev = QStringLiteral("rev");
inline const QString ParentRev = QStringLiteral("parent_rev");
inline const QString OpType = QStringLiteral("op_type");
inline const QString Overwrite = QStringLiteral("overwrite");
inline const QString Bytes = QStringLiteral("bytes");
inline const QString Hashes = QStringLiteral("hashes[]");
inline const QString Language = QStringLiteral("language");
inline const QString Token = QStringLiteral("token");
inline const QString VerifyCode = QStringLiteral("S");
} // namespace NBKey

// An entry as most operations name it: "path", "path_type", then "from", "neid" and
// "prefix_neid" when set.
inline constexpr auto entryParams = [](NBRequestBuilder& request, const auto& entry) {
    request.param(NBKey::Path, entry.path)
        .param(NBKey::PathType, entry.pathType)
        .paramsIfSet({ { NBKey::From, entry.from }, { NBKey::Neid, entry.neid },
            { NBKey::PrefixNeid, entry.prefixNeid } });
};

// A place in a change feed: "path_type", then "from", "neid", "cursor" and
// "prefix_neid" when set.
inline constexpr auto feedParams = [](NBRequestBuilder& request, const NBServerApiDeltaModel& feed) {
    request.param(NBKey::PathType, feed.pathType)
        .paramsIfSet({ { NBKey::From, feed.from }, { NBKey::Neid, feed.neid }, { NBKey::Cursor, feed.cursor },
            { NBKey::PrefixNeid, feed.prefixNeid } });
};

// What an upload authorisation names besides the path, each when set:
// "ignore_prefix_path", "from", "prefix_neid", "nsid", "neid".
inline constexpr auto authUploadParams = [](NBRequestBuilder& request, const NBServerApiEntryModel& entry) {
    request.paramsIfSet({ { NBKey::IgnorePrefixPath, entry.ignorePrefixPath }, { NBKey::From, entry.from },
        { NBKey::PrefixNeid, entry.prefixNeid }, { NBKey::Nsid, entry.nsid }, { NBKey::Neid, entry.neid } });
};

// A page of a listing: "orderby", "sort", "limit", "offset".
inline constexpr auto pageParams = [](NBRequestBuilder& request, const auto& listing) {
    request.param(QStringLiteral("orderby"), listing.orderby)
        .param(QStringLiteral("sort"), listing.sort)
        .number(QStringLiteral("limit"), listing.limit)
        .number(QStringLiteral("offset"), listing.offset);
};

// One chunk's query: "hash" and "upload_id" when set, "offset" always "0", then "S"
// when the endpoint has a verification code.
inline constexpr auto chunkQuery = [](NBRequestBuilder& request, const auto& chunk) {
    request.inQuery()
        .paramsIfSet(
            { { QStringLiteral("hash"), chunk.hash }, { QStringLiteral("upload_id"), chunk.uploadId } })
        .param(QStringLiteral("offset"), QStringLiteral("0"))
        .verifyCodeParam();
};

// Where a new folder goes: "path_type", then "from", "prefix_neid" and "dc_id" when set.
inline constexpr auto folderParams
    = [](NBRequestBuilder& request, const NBServerApiCreateFolderModel& folder) {
          request.param(NBKey::PathType, folder.pathType)
              .paramsIfSet({ { NBKey::From, folder.from }, { NBKey::PrefixNeid, folder.prefixNeid },
                  { QStringLiteral("dc_id"), folder.dcId } });
      };

// What a download route names: the path under `pathKey`, "path_type", then "from",
// "neid", "rev" and "prefix_neid" when set, both range headers when set, "op_type"
// when set.
inline auto routeParams(const QString& pathKey)
{
    return [pathKey](NBRequestBuilder& request, const NBSeverApiDLRouterModel& route) {
        request.param(pathKey, route.path)
            .param(NBKey::PathType, route.pathType)
            .paramsIfSet({ { NBKey::From, route.from }, { NBKey::Neid, route.neid },
                { NBKey::Rev, route.rev }, { NBKey::PrefixNeid, route.prefixNeid } })
            .rangeIfSet(route.range)
            .paramIfSet(NBKey::OpType, route.opType);
    };
}

// The entry under prefixed keys, each sent even when empty: "<prefix>path",
// "<prefix>path_type", "<prefix>from", "<prefix>neid", "<prefix>prefix_neid".
inline auto prefixedEntryParams(const QString& prefix)
{
    return [prefix](NBRequestBuilder& request, const NBServerApiEntryModel& entry) {
        request.param(prefix + NBKey::Path, entry.path)
            .param(prefix + NBKey::PathType, entry.pathType)
            .param(prefix + NBKey::From, entry.from)
            .param(prefix + NBKey::Neid, entry.neid)
            .param(prefix + NBKey::PrefixNeid, entry.prefixNeid);
    };
}

// An entry in the JSON body of a batch operation: six string members.
inline QJsonObject entryJson(const NBServerApiEntryModel& entry)
{
    return QJsonObject { { NBKey::Root, entry.root }, { NBKey::Path, entry.path },
        { NBKey::PathType, entry.pathType }, { NBKey::Neid, entry.neid }, { NBKey::From, entry.from },
        { NBKey::PrefixNeid, entry.prefixNeid } };
}

inline QJsonArray entriesJson(const QList<NBServerApiEntryModel>& entries)
{
    QJsonArray array;
    for (const NBServerApiEntryModel& entry : entries)
        array.append(entryJson(entry));
    return array;
}
