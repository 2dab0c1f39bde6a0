// Utilities of the host platform that the library relies on.
#pragma once

#include <QNetworkProxy>
#include <QString>

#if defined(NBUTIL_BUILD)
#define NBUTIL_EXPORT __attribute__((visibility("default")))
#else
#define NBUTIL_EXPORT
#endif

namespace NBUtil {

// The proxy the system would use for `address`: on Linux the proxy environment
// variables (http_proxy, https_proxy, ftp_proxy, no_proxy). NoProxy when none applies.
NBUTIL_EXPORT QNetworkProxy getSystemProxy(const QString& address);

} // namespace NBUtil
