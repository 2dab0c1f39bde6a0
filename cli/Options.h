// The options of nbcli's commands as one table: names, help text, value and what the
// value may be. Every value given is checked before anything is sent, whether this run
// uses it or not; a bad one is a usage error that names the option.
#pragma once

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

struct OptionSpec
{
    enum Kind {
        Flag, // no value
        Text, // any value
        File, // a local file, made absolute
        Count, // a whole number from 1
        CountFromZero, // a whole number from 0
        Duration, // seconds, a decimal number above 0
        Choice, // one of `choices`
        Rate, // bytes per second: a number with K, M or G (1024-based), 0 for none
    };

    QStringList names; // the first long name is the one the program reads
    QString description;
    QString valueName;
    QString defaultValue;
    Kind kind = Flag;
    QStringList choices;
    int most = 0; // the largest count allowed (0: no limit)

    static OptionSpec flag(QStringList names, QString description);
    static OptionSpec value(QStringList names, QString description, QString valueName, Kind kind,
        QString defaultValue = QString());
    static OptionSpec choice(QStringList names, QString description, QString valueName, QStringList choices,
        QString defaultValue = QString());
    OptionSpec& atMost(int count)
    {
        most = count;
        return *this;
    }

    QString name() const;
    QCommandLineOption option() const;
    // "-j, --jobs N" as help shows it.
    QString synopsis() const;
    // Throws a usage Failure when `text` is no value of this option.
    void check(const QString& text, const QString& source) const;
};

namespace Options {

// Checks every value of `specs` given in `parser`.
void validate(const QCommandLineParser& parser, const QList<OptionSpec>& specs);
// A decimal number of seconds above 0, as a duration in milliseconds; none otherwise.
std::optional<int> durationMs(const QString& text);
// Bytes per second written as "500K", "2.5M", "1G" or a number of bytes; none otherwise.
std::optional<qint64> rate(const QString& text);
// A whole number from `least` (up to `most`, when above 0); none otherwise.
std::optional<int> count(const QString& text, int least, int most = 0);

} // namespace Options
