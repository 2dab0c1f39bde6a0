// Where nbcli keeps its sign-in between runs: $XDG_CONFIG_HOME/nbcli/session.json, mode
// 0600 in a folder of mode 0700: the server, its deployment type, the user and session,
// and the TLS choices of the login (a CA file, by its absolute path, or no
// verification). The server address and deployment type may be overridden by NB_SERVER
// and NB_TYPE, and both again by --server and --type; a stored session is used only
// with the server and type it was made for.
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
    static QString file();

    // The stored settings; `error` says why a file that exists could not be read.
    static Settings load(QString* error);
    // Written whole or not at all; false with `error` when it could not be.
    static bool save(const Settings& settings, QString* error);
    static bool forget(QString* error);

    // The deployment type named as a number or a word (private, cloud, six); -1 when neither.
    static int parseType(const QString& text);
    static QString typeName(int type);
};
