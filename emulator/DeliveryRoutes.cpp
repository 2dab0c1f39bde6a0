#include "DeliveryRoutes.h"

#include "DriveRoutes.h"

#include <httplib.h>

namespace {

// The outside user's path without its first folder, the link's own root.
QString withoutRoot(const QString& path)
{
    QStringList pieces = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (!pieces.isEmpty())
        pieces.removeFirst();
    return QLatin1Char('/') + pieces.join(QLatin1Char('/'));
}

} // namespace

DeliveryRoutes::DeliveryRoutes(EmuContext& context, TransferRoutes& transfers)
    : m_context(context)
    , m_transfers(transfers)
{
}

bool DeliveryRoutes::createLink(EmuContext& context, const QString& code, const QString& password, qint64 owner,
    const QString& space, const QString& folder, QString* error)
{
    QString path;
    if (code.isEmpty() || code.contains(QLatin1Char('/')) || !Drive::normalise(folder, &path)) {
        *error = QStringLiteral("a link needs a code without \"/\" and a valid folder");
        return false;
    }
    const Outcome created = context.drive.createFolder(space, path, owner, false);
    if (!created.ok()) {
        *error = created.code;
        return false;
    }
    return context.db.run(true, [&] {
        Database::Statement st(
            context.db, "INSERT OR REPLACE INTO links(code, password, space, path, user_id, token) VALUES(?, ?, ?, ?, ?, ?)");
        return st.bind(1, code).bind(2, password).bind(3, space).bind(4, path).bind(5, owner).bind(6, Accounts::randomHex(16)).exec();
    });
}

QJsonArray DeliveryRoutes::links(EmuContext& context)
{
    QJsonArray all;
    context.db.run(false, [&] {
        Database::Statement st(context.db, "SELECT code, space, path, user_id, password <> '' FROM links ORDER BY code");
        while (st.next())
            all.append(QJsonObject { { "code", st.text(0) }, { "path_type", Drive::pathTypeOf(st.text(1)) },
                { "path", st.text(2) }, { "owner", st.integer(3) }, { "password", st.integer(4) != 0 } });
        return true;
    });
    return all;
}

std::optional<Link> DeliveryRoutes::link(HttpCall& call, bool session)
{
    std::optional<Link> found;
    m_context.db.run(false, [&] {
        Database::Statement st(m_context.db, "SELECT code, password, space, path, user_id, token FROM links WHERE code = ?");
        if (st.bind(1, call.captures.value(0)).next())
            found = Link { st.text(0), st.text(1), st.text(2), st.text(3), st.integer(4), st.text(5) };
        return true;
    });
    if (!found) {
        call.error(404, QStringLiteral("source not found"), QStringLiteral("no shared link with this code"));
        return std::nullopt;
    }
    if (session) {
        const std::optional<Session> own = m_context.accounts.session(call.cookie("X-NIMBRA-SESS-ID"));
        if (!own || own->link != found->code) {
            call.error(401, QStringLiteral("Invalid session"), QStringLiteral("authorise the link first"));
            return std::nullopt;
        }
        if (call.has("token") && call.value("token") != found->token) {
            call.error(401, QStringLiteral("token is not exist"));
            return std::nullopt;
        }
    }
    call.userId = found->owner;
    return found;
}

bool DeliveryRoutes::inside(HttpCall& call, const Link& link, const QString& relative, QString* path)
{
    return DriveRoutes::normalised(call, link.folder + QLatin1Char('/') + relative, path);
}

