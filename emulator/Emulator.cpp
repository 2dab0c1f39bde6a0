#include "Emulator.h"

#include "Sha256.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QThread>
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <limits>
#include <sys/socket.h>

namespace {

// The first `limit` bytes of a reply, read from its body or from its content provider.
using Source = std::function<bool(size_t offset, size_t length, httplib::DataSink& sink)>;

Source sourceOf(httplib::Response& response, size_t* length)
{
    if (response.content_provider_) {
        *length = response.content_length_;
        return response.content_provider_;
    }
    auto body = std::make_shared<std::string>(response.body);
    *length = body->size();
    return [body](size_t offset, size_t length, httplib::DataSink& sink) {
        return sink.write(body->data() + offset, std::min(length, body->size() - offset));
    };
}

// Makes the reply misbehave as the fault says, once the route has filled it.
void breakReply(httplib::Response& response, const FaultRule& fault)
{
    size_t length = 0;
    const Source source = sourceOf(response, &length);
    const std::string type = response.get_header_value("Content-Type");
    const size_t cut = std::min(length, size_t(fault.value));
    response.body.clear();
    response.headers.erase("Content-Type");
    switch (fault.kind) {
    case FaultRule::Reset:
        // The whole length announced, `cut` bytes sent, then the connection closed.
        response.set_content_provider(length, type, [source, cut](size_t offset, size_t wanted, httplib::DataSink& sink) {
            if (offset >= cut)
                return false;
            return source(offset, std::min(wanted, cut - offset), sink);
        });
        break;
    case FaultRule::Truncate:
        // No length: the body ends where the connection does, `cut` bytes in (the provider
        // fails there, which makes the server close at once instead of waiting for more).
        response.set_header("Connection", "close");
        response.set_content_provider(type, [source, cut](size_t offset, httplib::DataSink& sink) {
            return offset < cut && source(offset, cut - offset, sink);
        });
        break;
    case FaultRule::Stall: {
        const int tenths = fault.value * 10;
        response.set_content_provider(length, type, [tenths](size_t, size_t, httplib::DataSink& sink) {
            for (int i = 0; i < tenths && sink.is_writable(); ++i)
                QThread::msleep(100);
            return false;
        });
        break;
    }
    default:
        break;
    }
}

} // namespace

Emulator::Emulator(const EmuOptions& options)
    : m_control(m_context, [this](bool toSeed) { reset(toSeed); })
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

bool Emulator::openData(QString* error)
{
    if (m_context.options.ephemeral) {
        m_ephemeral = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/nbemu-XXXXXX"));
        m_dataDir = m_ephemeral->path();
    } else {
        m_dataDir = QDir(m_context.options.dataDir).absolutePath();
    }
    if (m_dataDir.isEmpty() || !QDir().mkpath(m_dataDir)) {
        *error = QStringLiteral("cannot use the data folder %1 (give --data DIR or --ephemeral)").arg(m_dataDir);
        return false;
    }
    if (!m_context.db.open(m_dataDir + QStringLiteral("/nbemu.db"), error) || !m_context.store.open(m_dataDir, error))
        return false;
    // A crash may leave temporaries, and chunk files stored but not yet listed.
    QSet<QByteArray> listed;
    m_context.db.run(false, [&] {
        Database::Statement st(m_context.db, "SELECT hash FROM chunks");
        while (st.next())
            listed.insert(st.text(0).toLatin1());
        return true;
    });
    for (const QByteArray& hash : m_context.store.chunksOnDisk()) {
        if (!listed.contains(hash))
            m_context.store.remove(hash);
    }
    return true;
}

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
        const QStringList parts = option.split(QLatin1Char(':'));
        const std::optional<User> owner = m_context.accounts.userByName(parts.value(2));
        if (parts.size() != 4 || !owner) {
            *error = QStringLiteral("--link takes CODE:PASSWORD:USER:FOLDER of a --user, not %1").arg(option);
            return false;
        }
        const QJsonArray existing = DeliveryRoutes::links(m_context);
        bool known = false;
        for (const QJsonValue& link : existing)
            known |= link.toObject().value("code").toString() == parts[0];
        if (!known
            && !DeliveryRoutes::createLink(m_context, parts[0], parts[1], owner->id, QStringLiteral("ent"), parts[3], error))
            return false;
    }
    return !withSeed || importSeed(error);
}

