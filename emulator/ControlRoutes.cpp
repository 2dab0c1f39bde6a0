#include "ControlRoutes.h"

#include "DeliveryRoutes.h"

#include <QDateTime>
#include <QJsonDocument>

ControlRoutes::ControlRoutes(EmuContext& context, std::function<void(bool)> reset)
    : m_context(context)
    , m_reset(std::move(reset))
{
}

void ControlRoutes::install(Router& router)
{
    router.add("GET", "/__emu/health", EveryType, Access::Control, [this](HttpCall& call) {
        QJsonArray users;
        for (const User& user : m_context.accounts.users())
            users.append(user.name);
        call.json(QJsonObject { { "ok", true }, { "type", m_context.options.type }, { "url", m_context.selfUrl },
            { "users", users }, { "journal", m_context.drive.lastSeq() } });
    });
    router.add("POST", "/__emu/reset", EveryType, Access::Control, [this](HttpCall& call) {
        const bool toSeed = call.value("to") == QLatin1String("seed");
        m_reset(toSeed);
        call.json(QJsonObject { { "reset", toSeed ? "seed" : "empty" } });
    });
    router.add("GET", "/__emu/outbox", EveryType, Access::Control,
        [this](HttpCall& call) { call.json(QJsonObject { { "messages", m_context.accounts.outbox() } }); });
    router.add("POST", "/__emu/approve", EveryType, Access::Control, [this](HttpCall& call) {
        // By the two-factor id, or the newest sign-in of a user (what a person at the
        // emulator knows).
        std::optional<Flow> flow = m_context.accounts.flow(call.value("tfa_id"), "tfa");
        if (!flow && call.has("user")) {
            const std::optional<User> user = m_context.accounts.userByName(call.value("user"));
            if (user)
                flow = m_context.accounts.newestFlow(user->id, "tfa");
        }
        if (!flow)
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no such two-factor sign-in"));
        m_context.accounts.setFlowState(flow->id, "approved");
        call.json(QJsonObject { { "approved", flow->id } });
    });
    router.add("GET", "/__emu/totp", EveryType, Access::Control, [this](HttpCall& call) {
        const std::optional<User> user = m_context.accounts.userByName(call.value("user"));
        if (!user)
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no such user"));
        call.json(QJsonObject { { "user", user->name }, { "secret", user->totpSecret },
            { "otp", Accounts::totp(user->totpSecret, QDateTime::currentSecsSinceEpoch()) } });
    });
    router.add("GET", "/__emu/links", EveryType, Access::Control,
        [this](HttpCall& call) { call.json(QJsonObject { { "links", DeliveryRoutes::links(m_context) } }); });
    router.add("POST", "/__emu/links", EveryType, Access::Control, [this](HttpCall& call) {
        const std::optional<User> owner = m_context.accounts.userByName(call.value("user"));
        if (!owner)
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no such user"));
        QString error;
        if (!DeliveryRoutes::createLink(m_context, call.value("code"), call.value("password"), owner->id,
                Drive::spaceOf(call.value("path_type"), owner->id), call.value("path"), &error))
            return call.error(400, QStringLiteral("invalid link"), error);
        call.json(QJsonObject { { "code", call.value("code") } });
    });
    router.add("GET", "/__emu/oplog", EveryType, Access::Control, [this](HttpCall& call) {
        QJsonArray records;
        m_context.db.run(false, [&] {
            Database::Statement st(m_context.db, "SELECT id, user_id, record, time FROM oplog ORDER BY id");
            while (st.next())
                records.append(QJsonObject { { "id", st.integer(0) }, { "uid", st.integer(1) },
                    { "record", QJsonDocument::fromJson(st.text(2).toUtf8()).object() }, { "time", st.integer(3) } });
            return true;
        });
        call.json(QJsonObject { { "records", records } });
    });
    router.add("GET", "/__emu/faults", EveryType, Access::Control,
        [this](HttpCall& call) { call.json(QJsonObject { { "faults", m_context.faults.rules() } }); });
    router.add("POST", "/__emu/faults", EveryType, Access::Control, [this](HttpCall& call) {
        if (call.value("clear") == QLatin1String("true"))
            m_context.faults.clear();
        for (const QString& text : call.values("rule")) {
            QString error;
            const std::optional<FaultRule> rule = FaultRule::parse(text, &error);
            if (!rule)
                return call.error(400, QStringLiteral("invalid fault"), error);
            m_context.faults.add(*rule);
        }
        call.json(QJsonObject { { "faults", m_context.faults.rules() } });
    });
    router.add("POST", "/__emu/tasks", EveryType, Access::Control, [this](HttpCall& call) {
        if (call.has("polls"))
            m_context.taskPolls = qMax(0, call.value("polls").toInt());
        QMutexLocker lock(&m_context.taskMutex);
        if (call.has("fail"))
            m_context.taskFailPattern = call.value("fail");
        call.json(QJsonObject { { "polls", m_context.taskPolls.load() }, { "fail", m_context.taskFailPattern } });
    });
}
