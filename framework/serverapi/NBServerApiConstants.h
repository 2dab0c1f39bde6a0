// Names a host may need beside the interface: the path types entries carry, the
// session cookie's name, the client's user agent and the data folder's name.
#pragma once

#include <QString>

// The space an entry lives in, sent as "path_type".
namespace NBPathType {
inline const QString Ent = QStringLiteral("ent");
inline const QString Self = QStringLiteral("self");
inline const QString ShareIn = QStringLiteral("share_in");
inline const QString ShareOut = QStringLiteral("share_out");
inline const QString BookMark = QStringLiteral("book_mark");
inline const QString Trans = QStringLiteral("trans");
inline const QString Recycle = QStringLiteral("recycle");
} // namespace NBPathType

namespace NBConstants {
// The cookie (and, for the jump page, parameter) that carries the session.
inline const QString COOKIE_SESSION = QStringLiteral("X-NIMBRA-SESS-ID");
// The desktop client's user agent; the library never applies it by itself.
inline const QString SZ_USER_AGENT = QStringLiteral("NBClientMac");
} // namespace NBConstants

namespace NBUtil {
// The folder beside the application's data folder that holds "Log"; the library
// writes its log there but does not use this name otherwise.
inline const QString sBoxAppDataPath = QStringLiteral("NimbraData");
} // namespace NBUtil
