// nbcli(1) in roff, written from the command table that --help reads.
#pragma once

#include <QString>

class ManPage
{
public:
    static QString roff(const QString& version);
    // Text as roff prints it: backslashes, dashes and a leading dot or quote escaped.
    static QString escaped(const QString& text);
};
