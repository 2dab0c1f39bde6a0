#include "NBPubServerApi.h"

NBPubServerApi::NBPubServerApi() = default;

NBPubServerApi::~NBPubServerApi() = default;
