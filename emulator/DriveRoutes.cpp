#include "DriveRoutes.h"

#include "Routes.h"
#include "Wire.h"

#include <QJsonDocument>
#include <QRegularExpression>

namespace {

const int FeedPage = 1000;

QJsonObject changeJson(const Change& change)
{
    QJsonObject object = change.entry.json();
    object.insert("op", change.op);
    if (!change.fromPath.isEmpty())
        object.insert("from_path", change.fromPath);
    return object;
}

QString nameOf(const QString& path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

} // namespace

DriveRoutes::DriveRoutes(EmuContext& context)
    : m_context(context)
{
}

QString DriveRoutes::encodeCursor(const QString& journalId, qint64 seq)
{
    return QString::fromLatin1(QStringLiteral("nbemu:%1:%2")
                                   .arg(journalId)
                                   .arg(seq)
                                   .toLatin1()
                                   .toBase64(QByteArray::Base64UrlEncoding));
}

std::optional<qint64> DriveRoutes::decodeCursor(
    const QString& cursor, const QString& journalId, qint64 lastSeq)
{
    const QList<QByteArray> parts
        = QByteArray::fromBase64(cursor.toLatin1(), QByteArray::Base64UrlEncoding).split(':');
    bool ok = false;
    const qint64 seq = parts.size() == 3 && parts[0] == "nbemu" && parts[1] == journalId.toLatin1()
        ? parts[2].toLongLong(&ok)
        : -1;
    if (!ok || seq < 0 || seq > lastSeq)
        return std::nullopt;
    return seq;
}

QJsonObject DriveRoutes::feed(const QString& space, const QString& folder, const QString& cursor)
{
    const QString journal = m_context.drive.journalId();
    qint64 last = m_context.drive.lastSeq();
    const std::optional<qint64> after = cursor.isEmpty() ? std::nullopt : decodeCursor(cursor, journal, last);
    QJsonArray entries;
    bool hasMore = false;
    if (!after) {
        // A first read, or a cursor this journal did not give: the whole state, as created.
        for (const Entry& entry : m_context.drive.below(space, folder)) {
            QJsonObject object = entry.json();
            object.insert("op", "create");
            entries.append(object);
        }
    } else {
        const QList<Change> changes = m_context.drive.changes(space, folder, *after, FeedPage + 1);
        hasMore = changes.size() > FeedPage;
        for (int i = 0; i < qMin(changes.size(), FeedPage); ++i) {
            entries.append(changeJson(changes[i]));
            if (hasMore)
                last = changes[i].seq;
        }
    }
    return QJsonObject { { "entries", entries }, { "cursor", encodeCursor(journal, last) },
        { "has_more", hasMore }, { "reset", !cursor.isEmpty() && !after } };
}

bool DriveRoutes::batchPlaces(HttpCall& call, const QString& kind, QList<Place>* sources, Place* target)
{
    const auto invalid = [&call](const QString& message) {
        call.error(400, QStringLiteral("invalid json"), message);
        return false;
    };
    const auto placeOf = [&call](const QJsonValue& value, Place* place) {
        const QJsonObject object = value.toObject();
        const QJsonValue type = object.value(Wire::PathType);
        if (!value.isObject() || !object.value(Wire::Path).isString()
            || !(type.isUndefined() || type.isString()))
            return false;
        place->asSent = object.value(Wire::Path).toString();
        return true;
    };
    const QJsonDocument document = QJsonDocument::fromJson(call.value(Wire::Json).toUtf8());
    if (!document.isObject())
        return invalid(QStringLiteral("the parameter \"json\" holds no object"));
    const QString listKey = kind == QLatin1String("delete") ? Wire::Pathes : Wire::From;
    const QJsonValue list = document.object().value(listKey);
    if (!list.isArray())
        return invalid(QStringLiteral("\"%1\" is not a list").arg(listKey));
    for (const QJsonValue& value : list.toArray()) {
        Place place;
        if (!placeOf(value, &place))
            return invalid(QStringLiteral("each item of \"%1\" is an object with a \"path\"").arg(listKey));
        if (!Routes::space(call, value.toObject().value(Wire::PathType).toString(), &place.space)
            || !Routes::normalised(call, place.asSent, &place.path))
            return false;
        sources->append(place);
    }
    if (kind == QLatin1String("delete"))
        return true;
    const QJsonValue to = document.object().value(Wire::To);
    if (!placeOf(to, target))
        return invalid(QStringLiteral("\"to\" is an object with a \"path\""));
    return Routes::space(call, to.toObject().value(Wire::PathType).toString(), &target->space)
        && Routes::normalised(call, target->asSent, &target->path);
}

void DriveRoutes::batch(HttpCall& call, const QString& kind)
{
    QList<Place> sources;
    Place target;
    if (!batchPlaces(call, kind, &sources, &target))
        return;
    QString failPattern;
    {
        const std::lock_guard lock(m_context.taskMutex);
        failPattern = m_context.taskFailPattern;
    }
    const QRegularExpression failing(failPattern);
    QJsonArray results;
    for (const Place& source : qAsConst(sources)) {
        Outcome outcome;
        const QString to = (target.path == QLatin1String("/") ? QString() : target.path) + QLatin1Char('/')
            + nameOf(source.path);
        if (!failPattern.isEmpty() && failing.match(source.path).hasMatch())
            outcome = Outcome::failure(
                403, QStringLiteral("forbidden"), QStringLiteral("failed by the control interface"));
        else if (kind == QLatin1String("delete"))
            outcome = m_context.drive.remove(source.space, source.path, call.userId);
        else if (kind == QLatin1String("copy"))
            outcome = m_context.drive.copy(source.space, source.path, target.space, to, call.userId);
        else
            outcome = m_context.drive.move(source.space, source.path, target.space, to, call.userId);
        QJsonObject result { { "path", source.asSent }, { "ok", outcome.ok() } };
        if (!outcome.ok()) {
            result.insert("code", outcome.code);
            result.insert("message", outcome.message.isEmpty() ? outcome.code : outcome.message);
        } else if (kind != QLatin1String("delete")) {
            result.insert("to", outcome.entry.path);
        }
        results.append(result);
    }
    const QString id = m_context.tasks.create(call.userId, kind, m_context.taskPolls.load(), results);
    call.json(QJsonObject { { "task_id", id }, { "state", "running" } });
}

void DriveRoutes::extra(HttpCall& call, const QStringList& neids)
{
    QJsonArray entries;
    for (const QString& neid : neids) {
        const std::optional<Entry> entry = m_context.drive.findNeid(neid.toLongLong());
        entries.append(entry && Drive::visibleTo(*entry, call.userId)
                ? entry->json()
                : QJsonObject { { "neid", neid }, { "exist", false } });
    }
    call.json(QJsonObject { { "extra", entries } });
}

void DriveRoutes::install(Router& router)
{
    Drive& drive = m_context.drive;

    // --- Metadata, listings, folders and files. ---------------------------------------------
    router.add("GET", "/v2/metadata/databox(/.*)?", EveryType, Access::Session, [&drive](HttpCall& call) {
        std::optional<Entry> entry;
        if (!call.value(Wire::Neid).isEmpty()) {
            entry = drive.findNeid(call.value(Wire::Neid).toLongLong());
            if (entry && !Drive::visibleTo(*entry, call.userId))
                entry.reset();
        } else {
            QString space;
            QString path;
            if (!Routes::place(call, call.captures.value(0), &space, &path))
                return;
            entry = drive.find(space, path);
        }
        if (!entry)
            return Routes::notFound(call);
        QJsonObject object = entry->json();
        if (entry->dir && call.value(Wire::List) == QLatin1String("true")) {
            int total = 0;
            const int limit = call.value(Wire::Limit).toInt();
            const int offset = call.value(Wire::Offset).toInt();
            QJsonArray content;
            for (const Entry& child : drive.list(entry->space, entry->path, call.value(Wire::OrderBy),
                     call.value(Wire::Sort), limit, offset, &total))
                content.append(child.json());
            object.insert("content", content);
            object.insert("total", total);
            object.insert("limit", limit);
            object.insert("offset", offset);
        }
        call.json(object);
    });
    router.add("POST", "/v2/fileops/create_folder/databox(/.*)?", EveryType, Access::Session,
        [&drive](HttpCall& call) {
            QString space;
            QString path;
            if (Routes::place(call, call.captures.value(0), &space, &path))
                Routes::reply(call, drive.createFolder(space, path, call.userId));
        });
    router.add(
        "POST", "/v2/fileops/create_file(/.*)?", PublicCloudOnly, Access::Session, [&drive](HttpCall& call) {
            QString space;
            QString path;
            if (Routes::place(call, call.captures.value(0), &space, &path))
                Routes::reply(call, drive.createFile(space, path, call.userId));
        });
    router.add("GET", "/v2/revisions/databox(/.*)?", EveryType, Access::Session, [&drive](HttpCall& call) {
        QString space;
        QString path;
        if (!Routes::place(call, call.captures.value(0), &space, &path))
            return;
        const std::optional<Entry> entry = drive.find(space, path);
        if (!entry || entry->dir)
            return Routes::notFound(call);
        QJsonObject object = entry->json();
        object.insert("revisions", drive.revisions(entry->neid, call.value(Wire::RevLimit).toInt()));
        call.json(object);
    });
    router.add(
        "GET", "/v2/(lock|unlock)/databox(/.*)?", EveryType, Access::Session, [&drive](HttpCall& call) {
            QString space;
            QString path;
            if (!Routes::place(call, call.captures.value(1), &space, &path))
                return;
            const Outcome outcome = call.captures.value(0) == QLatin1String("lock")
                ? drive.lock(space, path, call.userId, call.value(Wire::Time).toInt())
                : drive.unlock(space, path, call.userId);
            if (!outcome.ok())
                return Routes::failure(call, outcome);
            call.json(drive.find(space, path).value_or(outcome.entry).json());
        });
    router.add("POST", "/v2/fileops/fileExists", PrivateTypes, Access::Session, [&drive](HttpCall& call) {
        std::optional<Entry> entry;
        if (!call.value(Wire::Neid).isEmpty()) {
            entry = drive.findNeid(call.value(Wire::Neid).toLongLong());
        } else {
            QString path;
            if (!Routes::normalised(call, call.value(Wire::Path), &path))
                return;
            const QString nsid = call.value(Wire::Nsid);
            if (!nsid.startsWith(QLatin1String("self:")) && !Drive::spaceOf(nsid, call.userId))
                return call.error(
                    400, QStringLiteral("invalid path"), QStringLiteral("unknown nsid \"%1\"").arg(nsid));
            // Another user's own space answers as if empty.
            if (const std::optional<QString> space = Drive::spaceOfNsid(nsid, call.userId))
                entry = drive.find(*space, path);
        }
        if (entry && !Drive::visibleTo(*entry, call.userId))
            entry.reset();
        QJsonObject object { { "exist", bool(entry) } };
        if (entry)
            object.insert("entry", entry->json());
        call.json(object);
    });
    // The public cloud's request for extra metadata carries no cookie: served without a
    // session, and then with the shared spaces' entries only.
    router.add("GET", "/v2/extra_meta", PublicCloudOnly, Access::Open, [this](HttpCall& call) {
        extra(call, call.value(Wire::Neids).split(QLatin1Char(','), Qt::SkipEmptyParts));
    });
    router.add("POST", "/v2/extra_metadata", PrivateTypes, Access::Session, [this](HttpCall& call) {
        const QJsonDocument document = QJsonDocument::fromJson(call.value(Wire::Json).toUtf8());
        QStringList neids;
        for (const QJsonValue& value : document.array()) {
            if (!value.toObject().value(Wire::Neid).isString())
                return call.error(
                    400, QStringLiteral("invalid json"), QStringLiteral("\"json\" is a list of {\"neid\"}"));
            neids << value.toObject().value(Wire::Neid).toString();
        }
        if (!document.isArray())
            return call.error(
                400, QStringLiteral("invalid json"), QStringLiteral("\"json\" is a list of {\"neid\"}"));
        extra(call, neids);
    });

    // --- Move, copy, delete. ------------------------------------------------------------------
    router.add("POST", "/v2/fileops/move", EveryType, Access::Session, [&drive](HttpCall& call) {
        QString fromSpace;
        QString from;
        QString toSpace;
        QString to;
        if (Routes::place(call, call.value(Wire::FromPath), &fromSpace, &from, Wire::FromPathType)
            && Routes::place(call, call.value(Wire::ToPath), &toSpace, &to, Wire::ToPathType))
            Routes::reply(call, drive.move(fromSpace, from, toSpace, to, call.userId));
    });
    router.add("POST", "/v2/fileops/batch_(copy|move|delete)", EveryType, Access::Session,
        [this](HttpCall& call) { batch(call, call.captures.value(0)); });
    router.add("GET", "/v2/async/query", EveryType, Access::Session, [this](HttpCall& call) {
        const std::optional<QJsonObject> state = m_context.tasks.poll(call.value(Wire::TaskId), call.userId);
        if (!state)
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no such task"));
        call.json(*state);
    });

    // --- Change feeds and sync data, all read from the journal. -----------------------------
    router.add("POST", "/v2/(delta|vboxdelta|initdelta)/databox(/.*)?", EveryType, Access::Session,
        [this](HttpCall& call) {
            const QString kind = call.captures.value(0);
            if (kind != QLatin1String("delta") && m_context.options.type != Deployment::PublicCloud)
                return call.error(
                    501, QStringLiteral("not emulated"), kind + QStringLiteral(" is a public cloud route"));
            QString space;
            QString folder;
            if (!Routes::place(call, call.captures.value(1), &space, &folder))
                return;
            const QString cursor = kind == QLatin1String("initdelta") ? QString() : call.value(Wire::Cursor);
            call.json(feed(space, folder, cursor));
        });
    router.add("POST", "/v2/syncdata/syncDisc", EveryType, Access::Session, [this](HttpCall& call) {
        QString space;
        QString folder;
        if (!Routes::place(call, call.value(Wire::Path), &space, &folder))
            return;
        QJsonObject answer = feed(space, folder, call.value(Wire::Cursor));
        for (const QString& key : Wire::SyncDiscEchoes)
            answer.insert(key, call.value(key));
        call.json(answer);
    });
    router.add("POST", "/v2/syncdata/(virtualBox|assignVirtualBox)", PrivateSixOnly, Access::Session,
        [this](HttpCall& call) {
            QString space;
            QString folder;
            if (!Routes::place(call, call.value(Wire::Path), &space, &folder))
                return;
            const QString journal = m_context.drive.journalId();
            const qint64 after = call.value(Wire::DeltaDataId).toLongLong();
            QJsonObject answer = feed(space, folder, after > 0 ? encodeCursor(journal, after) : QString());
            const std::optional<qint64> position
                = decodeCursor(answer.value("cursor").toString(), journal, m_context.drive.lastSeq());
            answer.insert(Wire::DeltaDataId, QString::number(position.value_or(0)));
            for (const QString& key : Wire::VirtualBoxEchoes)
                answer.insert(key, call.value(key));
            call.json(answer);
        });
    router.add(
        "GET", "/v2/syncdata/returnAssignJid", PrivateSixOnly, Access::Session, [&drive](HttpCall& call) {
            QString space;
            QString path;
            if (!Routes::place(call, call.value(Wire::Path), &space, &path))
                return;
            const std::optional<Entry> entry = drive.find(space, path);
            if (!entry)
                return Routes::notFound(call);
            call.json(
                QJsonObject { { Wire::AssignJid, QString::number(entry->neid) }, { "path", entry->path } });
        });

    // --- The operation log. ----------------------------------------------------------------------
    router.add("POST", "/v2/log/logging", EveryType, Access::Session, [this](HttpCall& call) {
        QJsonObject record;
        for (const QString& key : Wire::LogRecordKeys)
            record.insert(key, call.value(key));
        m_context.oplog.add(call.userId, record);
        call.json(QJsonObject { { "logged", true } });
    });
}
