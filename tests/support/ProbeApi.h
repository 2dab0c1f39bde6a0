// An endpoint with one operation of the common shape, for tests of the endpoint
// base: GET "/probe/<name>" with the defaults and two parameters.
#pragma once

#include "NBServerApi.h"

class ProbeApi : public NBServerApi
{
public:
    using NBServerApi::request;
    using NBServerApi::requestTo;

    long long createFile(const NBServerApiCreateFileModel&, NBCompletionCallback) override { return -1; }
    long long extra(QList<QString>, NBCompletionCallback) override { return -1; }

    long long probe(const QString& name, NBCompletionCallback done)
    {
        return request(combinPath(QStringLiteral("/probe"), name))
            .withDefaults()
            .param(QStringLiteral("name"), name)
            .paramIfSet(QStringLiteral("lang"), language())
            .send(std::move(done));
    }
};
