// Runs requests through ServerApi as a command-line program needs them: retried with
// back-off while the failure may go away (saying so as it happens), given up when
// nothing arrives for the time-out (through ServerApi::Cancel, below the library's two
// minutes), waited for in a local event loop, cancelled all at once by Ctrl-C, and read
// into the Failure they mean.
#pragma once

#include "Failure.h"

#include <INBSeverApi.h>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QObject>
#include <QSet>
#include <functional>
#include <memory>

class QEventLoop;
class QSocketNotifier;

struct Reply
{
    ResponseData data;
    QJsonObject json; // the body, when it is a JSON object
    bool wholeJson = false; // the body is one JSON object, whole
    bool served = true; // false: the deployment type does not offer the operation
    int attempts = 1;
    bool ok() const;
};

class RequestRunner : public QObject
{
public:
    using Start = std::function<long long(NBCompletionCallback)>;
    using Done = std::function<void(const Reply&)>;

    explicit RequestRunner(QObject* parent = nullptr);
    ~RequestRunner() override;

    // Retries after a reset, a refused connection, a time-out, 5xx or 429 (after its
    // "Retry-After"): at most `retries` more attempts within `budgetMs`. Never after a
    // refusal such as a wrong password or a lock.
    void setRetries(int retries, int budgetMs = 300000);
    // A request that receives nothing for `ms` is given up as timed out (0: the library's
    // own two minutes).
    void setTimeout(int ms) { m_timeoutMs = ms; }
    // The retries and time-out of `other`.
    void copySettings(const RequestRunner& other);
    // Where retries are told as they happen.
    void setNotifier(std::function<void(const QString&)> notify) { m_notify = std::move(notify); }
    void notify(const QString& line)
    {
        if (m_notify)
            m_notify(line);
    }
    // Something arrived or left: what keeps the time-out from giving requests up.
    void touch();

    // Starts a request; `done` runs once, with the last attempt's reply (the only one
    // when `retry` is false).
    void start(const QString& what, Start start, Done done, bool retry = true);
    // Runs the event loop until `finished` holds (checked after every reply and wake()).
    // Ctrl-C cancels every request in flight and throws Failure Interrupted.
    void waitFor(const std::function<bool()>& finished);
    void wake();
    // Waits `ms`, or less when interrupted (then throws).
    void sleep(int ms);

    // One request waited for. `call` throws the Failure of anything but a success whose
    // body is one whole JSON object (anything else is a damaged reply); `fetch` only that
    // of a reply that never came (network, interrupt, not offered).
    Reply call(const QString& what, Start start);
    Reply fetch(const QString& what, Start start);

    // What a reply that is no success means, in the exit table's terms.
    static Failure failureOf(const QString& what, const Reply& reply);
    static bool worthRetry(const ResponseData& data);
    static bool isLocalFileError(const ResponseData& data);
    // The Failure of a success whose body is no whole JSON object.
    static Failure damagedReply(const QString& what, const Reply& reply);
    // Why a reply failed, in a few words ("connection refused", "HTTP 503").
    static QString reasonOf(const ResponseData& data);
    // The wait before attempt `tries` + 1: "Retry-After" of a 429, else growing back-off.
    static int retryDelay(const ResponseData& data, int tries);

    // From the SIGINT handler's notifier: cancel everything, end every wait.
    void interrupt();
    bool interrupted() const { return m_interrupted; }
    // Installs the SIGINT handler that reaches interrupt() through the event loop.
    void catchInterrupts();

private:
    struct Attempt;
    void launch(const std::shared_ptr<Attempt>& attempt);
    void finish(const std::shared_ptr<Attempt>& attempt, const ResponseData& data);
    void watch(const std::shared_ptr<Attempt>& attempt, long long id);

    int m_retries = 5;
    int m_budgetMs = 300000;
    int m_timeoutMs = 0;
    bool m_interrupted = false;
    std::function<void(const QString&)> m_notify;
    QSet<long long> m_running;
    QEventLoop* m_loop = nullptr;
    std::function<bool()> m_until;
    QSocketNotifier* m_signals = nullptr;
    QElapsedTimer m_activity;
};
