#include "Emulator.h"

#include "Certificate.h"
#include "Sha256.h"
#include "Wire.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSaveFile>
#include <QThread>
#include <algorithm>

namespace {

// Makes the reply misbehave as the fault says, once the route has filled it.
void breakReply(HttpResponse& response, const FaultRule& fault)
{
    ContentProvider source = response.provider;
    const qint64 length = response.bodyLength();
    if (!source) {
        const auto body = std::make_shared<QByteArray>(response.body);
        source = [body](qint64 offset, qint64 wanted, HttpSink& sink) {
            return sink.write(body->constData() + offset, size_t(qMin(wanted, body->size() - offset)));
        };
    }
    const qint64 cut = qMin(length, qint64(fault.value));
    response.body.clear();
    switch (fault.kind) {
    case FaultRule::Reset:
        // The whole length announced, `cut` bytes sent, then the connection closed.
        response.length = length;
        response.provider = [source, cut](qint64 offset, qint64 wanted, HttpSink& sink) {
            return offset < cut && source(offset, qMin(wanted, cut - offset), sink);
        };
        break;
    case FaultRule::Truncate:
        // No length: the body ends where the connection does, `cut` bytes in.
        response.length = -1;
        response.provider = [source, cut](qint64 offset, qint64, HttpSink& sink) {
            return offset < cut && source(offset, cut - offset, sink);
        };
        break;
    case FaultRule::Stall: {
        const int tenths = fault.value * 10;
        response.length = length;
        response.provider = [tenths](qint64, qint64, HttpSink& sink) {
            for (int i = 0; i < tenths && sink.alive(); ++i)
                QThread::msleep(100);
            return false;
        };
        break;
    }
    default:
        break;
    }
}

} // namespace

std::optional<UserOption> UserOption::parse(const QString& option, QString* error)
{
    // NAME:PASSWORD[:tfa]: the name ends at the first ":", the flag is a trailing ":tfa"
    // and the password is everything between (it may hold ":").
    const int colon = option.indexOf(QLatin1Char(':'));
    UserOption user;
    user.name = option.left(colon);
    user.password = colon < 0 ? QString() : option.mid(colon + 1);
    user.tfa = user.password.endsWith(QLatin1String(":tfa"));
    if (user.tfa)
        user.password.chop(4);
    if (colon <= 0 || user.password.isEmpty()) {
        *error = QStringLiteral(
            "--user takes NAME:PASSWORD[:tfa], a name and a password that are not empty, not %1")
                     .arg(option);
        return std::nullopt;
    }
    return user;
}

bool Emulator::checkOptions(const EmuOptions& o, QString* error)
{
    QStringList names;
    for (const QString& option : o.users) {
        const std::optional<UserOption> user = UserOption::parse(option, error);
        if (!user)
            return false;
        if (names.contains(user->name)) {
            *error = QStringLiteral("--user %1 is given twice").arg(user->name);
            return false;
        }
        names << user->name;
    }
    for (const QString& text : o.faults) {
        if (!FaultRule::parse(text, error))
            return false;
    }
    if (!o.seedDir.isEmpty() && !QFileInfo(o.seedDir).isDir()) {
        *error = QStringLiteral("--seed %1 is no folder").arg(o.seedDir);
        return false;
    }
    return true;
}

Emulator::Emulator(const EmuOptions& options)
    : m_control(m_context, [this](bool toSeed) { reset(toSeed); })
    , m_server([this](HttpRequest& request, HttpResponse& response) { dispatch(request, response); },
          [this](int status, const QString& message, HttpResponse& response) {
              refuse(status, message, response);
          })
{
    m_context.options = options;
    m_context.accounts.setSessionSeconds(options.sessionSeconds);
    m_context.faults.reseed(options.faultSeed);
    m_accounts.install(m_router);
    m_drive.install(m_router);
    m_transfers.install(m_router);
    m_delivery.install(m_router);
    if (options.control)
        m_control.install(m_router);
}

Emulator::~Emulator() = default;

