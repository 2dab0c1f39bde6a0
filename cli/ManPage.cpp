#include "ManPage.h"

#include "Cli.h"

namespace {

QString optionItem(const OptionSpec& option)
{
    QStringList names;
    for (const QString& name : option.names)
        names << QStringLiteral("\\fB%1%2\\fR")
                     .arg(name.size() == 1 ? QStringLiteral("\\-") : QStringLiteral("\\-\\-"),
                         ManPage::escaped(name));
    QString head = names.join(QStringLiteral(", "));
    if (option.kind != OptionSpec::Flag)
        head += QStringLiteral(" \\fI%1\\fR").arg(ManPage::escaped(option.valueName));
    return QStringLiteral(".TP\n%1\n%2\n").arg(head, ManPage::escaped(option.description));
}

// Help text: paragraphs as they are, lines indented by two spaces (the examples) kept
// as written.
QString block(const QString& text)
{
    QString out;
    bool literal = false;
    for (const QString& line : text.split(QLatin1Char('\n'))) {
        const bool example = line.startsWith(QLatin1String("  "));
        if (example != literal) {
            out += example ? QStringLiteral(".PP\n.RS 4\n.nf\n") : QStringLiteral(".fi\n.RE\n");
            literal = example;
        }
        if (line.isEmpty()) {
            if (!literal)
                out += QStringLiteral(".PP\n");
            continue;
        }
        out += ManPage::escaped(example ? line.mid(2) : line) + QLatin1Char('\n');
    }
    if (literal)
        out += QStringLiteral(".fi\n.RE\n");
    return out;
}

} // namespace

QString ManPage::escaped(const QString& text)
{
    QString out = text;
    out.replace(QLatin1Char('\\'), QLatin1String("\\e"));
    out.replace(QLatin1Char('-'), QLatin1String("\\-"));
    if (out.startsWith(QLatin1Char('.')) || out.startsWith(QLatin1Char('\'')))
        out.prepend(QLatin1String("\\&"));
    return out;
}

QString ManPage::roff(const QString& version)
{
    QString page = QStringLiteral(".TH NBCLI 1 \"\" \"nbcli %1\" \"User Commands\"\n").arg(escaped(version));
    page += QStringLiteral(".SH NAME\nnbcli \\- command\\-line client of the cloud drive\n"
                           ".SH SYNOPSIS\n.B nbcli\n[\\fIglobal options\\fR] \\fICOMMAND\\fR "
                           "[\\fIoptions\\fR] [\\fIarguments\\fR]\n"
                           ".SH DESCRIPTION\n");
    page += block(Cli::description());
    page += QStringLiteral(".SH COMMANDS\n");
    for (const Command& command : Cli::commands()) {
        page += QStringLiteral(".SS \"%1 %2\"\n")
                    .arg(command.name, escaped(command.syntax).replace('"', "\\(dq"));
        page += escaped(command.summary) + QLatin1Char('\n');
        if (!command.details.isEmpty())
            page += QStringLiteral(".PP\n") + block(command.details);
        if (!command.options.isEmpty()) {
            page += QStringLiteral(".PP\nOptions:\n.RS\n");
            for (const OptionSpec& option : command.options)
                page += optionItem(option);
            page += QStringLiteral(".RE\n");
        }
    }
    page += QStringLiteral(".SH GLOBAL OPTIONS\nGiven before or after the command.\n");
    for (const OptionSpec& option : Cli::globalOptions())
        page += optionItem(option);
    page += QStringLiteral(".TP\n\\fB\\-h\\fR, \\fB\\-\\-help\\fR\nThe help of nbcli, or of a command.\n"
                           ".TP\n\\fB\\-\\-version\\fR\nThe version.\n");
    page += QStringLiteral(".SH ENVIRONMENT\n") + block(Cli::environmentText());
    page += QStringLiteral(".SH FILES\n") + block(Cli::filesText(true));
    page += QStringLiteral(".SH EXIT STATUS\n") + block(QString::fromLatin1(Cli::exitTable()));
    page += QStringLiteral(".SH SEE ALSO\nnbcli \\fICOMMAND\\fR \\-\\-help\n");
    return page;
}
