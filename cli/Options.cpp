#include "Options.h"

#include "Failure.h"

#include <QDir>
#include <QRegularExpression>
#include <cmath>

OptionSpec OptionSpec::flag(QStringList names, QString description)
{
    OptionSpec option;
    option.names = std::move(names);
    option.description = std::move(description);
    return option;
}

OptionSpec OptionSpec::value(
    QStringList names, QString description, QString valueName, Kind kind, QString defaultValue)
{
    OptionSpec option;
    option.names = std::move(names);
    option.description = std::move(description);
    option.valueName = std::move(valueName);
    option.kind = kind;
    option.defaultValue = std::move(defaultValue);
    return option;
}

OptionSpec OptionSpec::choice(
    QStringList names, QString description, QString valueName, QStringList choices, QString defaultValue)
{
    OptionSpec option = value(
        std::move(names), std::move(description), std::move(valueName), Choice, std::move(defaultValue));
    option.choices = std::move(choices);
    return option;
}

QString OptionSpec::name() const
{
    for (const QString& name : names) {
        if (name.size() > 1)
            return name;
    }
    return names.value(0);
}

QCommandLineOption OptionSpec::option() const
{
    QCommandLineOption option(names, description, valueName, defaultValue);
    return option;
}

QString OptionSpec::synopsis() const
{
    QStringList spelled;
    for (const QString& name : names)
        spelled << (name.size() == 1 ? QStringLiteral("-") : QStringLiteral("--")) + name;
    return spelled.join(QStringLiteral(", "))
        + (valueName.isEmpty() ? QString() : QLatin1Char(' ') + valueName);
}

void OptionSpec::check(const QString& text, const QString& source) const
{
    const auto refuse = [&](const QString& wanted) {
        throw Failure(Exit::Usage, QStringLiteral("%1 takes %2, not \"%3\"").arg(source, wanted, text));
    };
    switch (kind) {
    case Flag:
    case Text:
        return;
    case File:
        if (text.isEmpty())
            refuse(QStringLiteral("a file"));
        return;
    case Count:
    case CountFromZero:
        if (!Options::count(text, kind == Count ? 1 : 0, most))
            refuse(most > 0
                    ? QStringLiteral("a whole number from %1 to %2")
                          .arg(QString::number(kind == Count ? 1 : 0), QString::number(most))
                    : QStringLiteral("a whole number from %1").arg(QString::number(kind == Count ? 1 : 0)));
        return;
    case Duration:
        if (!Options::durationMs(text))
            refuse(QStringLiteral("a number of seconds above 0 (decimals allowed)"));
        return;
    case Rate:
        if (!Options::rate(text))
            refuse(QStringLiteral("bytes per second, such as 500K, 2.5M or 1G (0: no limit)"));
        return;
    case Choice:
        if (!choices.contains(text.toLower()))
            refuse(QStringLiteral("one of %1").arg(choices.join(QStringLiteral(", "))));
        return;
    }
}

namespace Options {

void validate(const QCommandLineParser& parser, const QList<OptionSpec>& specs)
{
    for (const OptionSpec& option : specs) {
        if (option.kind == OptionSpec::Flag || !parser.isSet(option.name()))
            continue;
        for (const QString& text : parser.values(option.name()))
            option.check(text, QStringLiteral("--") + option.name());
    }
}

std::optional<int> durationMs(const QString& text)
{
    static const QRegularExpression decimal(QStringLiteral("^\\d+(\\.\\d+)?$|^\\.\\d+$"));
    if (!decimal.match(text).hasMatch())
        return std::nullopt;
    const double seconds = text.toDouble();
    if (!(seconds > 0) || seconds > 7 * 24 * 3600)
        return std::nullopt;
    return int(std::ceil(seconds * 1000));
}

std::optional<qint64> rate(const QString& text)
{
    static const QRegularExpression spelled(QStringLiteral("^(\\d+(?:\\.\\d+)?)([KMGkmg]?)$"));
    const QRegularExpressionMatch match = spelled.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    const QString unit = match.captured(2).toUpper();
    const int power = unit.isEmpty() ? 0 : QStringLiteral("KMG").indexOf(unit) + 1;
    const double bytes = match.captured(1).toDouble() * std::pow(1024.0, power);
    if (bytes >= 1e15)
        return std::nullopt;
    return qint64(bytes);
}

std::optional<int> count(const QString& text, int least, int most)
{
    static const QRegularExpression whole(QStringLiteral("^\\d{1,9}$"));
    if (!whole.match(text).hasMatch())
        return std::nullopt;
    const int value = text.toInt();
    if (value < least || (most > 0 && value > most))
        return std::nullopt;
    return value;
}

} // namespace Options
