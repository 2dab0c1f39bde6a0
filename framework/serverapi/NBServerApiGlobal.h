/// \file
/// Symbol export of the shared library: only ServerApi and the reply parser
/// (CNBParseProcessor, NBBaseParse) are visible to hosts.
#pragma once

#if defined(NBSERVERAPI_BUILD)
#define NBSERVERAPI_EXPORT __attribute__((visibility("default")))
#else
/// Marks a class the shared library exports: default visibility while the library
/// builds (NBSERVERAPI_BUILD defined), nothing for a host.
/// \ingroup constants
#define NBSERVERAPI_EXPORT
#endif
