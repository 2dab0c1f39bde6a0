// One server operation's request, written as its table reads: the address, then
// the steps in the order the operation fixes them, then the send.
//
//     return request(m_lockUrl)
//         .method(POST)
//         .withDefaults()
//         .param("path", m.path)
//         .paramIfSet("neid", m.neid)
//         .send(std::move(done));
#pragma once

#include "NBHttpMethod.h"
#include "ResponseData.h"

#include <QMap>
#include <QString>

class NBHttpClient;
class NBServerApi;

class NBRequestBuilder
{
public:
    // Creates the client for the address and registers it; the identifier is final.
    NBRequestBuilder(NBServerApi& api, const QString& address);
    NBRequestBuilder(NBRequestBuilder&& other) noexcept;
    // A builder that never sent its request releases the handle.
    ~NBRequestBuilder();

    NBRequestBuilder& method(NBHttpMethod method);
    // The endpoint's default headers, then its verification code.
    NBRequestBuilder& withDefaults();
    NBRequestBuilder& defaultHeaders();
    NBRequestBuilder& verifyCode();
    // A session of the operation's own, added to the cookie.
    NBRequestBuilder& session(const QString& session);

    NBRequestBuilder& param(const QString& key, const QString& value);
    NBRequestBuilder& paramIfSet(const QString& key, const QString& value);
    NBRequestBuilder& flag(const QString& key, bool value);
    NBRequestBuilder& number(const QString& key, qint64 value);
    // Every entry, in key order.
    NBRequestBuilder& params(const QMap<QString, QString>& params);
    NBRequestBuilder& header(const QString& key, const QString& value);

    long long id() const { return m_id; }
    NBHttpClient* client() const { return m_client; }

    // Sends with redirects followed; the callback runs once, then the handle is released.
    long long send(NBCompletionCallback done);
    long long sendWithoutRedirects(NBCompletionCallback done);

private:
    NBRequestBuilder(const NBRequestBuilder&) = delete;
    NBRequestBuilder& operator=(const NBRequestBuilder&) = delete;
    long long sent();

    NBServerApi* m_api;
    NBHttpClient* m_client;
    long long m_id;
    bool m_sent = false;
};
