#include "PathFilter.h"

namespace {

// The expression of one pattern, without its anchoring.
QString translate(const QString& pattern)
{
    QString out;
    for (int i = 0; i < pattern.size(); ++i) {
        const QChar c = pattern.at(i);
        if (c == QLatin1Char('*') && pattern.mid(i, 2) == QLatin1String("**")) {
            const bool afterSlash = i == 0 || pattern.at(i - 1) == QLatin1Char('/');
            const bool beforeSlash = i + 2 == pattern.size() || pattern.at(i + 2) == QLatin1Char('/');
            if (afterSlash && beforeSlash && i + 2 < pattern.size()) {
                out += QStringLiteral("(?:.*/)?"); // "**/": any folders, or none
                i += 2;
            } else {
                out += QStringLiteral(".*");
                ++i;
            }
        } else if (c == QLatin1Char('*')) {
            out += QStringLiteral("[^/]*");
        } else if (c == QLatin1Char('?')) {
            out += QStringLiteral("[^/]");
        } else if (c == QLatin1Char('[')) {
            const int close = pattern.indexOf(QLatin1Char(']'), i + 2);
            if (close < 0) {
                out += QStringLiteral("\\[");
                continue;
            }
            QString set = pattern.mid(i + 1, close - i - 1);
            if (set.startsWith(QLatin1Char('!')))
                set[0] = QLatin1Char('^');
            set.replace(QLatin1String("\\"), QLatin1String("\\\\"));
            out += QLatin1Char('[') + set + QLatin1Char(']');
            i = close;
        } else if (c == QLatin1Char('\\') && i + 1 < pattern.size()) {
            out += QRegularExpression::escape(pattern.at(++i));
        } else {
            out += QRegularExpression::escape(c);
        }
    }
    return out;
}

} // namespace

bool PathFilter::add(const QString& given, bool include, QString* error)
{
    QString pattern = given;
    Rule rule;
    rule.include = include;
    rule.foldersOnly = pattern.endsWith(QLatin1Char('/'));
    while (pattern.endsWith(QLatin1Char('/')))
        pattern.chop(1);
    const bool anchored = pattern.contains(QLatin1Char('/'));
    while (pattern.startsWith(QLatin1Char('/')))
        pattern.remove(0, 1);
    if (pattern.isEmpty()) {
        *error = QStringLiteral("\"%1\" matches nothing: a pattern names files or folders").arg(given);
        return false;
    }
    rule.expression.setPattern(
        (anchored ? QStringLiteral("^") : QStringLiteral("(?:^|/)")) + translate(pattern) + QLatin1Char('$'));
    if (!rule.expression.isValid()) {
        *error = QStringLiteral("\"%1\" is no pattern (%2)").arg(given, rule.expression.errorString());
        return false;
    }
    rule.expression.optimize();
    m_rules.append(rule);
    return true;
}

int PathFilter::verdict(const QString& path, bool folder) const
{
    for (int i = m_rules.size() - 1; i >= 0; --i) {
        const Rule& rule = m_rules.at(i);
        if ((!rule.foldersOnly || folder) && rule.expression.match(path).hasMatch())
            return rule.include ? 1 : -1;
    }
    return 0;
}

PathFilter::Verdict PathFilter::of(const QString& path, bool folder) const
{
    if (m_rules.isEmpty())
        return Verdict::Taken;
    // A folder that is left out takes what is below it along; one that is included, too.
    bool inIncluded = false;
    for (int slash = path.indexOf(QLatin1Char('/')); slash > 0;
         slash = path.indexOf(QLatin1Char('/'), slash + 1)) {
        const int above = verdict(path.left(slash), true);
        if (above < 0)
            return Verdict::Left;
        inIncluded = inIncluded || above > 0;
    }
    const int own = verdict(path, folder);
    if (own != 0)
        return own > 0 ? Verdict::Taken : Verdict::Left;
    // Only what is included, when the first pattern is an --include.
    if (inIncluded || !m_rules.first().include)
        return Verdict::Taken;
    return folder ? Verdict::LookedInto : Verdict::Left;
}
