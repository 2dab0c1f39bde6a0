// The endpoint of the public cloud.
#pragma once

#include "NBServerApi.h"

class NBPubServerApi : public NBServerApi
{
public:
    NBPubServerApi();
    ~NBPubServerApi() override;
};
