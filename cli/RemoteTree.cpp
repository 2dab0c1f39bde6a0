#include "RemoteTree.h"

#include <NBBaseParse.h>
#include <QJsonArray>

namespace {

constexpr int PageSize = 1000;

} // namespace

RemoteEntry RemoteEntry::fromJson(const QJsonObject& object)
{
    RemoteEntry entry;
    entry.name = object.value("name").toString();
    entry.dir = object.value("is_dir").toBool();
    entry.bytes = qint64(object.value("bytes").toDouble());
    entry.rev = object.value("rev").toVariant().toString();
    entry.hash = object.value("hash").toString();
    entry.modified = qint64(object.value("modified").toDouble());
    entry.locked = object.value("locked").toBool();
    entry.lockOwner = object.value("lock_owner").toString();
    entry.lockExpires = qint64(object.value("lock_expires").toDouble());
    entry.json = object;
    return entry;
}

QJsonObject RemoteEntry::report(const QString& path) const
{
    QJsonObject object { { "path", path },
        { "name", name.isEmpty() ? path.mid(path.lastIndexOf(QLatin1Char('/')) + 1) : name },
        { "type", dir ? "folder" : "file" }, { "bytes", bytes }, { "rev", rev }, { "modified", modified },
        { "hash", hash }, { "locked", locked } };
    if (!lockOwner.isEmpty()) {
        object.insert("lock_owner", lockOwner);
        object.insert("lock_expires", lockExpires);
    }
    if (json.contains("neid"))
        object.insert("neid", json.value("neid").toVariant().toString());
    return object;
}

RemoteEntry RemoteTree::entry(const QString& path)
{
    const QString what = QStringLiteral("stat %1").arg(describe(path));
    return checked(what, m_runner.call(what, stat(path)).json);
}

RemoteEntry RemoteTree::revision(const QString& path, const QString& rev)
{
    RemoteEntry file = entry(path);
    if (file.dir)
        throw Failure(
            Exit::Usage, QStringLiteral("%1 is a folder: revisions are kept for files").arg(describe(path)));
    const QString what = QStringLiteral("list the revisions of %1").arg(describe(path));
    for (const QJsonValue& value : m_runner.call(what, revisions(path)).json.value("revisions").toArray()) {
        const QJsonObject revision = value.toObject();
        if (revision.value("rev").toVariant().toString() != rev)
            continue;
        file.rev = rev;
        file.bytes = qint64(revision.value("bytes").toDouble());
        file.hash = revision.value("hash").toString();
        file.modified = qint64(revision.value("modified").toDouble());
        return file;
    }
    throw Failure(Exit::Refused,
        QStringLiteral("%1 has no revision %2 (nbcli revisions %1 lists them)").arg(describe(path), rev),
        QStringLiteral("file/folder not found"));
}

RemoteEntry RemoteTree::checked(const QString& what, const QJsonObject& object, bool named)
{
    // An entry says what it is; and a name that would lead out of a folder is no name.
    const QString name = object.value("name").toString();
    if (!object.value("is_dir").isBool()
        || (!object.value("is_dir").toBool() && !object.value("bytes").isDouble()))
        throw Failure(Exit::Network,
            QStringLiteral("%1: the server's entry says neither its type nor its size").arg(what),
            QStringLiteral("damaged"));
    if (!isName(name) && (named || !name.isEmpty()))
        throw Failure(Exit::Network,
            QStringLiteral("%1: the server named an entry \"%2\", which is no file name").arg(what, name),
            QStringLiteral("damaged"));
    return RemoteEntry::fromJson(object);
}

bool RemoteTree::isName(const QString& name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..")
        && !name.contains(QLatin1Char('/')) && !name.contains(QChar(0));
}

std::optional<RemoteEntry> RemoteTree::find(const QString& path)
{
    const QString what = QStringLiteral("stat %1").arg(describe(path));
    const Reply reply = m_runner.fetch(what, stat(path));
    if (reply.ok() && !reply.wholeJson)
        throw RequestRunner::damagedReply(what, reply);
    if (reply.ok())
        return checked(what, reply.json);
    CNBParseProcessor reading;
    reading.ParseResp(reply.data);
    if (reply.data.statusCode == 404 || reading.errorCode() == CNBParseProcessor::SourceNotFound)
        return std::nullopt;
    throw RequestRunner::failureOf(what, reply);
}

QList<RemoteEntry> RemoteTree::list(const QString& folder)
{
    QList<RemoteEntry> entries;
    for (int offset = 0;;) {
        const QJsonObject page
            = m_runner
                  .call(QStringLiteral("list %1").arg(describe(folder)), listPage(folder, offset, PageSize))
                  .json;
        const QJsonArray content = page.value("content").toArray();
        for (const QJsonValue& value : content)
            entries.append(checked(QStringLiteral("list %1").arg(describe(folder)), value.toObject(), true));
        offset += content.size();
        if (content.isEmpty() || offset >= page.value("total").toInt())
            return entries;
    }
}

RemoteTree::Upload RemoteTree::authorised(const QString& path, qint64 bytes, const QString& fallbackServer)
{
    const QJsonObject reply
        = m_runner
              .call(QStringLiteral("authorise the upload of %1").arg(describe(path)), authorise(path, bytes))
              .json;
    Upload upload { reply.value("upload_server").toString(), reply.value("upload_id").toString(),
        qint64(reply.value("chunk_size").toDouble()) };
    if (upload.server.isEmpty())
        upload.server = fallbackServer;
    return upload;
}

void RemoteTree::ensureFolder(const QString& path)
{
    const QString what = QStringLiteral("create folder %1").arg(describe(path));
    const Reply reply = m_runner.fetch(what, makeFolder(path));
    if (reply.ok())
        return;
    CNBParseProcessor reading;
    reading.ParseResp(reply.data);
    if (reading.errorCode() != CNBParseProcessor::TargetExists)
        throw RequestRunner::failureOf(what, reply);
}
