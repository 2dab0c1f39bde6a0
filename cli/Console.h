// The terminal side of nbcli: results on standard output (text or one JSON document),
// notes, progress and errors on standard error. Progress is redrawn in place only on a
// terminal; in a pipe it is a plain line now and then, never a carriage return or an
// escape sequence.
#pragma once

#include <QJsonValue>
#include <QString>
#include <QTextStream>

class Console
{
public:
    Console();

    bool quiet = false; // -q: no notes, no progress
    bool json = false; // --json: results as JSON on standard output
    bool verbose = false; // -v: retries and the library's detailed trace

    bool errIsTerminal() const { return m_errTerminal; }

    void out(const QString& line);
    void outJson(const QJsonValue& value);
    // Notes and errors end any progress line first.
    void note(const QString& line);
    void error(const QString& line);
    // A progress text: redrawn in place on a terminal, a line of its own elsewhere.
    void progress(const QString& text);
    void endProgress();

    // A secret from the terminal without echo, or a line of standard input when it is not one.
    QString readSecret(const QString& prompt);
    QString readLine(const QString& prompt);

private:
    QTextStream m_out;
    QTextStream m_err;
    bool m_errTerminal;
    bool m_progressShown = false;
};
