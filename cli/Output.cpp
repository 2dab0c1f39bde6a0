#include "Output.h"

#include "Console.h"

Output::Output(Console& console)
    : m_console(console)
{
}

bool Output::json() const
{
    return m_console.json;
}

void Output::result(const QJsonObject& item, const QString& line)
{
    m_results.append(item);
    ++m_succeeded;
    if (!json())
        m_console.out(line);
}

void Output::done(QJsonObject item, const QString& line)
{
    item.insert("ok", true);
    m_results.append(item);
    ++m_succeeded;
    if (!json() && !m_console.quiet)
        m_console.out(line);
}

void Output::failed(QJsonObject item, const Failure& failure)
{
    item.insert("ok", false);
    item.insert("error", errorJson(failure));
    m_results.append(item);
    ++m_failed;
    if (!m_firstFailure)
        m_firstFailure = failure;
    m_console.error(failure.message);
}

void Output::stream(const QJsonObject& item, const QString& line)
{
    m_streamed = true;
    if (json())
        m_console.outJson(item);
    else
        m_console.out(line);
}

void Output::note(const QString& line)
{
    m_console.note(line);
}

QJsonObject Output::errorJson(const Failure& failure)
{
    return QJsonObject { { "code", failure.code }, { "message", failure.message },
        { "exit", int(failure.exit) } };
}

int Output::finish()
{
    if (m_failed == 0)
        return end(std::nullopt);
    if (m_succeeded == 0)
        return end(m_firstFailure);
    return end(Failure(Exit::Partial,
        QStringLiteral("%1 of %2 failed")
            .arg(QString::number(m_failed), QString::number(m_failed + m_succeeded))));
}

int Output::fail(const Failure& failure)
{
    m_console.error(failure.message);
    return end(failure);
}

int Output::end(const std::optional<Failure>& failure)
{
    const int exit = failure ? int(failure->exit) : 0;
    if (m_ended)
        return exit;
    m_ended = true;
    if (!json())
        return exit;
    if (m_streamed) {
        // A stream ends with a line of its own only when it failed.
        if (failure)
            m_console.outJson(
                QJsonObject { { "ok", false }, { "exit", exit }, { "error", errorJson(*failure) } });
        return exit;
    }
    QJsonObject document { { "command", m_command }, { "ok", !failure }, { "exit", exit },
        { "results", m_results } };
    if (failure)
        document.insert("error", errorJson(*failure));
    m_console.outJson(document);
    return exit;
}
