// Sign-in of each deployment type, the two-factor and verification flows of the public
// cloud, account information and the routes that answer fixed documents
// (configuration, regions, update resources, approval, functions, encryption rule,
// jump page, zip).
#pragma once

#include "EmuContext.h"
#include "Router.h"

class AccountRoutes
{
public:
    explicit AccountRoutes(EmuContext& context);
    void install(Router& router);

private:
    // The reply of a finished sign-in: the new session in the body and as a cookie.
    void signedIn(HttpCall& call, const User& user);
    void login(HttpCall& call, const QString& name, const QString& password, const QString& loginType);
    // The flow of the "X-NIMBRA-TFA-ID" cookie, or an error reply.
    std::optional<Flow> tfaFlow(HttpCall& call);

    EmuContext& m_context;
};
