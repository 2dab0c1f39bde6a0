#include "Router.h"

void Router::add(const QString& method, const QString& pattern, int types, Access access,
    std::function<void(HttpCall&)> handler)
{
    Route route;
    route.method = method;
    route.pattern = QRegularExpression(QLatin1Char('^') + pattern + QLatin1Char('$'));
    route.types = types;
    route.access = access;
    route.handler = std::move(handler);
    m_routes.append(route);
}

void Router::addStream(const QString& method, const QString& pattern, int types, Access access,
    std::function<void(HttpCall&, const httplib::ContentReader&)> handler)
{
    Route route;
    route.method = method;
    route.pattern = QRegularExpression(QLatin1Char('^') + pattern + QLatin1Char('$'));
    route.types = types;
    route.access = access;
    route.stream = std::move(handler);
    m_routes.append(route);
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
