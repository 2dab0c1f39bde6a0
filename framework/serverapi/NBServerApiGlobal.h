// Symbol export of the shared library: only the facade is visible to hosts.
#pragma once

#if defined(NBSERVERAPI_BUILD)
#define NBSERVERAPI_EXPORT __attribute__((visibility("default")))
#else
#define NBSERVERAPI_EXPORT
#endif
