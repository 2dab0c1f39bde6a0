// The endpoint of a private deployment.
#pragma once

#include "NBServerApi.h"

class NBPriServerApi : public NBServerApi
{
public:
    NBPriServerApi();
    ~NBPriServerApi() override;
};
