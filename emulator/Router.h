// The emulator's routes: a method, a pattern on the decoded path (its captures handed to
// the handler), the deployment types that serve it and who may call it.
#pragma once

#include "HttpCall.h"

#include <QRegularExpression>
#include <functional>

namespace httplib {
class ContentReader;
}

enum Deployments { PrivateType = 1, PublicType = 2, PrivateSixType = 4, EveryType = 7 };

enum class Access {
    Open, // anyone
    Session, // a signed-in user's session (cookie "X-NIMBRA-SESS-ID")
    Link, // a shared link's session and token, or its authorisation
    Control, // the control interface, when enabled
};

struct Route
{
    QString method;
    QRegularExpression pattern;
    int types = EveryType;
    Access access = Access::Session;
    std::function<void(HttpCall&)> handler;
    // Routes that read their body as it arrives, instead of whole.
    std::function<void(HttpCall&, const httplib::ContentReader&)> stream;
};

class Router
{
public:
    void add(const QString& method, const QString& pattern, int types, Access access,
        std::function<void(HttpCall&)> handler);
    void addStream(const QString& method, const QString& pattern, int types, Access access,
        std::function<void(HttpCall&, const httplib::ContentReader&)> handler);
    // The route of this method and path, its captures decoded, or null.
    const Route* match(const QString& method, const QString& path, QStringList* captures) const;

private:
    // A new route without its handler.
    Route& added(const QString& method, const QString& pattern, int types, Access access);

    QList<Route> m_routes;
};
