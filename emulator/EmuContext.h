// What the route groups of the emulator share: its options, its state and how clients
// reach it.
#pragma once

#include "Accounts.h"
#include "ChunkStore.h"
#include "Database.h"
#include "Drive.h"
#include "Faults.h"
#include "Links.h"
#include "OpLog.h"
#include "Router.h"
#include "Tasks.h"

#include <QString>
#include <QStringList>
#include <atomic>
#include <mutex>

struct EmuOptions
{
    QString dataDir; // empty with ephemeral
    bool ephemeral = false;
    QString host = QStringLiteral("127.0.0.1");
    int port = 0;
    QString portFile;
    Deployment type = Deployment::PublicCloud;
    QStringList users; // NAME:PASSWORD[:tfa]
    QStringList links; // CODE:PASSWORD:USER:FOLDER (the shared folder, in the user's "ent" space)
    QString seedDir;
    QString verifyCode;
    bool control = false;
    QStringList faults;
    quint64 faultSeed = 0;
    QString logFile;
    QString tlsCert;
    QString tlsKey;
    bool tlsSelfSigned = false;
    int sessionSeconds = 86400;
    qint64 maxBody = 64 << 20; // a request body read whole (chunk uploads, forms)
};

struct EmuContext
{
    EmuOptions options;
    Database db;
    ChunkStore store;
    Accounts accounts { db, 86400 };
    Drive drive { db, store };
    Tasks tasks { db };
    Links links { db, drive };
    OpLog oplog { db };
    Faults faults;
    QString selfUrl; // "http://127.0.0.1:PORT", as clients reach this server
    // How many polls a batch task answers "running" before "done", and the paths it fails
    // (a regular expression; empty fails none), set through the control interface.
    std::atomic<int> taskPolls { 1 };
    QString taskFailPattern;
    std::mutex taskMutex;
};
