// Shared links (deliveries): a folder of a user published under a code, with an
// optional password. The authorisation opens a link session and gives the link's
// token; the other routes act in the folder as its owner, checking the session and
// the token. A path inside the folder comes, whichever form the library sends for the
// route, from "relativePath" or "relative_path", else the address's tail, else the
// query's "path" as the outside user sees it (beginning with the folder's own name,
// dropped here).
#pragma once

#include "EmuContext.h"
#include "Router.h"
#include "TransferRoutes.h"

class DeliveryRoutes
{
public:
    DeliveryRoutes(EmuContext& context, TransferRoutes& transfers);
    void install(Router& router);

private:
    // The link of the address's code, checked: with `session`, the caller's link session
    // and token. Sets the call's user to the link's owner. None after an error reply.
    std::optional<Link> link(HttpCall& call, bool session);
    // Whether the request's "password" opens the link; otherwise the reply says why (403
    // for a wrong one, 429 while the link pauses after a wrong one).
    bool passwordOpens(HttpCall& call, const Link& link);
    // The path in the link's folder that the request names, or false after a 400 reply.
    bool inside(HttpCall& call, const Link& link, QString* path);

    EmuContext& m_context;
    TransferRoutes& m_transfers;
};
