#include "DriveRoutes.h"

#include <QDateTime>
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

} // namespace

DriveRoutes::DriveRoutes(EmuContext& context)
    : m_context(context)
{
}

QString DriveRoutes::spaceOf(const HttpCall& call, const QString& pathType) const
{
    return Drive::spaceOf(pathType, call.userId);
}

bool DriveRoutes::normalised(HttpCall& call, const QString& text, QString* path)
{
    if (Drive::normalise(text, path))
        return true;
    call.error(400, QStringLiteral("invalid path"), QStringLiteral("\"..\", \".\" and NUL are not allowed in paths"));
    return false;
}

void DriveRoutes::reply(HttpCall& call, const Outcome& outcome)
{
    if (outcome.ok())
        call.json(outcome.entry.json());
    else
        call.error(outcome.status, outcome.code, outcome.message);
}

QString DriveRoutes::encodeCursor(qint64 seq)
{
    return QString::fromLatin1(("nbemu:" + QByteArray::number(seq)).toBase64(QByteArray::Base64UrlEncoding));
}

std::optional<qint64> DriveRoutes::decodeCursor(const QString& cursor)
{
    const QByteArray text = QByteArray::fromBase64(cursor.toLatin1(), QByteArray::Base64UrlEncoding);
    bool ok = false;
    const qint64 seq = text.startsWith("nbemu:") ? text.mid(6).toLongLong(&ok) : 0;
    if (!ok || seq < 0)
        return std::nullopt;
    return seq;
}

QJsonObject DriveRoutes::feed(HttpCall& call, const QString& space, const QString& folder, const QString& cursor)
{
    Q_UNUSED(call)
    std::optional<qint64> after;
    if (!cursor.isEmpty())
        after = decodeCursor(cursor);
    QJsonArray entries;
    bool hasMore = false;
    qint64 last = m_context.drive.lastSeq();
    if (!after) {
        // A first read, or a cursor the emulator did not give: the whole state, as created.
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
        if (changes.isEmpty())
            last = qMax(*after, last);
    }
    return QJsonObject { { "entries", entries }, { "cursor", encodeCursor(last) }, { "has_more", hasMore },
        { "reset", !cursor.isEmpty() && !after } };
}

void DriveRoutes::batch(HttpCall& call, const QString& kind)
{
    const QJsonObject request = QJsonDocument::fromJson(call.value("json").toUtf8()).object();
    if (request.isEmpty())
        return call.error(400, QStringLiteral("invalid json"), QStringLiteral("the parameter \"json\" holds no object"));
    const QJsonArray sources = request.value(kind == QLatin1String("delete") ? "pathes" : "from").toArray();
    const QJsonObject target = request.value("to").toObject();
    QString targetFolder;
    if (kind != QLatin1String("delete") && !normalised(call, target.value("path").toString(), &targetFolder))
        return;
    const QString targetSpace = spaceOf(call, target.value("path_type").toString());
    QString failPattern;
    {
        QMutexLocker lock(&m_context.taskMutex);
        failPattern = m_context.taskFailPattern;
    }
    const QRegularExpression failing(failPattern);
    QJsonArray results;
    for (const QJsonValue& value : sources) {
        const QJsonObject source = value.toObject();
        QString path;
        Outcome outcome;
        if (!Drive::normalise(source.value("path").toString(), &path)) {
            outcome = Outcome::failure(400, QStringLiteral("invalid path"));
        } else if (!failPattern.isEmpty() && failing.match(path).hasMatch()) {
            outcome = Outcome::failure(403, QStringLiteral("forbidden"), QStringLiteral("failed by the control interface"));
        } else {
            const QString space = spaceOf(call, source.value("path_type").toString());
            const QString name = path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
            const QString to = (targetFolder == QLatin1String("/") ? QString() : targetFolder) + QLatin1Char('/') + name;
            if (kind == QLatin1String("delete"))
                outcome = m_context.drive.remove(space, path, call.userId);
            else if (kind == QLatin1String("copy"))
                outcome = m_context.drive.copy(space, path, targetSpace, to, call.userId);
            else
                outcome = m_context.drive.move(space, path, targetSpace, to, call.userId);
        }
        QJsonObject result { { "path", source.value("path").toString() }, { "ok", outcome.ok() } };
        if (!outcome.ok())
            result.insert("code", outcome.code);
        else if (kind != QLatin1String("delete"))
            result.insert("to", outcome.entry.path);
        results.append(result);
    }
    const QString id = Accounts::randomHex(8);
    m_context.db.run(true, [&] {
        Database::Statement st(m_context.db, "INSERT INTO tasks(id, user_id, kind, polls, results) VALUES(?, ?, ?, ?, ?)");
        return st.bind(1, id).bind(2, call.userId).bind(3, kind).bind(4, m_context.taskPolls.load())
            .bind(5, QString::fromUtf8(QJsonDocument(results).toJson(QJsonDocument::Compact)))
            .exec();
    });
    call.json(QJsonObject { { "task_id", id }, { "state", "running" } });
}

