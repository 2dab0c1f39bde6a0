#include "Remote.h"

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

struct Remote::Attempt
{
    QString what;
    Start start;
    Done done;
    bool retry = true;
    int tries = 0;
    QElapsedTimer clock;
};

bool Reply::ok() const
{
    return served && data.networkError == 0 && data.statusCode >= 200 && data.statusCode < 300;
}

Remote::Remote(QObject* parent)
    : QObject(parent)
{
}

Remote::~Remote()
{
    if (m_signals)
        std::signal(SIGINT, SIG_DFL);
}

void Remote::setRetries(int retries, int budgetMs)
{
    m_retries = qMax(0, retries);
    m_budgetMs = budgetMs;
}

void Remote::start(const QString& what, Start start, Done done, bool retry)
{
    auto attempt = std::make_shared<Attempt>();
    attempt->what = what;
    attempt->start = std::move(start);
    attempt->done = std::move(done);
    attempt->retry = retry;
    attempt->clock.start();
    launch(attempt);
}

void Remote::launch(const std::shared_ptr<Attempt>& attempt)
{
    if (m_interrupted)
        return;
    ++attempt->tries;
    // The completion may run inside the call (a missing local file) or twice (the
    // time-out's record, then the aborted reply's): the first one counts.
    auto settled = std::make_shared<bool>(false);
    auto id = std::make_shared<long long>(0);
    *id = attempt->start([this, attempt, settled, id](const ResponseData& data) {
        if (*settled)
            return;
        *settled = true;
        m_running.remove(*id);
        finish(attempt, data);
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
}

void Remote::finish(const std::shared_ptr<Attempt>& attempt, const ResponseData& data)
{
    if (!m_interrupted && attempt->retry && worthRetry(data) && attempt->tries <= m_retries
        && attempt->clock.elapsed() < m_budgetMs) {
        const int delay = retryDelay(data, attempt->tries);
        if (m_verbose && m_notify) {
            const QString reason
                = data.statusCode >= 400 ? QStringLiteral("HTTP %1").arg(data.statusCode) : data.errorString;
            m_notify(QStringLiteral("retrying %1 in %2 s (%3)")
                         .arg(attempt->what)
                         .arg(delay / 1000.0, 0, 'f', 1)
                         .arg(reason));
        }
        QTimer::singleShot(delay, this, [this, attempt] { launch(attempt); });
        return;
    }
    Reply reply;
    reply.data = data;
    reply.json = QJsonDocument::fromJson(data.body.toUtf8()).object();
    reply.attempts = attempt->tries;
    attempt->done(reply);
    wake();
}

bool Remote::isLocalFileError(const ResponseData& data)
{
    // A transfer's local file failure carries the file error code as both numbers.
    return data.statusCode > 0 && data.statusCode < 100 && data.statusCode == data.networkError;
}

bool Remote::worthRetry(const ResponseData& data)
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

int Remote::retryDelay(const ResponseData& data, int tries) const
{
    bool given = false;
    const int retryAfter = data.headers.value("Retry-After").trimmed().toInt(&given);
    if (data.statusCode == 429 && given && retryAfter >= 0)
        return qMin(retryAfter, 60) * 1000;
    const int base = qMin(250 << qMin(tries - 1, 5), 8000);
    return base + int(QRandomGenerator::global()->bounded(base / 4 + 1));
}

void Remote::waitFor(const std::function<bool()>& finished)
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

void Remote::wake()
{
    if (m_loop && (m_interrupted || (m_until && m_until())))
        m_loop->quit();
}

void Remote::sleep(int ms)
{
    bool elapsed = false;
    QTimer::singleShot(ms, this, [this, &elapsed] {
        elapsed = true;
        wake();
    });
    waitFor([&elapsed] { return elapsed; });
}

Reply Remote::fetch(const QString& what, Start start)
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

Reply Remote::call(const QString& what, Start start)
{
    const Reply reply = fetch(what, std::move(start));
    if (!reply.ok())
        throw failureOf(what, reply);
    return reply;
}

Failure Remote::failureOf(const QString& what, const Reply& reply)
{
    const ResponseData& data = reply.data;
    if (!reply.served)
        return { Exit::Usage, QStringLiteral("%1: not offered by this server's deployment type").arg(what) };
    if (data.networkError == 5 && data.statusCode == 0)
        return { Exit::Interrupted, QStringLiteral("%1: cancelled").arg(what) };
    if (isLocalFileError(data))
        return { Exit::Local, QStringLiteral("%1: %2").arg(what, data.errorString) };
    const QString tries
        = reply.attempts > 1 ? QStringLiteral(" after %1 attempts").arg(reply.attempts) : QString();
    if (data.statusCode == 0 || (data.statusCode < 300 && data.networkError != 0)) {
        if (data.networkError == 6) // SslHandshakeFailedError
            return { Exit::Network,
                QStringLiteral("%1: the server's TLS certificate is not trusted (%2); give --cacert FILE "
                               "with its CA, or --insecure")
                    .arg(what, data.errorString) };
        if (data.errorString == QLatin1String("TimeOut") || data.networkError == 4)
            return { Exit::Network,
                QStringLiteral("%1: the server stopped answering (time-out%2); try again later")
                    .arg(what, tries) };
        return { Exit::Network,
            QStringLiteral("%1: cannot reach the server (%2%3); check the address and that the server runs")
                .arg(what, data.errorString, tries) };
    }
    NBBaseParse reading;
    reading.ParseResp(data);
    const TransferErrorMessage error = reading.errorMsg();
    const QString text = !error.code.isEmpty() ? error.code
        : !error.message.isEmpty()             ? error.message
                                               : data.errorString;
    const QString detail = !error.message.isEmpty() && error.message != text
        ? QStringLiteral(": %1").arg(error.message)
        : QString();
    QString hint;
    switch (reading.errorCode()) {
    case CNBParseProcessor::InvalidSession:
        if (error.code == QLatin1String("Invalid session"))
            hint = QStringLiteral("; session expired or missing: run nbcli login");
        break;
    case CNBParseProcessor::FileLocked: {
        // Locks are per user: the holder and the expiry, where the server names them.
        const QJsonObject body = QJsonDocument::fromJson(data.body.toUtf8()).object();
        const QString holder = body.value("lock_owner").toString();
        hint = holder.isEmpty()
            ? QStringLiteral("; another user holds the lock: try again when it is released")
            : QStringLiteral("; ask %1 to unlock it, or try again once the lock expires").arg(holder);
        break;
    }
    }
    if (data.statusCode >= 500)
        hint = QStringLiteral("; the server failed%1, try again later").arg(tries);
    return { Exit::Refused,
        QStringLiteral("%1: %2%3 (HTTP %4, error %5)%6")
            .arg(what, text, detail)
            .arg(data.statusCode)
            .arg(reading.errorCode())
            .arg(hint) };
}

void Remote::interrupt()
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

void Remote::catchInterrupts()
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
