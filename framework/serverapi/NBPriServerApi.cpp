#include "NBPriServerApi.h"

NBPriServerApi::NBPriServerApi() = default;

NBPriServerApi::~NBPriServerApi() = default;
