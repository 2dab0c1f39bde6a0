#include "RequestRunner.h"

#include <NBBaseParse.h>
#include <QEventLoop>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSocketNotifier>
#include <QTimer>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int s_signalPipe[2] = { -1, -1 };

void onSigint(int)
{
    const char byte = 'i';
    [[maybe_unused]] const ssize_t written = ::write(s_signalPipe[0], &byte, 1);
    // A second Ctrl-C ends the program at once.
    std::signal(SIGINT, SIG_DFL);
}

} // namespace

struct RequestRunner::Attempt
{
    QString what;
    Start start;
    Done done;
    bool retry = true;
    int tries = 0;
    QElapsedTimer clock; // since the first try
    QElapsedTimer thisTry;
    std::shared_ptr<bool> settled; // this try's completion has run
    bool timedOut = false; // this try was given up by the time-out
};

bool Reply::ok() const
{
    return served && data.networkError == 0 && data.statusCode >= 200 && data.statusCode < 300;
}

RequestRunner::RequestRunner(QObject* parent)
    : QObject(parent)
{
    m_activity.start();
}

void RequestRunner::touch()
{
    m_activity.restart();
}

RequestRunner::~RequestRunner()
{
    if (m_signals)
        std::signal(SIGINT, SIG_DFL);
}

void RequestRunner::setRetries(int retries, int budgetMs)
{
    m_retries = qMax(0, retries);
    m_budgetMs = budgetMs;
}

void RequestRunner::copySettings(const RequestRunner& other)
{
    m_retries = other.m_retries;
    m_budgetMs = other.m_budgetMs;
    m_timeoutMs = other.m_timeoutMs;
}

void RequestRunner::start(const QString& what, Start start, Done done, bool retry)
{
    auto attempt = std::make_shared<Attempt>();
    attempt->what = what;
    attempt->start = std::move(start);
    attempt->done = std::move(done);
    attempt->retry = retry;
    attempt->clock.start();
    launch(attempt);
}

void RequestRunner::launch(const std::shared_ptr<Attempt>& attempt)
{
    if (m_interrupted)
        return;
    ++attempt->tries;
    attempt->timedOut = false;
    attempt->thisTry.start();
    // The completion may run inside the call (a missing local file) or twice (the
    // time-out's record, then the aborted reply's): the first one counts.
    auto settled = std::make_shared<bool>(false);
    attempt->settled = settled;
    auto id = std::make_shared<long long>(0);
    *id = attempt->start([this, attempt, settled, id](const ResponseData& data) {
        if (*settled)
            return;
        *settled = true;
        m_running.remove(*id);
        touch();
        if (!attempt->timedOut)
            return finish(attempt, data);
        ResponseData timedOut = data;
        timedOut.statusCode = 0;
        timedOut.networkError = 4;
        timedOut.errorString = QStringLiteral("TimeOut");
        finish(attempt, timedOut);
    });
    if (*settled)
        return;
    if (*id <= 0) {
        *settled = true;
        Reply reply;
        reply.served = false;
        reply.attempts = attempt->tries;
        attempt->done(reply);
        wake();
        return;
    }
    m_running.insert(*id);
    if (m_timeoutMs > 0)
        watch(attempt, *id);
}

// Gives the try up once neither it nor anything else has moved for the time-out.
void RequestRunner::watch(const std::shared_ptr<Attempt>& attempt, long long id)
{
    const std::shared_ptr<bool> settled = attempt->settled;
    auto* timer = new QTimer(this);
    timer->setInterval(qBound(20, m_timeoutMs / 4, 1000));
    connect(timer, &QTimer::timeout, this, [this, timer, attempt, settled, id] {
        if (*settled) {
            timer->deleteLater();
            return;
        }
        if (attempt->thisTry.elapsed() < m_timeoutMs || m_activity.elapsed() < m_timeoutMs)
            return;
        timer->deleteLater();
        attempt->timedOut = true;
        ServerApi::Cancel(id);
    });
    timer->start();
}

void RequestRunner::finish(const std::shared_ptr<Attempt>& attempt, const ResponseData& data)
{
    if (!m_interrupted && attempt->retry && worthRetry(data) && attempt->tries <= m_retries
        && attempt->clock.elapsed() < m_budgetMs) {
        const int delay = retryDelay(data, attempt->tries);
        notify(QStringLiteral("retrying in %1 s: %2, attempt %3 of %4 (%5)")
                   .arg(QString::number(delay / 1000.0, 'f', 1), reasonOf(data),
                       QString::number(attempt->tries + 1), QString::number(m_retries + 1), attempt->what));
        QTimer::singleShot(delay, this, [this, attempt] { launch(attempt); });
        return;
    }
    Reply reply;
    reply.data = data;
    QJsonParseError parsed {};
    const QJsonDocument document = QJsonDocument::fromJson(data.body.toUtf8(), &parsed);
    reply.json = document.object();
    reply.wholeJson = parsed.error == QJsonParseError::NoError && document.isObject();
    reply.attempts = attempt->tries;
    attempt->done(reply);
    wake();
}