void Emulator::reset(bool toSeed)
{
    m_context.drive.clear();
    QString error;
    if (!populate(toSeed, &error))
        qWarning("nbemu: %s", qPrintable(error));
}

bool Emulator::setUpTls(QString* error)
{
    EmuOptions& o = m_context.options;
    if (!o.tlsSelfSigned)
        return true;
    const QString dir = m_dataDir + QStringLiteral("/tls");
    QDir().mkpath(dir);
    o.tlsCert = dir + QStringLiteral("/cert.pem");
    o.tlsKey = dir + QStringLiteral("/key.pem");
    if (QFile::exists(o.tlsCert) && QFile::exists(o.tlsKey))
        return true;
    EVP_PKEY* key = EVP_RSA_gen(2048);
    X509* certificate = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), long(QDateTime::currentSecsSinceEpoch()));
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3650L * 24 * 3600);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("nbemu"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const QByteArray names = QStringLiteral("DNS:localhost,IP:127.0.0.1,IP:%1").arg(o.host).toLatin1();
    X509_EXTENSION* san = X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name, names.constData());
    if (san) {
        X509_add_ext(certificate, san, -1);
        X509_EXTENSION_free(san);
    }
    X509_sign(certificate, key, EVP_sha256());
    FILE* certFile = std::fopen(QFile::encodeName(o.tlsCert).constData(), "w");
    FILE* keyFile = std::fopen(QFile::encodeName(o.tlsKey).constData(), "w");
    const bool ok = certFile && keyFile && PEM_write_X509(certFile, certificate)
        && PEM_write_PrivateKey(keyFile, key, nullptr, nullptr, 0, nullptr, nullptr);
    if (certFile)
        std::fclose(certFile);
    if (keyFile)
        std::fclose(keyFile);
    X509_free(certificate);
    EVP_PKEY_free(key);
    if (!ok)
        *error = QStringLiteral("cannot write the self-signed certificate to %1").arg(dir);
    return ok;
}

