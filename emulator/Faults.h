// Faults injected into replies, per route pattern, deterministic for a seed: each
// request that matches a rule draws the next number of one generator, so the same seed
// and the same order of requests give the same faults.
//
// A rule reads PATTERN:KIND[=VALUE][@PROBABILITY], PATTERN a regular expression on the
// decoded path, KIND one of
//   latency=MS        answer MS milliseconds late
//   status=CODE       answer CODE with an error body, without doing the work
//   retry-after=S     answer 429 with "Retry-After: S"
//   reset=N           announce the whole body, send N bytes of it, close the connection
//   truncate=N        send N bytes of the body without a length, then close: a short body
//                     the client cannot tell from a whole one
//   stall=S           send the head, then nothing for S seconds (600 by default)
#pragma once

#include <QJsonArray>
#include <QRegularExpression>
#include <QString>
#include <mutex>
#include <optional>
#include <random>

struct FaultRule
{
    enum Kind { Latency, Status, RetryAfter, Reset, Truncate, Stall };
    // When a fault acts on a request: before the route runs (it delays it), instead of the
    // route (its own reply), or after it (it breaks the route's reply on the way out).
    enum Phase { Before, Instead, After };

    QString text;
    QRegularExpression pattern;
    Kind kind = Status;
    int value = 0;
    double probability = 1.0;

    Phase phase() const;

    static std::optional<FaultRule> parse(const QString& text, QString* error);
};

class Faults
{
public:
    explicit Faults(quint64 seed = 0);
    void reseed(quint64 seed);

    void add(const FaultRule& rule);
    void clear();
    QJsonArray rules() const;
    // The fault for this request, if any.
    std::optional<FaultRule> pick(const QString& path);

private:
    mutable std::mutex m_mutex;
    QList<FaultRule> m_rules;
    std::mt19937_64 m_random;
};