bool RequestRunner::isLocalFileError(const ResponseData& data)
{
    // A transfer's local file failure carries the file error code as both numbers.
    return data.statusCode > 0 && data.statusCode < 100 && data.statusCode == data.networkError;
}

bool RequestRunner::worthRetry(const ResponseData& data)
{
    if (data.statusCode == 429
        || (data.statusCode >= 500 && data.statusCode != 501 && data.statusCode != 505))
        return true;
    if (data.statusCode >= 300 || isLocalFileError(data))
        return false;
    // Refused connection, closed or reset connection, time-out, temporary failures, and
    // a body cut short under a 2xx status.
    switch (data.networkError) {
    case 1: // ConnectionRefusedError
    case 2: // RemoteHostClosedError
    case 4: // TimeoutError
    case 7: // TemporaryNetworkFailureError
    case 8: // NetworkSessionFailedError
    case 99: // UnknownNetworkError
        return true;
    }
    return false;
}

int RequestRunner::retryDelay(const ResponseData& data, int tries)
{
    bool given = false;
    const int retryAfter = data.headers.value("Retry-After").trimmed().toInt(&given);
    if (data.statusCode == 429 && given && retryAfter >= 0)
        return qMin(retryAfter, 60) * 1000;
    const int base = qMin(250 << qMin(tries - 1, 5), 8000);
    return base + int(QRandomGenerator::global()->bounded(base / 4 + 1));
}

void RequestRunner::waitFor(const std::function<bool()>& finished)
{
    if (!m_interrupted && finished())
        return;
    if (!m_interrupted) {
        QEventLoop loop;
        QEventLoop* const outer = std::exchange(m_loop, &loop);
        std::function<bool()> outerUntil = std::exchange(m_until, finished);
        loop.exec();
        m_loop = outer;
        m_until = std::move(outerUntil);
    }
    if (m_interrupted)
        throw Failure { Exit::Interrupted, QStringLiteral("interrupted") };
}

void RequestRunner::wake()
{
    if (m_loop && (m_interrupted || (m_until && m_until())))
        m_loop->quit();
}

void RequestRunner::sleep(int ms)
{
    if (ms <= 0 && !m_interrupted)
        return;
    bool elapsed = false;
    QTimer::singleShot(ms, this, [this, &elapsed] {
        elapsed = true;
        wake();
    });
    waitFor([&elapsed] { return elapsed; });
}

Reply RequestRunner::fetch(const QString& what, Start start)
{
    Reply result;
    bool done = false;
    this->start(what, std::move(start), [&](const Reply& reply) {
        result = reply;
        done = true;
    });
    waitFor([&done] { return done; });
    if (!result.served || result.data.statusCode == 0 || isLocalFileError(result.data))
        throw failureOf(what, result);
    return result;
}

Reply RequestRunner::call(const QString& what, Start start)
{
    const Reply reply = fetch(what, std::move(start));
    if (!reply.ok())
        throw failureOf(what, reply);
    if (!reply.wholeJson)
        throw damagedReply(what, reply);
    return reply;
}

Failure RequestRunner::damagedReply(const QString& what, const Reply& reply)
{
    return Failure(Exit::Network,
        QStringLiteral("%1: the server's reply is no whole JSON object (%2 bytes); try again later")
            .arg(what, QString::number(reply.data.body.toUtf8().size())),
        QStringLiteral("damaged"));
}

QString RequestRunner::reasonOf(const ResponseData& data)
{
    if (data.statusCode >= 100 && !isLocalFileError(data))
        return QStringLiteral("HTTP %1").arg(QString::number(data.statusCode));
    if (data.errorString == QLatin1String("TimeOut"))
        return QStringLiteral("no answer in time");
    switch (data.networkError) {
    case 1:
        return QStringLiteral("connection refused");
    case 2:
        return QStringLiteral("the server closed the connection");
    case 3:
        return QStringLiteral("host not found");
    case 4:
        return QStringLiteral("no answer in time");
    case 6:
        return QStringLiteral("TLS handshake failed");
    case 7:
        return QStringLiteral("temporary network failure");
    }
    return data.errorString.isEmpty() ? QStringLiteral("error %1").arg(QString::number(data.networkError))
                                      : data.errorString;
}

