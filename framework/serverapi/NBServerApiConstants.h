/// \file
/// Names a host may need beside the interface (\ref constants).
#pragma once

#include <QString>

/// \defgroup constants Constants
/// Names a host may need beside the interface: the path types entries carry, the
/// session cookie's name, the client's user agent and the data folder's name.

/// The space an entry lives in, sent as "path_type". Operations send the text as it is,
/// one of these or not; only ServerApi::RPCServerLogging turns it into a number.
/// \ingroup constants
namespace NBPathType {
inline const QString Ent = QStringLiteral("ent"); ///< "ent"; RPCServerLogging sends it as 1.
inline const QString Self = QStringLiteral("self"); ///< "self"; RPCServerLogging sends it as 2.
inline const QString ShareIn = QStringLiteral("share_in"); ///< "share_in"; RPCServerLogging sends it as 3.
inline const QString ShareOut = QStringLiteral("share_out"); ///< "share_out"; RPCServerLogging sends it as 4.
inline const QString BookMark = QStringLiteral("book_mark"); ///< "book_mark"; RPCServerLogging sends it as 0.
inline const QString Trans = QStringLiteral("trans"); ///< "trans"; RPCServerLogging sends it as 0.
inline const QString Recycle = QStringLiteral("recycle"); ///< "recycle"; RPCServerLogging sends it as 0.
} // namespace NBPathType

/// The session cookie's name and the client's user agent.
/// \ingroup constants
namespace NBConstants {
/// The cookie (and, for the jump page, parameter) that carries the session.
inline const QString COOKIE_SESSION = QStringLiteral("X-NIMBRA-SESS-ID");
/// The desktop client's user agent; the library never applies it by itself.
inline const QString SZ_USER_AGENT = QStringLiteral("NBClientMac");
} // namespace NBConstants

/// The data folder's name.
/// \ingroup constants
namespace NBUtil {
/// The folder beside the application's data folder that holds "Log"; the library
/// writes its log there but does not use this name otherwise.
inline const QString sBoxAppDataPath = QStringLiteral("NimbraData");
} // namespace NBUtil