bool Emulator::importSeed(QString* error)
{
    if (m_context.options.seedDir.isEmpty())
        return true;
    const QList<User> users = m_context.accounts.users();
    if (users.isEmpty()) {
        *error = QStringLiteral("--seed needs a --user to own the files");
        return false;
    }
    const QDir seed(m_context.options.seedDir);
    QDirIterator it(seed.absolutePath(), QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden,
        QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString local = it.next();
        QString path;
        if (!Drive::normalise(seed.relativeFilePath(local), &path))
            continue;
        if (it.fileInfo().isDir()) {
            m_context.drive.createFolder(QStringLiteral("ent"), path, users.first().id, false);
            continue;
        }
        QFile file(local);
        if (!file.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("cannot read %1: %2").arg(local, file.errorString());
            return false;
        }
        QList<ChunkRef> chunks;
        while (!file.atEnd()) {
            const QByteArray chunk = file.read(ChunkStore::ChunkSize);
            const QByteArray hash = Sha256::hex(chunk);
            if (!m_context.store.put(hash, chunk, error))
                return false;
            m_context.drive.registerChunk(hash, chunk.size());
            chunks.append(ChunkRef { hash, chunk.size() });
        }
        m_context.drive.commit(QStringLiteral("ent"), path, chunks, users.first().id, true);
    }
    return true;
}

bool Emulator::populate(bool withSeed, QString* error)
{
    for (const QString& option : qAsConst(m_context.options.links)) {
        // CODE:PASSWORD:USER:FOLDER, the folder being everything after the third ":".
        const QStringList parts = option.split(QLatin1Char(':'));
        const std::optional<User> owner = m_context.accounts.userByName(parts.value(2));
        const QString folder = option.section(QLatin1Char(':'), 3);
        if (parts.size() < 4 || !owner) {
            *error = QStringLiteral("--link takes CODE:PASSWORD:USER:FOLDER of a --user, not %1").arg(option);
            return false;
        }
        if (!m_context.links.find(parts[0])
            && !m_context.links.create(parts[0], parts[1], owner->id, QStringLiteral("ent"), folder, error))
            return false;
    }
    return !withSeed || importSeed(error);
}

void Emulator::reset(bool toSeed)
{
    m_context.drive.clear();
    m_context.tasks.clear();
    m_context.links.clear();
    m_context.oplog.clear();
    m_context.accounts.clearActivity();
    QString error;
    if (!populate(toSeed, &error))
        qWarning("nbemu: %s", qPrintable(error));
}

bool Emulator::start(QTextStream& out, QString* error)
{
    EmuOptions& o = m_context.options;
    if (!m_data.open(o.dataDir, o.ephemeral, m_context.db, m_context.store, error))
        return false;
    for (const QString& option : qAsConst(o.users)) {
        const std::optional<UserOption> user = UserOption::parse(option, error);
        if (!user || !m_context.accounts.ensureUser(user->name, user->password, user->tfa, error))
            return false;
    }
    for (const QString& text : qAsConst(o.faults)) {
        const std::optional<FaultRule> rule = FaultRule::parse(text, error);
        if (!rule)
            return false;
        m_context.faults.add(*rule);
    }
    // The seed goes in once, into a new data folder (or at a reset to it).
    if (!populate(m_context.drive.lastSeq() == 0, error))
        return false;
    if (!o.logFile.isEmpty()) {
        m_log.setFileName(o.logFile);
        if (!m_log.open(QIODevice::Append | QIODevice::Text)) {
            *error = QStringLiteral("cannot write the log %1").arg(o.logFile);
            return false;
        }
    } else {
        m_log.open(stderr, QIODevice::WriteOnly | QIODevice::Text);
    }
    if (o.tlsSelfSigned
        && !Certificate::ensureSelfSigned(
            m_data.path() + QStringLiteral("/tls"), o.host, &o.tlsCert, &o.tlsKey, error))
        return false;
    const bool tls = !o.tlsCert.isEmpty();
    if (tls && !m_server.useTls(o.tlsCert, o.tlsKey, error))
        return false;
    if (!m_server.listen(o.host, o.port, error))
        return false;
    // The port file says the emulator is ready: written before anything is printed.
    if (!o.portFile.isEmpty()) {
        QSaveFile file(o.portFile);
        if (!file.open(QIODevice::WriteOnly) || file.write(QByteArray::number(m_server.port()) + '\n') < 0
            || !file.commit()) {
            *error = QStringLiteral("cannot write the port file %1: %2").arg(o.portFile, file.errorString());
            return false;
        }
    }
    m_context.selfUrl = QStringLiteral("%1://%2:%3").arg(tls ? "https" : "http", o.host).arg(m_server.port());
    out << "nbemu: serving deployment type " << int(o.type) << " at " << m_context.selfUrl << ", data in "
        << m_data.path() << Qt::endl;
    if (tls)
        out << "nbemu: certificate " << o.tlsCert << Qt::endl;
    for (const User& user : m_context.accounts.users())
        out << "nbemu: user " << user.name << (user.tfa ? " (two factors)" : "")
            << ", one-time password secret " << user.totpSecret << Qt::endl;
    return true;
}