Failure RequestRunner::failureOf(const QString& what, const Reply& reply)
{
    const ResponseData& data = reply.data;
    const auto say = [&what](const QString& text) {
        return what.isEmpty() ? text : what + QStringLiteral(": ") + text;
    };
    if (!reply.served)
        return Failure(Exit::Usage, say(QStringLiteral("not offered by this server's deployment type")),
            QStringLiteral("not offered"));
    if (data.networkError == 5 && data.statusCode == 0 && data.errorString != QLatin1String("TimeOut"))
        return Failure(Exit::Interrupted, say(QStringLiteral("cancelled")));
    if (isLocalFileError(data))
        return Failure(Exit::Local, say(data.errorString));
    const QString tries = reply.attempts > 1
        ? QStringLiteral(", %1 attempts").arg(QString::number(reply.attempts))
        : QString();
    if (data.statusCode == 0 || (data.statusCode < 300 && data.networkError != 0)) {
        if (data.networkError == 6) { // SslHandshakeFailedError
            const QString error = data.errorString.toLower();
            if (error.contains(QLatin1String("wrong version number"))
                || error.contains(QLatin1String("http request"))
                || error.contains(QLatin1String("packet length too long")))
                return Failure(Exit::Usage,
                    say(QStringLiteral("the server answers plain HTTP, not TLS, on that port: give its "
                                       "address with http://")),
                    QStringLiteral("tls"));
            return Failure(Exit::Usage,
                say(QStringLiteral("the server's TLS certificate is not trusted (%1); give --cacert FILE "
                                   "with its CA, or --insecure")
                        .arg(data.errorString)),
                QStringLiteral("tls"));
        }
        if (data.errorString == QLatin1String("TimeOut") || data.networkError == 4)
            return Failure(Exit::Network,
                say(QStringLiteral("the server sent nothing in time (time-out%1); try again later")
                        .arg(tries)),
                QStringLiteral("timeout"));
        if (data.networkError == 2)
            return Failure(Exit::Network,
                say(QStringLiteral("the server closed the connection%1; try again later").arg(tries)));
        if (data.networkError == 1)
            return Failure(Exit::Network,
                say(QStringLiteral("cannot reach the server (connection refused%1); check the address and "
                                   "that the server runs")
                        .arg(tries)));
        if (data.networkError == 3)
            return Failure(Exit::Network,
                say(QStringLiteral("cannot find the server's host (%1)").arg(data.errorString)));
        return Failure(
            Exit::Network, say(QStringLiteral("the connection failed (%1%2)").arg(reasonOf(data), tries)));
    }
    NBBaseParse reading;
    reading.ParseResp(data);
    const TransferErrorMessage error = reading.errorMsg();
    const QString code = !error.code.isEmpty() ? error.code
        : !error.message.isEmpty()             ? error.message
                                               : reasonOf(data);
    const QString detail = !error.message.isEmpty() && error.message != code
        ? QStringLiteral(": ") + error.message
        : QString();
    const QString status = QStringLiteral(" (HTTP %1, error %2)")
                               .arg(QString::number(data.statusCode), QString::number(reading.errorCode()));
    // What a server that failed or asked for patience says may go away.
    if (worthRetry(data))
        return Failure(Exit::Network,
            say(code + detail + status + QStringLiteral("; the server failed%1, try again later").arg(tries)),
            code);
    QString hint;
    switch (reading.errorCode()) {
    case CNBParseProcessor::InvalidSession:
        if (error.code == QLatin1String("Invalid session"))
            hint = QStringLiteral("; session expired or missing: run nbcli login");
        break;
    case CNBParseProcessor::FileLocked: {
        // Locks are per user: the holder, where the server names them.
        const QString holder = reply.json.value("lock_owner").toString();
        hint = holder.isEmpty()
            ? QStringLiteral("; another user holds the lock: try again when it is released")
            : QStringLiteral("; ask %1 to unlock it, or try again once the lock expires").arg(holder);
        break;
    }
    }
    return Failure(Exit::Refused, say(code + detail + status + hint), code);
}

void RequestRunner::interrupt()
{
    if (m_interrupted)
        return;
    m_interrupted = true;
    // Cancel runs each completion inside the call, which edits the set.
    const QSet<long long> running = m_running;
    for (long long id : running)
        ServerApi::Cancel(id);
    if (m_loop)
        m_loop->quit();
}

void RequestRunner::catchInterrupts()
{
    if (m_signals || ::socketpair(AF_UNIX, SOCK_STREAM, 0, s_signalPipe) != 0)
        return;
    m_signals = new QSocketNotifier(s_signalPipe[1], QSocketNotifier::Read, this);
    connect(m_signals, &QSocketNotifier::activated, this, [this] {
        char byte;
        [[maybe_unused]] const ssize_t read = ::read(s_signalPipe[1], &byte, 1);
        interrupt();
    });
    struct sigaction action
    {
    };
    action.sa_handler = onSigint;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
}
