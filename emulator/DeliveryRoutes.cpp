#include "DeliveryRoutes.h"

#include "Routes.h"
#include "Wire.h"

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

std::optional<Link> DeliveryRoutes::link(HttpCall& call, bool session)
{
    const std::optional<Link> found = m_context.links.find(call.captures.value(0));
    if (!found) {
        call.error(404, QStringLiteral("source not found"), QStringLiteral("no shared link with this code"));
        return std::nullopt;
    }
    if (session) {
        const std::optional<Session> own = m_context.accounts.session(call.cookie(Wire::SessionCookie));
        if (!own || own->link != found->code) {
            call.error(401, QStringLiteral("Invalid session"), QStringLiteral("authorise the link first"));
            return std::nullopt;
        }
        if (call.has(Wire::Token) && call.value(Wire::Token) != found->token) {
            call.error(401, QStringLiteral("token is not exist"));
            return std::nullopt;
        }
    }
    call.userId = found->owner;
    return found;
}

bool DeliveryRoutes::passwordOpens(HttpCall& call, const Link& link)
{
    if (link.password.isEmpty())
        return true;
    const auto tooSoon = [&call](qint64 ms) {
        call.setHeader("Retry-After", QString::number((ms + 999) / 1000));
        call.error(429, QStringLiteral("too many requests"),
            QStringLiteral("a wrong password pauses the link for %1 ms").arg(Links::GuessPauseMs));
        return false;
    };
    // No password is no guess: it pauses nothing.
    if (call.value(Wire::Password).isEmpty()) {
        call.error(403, QStringLiteral("forbidden"), QStringLiteral("the link needs a password"));
        return false;
    }
    if (const qint64 wait = m_context.links.pausedFor(link.code))
        return tooSoon(wait);
    if (call.value(Wire::Password) == link.password)
        return true;
    if (!m_context.links.wrongGuess(link.code))
        return tooSoon(Links::GuessPauseMs);
    call.error(403, QStringLiteral("forbidden"), QStringLiteral("wrong password"));
    return false;
}

bool DeliveryRoutes::inside(HttpCall& call, const Link& link, QString* path)
{
    QString relative = call.captures.value(1);
    for (const QString& key : { Wire::RelativePath, Wire::RelativePathAlias }) {
        if (call.has(key)) {
            relative = call.value(key);
            break;
        }
    }
    if (relative.isEmpty() && call.has(Wire::Path))
        relative = withoutRoot(call.value(Wire::Path));
    return Routes::normalised(call, link.folder + QLatin1Char('/') + relative, path);
}

void DeliveryRoutes::install(Router& router)
{
    const QString code = QStringLiteral("/([^/]+)");
    const QString tail = QStringLiteral("(/.*)?");
    router.add("POST", "/v2/delivery/auth" + code, EveryType, Access::Link, [this](HttpCall& call) {
        const std::optional<Link> found = link(call, false);
        if (!found || !passwordOpens(call, *found))
            return;
        const QString session = m_context.accounts.openSession(found->owner, found->code);
        call.setHeader("Set-Cookie", QStringLiteral("%1=%2; Path=/").arg(Wire::SessionCookie, session));
        call.json(QJsonObject { { "token", found->token }, { "session", session },
            { Wire::SessionCookie, session }, { "root", found->root() } });
    });
    router.add("GET", "/v2/delivery/auth_upload" + code, EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        if (found && inside(call, *found, &path))
            m_transfers.authorise(call, found->space, path);
    });
    router.addStream("POST", "/v2/delivery/data" + code, EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        const QString overwrite = call.value(Wire::Overwrite);
        if (found && inside(call, *found, &path))
            m_transfers.upload(call, found->space, path,
                overwrite == QLatin1String("1") || overwrite == QLatin1String("true"));
    });
    router.add(
        "GET", "/v2/delivery/dl_router" + code + tail, EveryType, Access::Link, [this](HttpCall& call) {
            QString path;
            const std::optional<Link> found = link(call, true);
            if (!found || !inside(call, *found, &path))
                return;
            const std::optional<Entry> entry = m_context.drive.find(found->space, path);
            if (!entry)
                return Routes::notFound(call);
            m_transfers.serve(call, *entry);
        });
    router.add("GET", "/v2/delivery/metadata" + code + tail, EveryType, Access::Link, [this](HttpCall& call) {
        QString path;
        const std::optional<Link> found = link(call, true);
        if (!found || !inside(call, *found, &path) || !passwordOpens(call, *found))
            return;
        const std::optional<Entry> entry = m_context.drive.find(found->space, path);
        if (!entry)
            return Routes::notFound(call);
        QJsonObject object = entry->json();
        if (entry->dir) {
            int total = 0;
            QJsonArray content;
            for (const Entry& child :
                m_context.drive.list(found->space, path, call.value(Wire::OrderBy), call.value(Wire::Sort),
                    call.value(Wire::Limit).toInt(), call.value(Wire::Offset).toInt(), &total))
                content.append(child.json());
            object.insert("content", content);
            object.insert("total", total);
        }
        call.json(object);
    });
    router.add(
        "POST", "/v2/delivery/upload_folder" + code + tail, EveryType, Access::Link, [this](HttpCall& call) {
            QString path;
            const std::optional<Link> found = link(call, true);
            if (found && inside(call, *found, &path))
                Routes::reply(call, m_context.drive.createFolder(found->space, path, call.userId));
        });
    router.add(
        "POST", "/v2/delivery/commit_chunked" + code + tail, EveryType, Access::Link, [this](HttpCall& call) {
            QString path;
            const std::optional<Link> found = link(call, true);
            if (!found)
                return;
            if (!call.has(Wire::IsFileCommit))
                return m_transfers.queryHashes(call);
            if (!inside(call, *found, &path))
                return;
            // The commit names the file's size in its last "bytes".
            const QStringList sizes = call.values(Wire::Bytes);
            m_transfers.commit(call, found->space, path, call.values(Wire::Hashes),
                sizes.isEmpty() ? 0 : sizes.last().toLongLong(),
                call.value(Wire::Overwrite) == QLatin1String("true"));
        });
    // Chunks travel without the link's session, named by their hash.
    router.addStream("POST", "/v2/delivery/chunked_upload/", EveryType, Access::Open,
        [this](HttpCall& call) { m_transfers.storeChunk(call); });
}
