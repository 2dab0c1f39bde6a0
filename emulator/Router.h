// The emulator's routes: a method, a pattern on the decoded path (its captures handed to
// the handler), the deployment types that serve it and who may call it.
#pragma once

#include "HttpCall.h"

#include <QRegularExpression>
#include <functional>

// The deployment types, numbered as ServerApi::init numbers them.
enum class Deployment { Private = 0, PublicCloud = 1, PrivateSix = 2 };

// A set of deployment types, as a route names those that serve it.
constexpr int served(Deployment type)
{
    return 1 << int(type);
}
constexpr int PublicCloudOnly = served(Deployment::PublicCloud);
constexpr int PrivateTypes = served(Deployment::Private) | served(Deployment::PrivateSix);
constexpr int PrivateSixOnly = served(Deployment::PrivateSix);
constexpr int EveryType = PrivateTypes | PublicCloudOnly;

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
    bool servedBy(Deployment type) const { return types & served(type); }
    // Whether the handler reads the body as it arrives (HttpCall::readBody), instead of
    // having it read whole before.
    bool streams = false;
};

class Router
{
public:
    void add(const QString& method, const QString& pattern, int types, Access access,
        std::function<void(HttpCall&)> handler);
    // A route that reads its body as it arrives.
    void addStream(const QString& method, const QString& pattern, int types, Access access,
        std::function<void(HttpCall&)> handler);
    // The route of this method and path, its captures decoded, or null.
    const Route* match(const QString& method, const QString& path, QStringList* captures) const;

private:
    // A new route without its handler.
    Route& added(const QString& method, const QString& pattern, int types, Access access);

    QList<Route> m_routes;
};
