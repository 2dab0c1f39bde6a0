#include "TransferEndpoint.h"

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
    entry.json = object;
    return entry;
}

RemoteEntry TransferEndpoint::entry(const QString& path)
{
    return RemoteEntry::fromJson(
        m_remote.call(QStringLiteral("stat %1").arg(describe(path)), stat(path)).json);
}

QList<RemoteEntry> TransferEndpoint::list(const QString& folder)
{
    QList<RemoteEntry> entries;
    for (int offset = 0;;) {
        const QJsonObject page
            = m_remote
                  .call(QStringLiteral("list %1").arg(describe(folder)), listPage(folder, offset, PageSize))
                  .json;
        const QJsonArray content = page.value("content").toArray();
        for (const QJsonValue& value : content)
            entries.append(RemoteEntry::fromJson(value.toObject()));
        offset += content.size();
        if (content.isEmpty() || offset >= page.value("total").toInt())
            return entries;
    }
}

TransferEndpoint::Upload TransferEndpoint::authorised(
    const QString& path, qint64 bytes, const QString& fallbackServer)
{
    const QJsonObject reply
        = m_remote
              .call(QStringLiteral("authorise the upload of %1").arg(describe(path)), authorise(path, bytes))
              .json;
    Upload upload { reply.value("upload_server").toString(), reply.value("upload_id").toString() };
    if (upload.server.isEmpty())
        upload.server = fallbackServer;
    return upload;
}

void TransferEndpoint::ensureFolder(const QString& path)
{
    const QString what = QStringLiteral("create folder %1").arg(describe(path));
    const Reply reply = m_remote.fetch(what, makeFolder(path));
    if (reply.ok())
        return;
    CNBParseProcessor reading;
    reading.ParseResp(reply.data);
    if (reading.errorCode() != CNBParseProcessor::TargetExists)
        throw Remote::failureOf(what, reply);
}
