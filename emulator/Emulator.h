// The drive emulator: its data folder, the HTTP(S) server and the dispatch of every
// request through the route table: deployment type, access, the verification code,
// faults and the request log.
#pragma once

#include "AccountRoutes.h"
#include "ControlRoutes.h"
#include "DataFolder.h"
#include "DeliveryRoutes.h"
#include "DriveRoutes.h"
#include "EmuContext.h"
#include "HttpServer.h"
#include "Router.h"
#include "TransferRoutes.h"

#include <QFile>
#include <QTextStream>
#include <atomic>
#include <mutex>
#include <optional>

// One --user option: NAME:PASSWORD[:tfa].
struct UserOption
{
    QString name;
    QString password;
    bool tfa = false;

    static std::optional<UserOption> parse(const QString& option, QString* error);
};

class Emulator
{
public:
    // What can be checked of the options before anything is opened: users (a name and a
    // password each, every name once), fault rules, the seed folder.
    static bool checkOptions(const EmuOptions& options, QString* error);

    explicit Emulator(const EmuOptions& options);
    ~Emulator();

    // Opens (or makes) the data folder, adds the users, links and seed, binds the address
    // and writes the port file. Prints what a user needs to `out`.
    bool start(QTextStream& out, QString* error);
    // Serves until stop(), which may come from another thread.
    void run();
    void stop();
    int port() const { return m_server.port(); }

private:
    void dispatch(HttpRequest& request, HttpResponse& response);
    // Whether the caller may use the route; otherwise the reply says why.
    bool admit(const Route& route, HttpCall& call);
    // Whether a request may use the control interface: addressed to this emulator by its
    // own address, and from no other origin.
    bool admitControl(HttpCall& call);
    // A reply the HTTP layer makes itself, for a request it refuses.
    void refuse(int status, const QString& message, HttpResponse& response);
    void log(const QByteArray& method, const QByteArray& target, int status, qint64 in, qint64 out, qint64 ms,
        const QString& fault);
    bool importSeed(QString* error);
    // The links of the options, and the seed when asked.
    bool populate(bool withSeed, QString* error);
    void reset(bool toSeed);

    EmuContext m_context;
    Router m_router;
    TransferRoutes m_transfers { m_context };
    AccountRoutes m_accounts { m_context };
    DriveRoutes m_drive { m_context };
    DeliveryRoutes m_delivery { m_context, m_transfers };
    ControlRoutes m_control;
    DataFolder m_data;
    HttpServer m_server;
    std::mutex m_logMutex;
    QFile m_log;
    std::atomic<qint64> m_requests { 0 };
};
