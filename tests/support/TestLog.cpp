#include "TestLog.h"

#include <QFile>
#include <QRegularExpression>
#include <QStandardPaths>

TestLog::TestLog()
{
    mark();
}

void TestLog::mark()
{
    m_offset = QFile(path()).size();
}

QString TestLog::path()
{
    // The test environment points XDG_DATA_HOME at a temporary folder; the logs sit
    // one level above the application's data folder.
    return qEnvironmentVariable("XDG_DATA_HOME") + QStringLiteral("/NimbraData/Log/Transfer.log");
}

QList<LogEntry> TestLog::entries() const
{
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    file.seek(m_offset);
    const QString text = QString::fromUtf8(file.readAll());

    static const QRegularExpression start(
        QStringLiteral(
            R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (FATAL|ERROR|WARN |INFO |DEBUG) \[([^\]]*)\]\[([^\]]*)\]\[(\d+)\]: )"),
        QRegularExpression::MultilineOption);
    QList<LogEntry> result;
    auto it = start.globalMatch(text);
    QList<QRegularExpressionMatch> matches;
    while (it.hasNext())
        matches.append(it.next());
    for (int i = 0; i < matches.size(); ++i) {
        const auto& m = matches.at(i);
        const int end = i + 1 < matches.size() ? matches.at(i + 1).capturedStart() : text.size();
        LogEntry entry;
        entry.level = m.captured(1).trimmed();
        entry.file = m.captured(2);
        entry.function = m.captured(3);
        entry.line = m.captured(4).toInt();
        // Every entry ends with the line feed the logger adds.
        entry.message = text.mid(m.capturedEnd(), end - m.capturedEnd() - 1);
        result.append(entry);
    }
    return result;
}

QStringList TestLog::messages() const
{
    QStringList result;
    for (const auto& e : entries())
        result.append(e.message);
    return result;
}

int TestLog::count(const QString& level, const QString& function, const QString& message) const
{
    int n = 0;
    for (const auto& e : entries()) {
        if (e.level == level && e.function == function && e.message == message)
            ++n;
    }
    return n;
}

const LogEntry* TestLog::find(const QString& message) const
{
    m_cache = entries();
    for (const auto& e : qAsConst(m_cache)) {
        if (e.message == message)
            return &e;
    }
    return nullptr;
}

QString TestLog::dump() const
{
    QString out;
    for (const auto& e : entries())
        out += QStringLiteral("%1 [%2][%3][%4]: %5\n")
                   .arg(e.level, e.file, e.function)
                   .arg(e.line)
                   .arg(e.message);
    return out;
}
