// The drive emulator: its data folder, the HTTP(S) server and the dispatch of every
// request through the route table: deployment type, access, the verification code,
// faults and the request log.
#pragma once

#include "AccountRoutes.h"
#include "ControlRoutes.h"
#include "DeliveryRoutes.h"
#include "DriveRoutes.h"
#include "EmuContext.h"
#include "Router.h"
#include "TransferRoutes.h"

#include <QFile>
#include <QMutex>
#include <QTemporaryDir>
#include <QTextStream>
#include <atomic>
#include <memory>

namespace httplib {
class ContentReader;
class Server;
struct Request;
struct Response;
}

class Emulator
{
public:
    explicit Emulator(const EmuOptions& options);
    ~Emulator();

    // Opens (or makes) the data folder, adds the users, links and seed, binds the address
    // and writes the port file. Prints what a user needs to `out`.
    bool start(QTextStream& out, QString* error);
    // Serves until stop(), which may come from another thread.
    void run();
    void stop();
    int port() const { return m_port; }

    // Checks a data folder: every chunk the database lists is on disk with its hash, every
    // revision's chunk is listed, no file is left that nothing lists. 0 when consistent.
    static int check(const QString& dir, QTextStream& out);

private:
    void dispatch(const httplib::Request& request, httplib::Response& response, const httplib::ContentReader* reader);
    // Whether the caller may use the route; otherwise the reply says why.
    bool admit(const Route& route, HttpCall& call);
    void log(const httplib::Request& request, int status, qint64 in, qint64 out, qint64 ms, const QString& fault);
    bool openData(QString* error);
    bool importSeed(QString* error);
    // The links of the options, and the seed when asked.
    bool populate(bool withSeed, QString* error);
    void reset(bool toSeed);
    bool setUpTls(QString* error);

    EmuContext m_context;
    Router m_router;
    TransferRoutes m_transfers { m_context };
    AccountRoutes m_accounts { m_context };
    DriveRoutes m_drive { m_context };
    DeliveryRoutes m_delivery { m_context, m_transfers };
    ControlRoutes m_control;
    std::unique_ptr<httplib::Server> m_server;
    std::unique_ptr<QTemporaryDir> m_ephemeral;
    QString m_dataDir;
    int m_port = 0;
    QMutex m_logMutex;
    QFile m_log;
    std::atomic<qint64> m_requests { 0 };
};