void DriveRoutes::install(Router& router)
{
    // --- Metadata, listings, folders and files. ---------------------------------------------
    router.add("GET", "/v2/metadata/databox(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        std::optional<Entry> entry;
        if (!call.value("neid").isEmpty()) {
            entry = m_context.drive.findNeid(call.value("neid").toLongLong());
            if (entry && entry->space.startsWith(QLatin1String("self:")) && entry->space != spaceOf(call, "self"))
                entry.reset();
        } else {
            QString path;
            if (!normalised(call, call.captures.value(0), &path))
                return;
            entry = m_context.drive.find(spaceOf(call, call.value("path_type")), path);
        }
        if (!entry)
            return call.error(404, QStringLiteral("file/folder not found"));
        QJsonObject object = entry->json();
        if (entry->dir && call.value("list") == QLatin1String("true")) {
            int total = 0;
            const int limit = call.value("limit").toInt();
            const int offset = call.value("offset").toInt();
            QJsonArray content;
            for (const Entry& child : m_context.drive.list(
                     entry->space, entry->path, call.value("orderby"), call.value("sort"), limit, offset, &total))
                content.append(child.json());
            object.insert("content", content);
            object.insert("total", total);
            object.insert("limit", limit);
            object.insert("offset", offset);
        }
        call.json(object);
    });
    router.add("POST", "/v2/fileops/create_folder/databox(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        QString path;
        if (normalised(call, call.captures.value(0), &path))
            reply(call, m_context.drive.createFolder(spaceOf(call, call.value("path_type")), path, call.userId));
    });
    router.add("POST", "/v2/fileops/create_file(/.*)?", PublicType, Access::Session, [this](HttpCall& call) {
        QString path;
        if (normalised(call, call.captures.value(0), &path))
            reply(call, m_context.drive.createFile(spaceOf(call, call.value("path_type")), path, call.userId));
    });
    router.add("GET", "/v2/revisions/databox(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        QString path;
        if (!normalised(call, call.captures.value(0), &path))
            return;
        const std::optional<Entry> entry = m_context.drive.find(spaceOf(call, call.value("path_type")), path);
        if (!entry || entry->dir)
            return call.error(404, QStringLiteral("file/folder not found"));
        QJsonObject object = entry->json();
        object.insert("revisions", m_context.drive.revisions(entry->neid, call.value("rev_limit").toInt()));
        call.json(object);
    });
    router.add("GET", "/v2/(lock|unlock)/databox(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        QString path;
        if (!normalised(call, call.captures.value(1), &path))
            return;
        const QString space = spaceOf(call, call.value("path_type"));
        const Outcome outcome = call.captures.value(0) == QLatin1String("lock")
            ? m_context.drive.lock(space, path, call.userId, call.value("time").toInt())
            : m_context.drive.unlock(space, path, call.userId);
        if (!outcome.ok())
            return reply(call, outcome);
        QJsonObject object = outcome.entry.json();
        object.insert("locked", call.captures.value(0) == QLatin1String("lock"));
        call.json(object);
    });
    router.add("POST", "/v2/fileops/fileExists", PrivateType | PrivateSixType, Access::Session, [this](HttpCall& call) {
        std::optional<Entry> entry;
        QString path;
        if (!call.value("neid").isEmpty())
            entry = m_context.drive.findNeid(call.value("neid").toLongLong());
        else if (!normalised(call, call.value("path"), &path))
            return;
        else
            entry = m_context.drive.find(call.value("nsid").isEmpty() ? QStringLiteral("ent") : call.value("nsid"), path);
        QJsonObject object { { "exist", bool(entry) } };
        if (entry)
            object.insert("entry", entry->json());
        call.json(object);
    });
    const auto extra = [this](HttpCall& call, const QStringList& neids) {
        QJsonArray entries;
        for (const QString& neid : neids) {
            const std::optional<Entry> entry = m_context.drive.findNeid(neid.toLongLong());
            entries.append(entry ? entry->json() : QJsonObject { { "neid", neid }, { "exist", false } });
        }
        call.json(QJsonObject { { "extra", entries } });
    };
    // The public cloud's request for extra metadata carries no cookie: served without a session.
    router.add("GET", "/v2/extra_meta", PublicType, Access::Open, [extra](HttpCall& call) {
        extra(call, call.value("neids").split(QLatin1Char(','), Qt::SkipEmptyParts));
    });
    router.add("POST", "/v2/extra_metadata", PrivateType | PrivateSixType, Access::Session, [extra](HttpCall& call) {
        QStringList neids;
        for (const QJsonValue& value : QJsonDocument::fromJson(call.value("json").toUtf8()).array())
            neids << value.toObject().value("neid").toString();
        extra(call, neids);
    });

    // --- Move, copy, delete. ------------------------------------------------------------------
    router.add("POST", "/v2/fileops/move", EveryType, Access::Session, [this](HttpCall& call) {
        QString from;
        QString to;
        if (normalised(call, call.value("from_path"), &from) && normalised(call, call.value("to_path"), &to))
            reply(call,
                m_context.drive.move(spaceOf(call, call.value("from_path_type")), from,
                    spaceOf(call, call.value("to_path_type")), to, call.userId));
    });
    router.add("POST", "/v2/fileops/batch_(copy|move|delete)", EveryType, Access::Session,
        [this](HttpCall& call) { batch(call, call.captures.value(0)); });
    router.add("GET", "/v2/async/query", EveryType, Access::Session, [this](HttpCall& call) {
        QJsonObject answer;
        m_context.db.run(true, [&] {
            Database::Statement st(m_context.db, "SELECT kind, polls, results FROM tasks WHERE id = ? AND user_id = ?");
            if (!st.bind(1, call.value("task_id")).bind(2, call.userId).next())
                return false;
            const int polls = int(st.integer(1));
            answer = QJsonObject { { "task_id", call.value("task_id") }, { "kind", st.text(0) } };
            if (polls > 0) {
                answer.insert("state", "running");
                Database::Statement next(m_context.db, "UPDATE tasks SET polls = polls - 1 WHERE id = ?");
                return next.bind(1, call.value("task_id")).exec();
            }
            const QJsonArray results = QJsonDocument::fromJson(st.text(2).toUtf8()).array();
            bool allDone = true;
            for (const QJsonValue& result : results)
                allDone &= result.toObject().value("ok").toBool();
            answer.insert("state", allDone ? "done" : "failed");
            answer.insert("results", results);
            return true;
        });
        if (answer.isEmpty())
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no such task"));
        call.json(answer);
    });

    // --- Change feeds and sync data, all read from the journal. -----------------------------
    router.add("POST", "/v2/(delta|vboxdelta|initdelta)/databox(/.*)?", EveryType, Access::Session, [this](HttpCall& call) {
        const QString kind = call.captures.value(0);
        if (kind != QLatin1String("delta") && m_context.options.type != 1)
            return call.error(501, QStringLiteral("not emulated"), kind + QStringLiteral(" is a public cloud route"));
        QString folder;
        if (!normalised(call, call.captures.value(1), &folder))
            return;
        const QString cursor = kind == QLatin1String("initdelta") ? QString() : call.value("cursor");
        call.json(feed(call, spaceOf(call, call.value("path_type")), folder, cursor));
    });
    router.add("POST", "/v2/syncdata/syncDisc", EveryType, Access::Session, [this](HttpCall& call) {
        QString folder;
        if (!normalised(call, call.value("path"), &folder))
            return;
        QJsonObject answer = feed(call, spaceOf(call, call.value("path_type")), folder, call.value("cursor"));
        for (const char* key : { "syncCid", "syncUid", "pullJid", "deltaDataId", "syncType" })
            answer.insert(key, call.value(key));
        call.json(answer);
    });
    router.add("POST", "/v2/syncdata/(virtualBox|assignVirtualBox)", PrivateSixType, Access::Session, [this](HttpCall& call) {
        QString folder;
        if (!normalised(call, call.value("path"), &folder))
            return;
        const qint64 after = call.value("deltaDataId").toLongLong();
        QJsonObject answer = feed(call, spaceOf(call, call.value("path_type")), folder, after > 0 ? encodeCursor(after) : QString());
        answer.insert("deltaDataId", QString::number(decodeCursor(answer.value("cursor").toString()).value_or(0)));
        for (const char* key : { "syncUid", "syncCid", "pullJid", "assign_Jid" })
            answer.insert(key, call.value(key));
        call.json(answer);
    });
    router.add("GET", "/v2/syncdata/returnAssignJid", PrivateSixType, Access::Session, [this](HttpCall& call) {
        QString path;
        if (!normalised(call, call.value("path"), &path))
            return;
        const std::optional<Entry> entry = m_context.drive.find(spaceOf(call, call.value("path_type")), path);
        if (!entry)
            return call.error(404, QStringLiteral("file/folder not found"));
        call.json(QJsonObject { { "assign_Jid", QString::number(entry->neid) }, { "path", entry->path } });
    });

    // --- The operation log. ----------------------------------------------------------------------
    router.add("POST", "/v2/log/logging", EveryType, Access::Session, [this](HttpCall& call) {
        QJsonObject record;
        for (const char* key : { "category", "action", "entityStr1", "entityStr2", "pathType", "op_type", "neid", "nsid" })
            record.insert(key, call.value(key));
        m_context.db.run(true, [&] {
            Database::Statement st(m_context.db, "INSERT INTO oplog(user_id, record, time) VALUES(?, ?, ?)");
            return st.bind(1, call.userId)
                .bind(2, QString::fromUtf8(QJsonDocument(record).toJson(QJsonDocument::Compact)))
                .bind(3, QDateTime::currentSecsSinceEpoch())
                .exec();
        });
        call.json(QJsonObject { { "logged", true } });
    });
}