bool Emulator::start(QTextStream& out, QString* error)
{
    EmuOptions& o = m_context.options;
    if (!openData(error))
        return false;
    for (const QString& option : qAsConst(o.users)) {
        const QStringList parts = option.split(QLatin1Char(':'));
        if (parts.size() < 2 || parts[0].isEmpty()) {
            *error = QStringLiteral("--user takes NAME:PASSWORD[:tfa], not %1").arg(option);
            return false;
        }
        if (!m_context.accounts.ensureUser(parts[0], parts[1], parts.value(2) == QLatin1String("tfa"), error))
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
    if (!setUpTls(error))
        return false;

    const bool tls = !o.tlsCert.isEmpty();
    if (tls) {
        auto server = std::make_unique<httplib::SSLServer>(o.tlsCert.toLocal8Bit().constData(), o.tlsKey.toLocal8Bit().constData());
        if (!server->is_valid()) {
            *error = QStringLiteral("cannot use the certificate %1 and key %2").arg(o.tlsCert, o.tlsKey);
            return false;
        }
        m_server = std::move(server);
    } else {
        m_server = std::make_unique<httplib::Server>();
    }
    // Qt opens up to six connections per host and keeps them: a large pool and a short
    // keep-alive, so that idle connections never hold back a new request.
    const int threads = o.threads;
    m_server->new_task_queue = [threads] { return new httplib::ThreadPool(size_t(threads)); };
    m_server->set_keep_alive_timeout(2);
    // Each connection the server closes is a moment where a request the client has just
    // sent on it meets the close and fails (Qt does not send a POST again): the library's
    // default of 5 requests per connection made 100 such moments in 500 requests.
    m_server->set_keep_alive_max_count(1000);
    m_server->set_read_timeout(60);
    m_server->set_write_timeout(60);
    // Streamed uploads have no size limit of their own: bodies read whole are bounded in
    // dispatch(), and the verbs that have no content reader here may not bring one.
    m_server->set_payload_max_length(std::numeric_limits<size_t>::max());
    m_server->set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
        if (request.method == "POST" || request.method == "PUT")
            return httplib::Server::HandlerResponse::Unhandled;
        const bool chunked = request.get_header_value("Transfer-Encoding") == "chunked";
        if (!chunked && QByteArray::fromStdString(request.get_header_value("Content-Length")).toLongLong() <= 0)
            return httplib::Server::HandlerResponse::Unhandled;
        HttpCall(request, response, QByteArray()).error(413, QStringLiteral("space limit"), QStringLiteral("a body on %1 is refused")
            .arg(QString::fromStdString(request.method)));
        log(request, response.status, 0, qint64(response.body.size()), 0, QString());
        return httplib::Server::HandlerResponse::Handled;
    });
    const auto plain = [this](const httplib::Request& request, httplib::Response& response) {
        dispatch(request, response, nullptr);
    };
    const auto withBody = [this](const httplib::Request& request, httplib::Response& response,
                              const httplib::ContentReader& reader) { dispatch(request, response, &reader); };
    m_server->Get(".*", plain);
    m_server->Delete(".*", plain);
    m_server->Post(".*", withBody);
    m_server->Put(".*", withBody);

    // The server library listens with a queue of 5 connections. A host that opens a few
    // hundred requests at once (each request has a connection of its own) overflows it, and
    // the kernel then drops handshakes that the client already counts as done: such a
    // request waits for retransmissions, under load past the client's two-minute timeout.
    // Note the listening socket as it is made and widen its queue once it listens.
    int listening = -1;
    m_server->set_socket_options([&listening](socket_t socket) {
        httplib::default_socket_options(socket);
        listening = socket;
    });
    m_port = o.port == 0 ? m_server->bind_to_any_port(o.host.toStdString())
                         : (m_server->bind_to_port(o.host.toStdString(), o.port) ? o.port : -1);
    m_server->set_socket_options(httplib::default_socket_options);
    if (m_port <= 0) {
        *error = QStringLiteral("cannot listen on %1:%2").arg(o.host).arg(o.port);
        return false;
    }
    if (::listen(listening, SOMAXCONN) != 0) {
        *error = QStringLiteral("cannot widen the connection queue on %1:%2: %3")
                     .arg(o.host)
                     .arg(m_port)
                     .arg(qt_error_string(errno));
        return false;
    }
    m_context.selfUrl = QStringLiteral("%1://%2:%3").arg(tls ? "https" : "http", o.host).arg(m_port);
    out << "nbemu: serving deployment type " << o.type << " at " << m_context.selfUrl << ", data in " << m_dataDir
        << Qt::endl;
    if (tls)
        out << "nbemu: certificate " << o.tlsCert << Qt::endl;
    for (const User& user : m_context.accounts.users())
        out << "nbemu: user " << user.name << (user.tfa ? " (two factors)" : "") << ", one-time password secret "
            << user.totpSecret << Qt::endl;
    if (!o.portFile.isEmpty()) {
        QSaveFile file(o.portFile);
        file.open(QIODevice::WriteOnly);
        file.write(QByteArray::number(m_port) + '\n');
        if (!file.commit()) {
            *error = QStringLiteral("cannot write the port file %1").arg(o.portFile);
            return false;
        }
    }
    return true;
}

void Emulator::run()
{
    m_server->listen_after_bind();
}

void Emulator::stop()
{
    if (m_server)
        m_server->stop();
}

