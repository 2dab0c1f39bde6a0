#include "Router.h"

void Router::add(const QString& method, const QString& pattern, int types, Access access,
    std::function<void(HttpCall&)> handler)
{
    added(method, pattern, types, access).handler = std::move(handler);
}

void Router::addStream(const QString& method, const QString& pattern, int types, Access access,
    std::function<void(HttpCall&)> handler)
{
    Route& route = added(method, pattern, types, access);
    route.handler = std::move(handler);
    route.streams = true;
}

Route& Router::added(const QString& method, const QString& pattern, int types, Access access)
{
    Route route;
    route.method = method;
    // A name may hold a line break: "." matches every character.
    route.pattern = QRegularExpression(
        QLatin1Char('^') + pattern + QLatin1Char('$'), QRegularExpression::DotMatchesEverythingOption);
    route.types = types;
    route.access = access;
    m_routes.append(route);
    return m_routes.last();
}

const Route* Router::match(const QString& method, const QString& path, QStringList* captures) const
{
    for (const Route& route : m_routes) {
        if (route.method != method)
            continue;
        const QRegularExpressionMatch found = route.pattern.match(path);
        if (!found.hasMatch())
            continue;
        *captures = found.capturedTexts().mid(1);
        return &route;
    }
    return nullptr;
}