void Emulator::run()
{
    m_server.run();
}

void Emulator::stop()
{
    m_server.stop();
}

bool Emulator::admit(const Route& route, HttpCall& call)
{
    const EmuOptions& o = m_context.options;
    if (route.access == Access::Control)
        return admitControl(call);
    if (!o.verifyCode.isEmpty() && o.type != Deployment::PublicCloud) {
        QString code = call.value(Wire::VerifyCode);
        if (code.isEmpty())
            code = call.cookie(Wire::VerifyCode);
        if (code != o.verifyCode) {
            call.error(403, QStringLiteral("forbidden"),
                QStringLiteral("the verification code \"S\" is missing or wrong"));
            return false;
        }
    }
    if (route.access != Access::Session)
        return true;
    // The session rides in the cookie, or as a parameter where a request carries no cookie.
    QString sessionId = call.cookie(Wire::SessionCookie);
    if (sessionId.isEmpty())
        sessionId = call.value(Wire::SessionCookie);
    const std::optional<Session> session = m_context.accounts.session(sessionId);
    const std::optional<User> user
        = session && session->link.isEmpty() ? m_context.accounts.user(session->userId) : std::nullopt;
    if (!user) {
        call.error(401, QStringLiteral("Invalid session"), QStringLiteral("sign in first, or again"));
        return false;
    }
    call.userId = user->id;
    call.userName = user->name;
    call.sessionId = session->id;
    return true;
}

bool Emulator::admitControl(HttpCall& call)
{
    // Only requests addressed to this emulator, and from no other site's page: a page
    // the user's browser shows can neither reach it under another name (DNS rebinding)
    // nor post to it (its Origin would be that page's).
    const QString port = QString::number(m_server.port());
    QStringList own { m_context.options.host + QLatin1Char(':') + port, QStringLiteral("127.0.0.1:") + port,
        QStringLiteral("localhost:") + port };
    own.removeDuplicates();
    const QString host = call.header(QStringLiteral("Host")).toLower();
    const QString origin = call.header(QStringLiteral("Origin")).toLower();
    // One Host, at most one Origin, and an Origin that names a page of this emulator.
    const bool once
        = call.headerCount(QStringLiteral("Host")) == 1 && call.headerCount(QStringLiteral("Origin")) <= 1;
    const bool ownOrigin = call.headerCount(QStringLiteral("Origin")) == 0
        || std::any_of(own.begin(), own.end(), [&origin](const QString& address) {
               return origin == QLatin1String("http://") + address
                   || origin == QLatin1String("https://") + address;
           });
    if (once && own.contains(host) && ownOrigin)
        return true;
    call.error(403, QStringLiteral("forbidden"),
        QStringLiteral("the control interface answers only requests to %1 from no other origin")
            .arg(own.join(QStringLiteral(", "))));
    return false;
}