bool Emulator::admit(const Route& route, HttpCall& call)
{
    const EmuOptions& o = m_context.options;
    if (route.access == Access::Control)
        return true;
    if (!o.verifyCode.isEmpty() && o.type != 1) {
        QString code = call.query(QStringLiteral("S"));
        if (code.isEmpty())
            code = call.form(QStringLiteral("S"));
        if (code.isEmpty())
            code = call.cookie(QStringLiteral("S"));
        if (code != o.verifyCode) {
            call.error(403, QStringLiteral("forbidden"), QStringLiteral("the verification code \"S\" is missing or wrong"));
            return false;
        }
    }
    if (route.access != Access::Session)
        return true;
    // The session rides in the cookie, or as a parameter where a request carries no cookie.
    QString sessionId = call.cookie(QStringLiteral("X-NIMBRA-SESS-ID"));
    if (sessionId.isEmpty())
        sessionId = call.value(QStringLiteral("X-NIMBRA-SESS-ID"));
    const std::optional<Session> session = m_context.accounts.session(sessionId);
    const std::optional<User> user = session && session->link.isEmpty() ? m_context.accounts.user(session->userId)
                                                                        : std::nullopt;
    if (!user) {
        call.error(401, QStringLiteral("Invalid session"), QStringLiteral("sign in first, or again"));
        return false;
    }
    call.userId = user->id;
    call.userName = user->name;
    call.sessionId = session->id;
    return true;
}

void Emulator::dispatch(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader* reader)
{
    QElapsedTimer clock;
    clock.start();
    // Ranges are this emulator's to apply (and never to an error body).
    const_cast<httplib::Request&>(request).ranges.clear();
    qint64 bytesIn = 0;
    QString faultText;
    const QString path = QUrl::fromPercentEncoding(QByteArray::fromStdString(request.path));
    const QString method = QString::fromStdString(request.method);
    QStringList captures;
    const Route* route = m_router.match(method, path, &captures);
    const bool served = route && (route->types & (1 << m_context.options.type));
    std::optional<FaultRule> fault = served && route->access != Access::Control ? m_context.faults.pick(path)
                                                                                : std::nullopt;
    if (fault) {
        faultText = fault->text;
        if (fault->kind == FaultRule::Latency)
            QThread::msleep(ulong(fault->value));
    }

    // The body, read whole unless the route streams it.
    QByteArray body;
    bool tooLarge = false;
    const bool streams = route && route->stream;
    if (reader && !(served && streams && !(fault && (fault->kind == FaultRule::Status || fault->kind == FaultRule::RetryAfter)))) {
        // One allocation for an announced body: appending piece by piece would grow it many times.
        const qint64 announced = QByteArray::fromStdString(request.get_header_value("Content-Length")).toLongLong();
        body.reserve(int(qBound<qint64>(0, announced, m_context.options.maxBody)));
        (*reader)([&](const char* data, size_t length) {
            bytesIn += qint64(length);
            if (body.size() + qint64(length) > m_context.options.maxBody) {
                tooLarge = true;
                return false;
            }
            body.append(data, int(length));
            return true;
        });
    }
    HttpCall call(request, response, body);
    call.captures = captures;
    if (!route) {
        call.error(501, QStringLiteral("not emulated"), QStringLiteral("%1 %2 is not emulated").arg(method, path));
    } else if (!served) {
        call.error(501, QStringLiteral("not emulated"),
            QStringLiteral("%1 %2 is not served by deployment type %3").arg(method, path).arg(m_context.options.type));
    } else if (tooLarge) {
        call.error(413, QStringLiteral("space limit"), QStringLiteral("the request body is larger than %1 bytes").arg(m_context.options.maxBody));
    } else if (fault && fault->kind == FaultRule::Status) {
        call.error(fault->value, QStringLiteral("injected fault"), faultText);
    } else if (fault && fault->kind == FaultRule::RetryAfter) {
        response.set_header("Retry-After", std::to_string(fault->value));
        call.error(429, QStringLiteral("too many requests"), faultText);
    } else if (admit(*route, call)) {
        if (streams) {
            const httplib::ContentReader counted(
                [&](httplib::ContentReceiver receiver) {
                    return (*reader)([&](const char* data, size_t length) {
                        bytesIn += qint64(length);
                        return receiver(data, length);
                    });
                },
                [&](httplib::MultipartContentHeader header, httplib::ContentReceiver receiver) {
                    return reader->multipart_reader_(std::move(header), std::move(receiver));
                });
            route->stream(call, counted);
        } else {
            route->handler(call);
        }
    }
    if (fault && (fault->kind == FaultRule::Reset || fault->kind == FaultRule::Truncate || fault->kind == FaultRule::Stall))
        breakReply(response, *fault);
    const qint64 bytesOut = response.content_provider_ ? qint64(response.content_length_) : qint64(response.body.size());
    log(request, response.status, bytesIn, bytesOut, clock.elapsed(), faultText);
}

