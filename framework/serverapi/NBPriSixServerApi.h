// The endpoint of a private deployment of the 6.0 generation.
#pragma once

#include "NBPriServerApi.h"

class NBPriSixServerApi : public NBPriServerApi
{
public:
    NBPriSixServerApi();
    ~NBPriSixServerApi() override;
};
