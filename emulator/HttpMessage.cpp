#include "HttpMessage.h"

namespace {

bool sameName(const QByteArray& a, const QByteArray& b)
{
    return a.compare(b, Qt::CaseInsensitive) == 0;
}

} // namespace

QByteArray HttpRequest::header(const QByteArray& name) const
{
    for (const auto& header : headers) {
        if (sameName(header.first, name))
            return header.second;
    }
    return QByteArray();
}

QList<QByteArray> HttpRequest::headerValues(const QByteArray& name) const
{
    QList<QByteArray> values;
    for (const auto& header : headers) {
        if (sameName(header.first, name))
            values << header.second;
    }
    return values;
}

void HttpResponse::setHeader(const QByteArray& name, const QByteArray& value)
{
    for (auto& header : headers) {
        if (sameName(header.first, name)) {
            header.second = value;
            return;
        }
    }
    headers.append({ name, value });
}

QByteArray HttpResponse::header(const QByteArray& name) const
{
    for (const auto& header : headers) {
        if (sameName(header.first, name))
            return header.second;
    }
    return QByteArray();
}

void HttpResponse::removeHeader(const QByteArray& name)
{
    for (int i = headers.size() - 1; i >= 0; --i) {
        if (sameName(headers[i].first, name))
            headers.removeAt(i);
    }
}
