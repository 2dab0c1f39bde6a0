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
    // the last being the one completed, maybe empty), or the single word "@files" when
    // the shell should complete local file names.
    static QStringList candidates(const QStringList& words, const Lister& listRemote);

    // The script that `nbcli completion SHELL` prints, for "bash" or "zsh".
    static QString script(const QString& shell);
};
