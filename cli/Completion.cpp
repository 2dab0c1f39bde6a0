#include "Completion.h"

#include "Cli.h"
#include "Config.h"

#include <algorithm>

namespace {

const QString Files = QStringLiteral("@files");

const OptionSpec* findOption(const QList<OptionSpec>& options, const QString& word)
{
    const QString name = word.startsWith(QLatin1String("--")) ? word.mid(2) : word.mid(1);
    for (const OptionSpec& option : options) {
        if (option.names.contains(name))
            return &option;
    }
    return nullptr;
}

QStringList withPrefix(const QStringList& words, const QString& prefix)
{
    QStringList found;
    for (const QString& word : words) {
        if (word.startsWith(prefix))
            found << word;
    }
    return found;
}

QStringList optionNames(const QList<OptionSpec>& options)
{
    QStringList names;
    for (const OptionSpec& option : options) {
        for (const QString& name : option.names)
            names << (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
    }
    return names;
}

// The entries below a folder that continue `typed`, a remote path.
QStringList remotePaths(const QString& typed, const QStringList& globals, const Completion::Lister& list)
{
    const QString path = typed.startsWith(QLatin1Char('/')) ? typed : QLatin1Char('/') + typed;
    const int slash = path.lastIndexOf(QLatin1Char('/'));
    const QString folder = path.left(slash + 1);
    const QString start = path.mid(slash + 1);
    QStringList found;
    for (const QString& name : list(globals, folder)) {
        if (name.startsWith(start))
            found << folder + name;
    }
    return found;
}

} // namespace

QString Completion::unquoted(const QString& word)
{
    QString out;
    QChar quote;
    for (int i = 0; i < word.size(); ++i) {
        const QChar c = word.at(i);
        if (quote == QLatin1Char('\'')) {
            if (c == quote)
                quote = QChar();
            else
                out += c;
        } else if (c == QLatin1Char('\\') && i + 1 < word.size()) {
            const QChar next = word.at(i + 1);
            // Within double quotes a backslash escapes only what they give a meaning to.
            if (quote == QLatin1Char('"') && !QStringLiteral("$`\"\\\n").contains(next))
                out += c;
            out += next;
            ++i;
        } else if (quote.isNull() && (c == QLatin1Char('\'') || c == QLatin1Char('"'))) {
            quote = c;
        } else if (quote == QLatin1Char('"') && c == quote) {
            quote = QChar();
        } else {
            out += c;
        }
    }
    return out;
}

QStringList Completion::candidates(const QStringList& words, const Lister& listRemote)
{
    QStringList found = offered(words, listRemote);
    if (found.value(0) == Files)
        return { Files, words.value(words.size() - 1) };
    found.erase(std::remove_if(found.begin(), found.end(),
                    [](const QString& word) { return word.contains(QLatin1Char('\n')); }),
        found.end());
    return found;
}

QStringList Completion::offered(const QStringList& words, const Lister& listRemote)
{
    const QList<Command> commands = Cli::commands();
    const QList<OptionSpec> globalOptions = Cli::globalOptions();
    const QString typed = words.value(words.size() - 1);
    const Command* command = nullptr;
    bool help = false;
    QStringList globals; // the global options given, with their values
    int positional = 0; // the command's arguments before the one typed
    QString firstArgument;
    const OptionSpec* awaiting = nullptr; // the option whose value is typed
    bool awaitingGlobal = false;
    bool onlyArguments = false; // after "--"
    for (int i = 0; i + 1 < words.size(); ++i) {
        const QString& word = words.at(i);
        if (awaiting) {
            if (awaitingGlobal)
                globals << word;
            awaiting = nullptr;
            continue;
        }
        if (!onlyArguments && word == QLatin1String("--")) {
            onlyArguments = true;
            continue;
        }
        if (!onlyArguments && word.startsWith(QLatin1Char('-')) && word.size() > 1) {
            const QString bare = word.section(QLatin1Char('='), 0, 0);
            const OptionSpec* global = findOption(globalOptions, bare);
            const OptionSpec* own = command ? findOption(command->options, bare) : nullptr;
            const OptionSpec* option = global ? global : own;
            if (global)
                globals << word;
            if (option && option->kind != OptionSpec::Flag && !word.contains(QLatin1Char('='))) {
                awaiting = option;
                awaitingGlobal = global != nullptr;
            }
            continue;
        }
        if (!command && !help) {
            help = word == QLatin1String("help");
            const auto found = std::find_if(
                commands.cbegin(), commands.cend(), [&](const Command& c) { return c.name == word; });
            if (found == commands.cend() && !help)
                return {};
            if (!help)
                command = &*found;
            continue;
        }
        if (positional++ == 0)
            firstArgument = word;
    }

    // "--type=pri": the value, written with its option.
    QString valuePrefix;
    QString value = typed;
    if (!awaiting && !onlyArguments && typed.startsWith(QLatin1String("--"))
        && typed.contains(QLatin1Char('='))) {
        const QString name = typed.section(QLatin1Char('='), 0, 0);
        awaiting = findOption(globalOptions, name);
        if (!awaiting && command)
            awaiting = findOption(command->options, name);
        if (!awaiting || awaiting->kind == OptionSpec::Flag)
            return {};
        valuePrefix = name + QLatin1Char('=');
        value = typed.mid(valuePrefix.size());
    }
    if (awaiting) {
        QStringList values;
        if (awaiting->kind == OptionSpec::File)
            return valuePrefix.isEmpty() ? QStringList { Files } : QStringList {};
        if (awaiting->kind == OptionSpec::Choice)
            values = withPrefix(awaiting->choices, value);
        else if (awaiting->names.contains(QStringLiteral("profile")))
            values = withPrefix(Config::profiles(), value);
        for (QString& each : values)
            each.prepend(valuePrefix);
        return values;
    }
    if (!onlyArguments && typed.startsWith(QLatin1Char('-'))) {
        QStringList names = optionNames(globalOptions) << QStringLiteral("--help");
        if (command)
            names += optionNames(command->options);
        else
            names << QStringLiteral("--version");
        names.removeDuplicates();
        names.sort();
        return withPrefix(names, typed);
    }
    QStringList verbs;
    for (const Command& each : commands)
        verbs << each.name;
    if (help)
        return positional == 0 ? withPrefix(verbs, typed) : QStringList();
    if (!command)
        return withPrefix(verbs << QStringLiteral("help"), typed);

    if (!command->words.isEmpty() && positional == 0)
        return withPrefix(command->words, typed);
    const bool first = positional == (command->words.isEmpty() ? 0 : 1);
    const bool remoteLooking = typed.startsWith(QLatin1Char('/'));
    switch (command->operands) {
    case Operands::None:
        return {};
    case Operands::Remote:
        return remotePaths(typed, globals, listRemote);
    case Operands::Local:
        return { Files };
    case Operands::Put: // LOCAL... REMOTE
        return !first && remoteLooking ? remotePaths(typed, globals, listRemote) : QStringList { Files };
    case Operands::Get: // REMOTE... LOCAL
        return first || remoteLooking ? remotePaths(typed, globals, listRemote) : QStringList { Files };
    case Operands::Sides: { // the remote side written ":REMOTE"
        if (!typed.startsWith(QLatin1Char(':')))
            return { Files };
        QStringList found;
        for (const QString& path : remotePaths(typed.mid(1), globals, listRemote))
            found << QLatin1Char(':') + path;
        return found;
    }
    case Operands::Profiles: // show NAME, remove NAME
        return positional == 1 && firstArgument != QLatin1String("list")
            ? withPrefix(Config::profiles(), typed)
            : QStringList();
    }
    return {};
}

QString Completion::script(const QString& shell)
{
    if (shell == QLatin1String("bash"))
        return QStringLiteral(
            R"sh(# bash completion for nbcli: nbcli completion bash > /etc/bash_completion.d/nbcli,
# or source <(nbcli completion bash). It asks nbcli what may follow the words typed.
_nbcli()
{
    local cur words cword
    if declare -F _get_comp_words_by_ref >/dev/null; then
        _get_comp_words_by_ref -n =: cur words cword
    else
        # Without bash-completion: the words bash split at ":" and "=" joined again.
        local line=${COMP_LINE:0:COMP_POINT} at=0 i gap
        words=() cword=-1
        for ((i = 0; i <= COMP_CWORD; i++)); do
            gap=${line:at}
            gap=${gap%%[![:blank:]]*}
            if ((i > 0 && ${#gap} == 0)); then
                words[cword]+=${COMP_WORDS[i]}
            else
                words+=("${COMP_WORDS[i]}")
                cword=$((cword + 1))
            fi
            at=$((at + ${#gap} + ${#COMP_WORDS[i]}))
        done
        cur=${words[cword]}
    fi
    local IFS=$'\n'
    local -a reply
    reply=($("${words[0]}" __complete-quoted "${words[@]:1:cword}" 2>/dev/null))
    if [[ ${reply[0]-} == @files ]]; then
        compopt -o filenames 2>/dev/null
        COMPREPLY=($(compgen -f -- "${reply[1]-}"))
        return 0
    fi
    COMPREPLY=()
    local word
    for word in "${reply[@]}"; do
        # bash completes only the part after a ":" or "=" of the word.
        if [[ $cur == *[:=]* && $COMP_WORDBREAKS == *:* ]]; then
            word=${word#"${cur%"${cur##*[:=]}"}"}
        fi
        COMPREPLY+=("$(printf '%q' "$word")")
    done
    # A folder goes on: no space after its "/".
    if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace 2>/dev/null
    fi
    return 0
}
complete -F _nbcli nbcli
)sh");
    if (shell == QLatin1String("zsh"))
        return QStringLiteral(R"sh(#compdef nbcli
# zsh completion for nbcli: nbcli completion zsh > "${fpath[1]}/_nbcli", or
# source <(nbcli completion zsh) after compinit. It asks nbcli what may follow each word.
_nbcli() {
    local -a reply folders others
    reply=("${(@f)$("${words[1]}" __complete "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
    if [[ ${reply[1]} == @files ]]; then
        _files
        return
    fi
    local word
    for word in "${reply[@]}"; do
        [[ -z $word ]] && continue
        if [[ $word == */ ]]; then folders+=("$word"); else others+=("$word"); fi
    done
    (( ${#folders} )) && compadd -S '' -- "${folders[@]}"
    (( ${#others} )) && compadd -- "${others[@]}"
    return 0
}
if [[ ${zsh_eval_context[-1]} == loadautofunc ]]; then
    _nbcli "$@"
else
    compdef _nbcli nbcli
fi
)sh");
    return QString();
}
