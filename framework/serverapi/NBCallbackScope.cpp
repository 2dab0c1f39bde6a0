#include "NBCallbackScope.h"

namespace {
thread_local int depth = 0;
}

NBCallbackScope::NBCallbackScope()
{
    ++depth;
}

NBCallbackScope::~NBCallbackScope()
{
    --depth;
}

bool NBCallbackScope::inside()
{
    return depth > 0;
}
