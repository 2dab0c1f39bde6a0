// What a command tells its caller, written in one place. On standard output: the
// results as text lines, or with --json one JSON document at the end of the run,
//     {"command":"put","ok":true,"exit":0,"results":[{"ok":true,"path":...},...]}
// with "error": {"code","message","exit"} when the run did not succeed, whatever ended
// it (a usage error, a refusal, a failure of some items). `watch` streams instead: one
// JSON object per line. On standard error: the failures, in words. -q silences the
// confirmations of actions ("put a -> /b"), never results or failures.
#pragma once

#include "Failure.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <optional>

class Console;

class Output
{
public:
    explicit Output(Console& console);

    void setCommand(const QString& name) { m_command = name; }
    bool json() const;

    // A result the command exists to show (an entry of ls, the account of whoami).
    void result(const QJsonObject& item, const QString& line);
    // What an action did; the item gets "ok": true.
    void done(QJsonObject item, const QString& line);
    // An item that failed, the others going on: "ok": false and its "error".
    void failed(QJsonObject item, const Failure& failure);
    // The run streams (watch): each item a line of its own, printed at once, and no
    // document at the end unless the run fails.
    void beginStream() { m_streamed = true; }
    void stream(const QJsonObject& item, const QString& line);
    // A note about the run for people (standard error, not with -q).
    void note(const QString& line);

    // Ends the run: 0 when every item succeeded, the failure's status when all failed,
    // 5 (partial) when some did; prints the JSON document.
    int finish();
    // Ends the run with the failure that stopped it.
    int fail(const Failure& failure);

    static QJsonObject errorJson(const Failure& failure);

private:
    int end(const std::optional<Failure>& failure);

    Console& m_console;
    QString m_command;
    QJsonArray m_results;
    int m_succeeded = 0;
    int m_failed = 0;
    std::optional<Failure> m_firstFailure;
    bool m_streamed = false;
    bool m_ended = false;
};
