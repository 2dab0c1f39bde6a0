// One server operation's request, written as its table reads: the address, then
// the steps in the order the operation fixes them, then the send.
//
//     return request(combinPath(m_lockUrl, m.path))
//         .with(entryParams, m)
//         .number("time", m.time)
//         .withDefaults()
//         .send(std::move(done));
#pragma once

#include "NBHttpMethod.h"
#include "ResponseData.h"

#include <QMap>
#include <QPair>
#include <QString>
#include <initializer_list>
#include <memory>

class NBHttpClient;
class NBServerApi;
class QJsonDocument;
class QUrlQuery;

class NBRequestBuilder
{
public:
    enum Redirects { FollowRedirects, NoRedirects };
    // How the bytes of a JSON document become the text of its parameter.
    enum JsonText { Utf8, Latin1 };

    // Creates the client for the address and registers it; the identifier is final.
    NBRequestBuilder(NBServerApi& api, const QString& address);
    NBRequestBuilder(NBRequestBuilder&& other) noexcept;
    ~NBRequestBuilder();

    NBRequestBuilder& method(NBHttpMethod method);
    // The endpoint's default headers, then its verification code.
    NBRequestBuilder& withDefaults();
    NBRequestBuilder& defaultHeaders();
    NBRequestBuilder& verifyCode();
    // A session of the operation's own, added to the cookie.
    NBRequestBuilder& session(const QString& session);
    NBRequestBuilder& header(const QString& key, const QString& value);
    // "Cookie" = the endpoint's cookie followed at once by the text.
    NBRequestBuilder& cookieFollowedBy(const QString& text);
    // Both range headers, with the same value, when it is set.
    NBRequestBuilder& rangeIfSet(const QString& range);

    // Parameters: request parameters, or after inQuery() items of the address's query.
    NBRequestBuilder& param(const QString& key, const QString& value);
    NBRequestBuilder& paramIfSet(const QString& key, const QString& value);
    // Each pair whose value is set, in the order listed.
    NBRequestBuilder& paramsIfSet(std::initializer_list<QPair<QString, QString>> pairs);
    // Every pair, empty or not, when the condition holds; none otherwise.
    NBRequestBuilder& paramsWhen(bool condition, std::initializer_list<QPair<QString, QString>> pairs);
    // An empty value goes out as "0".
    NBRequestBuilder& paramOrZero(const QString& key, const QString& value);
    // One pair per value, the key repeated, in list order.
    NBRequestBuilder& each(const QString& key, const QList<QString>& values);
    NBRequestBuilder& flag(const QString& key, bool value);
    NBRequestBuilder& number(const QString& key, qint64 value);
    // Every entry, in key order.
    NBRequestBuilder& params(const QMap<QString, QString>& params);
    // The document as Qt's indented JSON text, in the parameter "json".
    NBRequestBuilder& json(const QJsonDocument& document, JsonText text = Utf8);
    // A group of parameters that several operations share (NBRequestParams.h).
    template<typename Group, typename Model> NBRequestBuilder& with(const Group& group, const Model& model)
    {
        group(*this, model);
        return *this;
    }
    // From here on, parameters go into the address's query: the body carries content.
    NBRequestBuilder& inQuery();
    // "S" = the endpoint's verification code, when it is set, as an ordinary parameter
    // (forms that build their own query rather than take the default step).
    NBRequestBuilder& verifyCodeParam();
    // "language" = the host configuration's language (attribute 59).
    NBRequestBuilder& languageParam();
    // Appends "&" and the text to the address as it is, when the text is set.
    NBRequestBuilder& extraQuery(const QString& extra);
    // The reply's body is read and dropped: the record carries its status and headers.
    NBRequestBuilder& bodyDropped();

    long long id() const { return m_handle.id(); }
    NBHttpClient* client() const { return m_handle.client(); }

    // Each send returns the identifier; the completion runs once (twice after an
    // inactivity time-out), then the handle is released.
    long long send(NBCompletionCallback done, Redirects redirects = FollowRedirects);
    long long download(
        NBDataCallback onData, NBDownloadProgressCallback onProgress, NBCompletionCallback done);
    long long downloadTo(
        const QString& filePath, NBDownloadProgressCallback onProgress, NBCompletionCallback done);
    long long downloadUsePost(
        NBDataCallback onData, NBDownloadProgressCallback onProgress, NBCompletionCallback done);
    long long upload(const QString& filePath, NBUploadProgressCallback onProgress, NBCompletionCallback done);
    long long upload(const QByteArray& data, NBUploadProgressCallback onProgress, NBCompletionCallback done);

private:
    NBRequestBuilder(const NBRequestBuilder&) = delete;
    NBRequestBuilder& operator=(const NBRequestBuilder&) = delete;
    // Marks the request sent and wraps the caller's callback in the reply handler.
    NBCompletionCallback handler(NBCompletionCallback done);
    void addQueryItem(const QString& key, const QString& value);

    // The registered client: released with the builder unless the request was sent, in
    // which case its completion releases it.
    class Handle
    {
    public:
        Handle(NBServerApi& api, const QString& address);
        Handle(Handle&& other) noexcept;
        Handle& operator=(Handle&&) = delete;
        ~Handle();
        NBHttpClient* client() const { return m_client; }
        long long id() const { return m_id; }
        void handOver() { m_owned = false; }

    private:
        NBHttpClient* m_client;
        long long m_id;
        bool m_owned = true;
    };

    NBServerApi* m_api;
    Handle m_handle;
    bool m_inQuery = false;
    // The address's query while parameters go there, kept whole between additions.
    std::unique_ptr<QUrlQuery> m_query;
};
