// The terminal side of nbcli: results on standard output, notes, progress and errors on
// standard error. Progress is redrawn in place only on a terminal, cut to its width; in
// a pipe it is a plain line now and then, never a carriage return or an escape
// sequence. Every note and error goes out with its secrets hidden (sessions, tokens,
// codes, passwords), as the library's log hides them.
#pragma once

#include <QJsonValue>
#include <QString>
#include <QTextStream>

class Console
{
public:
    Console();

    bool quiet = false; // -q: no notes, no progress, no confirmations
    bool json = false; // --json: results as JSON on standard output
    bool verbose = false; // -v: the library's detailed trace
    bool progressInPipes = false; // --progress: a progress line a second even in a pipe

    bool errIsTerminal() const { return m_errTerminal; }

    void out(const QString& line);
    void outJson(const QJsonValue& value);
    // Notes and errors end any progress line first.
    void note(const QString& line);
    void error(const QString& line);
    // A progress text: redrawn in place on a terminal, a line of its own elsewhere.
    void progress(const QString& text);
    void endProgress();
    // Something happening now that people should see (a retry): on the progress line on a
    // terminal, a plain line in a pipe; nothing with -q.
    void status(const QString& line);

    // A secret from the terminal without echo; none when standard input is no terminal.
    bool stdinIsTerminal() const;
    QString readSecret(const QString& prompt);
    // A line of standard input (after the prompt, on a terminal).
    QString readLine(const QString& prompt);

    static QString redacted(const QString& text);

private:
    int width() const;

    QTextStream m_out;
    QTextStream m_err;
    bool m_errTerminal;
    bool m_progressShown = false;
};
