// Shell completion from the command table. The bash and zsh scripts are small and ask the
// binary itself what may follow (`nbcli __complete WORD...`), so they always know the
// commands and options of the nbcli they complete.
#pragma once

#include <QString>
#include <QStringList>
#include <functional>

class Completion
{
public:
    // Lists a remote folder for completion, with the global options the command line gave
    // (--profile, --space, ...): names, folders ending in "/"; nothing when it cannot.
    using Lister = std::function<QStringList(const QStringList& globals, const QString& folder)>;

    // The words that may stand in the last of `words` (the words after the program's name,
    // the last being the one completed, maybe empty), or "@files" and the word typed when
    // the shell should complete local file names. A name holding a line break is left out:
    // the shells read one word a line.
    static QStringList candidates(const QStringList& words, const Lister& listRemote);
    // A word as the shell would pass it on: quotes and backslashes taken away, a quote
    // still open taken as closed at the end.
    static QString unquoted(const QString& word);

    // The script that `nbcli completion SHELL` prints, for "bash" or "zsh".
    static QString script(const QString& shell);

private:
    static QStringList offered(const QStringList& words, const Lister& listRemote);
};
