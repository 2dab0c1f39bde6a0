// What the route groups of the emulator share: its options, its state and how clients
// reach it.
#pragma once

#include "Accounts.h"
#include "ChunkStore.h"
#include "Database.h"
#include "Drive.h"
#include "Faults.h"

#include <QMutex>
#include <QString>
#include <atomic>
#include <QStringList>

struct EmuOptions
{
    QString dataDir; // empty with ephemeral
    bool ephemeral = false;
    QString host = QStringLiteral("127.0.0.1");
    int port = 0;
    QString portFile;
    int type = 1; // as ServerApi::init: 0 private, 1 public cloud, 2 private 6.0
    QStringList users; // NAME:PASSWORD[:tfa]
    QStringList links; // CODE:PASSWORD:USER:PATH (the shared folder, in the user's "ent" space)
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
    int threads = 256;
    qint64 maxBody = 64 << 20; // a request body read whole (chunk uploads, forms)
};

struct EmuContext
{
    EmuOptions options;
    Database db;
    ChunkStore store;
    Accounts accounts { db, 86400 };
    Drive drive { db, store };
    Faults faults;
    QString selfUrl; // "http://127.0.0.1:PORT", as clients reach this server
    // How many polls a batch task answers "running" before "done", and the paths it fails
    // (a regular expression; empty fails none), set through the control interface.
    std::atomic<int> taskPolls { 1 };
    QString taskFailPattern;
    QMutex taskMutex;
};