void Emulator::log(const httplib::Request& request, int status, qint64 in, qint64 out, qint64 ms, const QString& fault)
{
    // Credentials that ride in a query (a session, a link's password or token) stay out of the log.
    static const QRegularExpression secrets(
        QStringLiteral("([?&](?:X-NIMBRA-SESS-ID|X-NIMBRA-TFA-ID|password|token|S)=)[^&]*"));
    QString target = QString::fromStdString(request.target);
    target.replace(secrets, QStringLiteral("\\1***"));
    QJsonObject line { { "id", ++m_requests }, { "method", QString::fromStdString(request.method) },
        { "target", target }, { "status", status }, { "in", in }, { "out", out },
        { "ms", ms } };
    if (!fault.isEmpty())
        line.insert("fault", fault);
    QMutexLocker lock(&m_logMutex);
    m_log.write(QJsonDocument(line).toJson(QJsonDocument::Compact) + '\n');
    m_log.flush();
}

int Emulator::check(const QString& dir, QTextStream& out)
{
    Database db;
    ChunkStore store;
    QString error;
    if (!QFile::exists(dir + QStringLiteral("/nbemu.db"))) {
        out << "nbemu: no emulator data in " << dir << Qt::endl;
        return 2;
    }
    if (!db.open(dir + QStringLiteral("/nbemu.db"), &error) || !store.open(dir, &error)) {
        out << "nbemu: " << error << Qt::endl;
        return 2;
    }
    QHash<QByteArray, qint64> listed;
    db.run(false, [&] {
        Database::Statement st(db, "SELECT hash, bytes FROM chunks");
        while (st.next())
            listed.insert(st.text(0).toLatin1(), st.integer(1));
        return true;
    });
    int problems = 0;
    for (auto it = listed.cbegin(); it != listed.cend(); ++it) {
        QFile file(store.pathOf(it.key()));
        if (!file.open(QIODevice::ReadOnly)) {
            out << "missing chunk " << it.key() << Qt::endl;
            ++problems;
            continue;
        }
        Sha256 hash;
        while (!file.atEnd())
            hash.add(file.read(1 << 20));
        if (hash.result().toHex() != it.key() || file.size() != it.value()) {
            out << "damaged chunk " << it.key() << Qt::endl;
            ++problems;
        }
    }
    int files = 0;
    db.run(false, [&] {
        Database::Statement st(db, "SELECT neid, rev, chunks FROM revisions");
        while (st.next()) {
            ++files;
            for (const QJsonValue& pair : QJsonDocument::fromJson(st.text(2).toUtf8()).array()) {
                if (!listed.contains(pair.toArray().at(0).toString().toLatin1())) {
                    out << "revision " << st.integer(1) << " of entry " << st.integer(0) << " names an unknown chunk"
                        << Qt::endl;
                    ++problems;
                }
            }
        }
        return true;
    });
    int orphans = 0;
    for (const QByteArray& hash : store.chunksOnDisk()) {
        if (!listed.contains(hash))
            ++orphans;
    }
    if (orphans > 0) {
        out << orphans << " chunk file(s) that nothing lists" << Qt::endl;
        problems += orphans;
    }
    out << "nbemu: " << listed.size() << " chunks, " << files << " revisions, "
        << (problems == 0 ? QStringLiteral("consistent") : QStringLiteral("%1 problem(s)").arg(problems)) << Qt::endl;
    return problems == 0 ? 0 : 1;
}