void DeliveryRoutes::install(Router& router)
{
    const QString code = QStringLiteral("/([^/]+)");
    router.add("POST", "/v2/delivery/auth" + code, EveryType, Access::Link, [this](HttpCall& call) {
        const std::optional<Link> found = link(call, false);
        if (!found)
            return;
        if (!found->password.isEmpty() && call.value("password") != found->password)
            return call.error(403, QStringLiteral("forbidden"), QStringLiteral("wrong password"));
        const QString session = m_context.accounts.openSession(found->owner, found->code);
        call.response().set_header("Set-Cookie", QStringLiteral("X-NIMBRA-SESS-ID=%1; Path=/").arg(session).toStdString());
        call.json(QJsonObject { { "token", found->token }, { "session", session }, { "X-NIMBRA-SESS-ID", session },
            { "root", found->folder.mid(found->folder.lastIndexOf(QLatin1Char('/')) + 1) } });
    });
    router.add("GET", "/v2/delivery/auth_upload" + code, EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        if (found && inside(call, *found, withoutRoot(call.value("path")), &path))
            call.json(m_transfers.uploadAuthorisation(path));
    });
    router.addStream("POST", "/v2/delivery/data" + code, EveryType, Access::Link,
        [this](HttpCall& call, const httplib::ContentReader& reader) {
            QString path;
            const std::optional<Link> found = link(call, true);
            if (!found || !inside(call, *found, withoutRoot(call.value("path")), &path))
                return;
            QList<ChunkRef> chunks;
            if (!m_transfers.receive(call, reader, &chunks))
                return;
            const bool overwrite = call.value("overwrite") == QLatin1String("1") || call.value("overwrite") == QLatin1String("true");
            const Outcome outcome = m_context.drive.commit(found->space, path, chunks, call.userId, overwrite);
            if (!outcome.ok())
                return call.error(outcome.status, outcome.code, outcome.message);
            call.json(outcome.entry.json());
        });
    router.add("GET", "/v2/delivery/dl_router" + code + "(/.*)?", EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        if (!found || !inside(call, *found, call.captures.value(1), &path))
            return;
        const std::optional<Entry> entry = m_context.drive.find(found->space, path);
        if (!entry)
            return call.error(404, QStringLiteral("file/folder not found"));
        m_transfers.serve(call, *entry);
    });
    router.add("GET", "/v2/delivery/metadata" + code + "(/.*)?", EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        if (!found || !inside(call, *found, call.captures.value(1), &path))
            return;
        if (!found->password.isEmpty() && call.value("password") != found->password)
            return call.error(403, QStringLiteral("forbidden"), QStringLiteral("wrong password"));
        const std::optional<Entry> entry = m_context.drive.find(found->space, path);
        if (!entry)
            return call.error(404, QStringLiteral("file/folder not found"));
        QJsonObject object = entry->json();
        if (entry->dir) {
            int total = 0;
            QJsonArray content;
            for (const Entry& child : m_context.drive.list(found->space, path, call.value("orderby"), call.value("sort"),
                     call.value("limit").toInt(), call.value("offset").toInt(), &total))
                content.append(child.json());
            object.insert("content", content);
            object.insert("total", total);
        }
        call.json(object);
    });
    router.add("POST", "/v2/delivery/upload_folder" + code + "(/.*)?", EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        if (!found || !inside(call, *found, call.value("relativePath"), &path))
            return;
        const Outcome outcome = m_context.drive.createFolder(found->space, path, call.userId);
        if (!outcome.ok())
            return call.error(outcome.status, outcome.code, outcome.message);
        call.json(outcome.entry.json());
    });
    router.add("POST", "/v2/delivery/commit_chunked" + code + "(/.*)?", EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        if (!found)
            return;
        if (!call.has("is_file_commit"))
            return m_transfers.queryHashes(call);
        if (!inside(call, *found, call.value("relative_path"), &path))
            return;
        // The commit names the file's size in its last "bytes".
        const QStringList sizes = call.values("bytes");
        m_transfers.commit(call, found->space, path, call.values("hashes[]"), sizes.isEmpty() ? 0 : sizes.last().toLongLong(),
            call.value("overwrite") == QLatin1String("true"));
    });
    router.addStream("POST", "/v2/delivery/chunked_upload/", EveryType, Access::Open,
        [this](HttpCall& call, const httplib::ContentReader& reader) { m_transfers.storeChunk(call, reader); });
}
