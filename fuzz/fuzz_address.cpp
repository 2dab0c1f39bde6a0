// Address composition over arbitrary texts: combineReqUrl(base, version, path),
// combinPath(a, b) and deliveryRootPathHandle(path).
//
// Input: three texts separated by zero bytes (base, version, path), as UTF-8.
#include "NBPubServerApi.h"

#include <QUrl>
#include <cstdint>
#include <cstdlib>

namespace {

void check(bool holds)
{
    if (!holds)
        std::abort();
}

bool printableAscii(const QString& text)
{
    for (QChar c : text) {
        if (c.unicode() <= 0x20 || c.unicode() >= 0x7f)
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static NBPubServerApi* api = new NBPubServerApi;
    const QList<QByteArray> parts = QByteArray(reinterpret_cast<const char*>(data), int(size)).split('\0');
    const QString base = QString::fromUtf8(parts.value(0));
    const QString version = QString::fromUtf8(parts.value(1));
    const QString path = QString::fromUtf8(parts.value(2));

    // Fully encoded, on a scheme that begins with "http" (one that does not becomes
    // "http"), or empty when no valid address can be made of the texts.
    const QString address = api->combineReqUrl(base, version, path);
    if (!address.isEmpty()) {
        const QUrl url(address, QUrl::StrictMode);
        check(url.isValid());
        check(url.scheme().startsWith(QLatin1String("http")));
        check(printableAscii(address));
    }

    const QString joined = api->combinPath(version, path);
    check(path.isEmpty() ? joined == version
                         : joined == version + path || joined == version + QLatin1Char('/') + path);

    const QString handled = api->deliveryRootPathHandle(path);
    check(handled.startsWith(QLatin1Char('/')));
    check(!handled.contains(QLatin1String("//")));
    QStringList pieces = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (!pieces.isEmpty())
        pieces.removeFirst();
    check(handled == QLatin1Char('/') + pieces.join(QLatin1Char('/')));
    return 0;
}