void Emulator::dispatch(HttpRequest& request, HttpResponse& response)
{
    QElapsedTimer clock;
    clock.start();
    HttpCall call(request, response);
    // HEAD is answered as GET, without the body.
    const QString method = request.method == "HEAD" ? QStringLiteral("GET") : call.method();
    const Route* route = m_router.match(method, call.path(), &call.captures);
    const bool served = route && route->servedBy(m_context.options.type);
    const std::optional<FaultRule> fault
        = served && route->access != Access::Control ? m_context.faults.pick(call.path()) : std::nullopt;
    const QString faultText = fault ? fault->text : QString();
    if (fault && fault->phase() == FaultRule::Before)
        QThread::msleep(ulong(fault->value));
    bool tooLarge = false;

    if (!call.pathIsText()) {
        call.error(400, QStringLiteral("invalid path"),
            QStringLiteral("the address holds a malformed escape, or bytes that are no UTF-8"));
    } else if (request.hasBody && method != QLatin1String("POST") && method != QLatin1String("PUT")) {
        call.error(413, QStringLiteral("space limit"), QStringLiteral("a body on %1 is refused").arg(method));
    } else if (!route) {
        call.error(501, QStringLiteral("not emulated"),
            QStringLiteral("%1 %2 is not emulated").arg(method, call.path()));
    } else if (!served) {
        call.error(501, QStringLiteral("not emulated"),
            QStringLiteral("%1 %2 is not served by deployment type %3")
                .arg(method, call.path())
                .arg(int(m_context.options.type)));
    } else if (fault && fault->kind == FaultRule::Status) {
        call.error(fault->value, QStringLiteral("injected fault"), faultText);
    } else if (fault && fault->kind == FaultRule::RetryAfter) {
        call.setHeader("Retry-After", QString::number(fault->value));
        call.error(429, QStringLiteral("too many requests"), faultText);
    } else if (!route->streams && !call.takeBody(m_context.options.maxBody, &tooLarge)) {
        if (tooLarge)
            call.error(413, QStringLiteral("space limit"),
                QStringLiteral("the request body is larger than %1 bytes").arg(m_context.options.maxBody));
        else
            call.error(400, QStringLiteral("incomplete body"), QStringLiteral("the request body broke off"));
    } else if (admit(*route, call)) {
        route->handler(call);
    }
    // The reply as the route made it; a fault may send less of it.
    const qint64 bytesOut = response.bodyLength();
    if (fault && fault->phase() == FaultRule::After)
        breakReply(response, *fault);
    log(request.method, request.target, response.status, request.bytesRead, bytesOut, clock.elapsed(),
        faultText);
}

void Emulator::refuse(int status, const QString& message, HttpResponse& response)
{
    static const QHash<int, QString> codes { { 400, QStringLiteral("invalid request") },
        { 408, QStringLiteral("request timeout") }, { 414, QStringLiteral("uri too long") },
        { 417, QStringLiteral("expectation failed") }, { 431, QStringLiteral("header too large") },
        { 501, QStringLiteral("not implemented") } };
    response.status = status;
    response.body
        = HttpCall::errorBody(status, codes.value(status, QStringLiteral("invalid request")), message);
    response.setHeader("Content-Type", "application/json");
    log(QByteArray(), QByteArray(), status, 0, response.body.size(), 0, QString());
}

void Emulator::log(const QByteArray& method, const QByteArray& target, int status, qint64 in, qint64 out,
    qint64 ms, const QString& fault)
{
    // Credentials that ride in a query (a session, a link's password or token) stay out of the log.
    static const QRegularExpression secrets(
        QStringLiteral("([?&](?:X-NIMBRA-SESS-ID|X-NIMBRA-TFA-ID|password|token|S)=)[^&]*"));
    QString shown = QString::fromUtf8(target);
    shown.replace(secrets, QStringLiteral("\\1***"));
    QJsonObject line { { "id", ++m_requests }, { "method", QString::fromLatin1(method) }, { "target", shown },
        { "status", status }, { "in", in }, { "out", out }, { "ms", ms } };
    if (!fault.isEmpty())
        line.insert("fault", fault);
    const std::lock_guard lock(m_logMutex);
    m_log.write(QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n');
    m_log.flush();
}
