#include "Faults.h"

std::optional<FaultRule> FaultRule::parse(const QString& text, QString* error)
{
    FaultRule rule;
    rule.text = text;
    QString rest = text;
    // A probability follows the kind: an "@" before the last ":" belongs to the pattern.
    const int at = rest.lastIndexOf(QLatin1Char('@'));
    if (at > 0 && at > rest.lastIndexOf(QLatin1Char(':'))) {
        bool ok = false;
        rule.probability = rest.mid(at + 1).toDouble(&ok);
        if (!ok || !(rule.probability >= 0 && rule.probability <= 1)) {
            *error = QStringLiteral("bad probability in %1").arg(text);
            return std::nullopt;
        }
        rest = rest.left(at);
    }
    const int colon = rest.lastIndexOf(QLatin1Char(':'));
    if (colon <= 0) {
        *error = QStringLiteral("a fault reads PATTERN:KIND[=VALUE][@PROBABILITY], not %1").arg(text);
        return std::nullopt;
    }
    rule.pattern = QRegularExpression(rest.left(colon));
    if (!rule.pattern.isValid()) {
        *error = QStringLiteral("bad pattern in %1: %2").arg(text, rule.pattern.errorString());
        return std::nullopt;
    }
    const QString kind = rest.mid(colon + 1).section(QLatin1Char('='), 0, 0);
    const QString value = rest.mid(colon + 1).section(QLatin1Char('='), 1);
    static const QList<QPair<QString, Kind>> kinds { { "latency", Latency }, { "status", Status },
        { "retry-after", RetryAfter }, { "reset", Reset }, { "truncate", Truncate }, { "stall", Stall } };
    bool known = false;
    for (const auto& k : kinds) {
        if (k.first == kind) {
            rule.kind = k.second;
            known = true;
        }
    }
    if (!known) {
        *error
            = QStringLiteral("unknown fault kind %1 (latency, status, retry-after, reset, truncate, stall)")
                  .arg(kind);
        return std::nullopt;
    }
    bool ok = true;
    rule.value = value.isEmpty() ? (rule.kind == Stall ? 600
                         : rule.kind == Status         ? 500
                                                       : 0)
                                 : value.toInt(&ok);
    if (!ok || rule.value < 0) {
        *error = QStringLiteral("bad value in %1").arg(text);
        return std::nullopt;
    }
    if (rule.kind == Status && (rule.value < 200 || rule.value > 599)) {
        *error = QStringLiteral("a fault's status is from 200 to 599, not %1").arg(rule.value);
        return std::nullopt;
    }
    return rule;
}

FaultRule::Phase FaultRule::phase() const
{
    switch (kind) {
    case Latency:
        return Before;
    case Status:
    case RetryAfter:
        return Instead;
    default:
        return After;
    }
}

Faults::Faults(quint64 seed)
    : m_random(seed)
{
}

void Faults::reseed(quint64 seed)
{
    const std::lock_guard lock(m_mutex);
    m_random.seed(seed);
}

void Faults::add(const FaultRule& rule)
{
    const std::lock_guard lock(m_mutex);
    m_rules.append(rule);
}

void Faults::clear()
{
    const std::lock_guard lock(m_mutex);
    m_rules.clear();
}

QJsonArray Faults::rules() const
{
    const std::lock_guard lock(m_mutex);
    QJsonArray list;
    for (const FaultRule& rule : m_rules)
        list.append(rule.text);
    return list;
}

std::optional<FaultRule> Faults::pick(const QString& path)
{
    const std::lock_guard lock(m_mutex);
    for (const FaultRule& rule : qAsConst(m_rules)) {
        if (!rule.pattern.match(path).hasMatch())
            continue;
        const double draw = std::uniform_real_distribution<double>(0.0, 1.0)(m_random);
        if (draw < rule.probability)
            return rule;
    }
    return std::nullopt;
}
