#include "ControlRoutes.h"

#include "Wire.h"

#include <QDateTime>
#include <QRegularExpression>

ControlRoutes::ControlRoutes(EmuContext& context, std::function<void(bool)> reset)
    : m_context(context)
    , m_reset(std::move(reset))
{
}

void ControlRoutes::install(Router& router)
{
    namespace Param = Wire::Control;
    router.add("GET", "/__emu/health", EveryType, Access::Control, [this](HttpCall& call) {
        QJsonArray users;
        for (const User& user : m_context.accounts.users())
            users.append(user.name);
        call.json(QJsonObject { { "ok", true }, { "type", int(m_context.options.type) },
            { "url", m_context.selfUrl }, { "users", users }, { "journal", m_context.drive.lastSeq() } });
    });
    router.add("POST", "/__emu/reset", EveryType, Access::Control, [this](HttpCall& call) {
        const QString to = call.value(Param::To);
        if (!to.isEmpty() && to != QLatin1String("empty") && to != QLatin1String("seed"))
            return call.error(400, QStringLiteral("invalid request"),
                QStringLiteral("\"to\" is empty or seed, not %1").arg(to));
        m_reset(to == QLatin1String("seed"));
        call.json(QJsonObject { { "reset", to == QLatin1String("seed") ? "seed" : "empty" } });
    });
    router.add("GET", "/__emu/outbox", EveryType, Access::Control, [this](HttpCall& call) {
        call.json(QJsonObject { { "messages", m_context.accounts.outbox() } });
    });
    router.add("POST", "/__emu/approve", EveryType, Access::Control, [this](HttpCall& call) {
        // By the two-factor id, or the newest sign-in of a user (what a person at the
        // emulator knows).
        std::optional<Flow> flow = m_context.accounts.flow(call.value(Param::TfaId), "tfa");
        if (!flow && call.has(Param::User)) {
            const std::optional<User> user = m_context.accounts.userByName(call.value(Param::User));
            if (user)
                flow = m_context.accounts.newestFlow(user->id, "tfa");
        }
        if (!flow)
            return call.error(
                404, QStringLiteral("source not found"), QStringLiteral("no such two-factor sign-in"));
        m_context.accounts.setFlowState(flow->id, "approved");
        call.json(QJsonObject { { "approved", flow->id } });
    });
    router.add("GET", "/__emu/totp", EveryType, Access::Control, [this](HttpCall& call) {
        const std::optional<User> user = m_context.accounts.userByName(call.value(Param::User));
        if (!user)
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no such user"));
        call.json(QJsonObject { { "user", user->name }, { "secret", user->totpSecret },
            { "otp", Accounts::totp(user->totpSecret, QDateTime::currentSecsSinceEpoch()) } });
    });
    router.add("GET", "/__emu/links", EveryType, Access::Control, [this](HttpCall& call) {
        call.json(QJsonObject { { "links", m_context.links.list() } });
    });
    router.add("POST", "/__emu/links", EveryType, Access::Control, [this](HttpCall& call) {
        const std::optional<User> owner = m_context.accounts.userByName(call.value(Param::User));
        if (!owner)
            return call.error(404, QStringLiteral("source not found"), QStringLiteral("no such user"));
        const std::optional<QString> space = Drive::spaceOf(call.value(Wire::PathType), owner->id);
        if (!space)
            return call.error(400, QStringLiteral("invalid path"), QStringLiteral("unknown path type"));
        QString error;
        if (!m_context.links.create(call.value(Param::Code), call.value(Wire::Password), owner->id, *space,
                call.value(Wire::Path), &error))
            return call.error(400, QStringLiteral("invalid link"), error);
        call.json(QJsonObject { { "code", call.value(Param::Code) } });
    });
    router.add("GET", "/__emu/oplog", EveryType, Access::Control, [this](HttpCall& call) {
        call.json(QJsonObject { { "records", m_context.oplog.records() } });
    });
    router.add("GET", "/__emu/faults", EveryType, Access::Control, [this](HttpCall& call) {
        call.json(QJsonObject { { "faults", m_context.faults.rules() } });
    });
    router.add("POST", "/__emu/faults", EveryType, Access::Control, [this](HttpCall& call) {
        // Every rule is checked before any is added.
        QList<FaultRule> rules;
        for (const QString& text : call.values(Param::Rule)) {
            QString error;
            const std::optional<FaultRule> rule = FaultRule::parse(text, &error);
            if (!rule)
                return call.error(400, QStringLiteral("invalid fault"), error);
            rules << *rule;
        }
        if (call.value(Param::Clear) == QLatin1String("true"))
            m_context.faults.clear();
        for (const FaultRule& rule : qAsConst(rules))
            m_context.faults.add(rule);
        call.json(QJsonObject { { "faults", m_context.faults.rules() } });
    });
    router.add("POST", "/__emu/tasks", EveryType, Access::Control, [this](HttpCall& call) {
        bool ok = true;
        const int polls = call.has(Param::Polls) ? call.value(Param::Polls).toInt(&ok) : 0;
        if (!ok || polls < 0)
            return call.error(
                400, QStringLiteral("invalid request"), QStringLiteral("\"polls\" is a number from 0"));
        if (call.has(Param::Fail) && !QRegularExpression(call.value(Param::Fail)).isValid())
            return call.error(
                400, QStringLiteral("invalid request"), QStringLiteral("\"fail\" is a regular expression"));
        if (call.has(Param::Polls))
            m_context.taskPolls = polls;
        const std::lock_guard lock(m_context.taskMutex);
        if (call.has(Param::Fail))
            m_context.taskFailPattern = call.value(Param::Fail);
        call.json(
            QJsonObject { { "polls", m_context.taskPolls.load() }, { "fail", m_context.taskFailPattern } });
    });
}
