// Where nbcli keeps its sign-ins between runs, one profile each, in $XDG_CONFIG_HOME/nbcli
// (mode 0700): the profile "default" in session.json, any other NAME in profiles/NAME.json,
// mode 0600: the server, its deployment type, the user and session, and the TLS choices of
// the login (a CA file, by its absolute path, or no verification). The server address and deployment type may
// be overridden by NB_SERVER and NB_TYPE, and both again by --server and --type; a stored session is used
// only with the server and type it was made for.
#pragma once

#include <QJsonObject>
#include <QString>

struct Settings
{
    QString server;
    int type = 1;
    QString user;
    QString session;
    QString deviceUuid;
    QString caFile; // absolute
    bool insecure = false;
    QJsonObject cursors; // change-feed cursors of `watch`, by folder
};

class Config
{
public:
    static QString directory();
    static QString file(const QString& profile);

    // Letters, digits, ".", "_" and "-", starting with neither "." nor "-": a file name anywhere
    // and never read as an option.
    static bool isProfileName(const QString& name);
    // The profiles that have a file, "default" first, the others by name.
    static QStringList profiles();

    // The stored settings; `error` says why a file that exists could not be read.
    static Settings load(const QString& profile, QString* error);
    // Written whole or not at all; false with `error` when it could not be.
    static bool save(const QString& profile, const Settings& settings, QString* error);
    static bool remove(const QString& profile, QString* error);

    // The deployment type named as a number or a word (private, cloud, six); -1 when neither.
    static int parseType(const QString& text);
    static QString typeName(int type);
};
