// Shared links (deliveries): a folder of a user published under a code, with an
// optional password. The authorisation opens a link session and gives the link's
// token; the other routes act in the folder as its owner, checking the session and
// the token. Paths: the query's "path" is as the outside user sees it, beginning with
// the shared folder's own name (dropped here); "relativePath", "relative_path" and the
// address's tail are inside the shared folder.
#pragma once

#include "EmuContext.h"
#include "Router.h"
#include "TransferRoutes.h"

struct Link
{
    QString code;
    QString password;
    QString space;
    QString folder;
    qint64 owner = 0;
    QString token;
};

class DeliveryRoutes
{
public:
    DeliveryRoutes(EmuContext& context, TransferRoutes& transfers);
    void install(Router& router);

    // Creates (or replaces) a link to the folder, which is created if missing.
    static bool createLink(EmuContext& context, const QString& code, const QString& password, qint64 owner,
        const QString& space, const QString& folder, QString* error);
    static QJsonArray links(EmuContext& context);

private:
    // The link of the address's code, checked: with `session`, the caller's link session
    // and token. Sets the call's user to the link's owner. Null after an error reply.
    std::optional<Link> link(HttpCall& call, bool session);
    // The folder's path joined with a path inside it, or false after a 400 reply.
    bool inside(HttpCall& call, const Link& link, const QString& relative, QString* path);

    EmuContext& m_context;
    TransferRoutes& m_transfers;
};
