#include "NBPriSixServerApi.h"

NBPriSixServerApi::NBPriSixServerApi() = default;

NBPriSixServerApi::~NBPriSixServerApi() = default;
