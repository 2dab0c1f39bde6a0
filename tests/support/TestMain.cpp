#include "TestMain.h"

#include <QDir>

TestEnvironment::TestEnvironment()
{
    const QString home = m_home.path();
    qputenv("HOME", home.toUtf8());
    qputenv("XDG_DATA_HOME", (home + QStringLiteral("/.local/share")).toUtf8());
    qputenv("XDG_CONFIG_HOME", (home + QStringLiteral("/.config")).toUtf8());
    qputenv("XDG_CACHE_HOME", (home + QStringLiteral("/.cache")).toUtf8());
    // One locale everywhere: the network layer's own Accept-Language header follows it.
    qputenv("LC_ALL", "C.UTF-8");
    for (const char* name : { "http_proxy", "https_proxy", "ftp_proxy", "all_proxy", "no_proxy", "HTTP_PROXY",
             "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY" })
        qunsetenv(name);
}
